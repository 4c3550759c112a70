#include "platform.h"

#include "unsanitized.h"

#include <cerrno>
#include <cstdint>

#include <unwind.h>

// Where this library begins and where its code ends, from the linker: known without a look-up.
extern "C" {
[[gnu::visibility("hidden")]] extern const char __ehdr_start[];
[[gnu::visibility("hidden")]] extern const char etext[];
}

namespace k42mc::platform {
namespace {

struct Walk {
    void **frames;
    int most;
    int count;
    uintptr_t frame_address;
    bool inside; // still in the leading run of the library's own frames
};

// A return address lies behind its call: the last one may be the end of the code itself.
K42MC_UNSANITIZED bool is_own(uintptr_t return_address) {
    return return_address > reinterpret_cast<uintptr_t>(__ehdr_start) &&
           return_address <= reinterpret_cast<uintptr_t>(etext);
}

K42MC_UNSANITIZED _Unwind_Reason_Code visit_frame(_Unwind_Context *context, void *argument) {
    Walk &walk = *static_cast<Walk *>(argument);
    int interrupted = 0;
    const uintptr_t address = _Unwind_GetIPInfo(context, &interrupted);
    const uintptr_t frame_address = _Unwind_GetCFA(context);
    // Callers lie higher, or the stack is damaged; only a signal handler may run on another stack.
    if (address == 0 || (frame_address <= walk.frame_address && !interrupted))
        return _URC_END_OF_STACK;
    walk.frame_address = frame_address;
    walk.inside = walk.inside && is_own(address);
    if (walk.inside)
        return _URC_NO_REASON;
    walk.frames[walk.count++] = reinterpret_cast<void *>(address);
    return walk.count < walk.most ? _URC_NO_REASON : _URC_END_OF_STACK;
}

} // namespace

K42MC_UNSANITIZED int backtrace_skip(void **frames, int most) {
    if (most <= 0)
        return 0;
    const int kept_errno = errno;
    Walk walk = {frames, most, 0, 0, true};
    _Unwind_Backtrace(visit_frame, &walk);
    errno = kept_errno;
    return walk.count;
}

} // namespace k42mc::platform
