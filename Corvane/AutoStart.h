// Starting the application at login: the user's XDG autostart entry
// $XDG_CONFIG_HOME/autostart/corvane.desktop (~/.config by default). Reads the environment on
// every call; blocking file calls of a moment, main thread.
#pragma once

#include <optional>
#include <string>

namespace corvane::app {

struct AutoStart {
    static std::string entryPath();

    // An entry is there as a regular file and not hidden or switched off in it.
    static bool isEnabled();

    // Writes our entry atomically, starting `executable`; or removes the entry when it is ours
    // (a regular file that starts corvane-app). Nothing on success, else the sentence to show.
    static std::optional<std::string> setEnabled(bool enabled,
                                                 const std::string& executable = runningProgram());

    // The absolute path of this process's program.
    static std::string runningProgram();
};

}  // namespace corvane::app
