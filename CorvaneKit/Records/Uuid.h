// A 128-bit identifier of items and journal entries, written in the canonical upper-case hyphenated
// form (as in 0F4A1C2E-...). A plain value; safe to share between threads.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

class Uuid {
public:
    // A new random (version 4) identifier.
    static Uuid random();

    // Reads the hyphenated 8-4-4-4-12 form; either case of hexadecimal digits is accepted.
    static std::optional<Uuid> parse(std::string_view text);

    std::string string() const;

    auto operator<=>(const Uuid&) const = default;

private:
    std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace corvane
