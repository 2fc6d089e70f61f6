#include "FileSystem/ExtensionTypes.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>

namespace corvane {

namespace {

std::string lowercasedASCII(std::string_view text) {
    std::string lowered(text);
    std::transform(lowered.begin(), lowered.end(), lowered.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lowered;
}

// Lines read "weight:type/subtype:glob[:flags]"; only plain "*.ext" globs name an extension.
void readGlobs(const std::string& path, std::set<std::string>& extensions) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line.front() == '#') continue;
        auto first = line.find(':');
        auto second = first == std::string::npos ? first : line.find(':', first + 1);
        if (second == std::string::npos) continue;
        std::string glob = line.substr(second + 1, line.find(':', second + 1) - second - 1);
        if (glob.size() > 2 && glob.starts_with("*.") &&
            glob.find_first_of("*?[", 2) == std::string::npos)
            extensions.insert(lowercasedASCII(glob.substr(2)));
    }
}

const std::set<std::string>& registeredExtensions() {
    static const std::set<std::string> extensions = [] {
        std::set<std::string> found;
        std::string dataDirs = std::getenv("XDG_DATA_DIRS") ? std::getenv("XDG_DATA_DIRS") : "";
        if (dataDirs.empty()) dataDirs = "/usr/local/share:/usr/share";
        for (std::size_t start = 0; start <= dataDirs.size();) {
            std::size_t end = dataDirs.find(':', start);
            if (end == std::string::npos) end = dataDirs.size();
            if (end > start) readGlobs(dataDirs.substr(start, end - start) + "/mime/globs2", found);
            start = end + 1;
        }
        return found;
    }();
    return extensions;
}

}  // namespace

bool ExtensionTypes::isRegistered(std::string_view extension) {
    return !extension.empty() && registeredExtensions().count(lowercasedASCII(extension)) > 0;
}

}  // namespace corvane
