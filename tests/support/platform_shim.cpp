// The platform layer in a library of its own, so that a test stands outside of what traces skip.
#include "platform/cfi.h"
#include "platform/cfi_expression.h"
#include "platform/definition.h"
#include "platform/platform.h"

#include <algorithm>
#include <atomic>
#include <dlfcn.h>
#include <iterator>

using namespace k42mc::internal;

static std::atomic<int> calls; // what is done after a call keeps it from being a jump

// Two of the library's own frames, as below most calls of an allocator.
[[gnu::noinline]] static int trace(void **frames, int most) {
    const int count = platform::backtrace_skip(frames, most);
    calls = calls + 1;
    return count;
}

#pragma GCC visibility push(default)
extern "C" {
int shim_trace(void **frames, int most) {
    const int count = trace(frames, most);
    calls = calls + 1;
    return count;
}

// The parts of its mark are all 0 where it is not known.
int shim_marked_trace(void **frames, int most, uint64_t (&parts)[3]) {
    platform::TraceMark mark;
    const int count = platform::backtrace_skip(frames, most, mark);
    std::copy(std::begin(mark.parts), std::end(mark.parts), parts);
    calls = calls + 1;
    return count;
}

// A hook: the trace is taken below the library's frames.
void shim_call(void (*hook)()) {
    hook();
    calls = calls + 1;
}

void shim_symbols(void *const *frames, int count, int descriptor) {
    platform::backtrace_symbols_fd(frames, count, descriptor);
}

int shim_readable(const void *address, size_t size) {
    return platform::readable(address, size);
}

// How far a table at an address in a copy of a module leads for pc: an entry, what it says, rules.
int shim_follow(uintptr_t module_begin, uintptr_t module_end, uintptr_t address, uintptr_t pc) {
    using namespace platform;
    using How = RegisterRule::How;
    const FrameTable table = {module_begin, module_end, nullptr, address};
    uint32_t index;
    FrameInfo info;
    FrameRules rules;
    if (!find_frame_entry(table, pc, index))
        return 0;
    if (!read_frame_info(table, index, pc, info))
        return 1;
    if (!rules_at(info, pc, rules))
        return 2;
    const Registers registers = {};
    uintptr_t result;
    if (rules.address_by_expression)
        evaluate(info, rules.address_expression, registers, stack_of(0), nullptr, result);
    for (const RegisterRule &rule : rules.registers)
        if (rule.how == How::at_expression || rule.how == How::is_expression)
            evaluate(info, rule.value, registers, stack_of(0), &result, result);
    return 3;
}

int shim_place_of(const void *address) {
    return static_cast<int>(platform::place_of(address));
}

bool shim_is_on_stack_of(pthread_t thread, uint32_t number, const void *address) {
    return platform::is_on_stack_of(thread, number, reinterpret_cast<uintptr_t>(address));
}

void *shim_next_definition(const char *name) {
    return platform::next_definition(name);
}

void *shim_next_by_loader(const char *name) {
    void *const found = dlsym(RTLD_NEXT, name);
    calls = calls + 1; // the loader takes from the return address whose next is meant
    return found;
}

const char *shim_progname() {
    return platform::progname();
}

void shim_assertion_failed() {
    platform::assertion_failed("1 > 2", "some/file", 42, "some_function");
}
}
