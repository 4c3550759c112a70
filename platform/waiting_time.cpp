#include "platform/waiting_time.h"

#include <algorithm>

#include <sys/resource.h>
#include <time.h>

namespace k42mc::internal::platform {
namespace {

using Nanoseconds = int64_t;
constexpr Nanoseconds second = 1'000'000'000, millisecond = 1'000'000;

// Where a thread waits, until when, and by what the next interruption is known as one of the same wait: the thread has
// been blocked once since, and has hardly run.
struct Wait {
    uintptr_t place, stack_pointer;
    Nanoseconds end;
    long times_blocked;
    Nanoseconds time_run;

    bool is_same(const Wait &before) const {
        constexpr Nanoseconds most_run = 50'000;
        return place == before.place && stack_pointer == before.stack_pointer &&
               times_blocked == before.times_blocked + 1 && time_run - before.time_run < most_run;
    }
};

constinit thread_local Wait last_wait = {}, this_wait = {};

Nanoseconds read_clock(clockid_t clock) {
    timespec time;
    clock_gettime(clock, &time);
    return Nanoseconds{time.tv_sec} * second + time.tv_nsec;
}

void measure(Wait &wait) {
    rusage usage;
    getrusage(RUSAGE_THREAD, &usage);
    wait.times_blocked = usage.ru_nvcsw;
    wait.time_run = read_clock(CLOCK_THREAD_CPUTIME_ID);
}

} // namespace

void note_interruption() {
    measure(this_wait);
}

int32_t milliseconds_left(int32_t whole, uintptr_t place, uintptr_t stack_pointer) {
    if (whole <= 0)
        return whole;
    const Nanoseconds now = read_clock(CLOCK_MONOTONIC);
    this_wait.place = place;
    this_wait.stack_pointer = stack_pointer;
    this_wait.end = this_wait.is_same(last_wait) ? last_wait.end : now + whole * millisecond;
    last_wait = this_wait;
    measure(last_wait);
    return static_cast<int32_t>((std::max(last_wait.end - now, Nanoseconds{0}) + millisecond - 1) /
                                millisecond);
}

} // namespace k42mc::internal::platform
