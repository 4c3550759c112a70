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
constexpr uint64_t all_signals = ~uint64_t{0};

constexpr size_t most_threads = 1u << 16;
constinit StoppedThread *all_threads = nullptr; // mapped once, for all stops
constinit std::atomic<uint32_t> thread_count = 0;

constinit std::atomic<uint32_t> stop = 0;     // odd: the number of the stop that is on
constinit std::atomic<uint32_t> answered = 0; // by threads
constinit std::atomic<uint32_t> standing = 0; // threads, and those on their way out of the handler
constinit SignalAction former_action = {};

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

// One that did not wait when it was noted may do so now.
bool send_signal(StoppedThread &thread) {
    if (thread.call.number < 0)
        thread.call = waiting_call_of(thread.id);
    siginfo_t info = {};
    info.si_signo = stop_signal;
    info.si_code = SI_QUEUE;
    info.si_pid = getpid();
    info.si_uid = getuid();
    info.si_value.sival_ptr = &stop;
    return syscall(SYS_rt_tgsigqueueinfo, getpid(), thread.id, stop_signal, &info) == 0;
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
    alignas(DirectoryEntry) char buffer[4096];
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
    const bool is_whole = fstat(folder, &status) == 0 && seen + other_links >= status.st_nlink;
    syscall(SYS_close, folder);
    return is_whole ? Listing::whole : Listing::partial;
}

void note(uint32_t id) {
    const uint32_t count = thread_count.load(std::memory_order_relaxed);
    if (count == most_threads || find(id) != nullptr)
        return;
    all_threads[count] = {id, waiting_call_of(id), nullptr, 0};
    thread_count.store(count + 1, std::memory_order_release);
}

// ---- How long they take ----

using Moment = uint64_t; // in nanoseconds
constexpr Moment millisecond = 1'000'000, longest = 1000 * millisecond;

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

// How many cannot answer: they have ended, or have the signal blocked.
uint32_t count_deaf() {
    uint32_t deaf = 0;
    for (uint32_t i = 0; i < thread_count; ++i)
        if (std::atomic_ref(all_threads[i].context).load(std::memory_order_acquire) == nullptr &&
            (syscall(SYS_tgkill, getpid(), all_threads[i].id, 0) != 0 ||
             blocks_signal(all_threads[i].id)))
            ++deaf;
    return deaf;
}

void wait_for_answers(uint32_t sent, Moment deadline) {
    Moment look = now() + 10 * millisecond;
    for (;;) {
        const uint32_t count = answered.load(std::memory_order_acquire);
        const Moment moment = now();
        if (count >= sent || moment >= deadline)
            return;
        if (moment >= look) {
            if (count + count_deaf() >= sent)
                return;
            look = moment + 50 * millisecond;
        }
        const timespec pause = {0, static_cast<long>(2 * millisecond)};
        wait_while(answered, count, &pause);
    }
}

// Threads that those started which had not stopped yet come to light in another look.
bool stop_all() {
    const Moment deadline = now() + longest;
    uint32_t signalled = 0, sent = 0;
    for (;;) {
        const Listing listing = each_thread(note);
        if (listing == Listing::none)
            return false;
        if (signalled == thread_count && (listing == Listing::whole || now() >= deadline))
            return listing == Listing::whole;
        for (; signalled < thread_count; ++signalled)
            sent += send_signal(all_threads[signalled]) ? 1 : 0;
        wait_for_answers(sent, deadline);
    }
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

ThreadStop::ThreadStop() {
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &all_signals, &former_mask_, sizeof former_mask_);
    let_last_stop_end();
    thread_count = answered = standing = 0;
    stop = (stop + 1) | 1; // a copy of the process may have begun in the midst of one
    is_complete_ =
        map_threads() &&
        set_handler(stop_signal, handle, SA_RESTART | SA_ONSTACK, all_signals, former_action) &&
        stop_all();
    threads_ = std::span(all_threads, thread_count.load());
}

// Where a signal may still be on its way, its handler has to stay.
void ThreadStop::release() {
    if (is_over_)
        return;
    is_over_ = true;
    stop.fetch_add(1, std::memory_order_release);
    wake_all(stop);
    const bool all_answered = answered == thread_count;
    if (all_answered)
        set_action(stop_signal, former_action);
    else
        stay_loaded();
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &former_mask_, nullptr, sizeof former_mask_);
}

} // namespace k42mc::internal::platform
