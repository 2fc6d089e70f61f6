// What the model asks of the desktop: show a folder in the file manager, or show files selected
// in their folder. Never fails; main thread only.
#pragma once

#include <string>
#include <vector>

namespace corvane::app {

class DesktopShell {
public:
    virtual ~DesktopShell() = default;

    // Opens a folder in the file manager, or a file with its default application.
    virtual void open(const std::string& path) = 0;
    // Shows the files selected in the file manager.
    virtual void reveal(const std::vector<std::string>& paths) = 0;
};

}  // namespace corvane::app
