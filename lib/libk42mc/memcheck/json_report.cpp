// The state of the registry as JSON, an object a line. It is summed up with gMCLock held, and written
// without.
#include "memcheck/control_lock.h"
#include "memcheck/snapshot.h"
#include "platform/platform.h"
#include "printing.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <limits.h>
#include <stdarg.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

namespace k42mc {
namespace {

// Bytes on their way to a descriptor. The first failure is kept, and nothing is written after it.
class Output {
public:
    explicit Output(int descriptor) : descriptor_(descriptor) {}

    void put(const char *bytes, size_t size) {
        for (; size > 0; --size) {
            if (length_ == sizeof buffer_)
                flush();
            buffer_[length_++] = *bytes++;
        }
    }

    [[gnu::format(printf, 2, 3)]] void print(const char *format, ...) {
        char text[512];
        va_list arguments;
        va_start(arguments, format);
        const int length = vsnprintf(text, sizeof text, format, arguments);
        va_end(arguments);
        put(text, static_cast<size_t>(length));
    }

    // Returns 0 or what went wrong.
    int flush() {
        size_t done = 0;
        while (failure_ == 0 && done < length_) {
            const ssize_t written = write(descriptor_, buffer_ + done, length_ - done);
            if (written >= 0)
                done += static_cast<size_t>(written);
            else if (errno != EINTR)
                failure_ = errno;
        }
        length_ = 0;
        return failure_;
    }

private:
    const int descriptor_;
    int failure_ = 0;
    size_t length_ = 0;
    char buffer_[4096] = {};
};

// The length of the well-formed UTF-8 character there, 0 for none.
size_t character_length(const unsigned char *at, size_t room) {
    if (at[0] < 0x80)
        return 1;
    const size_t length = at[0] >= 0xf0 ? 4 : at[0] >= 0xe0 ? 3 : 2;
    if (at[0] < 0xc2 || at[0] > 0xf4 || length > room)
        return 0;
    for (size_t i = 1; i < length; ++i) {
        if ((at[i] & 0xc0) != 0x80)
            return 0;
    }
    // Overlong forms, surrogates, and what lies beyond the last character.
    const bool well_formed = (at[0] != 0xe0 || at[1] >= 0xa0) && (at[0] != 0xed || at[1] < 0xa0) &&
                             (at[0] != 0xf0 || at[1] >= 0x90) && (at[0] != 0xf4 || at[1] < 0x90);
    return well_formed ? length : 0;
}

void put_string(Output &out, const char *text, size_t size) {
    const auto *bytes = reinterpret_cast<const unsigned char *>(text);
    out.put("\"", 1);
    for (size_t i = 0; i < size;) {
        const size_t length = character_length(bytes + i, size - i);
        if (length == 0)
            out.print("\\ufffd");
        else if (bytes[i] < 0x20)
            out.print("\\u%04x", unsigned{bytes[i]});
        else if (bytes[i] == '"' || bytes[i] == '\\')
            out.print("\\%c", bytes[i]);
        else
            out.put(text + i, length);
        i += length != 0 ? length : 1;
    }
    out.put("\"", 1);
}

void put_frame(Output &out, const void *frame) {
    char place[PATH_MAX + 32];
    uintptr_t offset = 0;
    size_t length = platform::module_place(frame, std::span(place, PATH_MAX), offset);
    if (length == 0)
        offset = reinterpret_cast<uintptr_t>(frame);
    length += static_cast<size_t>(snprintf(place + length, sizeof place - length, "%s0x%" PRIxPTR,
                                           length != 0 ? "+" : "", offset));
    put_string(out, place, length);
}

void put_chain(Output &out, const CallChain &chain) {
    out.print("\"chain\":[");
    for (uint32_t i = 0; i < chain.count; ++i) {
        if (i > 0)
            out.print(",");
        put_frame(out, chain.frames[i]);
    }
    out.print("]");
}

void put_origin(Output &out, const Origin &origin) {
    out.print("\"file\":");
    put_string(out, origin.file, strlen(origin.file));
    out.print(",\"line\":%d,\"type\":\"%s\",", origin.line, gAllocatorType[origin.type]);
}

void put_cycle(Output &out, const Snapshot &state, uint32_t limit) {
    out.print("{\"kind\":\"cycle\",\"program\":");
    put_string(out, platform::progname(), strlen(platform::progname()));
    out.print(",\"pid\":%d,\"time\":%lld,\"width\":%zu,\"cycle\":%u,\"limit\":%u,", getpid(),
              static_cast<long long>(time(nullptr)), 8 * sizeof(void *), state.cycle, limit);
    out.print("\"blocks\":%llu,\"bytes\":%llu,\"allocated\":{\"blocks\":%llu,\"bytes\":%llu},"
              "\"freed\":{\"blocks\":%llu,\"bytes\":%llu}}\n",
              state.live.count, state.live.bytes, state.allocated.count, state.allocated.bytes,
              state.freed.count, state.freed.bytes);
}

void put_site(Output &out, const AllocationSite &site, uint32_t cycle) {
    out.print("{\"kind\":\"site\",\"cycle\":%u,", cycle);
    put_origin(out, site.origin);
    put_chain(out, site.origin.chain);
    out.print(",\"blocks\":%llu,\"bytes\":%llu,\"oldest\":%u,\"largest\":%zu}\n", site.held.count,
              site.held.bytes, site.oldest, site.largest);
}

void put_damage(Output &out, const DamagedBlock &block, uint32_t cycle) {
    out.print("{\"kind\":\"damage\",\"cycle\":%u,\"defect\":\"%s\",", cycle,
              k42mc_defect_desc[block.defect]);
    put_origin(out, block.origin);
    out.print("\"address\":\"0x%" PRIXPTR "\",\"size\":%zu,\"cycles\":%u,", block.address, block.size,
              block.cycles);
    put_chain(out, block.origin.chain);
    out.print("}\n");
}

int write_snapshot(int descriptor, const Snapshot &state, uint32_t limit) {
    Output out(descriptor);
    put_cycle(out, state, limit);
    for (const AllocationSite &site : state.sites())
        put_site(out, site, state.cycle);
    for (const DamagedBlock &block : state.damaged())
        put_damage(out, block, state.cycle);
    out.print("{\"kind\":\"end\",\"sites\":%zu,\"damaged\":%zu}\n", state.sites().size(),
              state.damaged().size());
    return out.flush();
}

// Returns 0 or what went wrong.
int take_snapshot(Snapshot &state, uint32_t limit) {
    static constexpr const char *name = "k42mcx_report_json";
    const ControlLock lock(name);
    if (!lock)
        return EINVAL;
    if (gMCTree == nullptr) {
        say_not_initialized(name);
        return EINVAL;
    }
    return state.take(limit) ? 0 : ENOMEM;
}

} // namespace
} // namespace k42mc

using namespace k42mc;

int k42mcx_report_json(int fd, uint32_t limit) {
    if (fcntl(fd, F_GETFD) < 0)
        return -1;
    const Printing printing;
    Snapshot state;
    int failure = take_snapshot(state, limit);
    if (failure == 0)
        failure = write_snapshot(fd, state, limit);
    if (failure == 0)
        return 0;
    state.release();
    errno = failure;
    return -1;
}

K42MC_EXPORT(k42mcx_report_json);
