// The platform layer in a library of its own, so that a test stands outside of what traces skip.
#include "platform.h"

using namespace k42mc;

static volatile int calls; // what is done after a call keeps it from being a jump

#pragma GCC visibility push(default)
extern "C" {
int shim_trace(void **frames, int most) {
    return platform::backtrace_skip(frames, most);
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

const char *shim_progname() {
    return platform::progname();
}

void shim_assertion_failed() {
    platform::assertion_failed("1 > 2", "some/file", 42, "some_function");
}
}
