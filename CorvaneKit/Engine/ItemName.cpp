#include "Engine/ItemName.h"

#include <string_view>

#include "Records/Paths.h"

namespace corvane {

std::string itemName(const std::string& path) {
    std::string name = lastPathComponent(standardizedPath(path));
    // The same rule as everywhere a locked item is recognised: the extension exactly as Corvane
    // writes it.
    constexpr std::string_view extension = ".corvlock";
    if (name.size() > extension.size() && name.ends_with(extension))
        name.resize(name.size() - extension.size());
    return name;
}

}  // namespace corvane
