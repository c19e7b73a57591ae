#include "Moments.h"

#include <algorithm>
#include <ctime>

namespace standin {
namespace {

std::tm Local(std::int64_t moment) {
    const auto seconds = static_cast<std::time_t>(moment);
    std::tm local{};
    localtime_r(&seconds, &local);
    return local;
}

}  // namespace

std::int64_t LocalTime(std::int64_t moment) {
    const std::tm t = Local(moment);
    const std::int64_t date = ((t.tm_year + INT64_C(1900)) * 100 + t.tm_mon + 1) * 100 + t.tm_mday;
    return ((date * 100 + t.tm_hour) * 100 + t.tm_min) * 100 + t.tm_sec;
}

Moments MomentsOf(std::int64_t localTime) {
    tzset();
    std::tm t{};
    const auto part = [&](int size) {
        const auto value = static_cast<int>(localTime % size);
        localTime /= size;
        return value;
    };
    t.tm_sec = part(100);
    t.tm_min = part(100);
    t.tm_hour = part(100);
    t.tm_mday = part(100);
    t.tm_mon = part(100) - 1;
    t.tm_year = static_cast<int>(localTime) - 1900;
    const std::int64_t asUtc = timegm(&t);
    // Read with the difference from UTC that holds a day before, and with the one a day after.
    constexpr std::int64_t day = 86400;
    const std::int64_t before = asUtc - Local(asUtc - day).tm_gmtoff, after = asUtc - Local(asUtc + day).tm_gmtoff;
    const auto fits = [&](std::int64_t moment) { return moment + Local(moment).tm_gmtoff == asUtc; };
    if (!fits(before) && !fits(after)) return {before, before};
    const std::int64_t one = fits(before) ? before : after, other = fits(after) ? after : before;
    return {std::max(one, other), std::min(one, other)};
}

}  // namespace standin
