#include "FileSystem/ProcessIO.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace corvane {

namespace {

// The kernel's text is about 160 bytes.
constexpr std::size_t kLongestRead = 4096;

std::optional<std::int64_t> decimal(std::string_view digits) {
    if (digits.empty()) return std::nullopt;
    std::int64_t value = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') return std::nullopt;
        if (__builtin_mul_overflow(value, 10, &value) ||
            __builtin_add_overflow(value, c - '0', &value))
            return std::nullopt;
    }
    return value;
}

}  // namespace

std::optional<std::int64_t> ProcessIO::bytesWrittenIn(std::string_view text) {
    constexpr std::string_view kKey = "wchar:";
    std::optional<std::int64_t> found;
    bool seen = false;
    for (std::size_t end; (end = text.find('\n')) != std::string_view::npos;
         text.remove_prefix(end + 1)) {
        std::string_view line = text.substr(0, end);
        if (!line.starts_with(kKey)) continue;
        if (seen) return std::nullopt;  // two counts: neither can be trusted
        seen = true;
        line.remove_prefix(kKey.size());
        while (!line.empty() && (line.front() == ' ' || line.front() == '\t'))
            line.remove_prefix(1);
        found = decimal(line);
    }
    return found;
}

std::optional<std::int64_t> ProcessIO::bytesWritten(pid_t pid) {
    if (pid <= 0) return std::nullopt;
    const std::string path = "/proc/" + std::to_string(pid) + "/io";
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY);
    if (fd < 0) return std::nullopt;
    char buffer[kLongestRead];
    std::size_t length = 0;
    while (length < sizeof buffer) {
        ssize_t n = read(fd, buffer + length, sizeof buffer - length);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            close(fd);
            return std::nullopt;
        }
        if (n == 0) break;
        length += static_cast<std::size_t>(n);
    }
    close(fd);
    return bytesWrittenIn({buffer, length});
}

}  // namespace corvane
