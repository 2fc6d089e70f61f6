// Idle time from the X server itself (the MIT-SCREEN-SAVER extension), for X11 desktops whose
// session answers no idle question on the bus. Kept apart from Qt: Xlib's macros clash with it.
#pragma once

#include <optional>

namespace corvane::app {

struct X11Idle {
    // Seconds since the last input the X server saw; nothing without an X11 session (none, or a
    // Wayland one, whose X server sees only its own clients' input) or without the extension.
    static std::optional<double> seconds();
};

}  // namespace corvane::app
