#include "FileSystem/UserDirectories.h"

#include <fstream>
#include <map>
#include <optional>

#include "FileSystem/LinuxDesktop.h"
#include "Records/Paths.h"

namespace corvane {

namespace {

// A value is "$HOME/..." or an absolute path, in double quotes, with backslash escapes.
std::optional<std::string> folderValue(const std::string& quoted, const std::string& home) {
    if (quoted.size() < 2 || quoted.front() != '"' || quoted.back() != '"') return std::nullopt;
    std::string value;
    for (std::size_t i = 1; i + 1 < quoted.size(); ++i) {
        if (quoted[i] == '\\' && i + 2 < quoted.size()) ++i;
        value += quoted[i];
    }
    if (value == "$HOME") return home;
    if (value.rfind("$HOME/", 0) == 0) return home + value.substr(5);
    if (!value.empty() && value.front() == '/') return value;
    return std::nullopt;
}

}  // namespace

std::vector<std::string> UserDirectories::standardFolders(const std::string& home) {
    std::map<std::string, std::string> configured;
    std::ifstream file(home + "/.config/user-dirs.dirs");
    for (std::string line; std::getline(file, line);) {
        auto equals = line.find('=');
        if (line.empty() || line.front() == '#' || equals == std::string::npos) continue;
        if (auto value = folderValue(line.substr(equals + 1), home))
            configured[line.substr(0, equals)] = *value;
    }
    std::vector<std::string> folders;
    for (const auto& folder : LinuxDesktop::standardFolders) {
        auto found = configured.find(std::string(folder.key));
        folders.push_back(realPath(found != configured.end()
                                       ? found->second
                                       : home + "/" + std::string(folder.defaultName)));
    }
    return folders;
}

}  // namespace corvane
