// The ways to take a trace, behind one door, in a library of their own as the checker is.
#include "walkers.h"

#include "platform/platform.h"

#include <execinfo.h>
#include <unwind.h>

namespace {

uintptr_t stack_end;

struct Collected {
    void **frames;
    int most, count;
};

_Unwind_Reason_Code collect(_Unwind_Context *context, void *argument) {
    auto &collected = *static_cast<Collected *>(argument);
    collected.frames[collected.count++] = reinterpret_cast<void *>(_Unwind_GetIP(context));
    return collected.count < collected.most ? _URC_NO_REASON : _URC_END_OF_STACK;
}

} // namespace

int walk_nothing(void **, int) {
    __asm__ volatile("");
    return 0;
}

int walk_ours(void **frames, int most) {
    return k42mc::internal::platform::backtrace_skip(frames, most);
}

// The least that a walk can be: by frame pointers, each checked against the end of the stack.
int walk_pointers(void **frames, int most) {
    auto *frame = static_cast<void **>(__builtin_frame_address(0));
    int count = 0;
    while (count < most) {
        frames[count++] = frame[1];
        auto *const next = static_cast<void **>(*frame);
        if (next <= frame || reinterpret_cast<uintptr_t>(next) >= stack_end - 2 * sizeof(void *))
            break;
        frame = next;
    }
    return count;
}

int walk_libc(void **frames, int most) {
    return backtrace(frames, most);
}

int walk_compiler(void **frames, int most) {
    Collected collected = {frames, most, 0};
    _Unwind_Backtrace(collect, &collected);
    return collected.count;
}

void set_stack_end(void *end) {
    stack_end = reinterpret_cast<uintptr_t>(end);
}
