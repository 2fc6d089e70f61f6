#include "Records/AppPaths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>

namespace corvane {

namespace {

std::optional<std::string> nonEmptyVariable(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') return std::nullopt;
    return std::string(value);
}

}  // namespace

std::string AppPaths::support() {
    if (auto override = nonEmptyVariable("CORVANE_SUPPORT_DIR")) return *override;
    // Relative values are invalid by the XDG rules and must be ignored.
    if (auto data = nonEmptyVariable("XDG_DATA_HOME"); data && data->front() == '/')
        return *data + "/corvane";
    return home() + "/.local/share/corvane";
}

bool AppPaths::isTestOverride() {
    return nonEmptyVariable("CORVANE_SUPPORT_DIR").has_value();
}

std::string AppPaths::home() {
    if (auto home = nonEmptyVariable("HOME")) return *home;
    const passwd* entry = getpwuid(getuid());
    return entry != nullptr && entry->pw_dir != nullptr ? entry->pw_dir : "/";
}

}  // namespace corvane
