// Where Corvane keeps its records, and the environment override that points a test run or a demo
// at a private copy. Reads the environment on every call; no state of its own.
#pragma once

#include <string>

namespace corvane {

struct AppPaths {
    // $CORVANE_SUPPORT_DIR when set and non-empty, else $XDG_DATA_HOME/corvane when that is an
    // absolute path, else ~/.local/share/corvane.
    static std::string support();

    // Whether CORVANE_SUPPORT_DIR chose the support directory.
    static bool isTestOverride();

    // $HOME when set and non-empty, else the home folder in the user's password entry.
    static std::string home();
};

}  // namespace corvane
