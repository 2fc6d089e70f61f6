#include "X11Idle.h"

#include <X11/Xlib.h>
#include <X11/extensions/scrnsaver.h>

#include <cstdlib>
#include <cstring>

namespace corvane::app {

std::optional<double> X11Idle::seconds() {
    const char* display = std::getenv("DISPLAY");
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    if (!display || !*display || (wayland && *wayland)) return std::nullopt;
    Display* connection = XOpenDisplay(display);
    if (!connection) return std::nullopt;
    std::optional<double> idle;
    int event = 0, error = 0;
    if (XScreenSaverQueryExtension(connection, &event, &error)) {
        if (XScreenSaverInfo* info = XScreenSaverAllocInfo()) {
            // The server counts in milliseconds.
            if (XScreenSaverQueryInfo(connection, DefaultRootWindow(connection), info))
                idle = static_cast<double>(info->idle) / 1000.0;
            XFree(info);
        }
    }
    XCloseDisplay(connection);
    return idle;
}

}  // namespace corvane::app
