#include "platform/guarded_copy.h"

#include "platform/signal_action.h"
#include "platform/unsanitized.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace k42mc::internal::platform {
namespace {

// Where to go on at a fault; null while nothing is copied.
constinit thread_local void **resumption = nullptr;

constinit SignalAction former_fault = {}, former_bus_error = {};

// One that nobody handles comes again, once things are as they were.
void leave(int signo, siginfo_t *info, void *context) {
    if (resumption != nullptr)
        __builtin_longjmp(resumption, 1);
    const SignalAction &former = signo == SIGBUS ? former_bus_error : former_fault;
    if (former.is_function())
        former.call(signo, info, context);
    else
        set_action(signo, former);
}

// Of a few words, most of the time goes into starting such an instruction.
[[gnu::noinline]] K42MC_UNSANITIZED void copy_bytes(void *to, uintptr_t from, size_t size) {
    constexpr size_t word = sizeof(uintptr_t), few = 4 * word;
    auto *bytes = static_cast<char *>(to);
    for (; size >= word && size <= few; size -= word, from += word, bytes += word) {
        uintptr_t value;
        __asm__ volatile("mov %1, %0" : "=r"(value) : "m"(*reinterpret_cast<const uintptr_t *>(from)));
        __builtin_memcpy(bytes, &value, word);
    }
    to = bytes;
    __asm__ volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(size) : : "memory");
}

} // namespace

// The handler is not left in the usual way, so that the signals have to be let in all the time. To a thread that blocks
// them a fault is the end.
GuardedCopies::GuardedCopies() {
    constexpr unsigned long flags = SA_NODEFER | SA_ONSTACK;
    constexpr uint64_t faults = uint64_t{1} << (SIGSEGV - 1) | uint64_t{1} << (SIGBUS - 1);
    is_set_ = syscall(SYS_rt_sigprocmask, SIG_UNBLOCK, &faults, &former_mask_, sizeof faults) == 0 &&
              set_handler(SIGSEGV, leave, flags, 0, former_fault) &&
              set_handler(SIGBUS, leave, flags, 0, former_bus_error);
}

GuardedCopies::~GuardedCopies() {
    if (!is_set_)
        return;
    set_action(SIGSEGV, former_fault);
    set_action(SIGBUS, former_bus_error);
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &former_mask_, nullptr, sizeof former_mask_);
}

bool GuardedCopies::copy(uintptr_t from, void *to, size_t size) {
    void *place[5];
    if (!is_set_)
        return false;
    if (__builtin_setjmp(place) != 0) {
        resumption = nullptr;
        return false;
    }
    resumption = place;
    copy_bytes(to, from, size);
    resumption = nullptr;
    return true;
}

} // namespace k42mc::internal::platform
