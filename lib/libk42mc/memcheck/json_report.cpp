// The state of the registry as JSON, an object a line. It is summed up with gMCLock held, and written
// without.
#include "memcheck/json_report.h"

#include "base/json_output.h"
#include "base/printing.h"
#include "memcheck/control_lock.h"
#include "memcheck/snapshot.h"
#include "platform/platform.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <string.h>
#include <time.h>
#include <unistd.h>
#include <utility>

namespace k42mc::internal {
namespace {

void put_site_key(JsonOutput &out, const SiteKey &key) {
    out->print("\"file\":");
    out.string(key.file);
    out->print(",\"line\":%d,\"type\":\"%s\",", key.line, gAllocatorType[key.type]);
}

void put_trace_of(JsonOutput &out, const SiteKey &key) {
    out.chain("chain", key.trace(), key.outer_trace());
    if (key.is_cut())
        out->print(",\"cut\":true");
}

void put_cycle(JsonOutput &out, const Snapshot &state, uint32_t limit, bool searched) {
    out->print("{\"format\":%u,\"kind\":\"cycle\",\"program\":", JsonOutput::version);
    out.string(platform::progname());
    out->print(",\"pid\":%d,\"time\":%lld,\"width\":%zu,\"cycle\":%u,\"limit\":%u,", getpid(),
               static_cast<long long>(time(nullptr)), 8 * sizeof(void *), state.cycle, limit);
    out->print("\"blocks\":%llu,\"bytes\":%llu,\"allocated\":{\"blocks\":%llu,\"bytes\":%llu},"
               "\"freed\":{\"blocks\":%llu,\"bytes\":%llu}%s}\n",
               state.live.count, state.live.bytes, state.allocated.count, state.allocated.bytes,
               state.freed.count, state.freed.bytes, searched ? ",\"searched\":true" : "");
}

void put_counter(JsonOutput &out, const char *name, const MCCounter &counter) {
    out->print(",\"%s\":{\"blocks\":%llu,\"bytes\":%llu}", name, counter.count, counter.bytes);
}

void put_link(JsonOutput &out, const HeldLink &link) {
    put_site_key(out, link.key);
    put_trace_of(out, link.key);
    out->print(",\"size\":%zu,\"offset\":%" PRIuPTR, link.size, link.offset);
}

void put_holders(JsonOutput &out, const HeldSite &holders, std::span<const HeldLink> links) {
    const char *separator = "";
    out->print(",\"held_by\":{\"roots\":[");
    for (const Holder &holder : std::span(holders.holders).first(holders.holder_count)) {
        out->print("%s{\"root\":", std::exchange(separator, ","));
        out.string(holder.root);
        out->print(",\"blocks\":%llu,\"bytes\":%llu}", holder.held.count, holder.held.bytes);
    }
    out->print("]");
    if (holders.others.count != 0)
        put_counter(out, "others", holders.others);
    out->print(",\"path\":[");
    separator = "";
    for (const HeldLink &link : links) {
        out->print("%s{", std::exchange(separator, ","));
        if (link.key.file != nullptr)
            put_link(out, link);
        out->print("}");
    }
    out->print("],\"left_out\":%zu}", holders.left_out);
}

void put_site(JsonOutput &out, const SiteSummary &site, const Snapshot &state, bool searched) {
    const uint32_t cycle = state.cycle;
    out->print("{\"kind\":\"site\",\"cycle\":%u,", cycle);
    put_site_key(out, site.key);
    put_trace_of(out, site.key);
    out->print(",\"blocks\":%llu,\"bytes\":%llu,\"oldest\":%u,\"largest\":%zu", site.held.count,
               site.held.bytes, site.oldest, site.largest);
    put_counter(out, "allocations", site.allocated);
    put_counter(out, "temporary", site.temporary);
    if (searched) {
        put_counter(out, "lost", site.lost);
        put_counter(out, "indirect", site.indirectly_lost);
    }
    if (site.holders != nullptr)
        put_holders(out, *site.holders, state.links(site));
    out->print("}\n");
}

void put_damage(JsonOutput &out, const DamagedBlock &block, uint32_t cycle) {
    out->print("{\"kind\":\"damage\",\"cycle\":%u,\"defect\":\"%s\",", cycle,
               k42mc_defect_desc[block.defect]);
    put_site_key(out, block.key);
    out->print("\"address\":\"0x%" PRIXPTR "\",\"size\":%zu,\"cycles\":%u,", block.address, block.size,
               block.age);
    put_trace_of(out, block.key);
    out->print("}\n");
}

void put_unlisted(JsonOutput &out, const Snapshot &state) {
    out->print(",\"unlisted\":{\"allocations\":{\"blocks\":%llu,\"bytes\":%llu}",
               state.unlisted_allocated.count, state.unlisted_allocated.bytes);
    put_counter(out, "temporary", state.unlisted_temporary);
    out->print("}");
}

int write_snapshot(int descriptor, const Snapshot &state, uint32_t limit, bool searched) {
    JsonOutput out(descriptor);
    put_cycle(out, state, limit, searched);
    for (const SiteSummary &site : state.sites())
        put_site(out, site, state, searched);
    for (const DamagedBlock &block : state.damaged())
        put_damage(out, block, state.cycle);
    out->print("{\"kind\":\"end\",\"sites\":%zu,\"damaged\":%zu", state.sites().size(),
               state.damaged().size());
    if (state.unlisted_allocated.count != 0)
        put_unlisted(out, state);
    out->print("}\n");
    return out->flush();
}

// Returns 0 or what went wrong.
int take_snapshot(Snapshot &state, uint32_t limit, const LostBlocks *lost) {
    static constexpr const char *name = "k42mcx_report_json";
    const ControlLock lock(name);
    if (!lock)
        return EINVAL;
    if (!registry_exists()) {
        say_not_initialized(name);
        return EINVAL;
    }
    return state.take(limit, lost) ? 0 : ENOMEM;
}

} // namespace

int report_json(int descriptor, uint32_t limit, const LostBlocks *lost) {
    if (fcntl(descriptor, F_GETFD) < 0)
        return -1;
    const Printing printing;
    Snapshot state;
    int failure = take_snapshot(state, limit, lost);
    if (failure == 0)
        failure = write_snapshot(descriptor, state, limit, lost != nullptr);
    if (failure == 0)
        return 0;
    state.release();
    errno = failure;
    return -1;
}

[[gnu::noinline]] int search_and_report_json(int descriptor, uint32_t limit) {
    static constexpr const char *name = "k42mcx_report_json";
    LostBlocks lost;
    const char *const obstacle =
        lost.search(name, Caller::here(), limit, LostBlocks::Wanted::lost_and_holders);
    if (obstacle != nullptr)
        StandardErrorText()->print("%s: ERROR: no search for lost blocks: %s\n", name, obstacle);
    return report_json(descriptor, limit, obstacle == nullptr ? &lost : nullptr);
}

} // namespace k42mc::internal

int k42mcx_report_json(int fd, uint32_t limit) {
    return k42mc::internal::report_json(fd, limit, nullptr);
}

K42MC_EXPORT(k42mcx_report_json);
