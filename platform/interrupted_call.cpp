#include "platform/interrupted_call.h"

#include "platform/proc_file.h"

#include <algorithm>
#include <cerrno>

#include <signal.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

namespace k42mc::internal::platform {
namespace {

#if defined(__x86_64__)
constexpr int place_register = REG_RIP, stack_register = REG_RSP, result_register = REG_RAX;
constexpr int arguments[] = {REG_RDI, REG_RSI, REG_RDX, REG_R10};
#else
constexpr int place_register = REG_EIP, stack_register = REG_ESP, result_register = REG_EAX;
constexpr int arguments[] = {REG_EBX, REG_ECX, REG_EDX, REG_ESI};
#endif

// Calls that end with EINTR after a handler whatever its flags say, or because a time was set for their socket, and that
// have done nothing then.
constexpr long waits[] = {
    SYS_poll,        SYS_ppoll,         SYS_pselect6,        SYS_select,       SYS_epoll_wait,
    SYS_epoll_pwait, SYS_epoll_pwait2,  SYS_futex,           SYS_nanosleep,    SYS_clock_nanosleep,
    SYS_pause,       SYS_rt_sigsuspend, SYS_rt_sigtimedwait, SYS_io_getevents, SYS_io_uring_enter,
    SYS_read,        SYS_readv,         SYS_write,           SYS_writev,       SYS_recvfrom,
    SYS_recvmsg,     SYS_recvmmsg,      SYS_sendto,          SYS_sendmsg,      SYS_accept4,
#if defined(__x86_64__)
    SYS_accept,      SYS_semop,         SYS_semtimedop,      SYS_msgrcv,       SYS_msgsnd,
#else
    SYS__newselect,  SYS_ipc,         SYS_socketcall,      SYS_ppoll_time64,    SYS_pselect6_time64,
    SYS_futex_time64, SYS_clock_nanosleep_time64, SYS_rt_sigtimedwait_time64, SYS_semtimedop_time64,
    SYS_recvmmsg_time64,
#endif
};

constexpr uintptr_t call_length = 2; // of the instruction

// A relative time to sleep, and where the system puts what is left of it.
struct Sleep {
    int time, rest;
};

// Room for the rest of a sleep that the program does not ask for, in any form of it.
constinit thread_local int64_t own_rest[2] = {};

bool is_sleep(const greg_t *registers, long call, Sleep &sleep) {
    if (call == SYS_nanosleep) {
        sleep = {arguments[0], arguments[1]};
        return true;
    }
#if defined(__i386__)
    if (call == SYS_clock_nanosleep_time64)
        call = SYS_clock_nanosleep;
#endif
    sleep = {arguments[2], arguments[3]};
    return call == SYS_clock_nanosleep && (registers[arguments[1]] & TIMER_ABSTIME) == 0;
}

// Where no rest was asked for, the sleep begins anew the first time, and takes up to twice its time. From then on the
// rest is known.
void sleep_for_rest(greg_t &time, greg_t &rest) {
    if (rest != 0)
        time = rest;
    else
        rest = reinterpret_cast<greg_t>(own_rest);
}

// A number of milliseconds in the lower half of a register. What is in the upper half tells a wait that was resumed from
// a new one, and the system does not look at it. The first time, such a wait begins anew, too.
#if defined(__x86_64__)
constinit thread_local int64_t end_of_wait = 0; // in nanoseconds

void wait_for_rest(greg_t &milliseconds) {
    constexpr int64_t millisecond = 1'000'000, was_resumed = 0x6b34326d;
    const int64_t rest = static_cast<int32_t>(milliseconds);
    if (rest <= 0)
        return;
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    const int64_t now = time.tv_sec * 1'000 * millisecond + time.tv_nsec;
    if (milliseconds >> 32 != was_resumed)
        end_of_wait = now + rest * millisecond;
    const int64_t left =
        std::clamp((end_of_wait - now + millisecond - 1) / millisecond, int64_t{0}, rest);
    milliseconds = was_resumed << 32 | left;
}

void shorten_wait(greg_t *registers, long call) {
    if (call == SYS_poll)
        wait_for_rest(registers[arguments[2]]);
    else if (call == SYS_epoll_wait || call == SYS_epoll_pwait)
        wait_for_rest(registers[arguments[3]]);
}
#else // there is no such half
void shorten_wait(greg_t *, long) {}
#endif

const unsigned char *bytes_at(uintptr_t place) {
    return reinterpret_cast<const unsigned char *>(place); // NOLINT(performance-no-int-to-ptr)
}

// "syscall", "int $0x80"
bool is_call(uintptr_t place) {
    const unsigned char *bytes = bytes_at(place);
    return (bytes[0] == 0x0f && bytes[1] == 0x05) || (bytes[0] == 0xcd && bytes[1] == 0x80);
}

// Of a call that the thread was not in yet when it was looked at, or that the system goes on with under another number
// since it was interrupted before: what libc puts into the register just ahead of it.
long number_ahead_of(uintptr_t place) {
    constexpr uintptr_t length = 5; // "mov $number, %eax"
    int32_t number;
    if (bytes_at(place - length)[0] != 0xb8)
        return -1;
    __builtin_memcpy(&number, bytes_at(place - length + 1), sizeof number);
    return number;
}

// A signal that the thread is about to get ends its call anyway.
bool expects_signal(const ucontext_t &context) {
    uint64_t pending = 0;
    uint64_t blocked;
    __builtin_memcpy(&blocked, &context.uc_sigmask, sizeof blocked);
    return syscall(SYS_rt_sigpending, &pending, sizeof pending) != 0 || (pending & ~blocked) != 0;
}

} // namespace

// "232 0x5 0x7ffd... 0x40 ... 0x7ffd5cb5e0d8 0x7f4a1c10d2e9", or "running"
WaitingCall waiting_call_of(uint32_t thread) {
    char path[64];
    snprintf(path, sizeof path, "/proc/self/task/%u/syscall", thread);
    ProcFile file(path);
    int last;
    WaitingCall call = {-1, 0, 0};
    const auto number = static_cast<long>(file.decimal(last));
    if (last != ' ')
        return call;
    while (last == ' ') {
        file.has("0x", last);
        call.stack_pointer = call.place;
        call.place = static_cast<uintptr_t>(file.hexadecimal(last));
    }
    call.number = number;
    return call;
}

// What the kernel does by itself where there is no handler: it goes back to the instruction, with the call's number.
void resume_call(void *context, const WaitingCall &call) {
    auto &interrupted = *static_cast<ucontext_t *>(context);
    greg_t *const registers = interrupted.uc_mcontext.gregs;
    const auto place = static_cast<uintptr_t>(registers[place_register]) - call_length;
    if (static_cast<long>(registers[result_register]) != -EINTR || !is_call(place) ||
        expects_signal(interrupted))
        return;
    const bool is_same = place + call_length == call.place &&
                         static_cast<uintptr_t>(registers[stack_register]) == call.stack_pointer;
    const long number =
        is_same && call.number != SYS_restart_syscall ? call.number : number_ahead_of(place);
    if (std::ranges::count(waits, number) == 0)
        return;
    if (Sleep sleep; is_sleep(registers, number, sleep))
        sleep_for_rest(registers[sleep.time], registers[sleep.rest]);
    shorten_wait(registers, number);
    registers[place_register] = static_cast<greg_t>(place);
    registers[result_register] = static_cast<greg_t>(number);
}

} // namespace k42mc::internal::platform
