// Starting the application at login: the user's XDG autostart entry
// $XDG_CONFIG_HOME/autostart/corvane.desktop (~/.config by default), over the system's entry of
// the same name in $XDG_CONFIG_DIRS (/etc/xdg by default) that the package installs: by the XDG
// rules the user's file, when there is one, replaces the system's. Reads the environment on every
// call; blocking file calls of a moment, main thread.
#pragma once

#include <optional>
#include <string>

namespace corvane::app {

struct AutoStart {
    // The user's entry.
    static std::string entryPath();

    // The first autostart/corvane.desktop among $XDG_CONFIG_DIRS that is a regular file.
    static std::optional<std::string> systemEntryPath();

    // The entry in effect (the user's when anything is in its place, else the system's) is a
    // regular file and not hidden or switched off in it.
    static bool isEnabled();

    // On: writes our entry atomically, starting `executable`; when the system's entry starts us,
    // only removes a hidden or switched-off entry of ours that stands in its way. Off: removes the
    // user's entry when it is ours (a regular file that starts corvane-app), or writes a hidden one
    // over the system's entry that starts us. Nothing on success, else the sentence to show.
    static std::optional<std::string> setEnabled(bool enabled,
                                                 const std::string& executable = runningProgram());

    // The absolute path of this process's program.
    static std::string runningProgram();
};

}  // namespace corvane::app
