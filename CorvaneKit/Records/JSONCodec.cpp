#include "Records/JSONCodec.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <system_error>

#include "Records/DateFormat.h"
#include "Records/UTF8.h"
#include "Records/Uuid.h"

namespace corvane {

namespace {

[[noreturn]] void throwErrno(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

void appendString(std::string& out, std::string_view text) {
    if (!UTF8::isValid(text)) throw std::invalid_argument("text is not valid UTF-8");
    out += '"';
    for (char c : text) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '/': out += "\\/"; break;
            case '\b': out += "\\b"; break;
            case '\f': out += "\\f"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
                    out += escaped;
                } else {
                    out += c;
                }
        }
    }
    out += '"';
}

template <class Json>
void append(std::string& out, const Json& value, bool pretty, int depth) {
    auto newline = [&](int level) {
        if (!pretty) return;
        out += '\n';
        out.append(static_cast<std::size_t>(level) * 2, ' ');
    };
    if (value.is_object()) {
        if (value.empty()) return void(out += "{}");
        out += '{';
        bool first = true;
        for (auto it = value.begin(); it != value.end(); ++it) {
            if (!first) out += ',';
            first = false;
            newline(depth + 1);
            appendString(out, it.key());
            out += pretty ? " : " : ":";
            append(out, it.value(), pretty, depth + 1);
        }
        newline(depth);
        out += '}';
    } else if (value.is_array()) {
        if (value.empty()) return void(out += "[]");
        out += '[';
        bool first = true;
        for (const auto& element : value) {
            if (!first) out += ',';
            first = false;
            newline(depth + 1);
            append(out, element, pretty, depth + 1);
        }
        newline(depth);
        out += ']';
    } else if (value.is_string()) {
        appendString(out, value.template get_ref<const std::string&>());
    } else {
        out += value.dump();  // numbers, booleans and null
    }
}

void writeAll(int fd, std::string_view data, const std::function<void()>& fail) {
    std::size_t written = 0;
    while (written < data.size()) {
        ssize_t n = write(fd, data.data() + written, data.size() - written);
        if (n < 0) {
            if (errno == EINTR) continue;
            fail();
        }
        written += static_cast<std::size_t>(n);
    }
}

// A new file at a free name made from `prefix` and a random suffix, created with `mode` (less the
// umask, as the system applies it). Returns its descriptor and sets `created` to its path.
int createTemporary(const std::string& prefix, mode_t mode, std::string& created) {
    for (;;) {
        created = prefix + Uuid::random().string().substr(0, 8);
        int fd = open(created.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
}

// Replaces `path` through a temporary file renamed over it. The file gets `exactMode` when given,
// else what the system makes of 0666 under the umask.
void writeReplacing(std::string_view data, const std::string& path, std::optional<mode_t> exactMode,
                    mode_t directoryMode) {
    auto slash = path.rfind('/');
    std::string directory = slash == std::string::npos ? "."
                            : slash == 0               ? "/"
                                                       : path.substr(0, slash);
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    JSONCodec::createDirectories(directory, directoryMode);

    std::string temporary;
    int fd = createTemporary(directory + "/." + name + ".", exactMode.value_or(0666), temporary);
    if (fd < 0) throwErrno(directory);
    auto fail = [&] {
        int saved = errno;
        if (fd >= 0) close(fd);
        unlink(temporary.c_str());
        errno = saved;
        throwErrno(path);
    };
    // The umask may have taken bits away from an exact mode.
    if (exactMode && fchmod(fd, *exactMode) != 0) fail();
    writeAll(fd, data, fail);
    if (close(fd) != 0) {
        fd = -1;
        fail();
    }
    fd = -1;
    if (rename(temporary.c_str(), path.c_str()) != 0) fail();
}

// The first free set-aside name for `path` at `now`, passed to `take` until it takes one: it
// returns false when the name was taken meanwhile.
template <class Take>
std::string firstFreeAsideName(const std::string& path, std::chrono::system_clock::time_point now,
                               Take take) {
    std::string base = path + ".damaged-" + DateFormat::localStamp(now);
    for (int counter = 1;; ++counter) {
        std::string candidate = counter == 1 ? base : base + "-" + std::to_string(counter);
        struct stat existing {};
        if (lstat(candidate.c_str(), &existing) == 0) continue;
        if (take(candidate)) return candidate;
    }
}

}  // namespace

std::string JSONCodec::encode(const nlohmann::json& value) {
    std::string out;
    append(out, value, true, 0);
    return out;
}

std::string JSONCodec::encodeCompact(const nlohmann::ordered_json& value) {
    std::string out;
    append(out, value, false, 0);
    return out;
}

nlohmann::json JSONCodec::decode(std::string_view text) {
    try {
        return nlohmann::json::parse(text);
    } catch (const nlohmann::json::exception& error) {
        throw DecodingError(error.what());
    }
}

void JSONCodec::createDirectories(const std::string& path, mode_t mode) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0) {
        if (S_ISDIR(status.st_mode)) return;
        errno = ENOTDIR;
        throwErrno(path);
    }
    if (errno != ENOENT) throwErrno(path);
    auto slash = path.find_last_of('/');
    if (slash != std::string::npos && slash > 0) createDirectories(path.substr(0, slash), mode);
    if (mkdir(path.c_str(), mode) != 0) {
        if (errno == EEXIST) return;  // made by someone else meanwhile
        throwErrno(path);
    }
    // The umask must not loosen or tighten a private directory.
    if (mode == 0700 && chmod(path.c_str(), mode) != 0) throwErrno(path);
}

