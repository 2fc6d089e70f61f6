#include "Records/Paths.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <memory>
#include <optional>

namespace corvane {

namespace {

std::string absolute(std::string_view path) {
    if (!path.empty() && path.front() == '/') return std::string(path);
    std::unique_ptr<char, decltype(&std::free)> cwd(getcwd(nullptr, 0), &std::free);
    std::string base = cwd ? cwd.get() : "/";
    return path.empty() ? base : base + "/" + std::string(path);
}

std::optional<std::string> resolved(const std::string& path) {
    char buffer[PATH_MAX];
    if (::realpath(path.c_str(), buffer) == nullptr) return std::nullopt;
    return std::string(buffer);
}

std::string joined(const std::vector<std::string>& names, std::size_t count) {
    std::string path;
    for (std::size_t i = 0; i < count; ++i) path += "/" + names[i];
    return path.empty() ? "/" : path;
}

// Resolves the deepest ancestor that exists and appends the rest unchanged.
std::optional<std::string> resolvedThroughAncestors(const std::string& path) {
    if (auto whole = resolved(path)) return whole;
    std::vector<std::string> names = pathComponents(path);
    names.erase(names.begin());  // the leading "/"
    for (std::size_t kept = names.size(); kept-- > 0;) {
        if (auto ancestor = resolved(joined(names, kept))) {
            std::string result = *ancestor == "/" ? "" : *ancestor;
            for (std::size_t i = kept; i < names.size(); ++i) result += "/" + names[i];
            return result;
        }
    }
    return std::nullopt;
}

}  // namespace

std::string standardizedPath(std::string_view path) {
    std::string full = absolute(path);
    std::vector<std::string> names;
    std::size_t start = 0;
    while (start <= full.size()) {
        std::size_t end = full.find('/', start);
        if (end == std::string::npos) end = full.size();
        std::string name = full.substr(start, end - start);
        if (name == "..") {
            if (!names.empty()) names.pop_back();
        } else if (!name.empty() && name != ".") {
            names.push_back(std::move(name));
        }
        start = end + 1;
    }
    return joined(names, names.size());
}

std::string realPath(std::string_view path) {
    std::string full = absolute(path);
    return standardizedPath(resolvedThroughAncestors(full).value_or(full));
}

std::string canonicalPath(std::string_view path) {
    return realPath(path);
}

std::string itemPath(std::string_view path) {
    std::string full = absolute(path);
    while (full.size() > 1 && full.back() == '/') full.pop_back();
    auto slash = full.rfind('/');
    std::string name = full.substr(slash + 1);
    if (name.empty() || name == "." || name == "..") return realPath(full);
    std::string folder = realPath(parentPath(full));
    return (folder == "/" ? "" : folder) + "/" + name;
}

std::vector<std::string> pathComponents(std::string_view path) {
    std::vector<std::string> components{"/"};
    std::size_t start = 0;
    while (start < path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string_view::npos) end = path.size();
        if (end > start) components.emplace_back(path.substr(start, end - start));
        start = end + 1;
    }
    return components;
}

std::string pathExtension(std::string_view name) {
    auto dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0) return "";
    return std::string(name.substr(dot + 1));
}

std::string parentPath(std::string_view path) {
    auto slash = path.rfind('/');
    return slash == 0 || slash == std::string_view::npos ? "/" : std::string(path.substr(0, slash));
}

std::string lastPathComponent(std::string_view path) {
    auto components = pathComponents(path);
    return components.size() > 1 ? components.back() : "";
}

std::optional<std::string> sessionRuntimeFolder() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime == nullptr || runtime[0] != '/') return std::nullopt;
    return std::string(runtime) + "/corvane";
}

}  // namespace corvane
