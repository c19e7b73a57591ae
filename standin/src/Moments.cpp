#include "Moments.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
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
    // Tried with the difference from UTC of a day before, and with that of a day after.
    constexpr std::int64_t day = 86400;
    const std::int64_t before = asUtc - Local(asUtc - day).tm_gmtoff, after = asUtc - Local(asUtc + day).tm_gmtoff;
    const auto fits = [&](std::int64_t moment) { return moment + Local(moment).tm_gmtoff == asUtc; };
    if (!fits(before) && !fits(after)) return {before, before};
    const std::int64_t one = fits(before) ? before : after, other = fits(after) ? after : before;
    return {std::max(one, other), std::min(one, other)};
}

std::optional<std::int64_t> MomentIn(const char* text) {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, length = -1;
    std::sscanf(text, "%4d-%2d-%2d %2d:%2d:%2d%n", &year, &month, &day, &hour, &minute, &second, &length);
    const auto within = [](int value, int low, int high) { return low <= value && value <= high; };
    if (length != static_cast<int>(std::strlen(text)) || !within(year, 1, 9999) || !within(month, 1, 12) ||
        !within(day, 1, 31) || !within(hour, 0, 23) || !within(minute, 0, 59) || !within(second, 0, 60)) {
        return std::nullopt;
    }
    const std::int64_t date = (year * INT64_C(100) + month) * 100 + day;
    const std::int64_t moment = MomentsOf(((date * 100 + hour) * 100 + minute) * 100 + second).later;
    if (LocalTime(moment) / 1000000 != date) return std::nullopt;  // a day that the month does not have
    return moment;
}

}  // namespace standin