void JSONCodec::writePrivately(std::string_view data, const std::string& path) {
    writeReplacing(data, path, 0600, 0700);
}

void JSONCodec::writeAtomically(std::string_view data, const std::string& path) {
    writeReplacing(data, path, std::nullopt, 0777);
}

void JSONCodec::writeAtomically(std::string_view data, const std::string& path, mode_t mode) {
    writeReplacing(data, path, mode, 0777);
}

std::optional<std::string> JSONCodec::readIfPresent(const std::string& path,
                                                    std::size_t maximumSize, struct stat* opened) {
    // Whatever is at the path may have been put there by someone else: a link is not followed,
    // and a FIFO is opened without waiting for a writer, then refused.
    int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        if (errno == ENOENT) return std::nullopt;
        throwErrno(path);
    }
    auto fail = [&](int error) {
        close(fd);
        errno = error;
        throwErrno(path);
    };
    struct stat status {};
    if (fstat(fd, &status) != 0) fail(errno);
    if (S_ISDIR(status.st_mode)) fail(EISDIR);
    if (!S_ISREG(status.st_mode)) fail(EINVAL);
    if (opened) *opened = status;

    // Read one byte past the limit, so that a file that grew since fstat is still caught.
    std::string contents;
    contents.reserve(
        std::min<std::size_t>(static_cast<std::size_t>(std::max<off_t>(status.st_size, 0)),
                              maximumSize) +
        1);
    char buffer[65536];
    while (contents.size() <= maximumSize) {
        std::size_t room = maximumSize - contents.size();
        std::size_t wanted = room >= sizeof buffer ? sizeof buffer : room + 1;
        ssize_t n = read(fd, buffer, wanted);
        if (n < 0) {
            if (errno == EINTR) continue;
            fail(errno);
        }
        if (n == 0) break;
        contents.append(buffer, static_cast<std::size_t>(n));
    }
    close(fd);
    if (contents.size() > maximumSize)
        throw DecodingError(path + " is larger than " + std::to_string(maximumSize) + " bytes");
    return contents;
}

std::optional<std::string> JSONCodec::readRecord(const std::string& path,
                                                 std::size_t maximumSize) {
    try {
        return readIfPresent(path, maximumSize);
    } catch (const std::system_error& error) {
        int code = error.code().value();
        if (code == ELOOP || code == EISDIR || code == EINVAL)
            throw DecodingError(path + " is not a regular file");
        throw;
    }
}

std::string JSONCodec::setAside(const std::string& path,
                                std::chrono::system_clock::time_point now) {
    return firstFreeAsideName(path, now, [&](const std::string& candidate) {
        // Refuse to replace a file that appeared since the check: nothing may be overwritten.
        if (renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, candidate.c_str(), RENAME_NOREPLACE) == 0)
            return true;
        if (errno == EEXIST) return false;
        if (errno != EINVAL && errno != ENOTSUP) throwErrno(path);
        if (rename(path.c_str(), candidate.c_str()) != 0) throwErrno(path);
        return true;
    });
}

std::string JSONCodec::keepAside(const std::string& path, std::string_view contents,
                                 std::chrono::system_clock::time_point now) {
    return firstFreeAsideName(path, now, [&](const std::string& candidate) {
        int fd =
            open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (errno == EEXIST) return false;
            throwErrno(candidate);
        }
        auto fail = [&] {
            int saved = errno;
            close(fd);
            unlink(candidate.c_str());
            errno = saved;
            throwErrno(candidate);
        };
        writeAll(fd, contents, fail);
        if (fsync(fd) != 0) fail();
        if (close(fd) != 0) {
            unlink(candidate.c_str());
            throwErrno(candidate);
        }
        return true;
    });
}

}  // namespace corvane
