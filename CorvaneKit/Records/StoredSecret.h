// The application password with its generation, the password it replaced while items still use it,
// and every earlier one, so an item that was out of reach during a change still opens later. Kept
// as one JSON value in the desktop keyring. A plain value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

struct StoredSecret {
    static constexpr std::int64_t firstGeneration = 1;

    std::string password;
    std::int64_t generation = 0;
    std::optional<std::string> previous;
    std::vector<std::string> history;  // oldest first, each at most once

    // The passwords do not outlive the value in memory that is reused later. Copies wipe their
    // own; a move copies.
    ~StoredSecret();

    bool operator==(const StoredSecret&) const = default;

    StoredSecret changing(const std::string& newPassword) const;
    StoredSecret migrated() const;

    // The passwords to try when opening an item: current, previous, then history newest first,
    // each once.
    std::vector<std::string> openCandidates() const;

    std::string encode() const;
    static StoredSecret decode(std::string_view text);  // throws DecodingError
};

}  // namespace corvane
