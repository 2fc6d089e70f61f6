#include "FileSystem/ThumbnailScrubber.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>

#include <openssl/evp.h>

#include "Records/JSONCodec.h"

namespace corvane {

namespace {

std::string homeFolder() {
    const char* home = std::getenv("HOME");
    return home ? home : "";
}

std::string fromEnvironment(const char* variable, const std::string& fallback) {
    const char* value = std::getenv(variable);
    return value && *value == '/' ? std::string(value) : fallback;
}

// Removes `path`; a file that is not there is already forgotten.
bool removed(const std::string& path) {
    return unlink(path.c_str()) == 0 || errno == ENOENT;
}

std::vector<std::string> subfolders(const std::string& folder) {
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(folder.c_str()), closedir);
    if (!directory) return names;
    while (dirent* entry = readdir(directory.get())) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(folder + "/" + name);
    }
    return names;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The local path a file URI names, or nothing for other URIs.
std::optional<std::string> pathOfFileURI(std::string_view uri) {
    if (!uri.starts_with("file://")) return std::nullopt;
    uri.remove_prefix(7);
    if (!uri.starts_with('/')) return std::nullopt;  // a host name: not this computer's file
    std::string path;
    for (std::size_t i = 0; i < uri.size(); ++i) {
        if (uri[i] == '%' && i + 2 < uri.size() && hexValue(uri[i + 1]) >= 0 &&
            hexValue(uri[i + 2]) >= 0) {
            path += static_cast<char>(hexValue(uri[i + 1]) * 16 + hexValue(uri[i + 2]));
            i += 2;
        } else {
            path += uri[i];
        }
    }
    return path;
}

std::string xmlUnescaped(std::string_view text) {
    static const std::pair<std::string_view, char> entities[] = {
        {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
    std::string plain;
    for (std::size_t i = 0; i < text.size();) {
        bool replaced = false;
        for (const auto& [entity, character] : entities) {
            if (text.substr(i, entity.size()) == entity) {
                plain += character;
                i += entity.size();
                replaced = true;
                break;
            }
        }
        if (!replaced) plain += text[i++];
    }
    return plain;
}

std::optional<std::string> attribute(std::string_view tag, std::string_view name) {
    for (std::size_t at = tag.find(name); at != std::string_view::npos;
         at = tag.find(name, at + 1)) {
        bool startsWord = at > 0 && std::isspace(static_cast<unsigned char>(tag[at - 1]));
        std::size_t equals = at + name.size();
        while (equals < tag.size() && std::isspace(static_cast<unsigned char>(tag[equals])))
            ++equals;
        if (!startsWord || equals >= tag.size() || tag[equals] != '=') continue;
        std::size_t quote = equals + 1;
        while (quote < tag.size() && std::isspace(static_cast<unsigned char>(tag[quote]))) ++quote;
        if (quote >= tag.size() || (tag[quote] != '"' && tag[quote] != '\'')) return std::nullopt;
        std::size_t close = tag.find(tag[quote], quote + 1);
        if (close == std::string_view::npos) return std::nullopt;
        return xmlUnescaped(tag.substr(quote + 1, close - quote - 1));
    }
    return std::nullopt;
}

bool isAtOrBelow(const std::string& path, const std::string& item) {
    return path == item ||
           (path.size() > item.size() && path.starts_with(item) && path[item.size()] == '/');
}

// The Recents list without the item's bookmarks, or nothing when the file does not read as one.
// Each <bookmark> element goes with the indentation and line break around it.
std::optional<std::string> withoutItem(const std::string& xbel, const std::string& item,
                                       bool& changed) {
    if (xbel.find("<xbel") == std::string::npos || xbel.find("</xbel>") == std::string::npos)
        return std::nullopt;
    std::string kept;
    std::size_t copied = 0;
    for (std::size_t at = xbel.find("<bookmark"); at != std::string::npos;
         at = xbel.find("<bookmark", at + 1)) {
        char after = at + 9 < xbel.size() ? xbel[at + 9] : '\0';
        if (!std::isspace(static_cast<unsigned char>(after)) && after != '>' && after != '/')
            continue;
        std::size_t tagEnd = xbel.find('>', at);
        if (tagEnd == std::string::npos) return std::nullopt;
        std::size_t end = tagEnd + 1;
        if (xbel[tagEnd - 1] != '/') {
            std::size_t closing = xbel.find("</bookmark>", tagEnd);
            if (closing == std::string::npos) return std::nullopt;
            end = closing + 11;
        }
        auto href = attribute(std::string_view(xbel).substr(at, tagEnd - at), "href");
        auto path = href ? pathOfFileURI(*href) : std::nullopt;
        if (path && isAtOrBelow(*path, item)) {
            std::size_t lineStart = at;
            while (lineStart > copied &&
                   (xbel[lineStart - 1] == ' ' || xbel[lineStart - 1] == '\t'))
                --lineStart;
            if (end < xbel.size() && xbel[end] == '\n') ++end;
            kept.append(xbel, copied, lineStart - copied);
            copied = end;
            changed = true;
        }
        at = end - 1;
    }
    kept.append(xbel, copied, std::string::npos);
    return kept;
}

// Recents lists hold a few thousand entries at most; anything far larger is not one.
constexpr std::size_t kLargestRecents = std::size_t(32) << 20;

// Only a regular file is read and replaced: a link (to wherever it points) is left alone, and the
// file keeps its mode.
bool forgetRecents(const std::string& recentsFile, const std::string& item) {
    try {
        struct stat read {};
        auto xbel = JSONCodec::readIfPresent(recentsFile, kLargestRecents, &read);
        if (!xbel) return true;
        bool changed = false;
        auto cleaned = withoutItem(*xbel, item, changed);
        if (!cleaned) return false;  // damaged: leave it for its owner to mend
        if (!changed) return true;
        // Whatever took its place meanwhile is not replaced.
        struct stat now {};
        if (lstat(recentsFile.c_str(), &now) != 0 || now.st_dev != read.st_dev ||
            now.st_ino != read.st_ino)
            return false;
        JSONCodec::writeAtomically(*cleaned, recentsFile, read.st_mode & 07777);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

std::string thumbnailsOfUser() {
    return fromEnvironment("XDG_CACHE_HOME", homeFolder() + "/.cache") + "/thumbnails";
}

std::string recentsOfUser() {
    return fromEnvironment("XDG_DATA_HOME", homeFolder() + "/.local/share") + "/recently-used.xbel";
}

// Every folder of thumbnails: each size, and the failure records of each thumbnailer.
std::vector<std::string> thumbnailFolders(const std::string& thumbnailsFolder) {
    std::vector<std::string> folders;
    for (const char* size : {"normal", "large", "x-large", "xx-large"})
        folders.push_back(thumbnailsFolder + "/" + size);
    for (const auto& failures : subfolders(thumbnailsFolder + "/fail")) folders.push_back(failures);
    return folders;
}

// The text chunks come before the image data: the first 64 KiB of a regular file hold them.
std::string pngHead(int folder, const std::string& name) {
    int fd = openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return {};
    std::string head;
    struct stat status {};
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        head.resize(65536);
        ssize_t n = read(fd, head.data(), head.size());
        head.resize(n > 0 ? std::size_t(n) : 0);
    }
    close(fd);
    return head;
}

}  // namespace

std::string ThumbnailScrubber::fileURI(const std::string& path) {
    // Letters, digits and !$&'()*+,-./:=@_~ stay; everything else, non-ASCII bytes too, is %XX.
    static constexpr std::string_view kKept = "!$&'()*+,-./:=@_~";
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string uri = "file://";
    for (char c : path) {
        auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) || kKept.find(c) != std::string_view::npos) {
            uri += c;
        } else {
            uri += '%';
            uri += kDigits[byte >> 4];
            uri += kDigits[byte & 0x0F];
        }
    }
    return uri;
}

std::string ThumbnailScrubber::thumbnailName(const std::string& uri) {
    unsigned char sum[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(uri.data(), uri.size(), sum, &length, EVP_md5(), nullptr);
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string name;
    for (unsigned i = 0; i < length; ++i) {
        name += kDigits[sum[i] >> 4];
        name += kDigits[sum[i] & 0x0F];
    }
    return name + ".png";
}

bool ThumbnailScrubber::forgetBelow(const std::string& itemPath) {
    return forgetBelow(itemPath, thumbnailsOfUser(), recentsOfUser());
}

bool ThumbnailScrubber::forgetBelow(const std::string& itemPath,
                                    const std::string& thumbnailsFolder,
                                    const std::string& recentsFile) {
    bool complete = true;
    for (const auto& folder : thumbnailFolders(thumbnailsFolder)) {
        std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(folder.c_str()), closedir);
        if (!directory) continue;
        while (dirent* entry = readdir(directory.get())) {
            std::string name = entry->d_name;
            if (!name.ends_with(".png")) continue;
            auto source = thumbnailSource(pngHead(dirfd(directory.get()), name));
            auto path = source ? pathOfFileURI(*source) : std::nullopt;
            if (path && isAtOrBelow(*path, itemPath)) complete &= removed(folder + "/" + name);
        }
    }
    complete &= forgetRecents(recentsFile, itemPath);
    return complete;
}

std::optional<std::string> ThumbnailScrubber::thumbnailSource(std::string_view png) {
    constexpr std::string_view signature("\x89PNG\r\n\x1a\n", 8);
    if (!png.starts_with(signature)) return std::nullopt;
    auto number = [&](std::size_t at) {  // big-endian, as PNG keeps its lengths
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < 4; ++i) value = value << 8 | std::uint8_t(png[at + i]);
        return value;
    };
    constexpr std::string_view key("Thumb::URI\0", 11);
    for (std::size_t at = signature.size(); at + 8 <= png.size();) {
        const std::uint32_t length = number(at);
        const std::string_view type = png.substr(at + 4, 4);
        if (type == "IDAT" || type == "IEND" || length > png.size() - at - 8) return std::nullopt;
        const std::string_view data = png.substr(at + 8, length);
        if (type == "tEXt" && data.starts_with(key)) return std::string(data.substr(key.size()));
        // iTXt: keyword, NUL, compression flag, method, language, NUL, translated keyword, NUL.
        if (type == "iTXt" && data.starts_with(key) && data.size() > key.size() + 2 &&
            data[key.size()] == '\0') {
            std::string_view rest = data.substr(key.size() + 2);
            auto language = rest.find('\0');
            auto translated =
                language == std::string_view::npos ? language : rest.find('\0', language + 1);
            if (translated != std::string_view::npos)
                return std::string(rest.substr(translated + 1));
        }
        at += 8 + std::size_t(length) + 4;  // and its CRC
    }
    return std::nullopt;
}

bool ThumbnailScrubber::reset(const std::string& itemPath,
                              const std::vector<std::string>& relativePaths) {
    return reset(itemPath, relativePaths, thumbnailsOfUser(), recentsOfUser());
}

bool ThumbnailScrubber::reset(const std::string& itemPath,
                              const std::vector<std::string>& relativePaths,
                              const std::string& thumbnailsFolder, const std::string& recentsFile) {
    const std::vector<std::string> folders = thumbnailFolders(thumbnailsFolder);
    bool complete = true;
    auto forget = [&](const std::string& path) {
        std::string name = thumbnailName(fileURI(path));
        for (const auto& folder : folders) complete &= removed(folder + "/" + name);
    };
    forget(itemPath);
    for (const auto& relative : relativePaths) forget(itemPath + "/" + relative);
    complete &= forgetRecents(recentsFile, itemPath);
    return complete;
}

}  // namespace corvane
