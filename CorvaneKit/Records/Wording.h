// The few sentences whose words depend on the desktop they run on: the macOS texts name Finder and
// macOS, the Linux texts name what a Linux user sees instead. Both live here as data; messages are
// built with the host's unless a caller asks for the other.
#pragma once

#include <string_view>

namespace corvane {

struct Wording {
    std::string_view diskImagePrefix;             // + the tool's report
    std::string_view finderLockedSuffix;          // name + this
    std::string_view containsFinderLockedSuffix;  // name + this
    std::string_view systemLocation;
    std::string_view libraryFolder;

    static const Wording macOS;
    static const Wording linuxDesktop;

    // The wording of the system this build runs on.
    static const Wording& host();
};

}  // namespace corvane
