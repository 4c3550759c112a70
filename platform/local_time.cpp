#include "platform/platform.h"

#include <atomic>
#include <chrono>

namespace k42mc::internal::platform {
namespace {

// How far local time was ahead of UTC when that was noted.
constinit std::atomic<long> utc_offset = 0;
constinit std::atomic<time_t> noted_in = -1; // which quarter of an hour since the epoch
constinit bool frozen = false;

} // namespace

// The C library keeps what it knows of the time zone in the heap, where an overrun of the process's own may have
// reached it: that is looked at as seldom as it can change.
void note_utc_offset() {
    constexpr time_t quarter = 15 * 60;
    if (frozen)
        return;
    const time_t now = time(nullptr);
    if (noted_in.exchange(now / quarter, std::memory_order_relaxed) == now / quarter)
        return;
    tm local{};
    localtime_r(&now, &local);
    utc_offset.store(local.tm_gmtoff, std::memory_order_relaxed);
}

LocalTime local_time(time_t moment) {
    using namespace std::chrono;
    const sys_seconds local{seconds{moment + utc_offset.load(std::memory_order_relaxed)}};
    const year_month_day date{floor<days>(local)};
    const hh_mm_ss clock{local - floor<days>(local)};
    return {static_cast<int>(date.year()),
            static_cast<int>(static_cast<unsigned>(date.month())),
            static_cast<int>(static_cast<unsigned>(date.day())),
            static_cast<int>(clock.hours().count()),
            static_cast<int>(clock.minutes().count()),
            static_cast<int>(clock.seconds().count())};
}

void freeze_utc_offset() {
    frozen = true;
}

} // namespace k42mc::internal::platform
