#include "FileSystem/MountTable.h"

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <system_error>

namespace corvane {

std::vector<MountEntry> MountTable::read(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), path);
    // A /proc file reports size 0 and fills as it is read, so read to the end, within the cap.
    std::string text;
    char buffer[65536];
    for (;;) {
        ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 || text.size() + static_cast<std::size_t>(count) > maximumBytes) {
            int error = count < 0 ? errno : EFBIG;
            close(fd);
            // A table cut short could list a mount point cut short; refuse it whole.
            throw std::system_error(error, std::generic_category(), path);
        }
        if (count == 0) break;
        text.append(buffer, static_cast<std::size_t>(count));
    }
    close(fd);
    return parse(text);
}

std::vector<MountEntry> MountTable::parse(std::string_view text) {
    std::vector<MountEntry> mounts;
    std::istringstream lines{std::string(text)};
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::vector<std::string> words;
        for (std::string word; fields >> word;) words.push_back(word);
        // id parent major:minor root mountpoint options [optional fields...] - type source
        // superoptions
        std::size_t separator = 6;
        while (separator < words.size() && words[separator] != "-") ++separator;
        if (words.size() < 7 || separator + 2 >= words.size()) continue;
        unsigned major = 0, minor = 0;
        char colon = 0;
        std::istringstream numbers(words[2]);
        if (!(numbers >> major >> colon >> minor) || colon != ':') continue;
        mounts.push_back({makedev(major, minor), unescape(words[4]), words[separator + 1],
                          unescape(words[separator + 2])});
    }
    return mounts;
}

std::string MountTable::unescape(std::string_view field) {
    auto octal = [](char c) { return c >= '0' && c <= '7'; };
    std::string text;
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && octal(field[i + 1]) &&
            octal(field[i + 2]) && octal(field[i + 3])) {
            text += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                                      (field[i + 3] - '0'));
            i += 3;
            continue;
        }
        text += field[i];
    }
    return text;
}

std::optional<MountEntry> MountTable::containing(const std::vector<MountEntry>& mounts,
                                                 std::string_view path, dev_t device) {
    auto holds = [&](const std::string& mountPoint) {
        if (mountPoint == "/") return true;
        return path == mountPoint ||
               (path.size() > mountPoint.size() &&
                path.substr(0, mountPoint.size()) == mountPoint && path[mountPoint.size()] == '/');
    };
    std::optional<MountEntry> best;
    for (const auto& mount : mounts) {
        if (mount.device != device || !holds(mount.mountPoint)) continue;
        // Later lines mount over earlier ones at the same place.
        if (!best || mount.mountPoint.size() >= best->mountPoint.size()) best = mount;
    }
    return best;
}

}  // namespace corvane
