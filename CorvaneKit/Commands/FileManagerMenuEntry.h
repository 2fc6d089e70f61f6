// One entry of Corvane's menu in the file manager: the title shown and the command its URL
// carries. A plain value; use from any thread.
#pragma once

#include <string>

#include "Commands/CorvaneCommand.h"

namespace corvane {

struct FileManagerMenuEntry {
    std::string title;
    CorvaneCommand command;

    bool operator==(const FileManagerMenuEntry&) const = default;
};

}  // namespace corvane
