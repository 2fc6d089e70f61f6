// What the file-manager integration may read without asking the application: which items are
// unlocked now, and the boot in which that was written (a record from an earlier boot says
// nothing, since mounts do not outlive a restart). Kept in $XDG_RUNTIME_DIR/corvane/state.json.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

struct SharedState {
    static constexpr std::string_view groupIdentifier = "QZ7R4KD2VM.com.pellmoor.corvane";
    static constexpr std::string_view fileName = "state.json";

    std::vector<std::string> unlockedPaths;
    std::int64_t bootTime = 0;

    bool operator==(const SharedState&) const = default;

    // Nothing when the session has no runtime directory.
    static std::optional<std::string> defaultURL();

    // Nothing when there is no path, no readable file or no decodable record.
    static std::optional<SharedState> read(const std::optional<std::string>& path);

    // Atomic replace; the parent folder is made when missing. Failures throw.
    void write(const std::string& path) const;

    // Whole seconds since 1970 at which the system booted; 0 when unknown.
    static std::int64_t currentBootTime();

    // The unlocked paths, only when the record was written in the given boot.
    std::optional<std::set<std::string>> unlockedSet(std::int64_t currentBootTime) const;
};

}  // namespace corvane
