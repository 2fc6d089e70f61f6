// Dates as the records store them: whole seconds since 1970 in UTC, written as ISO 8601 internet
// text (2025-03-01T09:15:00Z), and the local "yyyyMMdd-HHmmss" stamp of a set-aside file.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

using Date = std::chrono::sys_seconds;

struct DateFormat {
    // Always written in UTC with the zone "Z".
    static std::string iso8601(Date date);

    // Date, "T", time with whole seconds, then "Z" or an offset (+01:00 or +0100). Fractional
    // seconds, missing zones and impossible dates are rejected.
    static std::optional<Date> parseISO8601(std::string_view text);

    // Local time, for names a person reads in a folder listing.
    static std::string localStamp(std::chrono::system_clock::time_point time);

    static Date roundedToSecond(std::chrono::system_clock::time_point time);
};

}  // namespace corvane
