// The name a command calls an item by in its questions and messages: the locked item's name
// without its extension, or the name of the file or folder given.
#pragma once

#include <string>

namespace corvane {

std::string itemName(const std::string& path);

}  // namespace corvane
