#include "base/printing.h"
#include "memcheck/block_line.h"
#include "memcheck/control_lock.h"
#include "memcheck/reach/chain.h"
#include "memcheck/reach/findings.h"
#include "memcheck/reach/inspection.h"
#include "memcheck/sink.h"

namespace k42mc::internal {
namespace {

constexpr const char *function_name = "k42mcx_why";

// ---- What is printed ----

struct Name {
    char text[512];
    size_t length;

    explicit operator bool() const { return length != 0; }
    int width() const { return static_cast<int>(length); }
};

Name name_of_function(uintptr_t place) {
    Name name;
    name.length = place == 0 ? 0 : platform::function_name(reinterpret_cast<void *>(place), name.text);
    return name;
}

Name name_of_variable(uintptr_t at) {
    Name name;
    name.length = platform::variable_name(reinterpret_cast<void *>(at), name.text);
    return name;
}

// The last part of its path. The offset is that of the byte ahead of what is asked for.
Name module_at(uintptr_t at, uintptr_t &offset) {
    char path[4096];
    Name name;
    const size_t length = platform::module_place(reinterpret_cast<void *>(at + 1), path, offset);
    const auto *const slash = static_cast<const char *>(memrchr(path, '/', length));
    const char *const last = slash == nullptr ? path : slash + 1;
    name.length = std::min(sizeof name.text, static_cast<size_t>(path + length - last));
    memcpy(name.text, last, name.length);
    return name;
}

void put_thread(TextOutput &out, uint32_t thread) {
    if (thread == 0)
        out.put("this thread");
    else
        out.print("thread %u", thread);
}

void put_memory(TextOutput &out, const Root &root) {
    uintptr_t offset = 0;
    if (const Name module = module_at(root.at, offset)) {
        if (const Name variable = name_of_variable(root.at))
            out.print("variable `%.*s` in ", variable.width(), variable.text);
        out.print("%.*s+0x%lx", module.width(), module.text, static_cast<unsigned long>(offset - 1));
    } else {
        out.print("memory at 0x%lX in a mapping of %zu KiB", static_cast<unsigned long>(root.at),
                  root.mapping_bytes >> 10);
    }
}

void put_root(TextOutput &out, const Root &root) {
    switch (root.kind) {
    case Root::Kind::memory:
        return put_memory(out, root);
    case Root::Kind::stack:
        out.put("stack of ");
        put_thread(out, root.thread);
        if (const Name function = name_of_function(root.frame))
            out.print(", frame `%.*s`", function.width(), function.text);
        return;
    case Root::Kind::thread_local_memory:
        out.put("thread-local memory of ");
        return put_thread(out, root.thread);
    case Root::Kind::one_register:
        out.print("%s of ", root.register_name);
        return put_thread(out, root.thread);
    case Root::Kind::handed:
        return out.put("data of an epoll instance, or the value of a timer,");
    case Root::Kind::kept:
        return out.put("the program, which has asked to keep it,");
    case Root::Kind::moving:
        return out.put("a thread that is moving it");
    }
}

// Of a long chain, both ends.
void put_links(TextOutput &out, const Chain &chain) {
    constexpr size_t most_at_end = 16;
    for (size_t i = 0; i < chain.count; ++i) {
        if (i == most_at_end && chain.count > 2 * most_at_end) {
            out.print("... %zu more blocks ...\n", chain.count - 2 * most_at_end);
            i = chain.count - most_at_end;
        }
        const Link &link = chain.links[i];
        const Record &record = record_at(link.number);
        if (record.order() != link.order)
            out.put("a block that has been released since\n");
        else
            put_block(out, RecordedBlock(record, gMCCycle), chain.is_held ? "HB" : "LB");
        if (i + 1 < chain.count)
            out.print("  from its byte %lu on: leads to\n", static_cast<unsigned long>(link.offset));
    }
}

void put_chain(TextOutput &out, const Chain &chain) {
    if (chain.is_held) {
        put_root(out, chain.root);
        out.put(" leads to\n");
    } else {
        out.put("Nothing that is held leads to\n");
    }
    put_links(out, chain);
    const Link &last = chain.links[chain.count - 1];
    if (const Record &record = record_at(last.number); record.order() == last.order)
        put_allocation_trace(out, RecordedBlock(record, gMCCycle).site.trace());
}

// ---- The search ----

const char *search(const Caller &caller, uintptr_t address, Findings<Chain> &chain) {
    auto is_needed = [&] { return chain.make(); };
    auto look = [&](const Moment &moment) {
        Search search(moment, Search::Note::origins);
        if (search.run())
            find_chain(search, moment, address, *chain);
    };
    const char *const obstacle = inspect(function_name, caller, is_needed, look);
    if (obstacle != nullptr)
        return obstacle;
    if (!chain || !chain->is_complete)
        return Search::no_result;
    return chain->is_recorded ? nullptr : "no recorded block is there";
}

// Apart, so that nothing of it lies on the part of the stack that counts as the caller's.
[[gnu::noinline]] int report_why(const Caller &caller, uintptr_t address) {
    Findings<Chain> chain;
    const char *obstacle = search(caller, address, chain);
    if (obstacle == nullptr) {
        const ControlLock lock(function_name);
        if (lock && chain.are_current()) {
            put_chain(*SinkText(), *chain);
            return chain->is_held ? 0 : 1;
        }
        obstacle = "MC has been switched off meanwhile";
    }
    StandardErrorText()->print("%s: ERROR: %s\n", function_name, obstacle);
    return -1;
}

} // namespace
} // namespace k42mc::internal

// The address that is asked for must not hold its block.
int k42mcx_why(const void *address) {
    using namespace k42mc::internal;
    Caller caller = Caller::here();
    caller.step_out();
    const int held = report_why(caller, reinterpret_cast<uintptr_t>(address));
    platform::clear_unused_stack();
    return held;
}

K42MC_EXPORT(k42mcx_why);
