#include "Records/DateFormat.h"

#include <cstdio>
#include <ctime>

namespace corvane {

namespace {

// Reads exactly `width` decimal digits at `position`.
std::optional<int> digits(std::string_view text, std::size_t position, std::size_t width) {
    if (position + width > text.size()) return std::nullopt;
    int value = 0;
    for (std::size_t i = position; i < position + width; ++i) {
        if (text[i] < '0' || text[i] > '9') return std::nullopt;
        value = value * 10 + (text[i] - '0');
    }
    return value;
}

}  // namespace

std::string DateFormat::iso8601(Date date) {
    using namespace std::chrono;
    auto day = floor<days>(date);
    year_month_day ymd{day};
    hh_mm_ss time{date - day};
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(ymd.year()),
                  static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()));
    return text;
}

std::optional<Date> DateFormat::parseISO8601(std::string_view text) {
    using namespace std::chrono;
    // 2025-03-01T09:15:00 is 19 characters; the zone follows.
    if (text.size() < 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' ||
        text[13] != ':' || text[16] != ':')
        return std::nullopt;
    auto y = digits(text, 0, 4), mo = digits(text, 5, 2), d = digits(text, 8, 2);
    auto h = digits(text, 11, 2), mi = digits(text, 14, 2), s = digits(text, 17, 2);
    if (!y || !mo || !d || !h || !mi || !s) return std::nullopt;
    year_month_day ymd{year{*y}, month{static_cast<unsigned>(*mo)}, day{static_cast<unsigned>(*d)}};
    if (!ymd.ok() || *h > 23 || *mi > 59 || *s > 59) return std::nullopt;

    std::string_view zone = text.substr(19);
    int offsetMinutes = 0;
    if (zone != "Z") {
        if (zone.size() != 6 && zone.size() != 5) return std::nullopt;
        if (zone[0] != '+' && zone[0] != '-') return std::nullopt;
        std::size_t minutesAt = zone.size() == 6 ? 4 : 3;
        if (zone.size() == 6 && zone[3] != ':') return std::nullopt;
        auto zh = digits(zone, 1, 2), zm = digits(zone, minutesAt, 2);
        if (!zh || !zm || *zh > 23 || *zm > 59) return std::nullopt;
        offsetMinutes = (*zh * 60 + *zm) * (zone[0] == '-' ? -1 : 1);
    }
    return sys_days{ymd} + hours{*h} + minutes{*mi} + seconds{*s} - minutes{offsetMinutes};
}

std::string DateFormat::localStamp(std::chrono::system_clock::time_point time) {
    std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &local);
    return text;
}

Date DateFormat::roundedToSecond(std::chrono::system_clock::time_point time) {
    return std::chrono::round<std::chrono::seconds>(time);
}

}  // namespace corvane
