// The files that put Corvane's entries into the file managers' context menus (the Files
// extension, the Nemo actions, the Dolphin service menu, the Thunar actions), as text made for one
// corvane program. Pure functions over strings; `corvane integrate` and the package install them.
#pragma once

#include <sys/types.h>

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::cli {

struct FileManagerMenus {
    struct Action {
        std::string_view name;  // as `corvane menu-action` takes it, the command URL's host
        std::string_view title;
        std::string_view description;
        bool lockedItemsOnly;        // shown for *.corvlock folders alone
        std::string_view selection;  // Nemo's Selection: how many items it takes
    };
    // In the order the menus list them.
    static const std::array<Action, 5> actions;

    struct File {
        std::string path;  // under the data folder ($XDG_DATA_HOME, /usr/share)
        std::string contents;
        mode_t mode;
    };

    // A user's copy starts with `marker`, so that integrate replaces and removes only its own
    // files; the system-wide copy has no such line.
    enum class Copy { user, systemWide };
    static constexpr std::string_view marker =
        "# Added by corvane integrate; corvane integrate --remove takes it away.\n";

    // The Files extension, the five Nemo actions and the Dolphin service menu.
    static std::vector<File> dataFiles(const std::string& program, Copy copy);

    // The <action> elements for Thunar's uca.xml, each ending in a line break.
    static std::string thunarActions(const std::string& program);

    // Whether a program path can be written into every file: UTF-8 text without control
    // characters, '%' (a field code everywhere) or ';' (Nemo's list separator).
    static bool canName(std::string_view program);
};

}  // namespace corvane::cli
