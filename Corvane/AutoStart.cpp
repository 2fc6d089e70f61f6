#include "AutoStart.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "Records/AppPaths.h"
#include "Records/JSONCodec.h"
#include "Records/UTF8.h"

namespace corvane::app {

namespace {

constexpr std::size_t kEntryLimit = 64 * 1024;
constexpr std::string_view kProgramName = "corvane-app";

// Exec quoting: the argument is quoted when it holds a reserved character, '%' is doubled for
// the field codes, and then the value itself escapes backslashes and line breaks.
std::string execValue(const std::string& program) {
    static constexpr std::string_view reserved = " \t\n\"'\\><~|&;$*?#()`";
    std::string argument;
    if (program.find_first_of(reserved) == std::string::npos) {
        argument = program;
    } else {
        argument = "\"";
        for (char c : program) {
            if (c == '"' || c == '`' || c == '$' || c == '\\') argument += '\\';
            argument += c;
        }
        argument += '"';
    }
    std::string value;
    for (char c : argument) {
        switch (c) {
            case '%': value += "%%"; break;
            case '\\': value += "\\\\"; break;
            case '\n': value += "\\n"; break;
            case '\t': value += "\\t"; break;
            case '\r': value += "\\r"; break;
            default: value += c;
        }
    }
    return value;
}

// The program an Exec value starts: the reverse of execValue, for any entry.
std::string programOf(const std::string& value) {
    std::string unescaped;
    for (std::size_t i = 0; i < value.size(); ++i) {
        char c = value[i];
        if (c == '\\' && i + 1 < value.size()) {
            char next = value[++i];
            unescaped += next == 'n'   ? '\n'
                         : next == 't' ? '\t'
                         : next == 'r' ? '\r'
                         : next == 's' ? ' '
                                       : next;
        } else if (c == '%' && i + 1 < value.size() && value[i + 1] == '%') {
            unescaped += '%';
            ++i;
        } else {
            unescaped += c;
        }
    }
    std::string program;
    if (!unescaped.empty() && unescaped.front() == '"') {
        for (std::size_t i = 1; i < unescaped.size() && unescaped[i] != '"'; ++i) {
            if (unescaped[i] == '\\' && i + 1 < unescaped.size()) ++i;
            program += unescaped[i];
        }
    } else {
        program = unescaped.substr(0, unescaped.find_first_of(" \t"));
    }
    return program;
}

struct Entry {
    std::string exec;
    bool hidden = false;
    bool switchedOff = false;
};

Entry parse(const std::string& text) {
    Entry entry;
    std::istringstream lines(text);
    bool inMainGroup = false;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty() && line.front() == '[') {
            inMainGroup = line == "[Desktop Entry]";
            continue;
        }
        auto equals = line.find('=');
        if (!inMainGroup || equals == std::string::npos) continue;
        auto trim = [](std::string s) {
            s.erase(0, s.find_first_not_of(" \t"));
            s.erase(s.find_last_not_of(" \t") + 1);
            return s;
        };
        auto key = trim(line.substr(0, equals));
        auto value = trim(line.substr(equals + 1));
        if (key == "Exec") entry.exec = value;
        if (key == "Hidden") entry.hidden = value == "true";
        if (key == "X-GNOME-Autostart-enabled") entry.switchedOff = value == "false";
    }
    return entry;
}

bool isOurs(const Entry& entry) {
    auto program = programOf(entry.exec);
    return program == kProgramName || (program.size() > kProgramName.size() &&
                                       program.ends_with("/" + std::string(kProgramName)));
}

bool isOn(const Entry& entry) {
    return !entry.hidden && !entry.switchedOff;
}

