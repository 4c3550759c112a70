#include "platform/platform.h"

#include <chrono>

namespace k42mc::internal::platform {
namespace {

// How far local time was ahead of UTC when it was last converted.
constinit long utc_offset = 0;
constinit bool converts = true;

} // namespace

LocalTime local_time(time_t moment) {
    using namespace std::chrono;
    if (converts) {
        tm local{};
        localtime_r(&moment, &local);
        __atomic_store_n(&utc_offset, local.tm_gmtoff, __ATOMIC_RELAXED);
        return {local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                local.tm_hour,        local.tm_min,     local.tm_sec};
    }
    const sys_seconds local{seconds{moment + utc_offset}};
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
    converts = false;
}

} // namespace k42mc::internal::platform
