#include "Records/ByteCount.h"

#include <array>
#include <charconv>
#include <cmath>
#include <system_error>

namespace corvane {

namespace {

struct Unit {
    const char* name;
    double size;
    int fractionDigits;  // more digits for larger units, where one step is a lot of bytes
};

constexpr std::array<Unit, 5> kUnits = {{
    {"KB", 1e3, 0},
    {"MB", 1e6, 1},
    {"GB", 1e9, 2},
    {"TB", 1e12, 2},
    {"PB", 1e15, 2},
}};

// Always with a decimal point: the C library's formatting would follow the process locale and
// print "1,2 GB" beside English words.
std::string trimmedNumber(double value, int fractionDigits) {
    char text[64];
    auto [end, error] =
        std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, fractionDigits);
    std::string number(text, error == std::errc() ? end : text);
    if (number.find('.') != std::string::npos) {
        while (number.back() == '0') number.pop_back();
        if (number.back() == '.') number.pop_back();
    }
    return number;
}

}  // namespace

std::string ByteCount::file(std::int64_t bytes) {
    std::uint64_t magnitude =
        bytes < 0 ? 0 - static_cast<std::uint64_t>(bytes) : static_cast<std::uint64_t>(bytes);
    std::string sign = bytes < 0 ? "-" : "";
    if (magnitude < 1000)
        return sign + std::to_string(magnitude) + (magnitude == 1 ? " byte" : " bytes");

    auto value = static_cast<double>(magnitude);
    std::size_t unit = 0;
    while (unit + 1 < kUnits.size() && value >= kUnits[unit + 1].size) ++unit;
    double scaled = value / kUnits[unit].size;
    double factor = std::pow(10.0, kUnits[unit].fractionDigits);
    // 999,999 bytes rounds to 1000 KB, which reads better as 1 MB.
    if (std::round(scaled * factor) / factor >= 1000 && unit + 1 < kUnits.size()) {
        ++unit;
        scaled = value / kUnits[unit].size;
    }
    return sign + trimmedNumber(scaled, kUnits[unit].fractionDigits) + " " + kUnits[unit].name;
}

}  // namespace corvane
