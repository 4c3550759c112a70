// The signal is one of the two that libc keeps for itself, since hardly any thread can have it blocked: libc leaves
// those two out of what it is asked to block. Its own business with this signal, which changes the user of all
// threads, is told from ours by how the signal was sent, and goes on.
#include "platform/thread_stop.h"

#include "platform/platform.h"
#include "platform/proc_file.h"
#include "platform/signal_action.h"

#include <algorithm>
#include <atomic>
#include <cerrno>

#include <fcntl.h>
#include <linux/futex.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace k42mc::internal::platform {
namespace {

constexpr int stop_signal = 33;
constexpr int last_signal = 64;

constexpr size_t most_threads = 1u << 16;
constinit StoppedThread *all_threads = nullptr; // mapped once, for all stops
constinit std::atomic<uint32_t> thread_count = 0;

constinit std::atomic<uint32_t> stop = 0;     // odd: the number of the stop that is on
constinit std::atomic<uint32_t> answered = 0; // by threads
constinit std::atomic<uint32_t> standing = 0; // threads, and those on their way out of the handler
constinit SignalAction former_action = {};    // never our own, which may have had to stay
constinit bool may_be_late = false;           // a signal, which is not to meet another handler

void wait_while(std::atomic<uint32_t> &word, uint32_t value, const timespec *longest) {
    syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, value, longest);
}

void wake_all(std::atomic<uint32_t> &word) {
    syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, INT32_MAX);
}

StoppedThread *find(uint32_t id) {
    StoppedThread *const end = all_threads + thread_count.load(std::memory_order_acquire);
    StoppedThread *const found =
        std::find_if(all_threads, end, [id](const StoppedThread &thread) { return thread.id == id; });
    return found != end ? found : nullptr;
}

void stand_still(void *context, uint32_t number) {
    StoppedThread *const self = find(static_cast<uint32_t>(syscall(SYS_gettid)));
    if (self == nullptr || self->context != nullptr)
        return;
    const WaitingCall call = self->call;
    standing.fetch_add(1, std::memory_order_relaxed);
    self->control_block = static_cast<uintptr_t>(pthread_self());
    std::atomic_ref(self->context).store(context, std::memory_order_release);
    answered.fetch_add(1, std::memory_order_release);
    wake_all(answered);
    while (stop.load(std::memory_order_acquire) == number)
        wait_while(stop, number, nullptr);
    resume_call(context, call);
    standing.fetch_sub(1, std::memory_order_relaxed);
}

bool is_ours(const siginfo_t *info) {
    return info->si_code == SI_QUEUE && info->si_pid == getpid() && info->si_value.sival_ptr == &stop;
}

void handle(int signo, siginfo_t *info, void *context) {
    const int kept_errno = errno;
    const uint32_t number = stop.load(std::memory_order_acquire);
    if (!is_ours(info)) {
        if (former_action.is_function())
            former_action.call(signo, info, context);
    } else if (number % 2 != 0) {
        stand_still(context, number);
    }
    errno = kept_errno;
}

// What waits for the end of a stop. Not what happens without a trace: held back, it would become a signal that arrives,
// and interrupt calls.
uint64_t signals_to_hold() {
    uint64_t signals = 0;
    for (int signo = 1; signo <= last_signal; ++signo) {
        SignalAction action;
        if (!get_action(signo, action) || !action.ignores(signo))
            signals |= uint64_t{1} << (signo - 1);
    }
    return signals;
}

// What was there is known before our handler can ask for it.
bool take_signal(uint64_t held) {
    SignalAction current;
    if (!get_action(stop_signal, current))
        return false;
    if (current.handler != handle)
        former_action = current;
    return set_handler(stop_signal, handle, SA_RESTART | SA_ONSTACK, held, current);
}

// ---- Which threads there are ----

struct DirectoryEntry {
    uint64_t inode;
    int64_t offset;
    uint16_t size;
    unsigned char type;
    char name[];
};

enum class Listing { none, partial, whole };