// The system's entry, read through links (packages and administrators link entries there);
// one that cannot be read is taken as none.
std::optional<Entry> systemEntry() {
    auto path = AutoStart::systemEntryPath();
    if (!path) return std::nullopt;
    std::ifstream file(*path, std::ios::binary);
    std::string text(kEntryLimit + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (file.bad() || file.gcount() <= 0 || static_cast<std::size_t>(file.gcount()) > kEntryLimit)
        return std::nullopt;
    text.resize(static_cast<std::size_t>(file.gcount()));
    return parse(text);
}

void writeEntry(const std::string& path, const std::string& exec, bool hidden) {
    std::string text =
        "[Desktop Entry]\nType=Application\nName=Corvane\nExec=" + exec +
        " --background\nIcon=corvane\n" +
        (hidden ? "Hidden=true\n" : "X-GNOME-Autostart-enabled=true\nNoDisplay=false\n");
    JSONCodec::writeAtomically(text, path, 0644);
}

// Removes the file at `path` only when it is still the one that was read, never something put
// there since.
void removeIfSame(const std::string& path, const struct stat& opened) {
    struct stat now {};
    if (lstat(path.c_str(), &now) == 0 && now.st_dev == opened.st_dev &&
        now.st_ino == opened.st_ino && unlink(path.c_str()) != 0 && errno != ENOENT)
        throw std::system_error(errno, std::generic_category(), path);
}

}  // namespace

std::string AutoStart::entryPath() {
    const char* config = std::getenv("XDG_CONFIG_HOME");
    std::string folder = config && config[0] == '/' ? config : AppPaths::home() + "/.config";
    return folder + "/autostart/corvane.desktop";
}

std::optional<std::string> AutoStart::systemEntryPath() {
    const char* variable = std::getenv("XDG_CONFIG_DIRS");
    std::istringstream folders(variable && variable[0] ? variable : "/etc/xdg");
    for (std::string folder; std::getline(folders, folder, ':');) {
        // Relative folders are ignored by the XDG rules.
        if (folder.empty() || folder.front() != '/') continue;
        while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
        auto path = folder + "/autostart/corvane.desktop";
        std::error_code error;
        if (std::filesystem::is_regular_file(path, error)) return path;
    }
    return std::nullopt;
}

bool AutoStart::isEnabled() {
    try {
        if (auto text = JSONCodec::readIfPresent(entryPath(), kEntryLimit))
            return isOn(parse(*text));
    } catch (const std::exception&) {
        // A link, a FIFO or an oversized file is no entry of ours, yet it hides the system's;
        // enabling replaces it.
        return false;
    }
    auto system = systemEntry();
    return system && isOn(*system);
}

std::optional<std::string> AutoStart::setEnabled(bool enabled, const std::string& executable) {
    auto path = entryPath();
    try {
        auto system = systemEntry();
        bool systemStartsUs = system && isOn(*system) && isOurs(*system);
        struct stat opened {};
        std::optional<Entry> user;
        std::exception_ptr unreadable;
        try {
            if (auto text = JSONCodec::readIfPresent(path, kEntryLimit, &opened))
                user = parse(*text);
        } catch (const std::exception&) {
            unreadable = std::current_exception();
        }

        if (enabled) {
            // The system's entry starts us: an override of ours only stands in its way.
            if (systemStartsUs && !unreadable && (!user || isOurs(*user))) {
                if (user && !isOn(*user)) removeIfSame(path, opened);
                return std::nullopt;
            }
            if (!UTF8::isValid(executable))
                return "Corvane cannot start at login from a folder whose name is not UTF-8 text.";
            writeEntry(path, execValue(executable), false);
            return std::nullopt;
        }
        if (unreadable) std::rethrow_exception(unreadable);
        if (user && !isOurs(*user))
            return "Corvane left " + UTF8::lenient(path) + " in place: it starts another program.";
        if (!user && system && isOn(*system) && !systemStartsUs)
            return "Corvane left " + UTF8::lenient(systemEntryPath().value_or("")) +
                   " in place: it starts another program.";
        if (systemStartsUs) {
            // Removing ours would leave the system's entry in effect: a hidden one overrides it.
            if (!user || isOn(*user)) writeEntry(path, std::string(kProgramName), true);
        } else if (user) {
            removeIfSame(path, opened);
        }
        return std::nullopt;
    } catch (const std::exception& error) {
        return std::string("Corvane could not change its start at login: ") +
               UTF8::lenient(error.what());
    }
}

std::string AutoStart::runningProgram() {
    std::error_code error;
    std::string program = std::filesystem::read_symlink("/proc/self/exe", error).string();
    // The program file was replaced while running (an upgrade): the path is still the one.
    constexpr std::string_view deleted = " (deleted)";
    if (program.ends_with(deleted)) program.resize(program.size() - deleted.size());
    return program;
}

}  // namespace corvane::app
