// What a new password must be, how strong it looks while the user types it, and the refusal shown
// while items still move to the current password. Characters are what the user sees (grapheme
// clusters); classes follow Unicode properties. Stateless.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

struct PasswordRules {
    static constexpr std::size_t minimumLength = 8;
    // The most gocryptfs takes as a password on standard input.
    static constexpr std::size_t maximumBytes = 2048;

    enum class Strength { weak = 0, fair = 1, strong = 2 };

    // Nothing when the password may be used.
    static std::optional<std::string> problem(std::string_view password);

    // Nothing when any password, old or new, can be passed on at all: not empty, one line, at
    // most maximumBytes. Checked before any work, so a bad entry costs nothing.
    static std::optional<std::string> inputProblem(std::string_view password);

    // Advisory only: problem() alone decides acceptance.
    static Strength strength(std::string_view password);

    static std::string stillMigratingMessage(const std::vector<std::string>& names);
    // About items a password change could not move yet: their `names`, or when none can be
    // named, their `count`.
    static std::string migrationFailureMessage(const std::vector<std::string>& names,
                                               std::size_t count);

    // Grapheme clusters in UTF-8 text.
    static std::size_t characterCount(std::string_view text);
};

}  // namespace corvane