// Calls action with the number of each thread but this one. A list ends early where a thread ends that it has come to;
// how many there are is told by the number of links.
template <class Action> Listing each_thread(Action action) {
    const auto own = static_cast<uint32_t>(gettid());
    const auto folder = static_cast<int>(
        syscall(SYS_openat, AT_FDCWD, "/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder < 0)
        return Listing::none;
    constexpr nlink_t other_links = 2;
    nlink_t seen = 0;
    alignas(DirectoryEntry) char buffer[2048];
    long size;
    while ((size = syscall(SYS_getdents64, folder, buffer, sizeof buffer)) > 0) {
        for (long at = 0; at < size;) {
            const auto *entry = reinterpret_cast<const DirectoryEntry *>(buffer + at);
            uint32_t id = 0;
            for (const char *digit = entry->name; *digit >= '0' && *digit <= '9'; ++digit)
                id = 10 * id + static_cast<uint32_t>(*digit - '0');
            seen += id != 0 ? 1 : 0;
            if (id != 0 && id != own)
                action(id);
            at += entry->size;
        }
    }
    struct stat status;
    const bool is_told = size == 0 && fstat(folder, &status) == 0;
    syscall(SYS_close, folder);
    if (!is_told)
        return Listing::none;
    return seen + other_links >= status.st_nlink ? Listing::whole : Listing::partial;
}

void note(uint32_t id) {
    const uint32_t count = thread_count.load(std::memory_order_relaxed);
    if (count == most_threads || find(id) != nullptr)
        return;
    all_threads[count] = {id, waiting_call_of(id), nullptr, 0, false};
    thread_count.store(count + 1, std::memory_order_release);
}

// ---- How long they take ----

using Moment = uint64_t; // in nanoseconds
constexpr Moment millisecond = 1'000'000, longest = 1000 * millisecond, patience = 10 * millisecond;

Moment now() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<Moment>(time.tv_sec) * 1'000'000'000 + static_cast<Moment>(time.tv_nsec);
}

// "SigBlk:\t0000000100000000"
bool blocks_signal(uint32_t id) {
    char path[64];
    snprintf(path, sizeof path, "/proc/self/task/%u/status", id);
    ProcFile file(path);
    for (int last = 0; last >= 0; file.skip_line(last))
        if (file.has("SigBlk:\t", last))
            return (file.hexadecimal(last) >> (stop_signal - 1) & 1) != 0;
    return false;
}

// Whether it has no registers any more, as the first thread that has ended ahead of others, or none at all, being the
// system's own, which works for the process. "7 (name) S 1 7 7 0 -1 4194304 ..."
bool is_beyond_answers(uint32_t id) {
    constexpr uint64_t io_worker = 0x10, user_worker = 0x4000;
    constexpr int state_behind_name = 1, flags_behind_name = 7;
    char path[64];
    snprintf(path, sizeof path, "/proc/self/task/%u/stat", id);
    ProcFile file(path);
    int last = 0, state = 0;
    for (int field = 0; last >= 0 && field < flags_behind_name;) {
        last = file.get();
        state = field == state_behind_name && last != ' ' ? last : state;
        field = last == ')' ? 0 : field + (last == ' ' ? 1 : 0);
    }
    return last >= 0 &&
           (state == 'Z' || state == 'X' || (file.decimal(last) & (io_worker | user_worker)) != 0);
}

void sleep_for(Moment time) {
    const timespec pause = {0, static_cast<long>(time)};
    syscall(SYS_nanosleep, &pause, nullptr);
}

bool has_ended(uint32_t id) {
    return syscall(SYS_tgkill, getpid(), id, 0) != 0 && errno == ESRCH;
}

bool has_answered(StoppedThread &thread) {
    return std::atomic_ref(thread.context).load(std::memory_order_acquire) != nullptr;
}

// ---- Stopping them ----

enum class Told { yes, needless, no };

// Threads that did not answer last time. A signal that one of them has blocked is with it still, and each other one
// would stay with it, too, of which a user can have only so many.
constinit uint32_t silent[64] = {};

void note_silent() {
    size_t count = 0;
    for (StoppedThread &thread : std::span(all_threads, thread_count.load()))
        if (!has_answered(thread) && count < std::size(silent))
            silent[count++] = thread.id;
    std::fill(silent + count, std::end(silent), 0);
}

bool stays_silent(uint32_t id) {
    return std::ranges::count(silent, id) != 0 && blocks_signal(id);
}

// A thread that did not wait when it was noted may do so now.
Told tell(StoppedThread &thread) {
    for (const Moment end = now() + patience; stays_silent(thread.id); sleep_briefly()) {
        if (is_beyond_answers(thread.id))
            return Told::needless;
        if (now() >= end)
            return Told::no;
    }
    if (thread.call.number < 0)
        thread.call = waiting_call_of(thread.id);
    siginfo_t info = {};
    info.si_signo = stop_signal;
    info.si_code = SI_QUEUE;
    info.si_pid = getpid();
    info.si_uid = getuid();
    info.si_value.sival_ptr = &stop;
    if (syscall(SYS_rt_tgsigqueueinfo, getpid(), thread.id, stop_signal, &info) == 0)
        return Told::yes;
    return errno == ESRCH ? Told::needless : Told::no;
}

// What has not answered need not, since it has ended or is the system's own, or blocks the signal after all, or still may.
enum class Silence { right, deaf, other };

Silence look_at_silent() {
    Silence silence = Silence::right;
    for (StoppedThread &thread : std::span(all_threads, thread_count.load())) {
        if (!thread.is_told || has_answered(thread) || has_ended(thread.id) ||
            is_beyond_answers(thread.id))
            continue;
        if (!blocks_signal(thread.id))
            return Silence::other;
        silence = Silence::deaf;
    }
    return silence;
}

// False where some do not.
bool wait_for_answers(uint32_t told, Moment deadline) {
    Moment look = now() + patience;
    for (;;) {
        const uint32_t count = answered.load(std::memory_order_acquire);
        if (count >= told)
            return true;
        if (const Moment moment = now(); moment >= look) {
            const Silence silence = look_at_silent();
            if (silence != Silence::other || moment >= deadline)
                return silence == Silence::right;
            look = moment + 2 * patience;
        }
        const timespec pause = {0, static_cast<long>(2 * millisecond)};
        wait_while(answered, count, &pause);
    }
}

// Threads that those started which had not stopped yet come to light in another look.
StopOutcome stop_all() {
    const Moment deadline = now() + longest;
    uint32_t seen = 0, told = 0;
    for (;;) {
        const Listing listing = each_thread(note);
        if (listing == Listing::none || thread_count == most_threads)
            return StopOutcome::untold;
        if (seen == thread_count && listing == Listing::whole)
            return StopOutcome::whole;
        if (seen == thread_count && now() >= deadline)
            return StopOutcome::untold;
        for (; seen < thread_count; ++seen) {
            StoppedThread &thread = all_threads[seen];
            const Told answer = tell(thread);
            if (answer == Told::no)
                return StopOutcome::partial;
            thread.is_told = answer == Told::yes;
            told += thread.is_told ? 1 : 0;
        }
        if (!wait_for_answers(told, deadline))
            return StopOutcome::partial;
    }
}

void let_go() {
    stop.store((stop + 1) & ~1u, std::memory_order_release); // there may have been none
    wake_all(stop);
}

// Where a thread waits again after the last stop can only be told once it does.
void let_last_stop_end() {
    for (const Moment deadline = now() + longest; standing != 0 && now() < deadline;)
        sleep_briefly();
}

bool map_threads() {
    if (all_threads == nullptr)
        all_threads = static_cast<StoppedThread *>(map_memory(most_threads * sizeof *all_threads));
    return all_threads != nullptr;
}

} // namespace

