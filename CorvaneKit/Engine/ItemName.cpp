#include "Engine/ItemName.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "Records/Paths.h"

namespace corvane {

std::string itemName(const std::string& path) {
    std::string name = lastPathComponent(standardizedPath(path));
    constexpr std::string_view extension = ".corvlock";
    std::string lowered = name;
    std::transform(lowered.begin(), lowered.end(), lowered.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    if (lowered.size() > extension.size() && lowered.ends_with(extension))
        name.resize(name.size() - extension.size());
    return name;
}

}  // namespace corvane