// A thread that cannot answer, as it may be for the time that it starts a process, gets another chance; the others do
// not wait for it.
ThreadStop::ThreadStop() {
    const uint64_t held = signals_to_hold();
    syscall(SYS_rt_sigprocmask, SIG_BLOCK, &held, &former_mask_, sizeof former_mask_);
    if (!map_threads() || !take_signal(held))
        return;
    for (const Moment last_try = now() + longest / 4;; let_go(), sleep_for(patience)) {
        let_last_stop_end();
        note_silent();
        thread_count = answered = standing = 0;
        stop = (stop + 1) | 1; // a copy of the process may have begun in the midst of one
        outcome_ = stop_all();
        if (outcome_ != StopOutcome::partial)
            break;
        may_be_late = true;
        if (now() >= last_try)
            break;
    }
    threads_ = std::span(all_threads, thread_count.load());
}

void ThreadStop::release() {
    if (is_over_)
        return;
    is_over_ = true;
    let_go();
    may_be_late = may_be_late || answered != thread_count;
    if (!may_be_late)
        set_action(stop_signal, former_action);
    else
        stay_loaded();
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &former_mask_, nullptr, sizeof former_mask_);
}

void ThreadStop::forget() {
    standing = 0;
}

} // namespace k42mc::internal::platform
