#include "Records/ItemMarker.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "Records/JSONCodec.h"

namespace corvane {

void ItemMarker::write(const std::string& volume) const {
    nlohmann::ordered_json value = {
        {"formatVersion", formatVersion},
        {"kind", LockedItem::rawValue(kind)},
        {"name", name},
    };
    if (mode) value["mode"] = *mode;
    std::string data = JSONCodec::encodeCompact(value);
    std::string path = volume + "/" + std::string(fileName);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY,
                  0666);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), path);
    struct stat status {};
    int refusal = fstat(fd, &status) != 0 ? errno : S_ISREG(status.st_mode) ? 0 : EINVAL;
    if (refusal == 0 && ftruncate(fd, 0) != 0) refusal = errno;
    if (refusal != 0) {
        close(fd);
        throw std::system_error(refusal, std::generic_category(), path);
    }
    std::size_t written = 0;
    while (written < data.size()) {
        ssize_t n = ::write(fd, data.data() + written, data.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            int saved = errno;
            close(fd);
            throw std::system_error(saved, std::generic_category(), path);
        }
        written += static_cast<std::size_t>(n);
    }
    if (close(fd) != 0) throw std::system_error(errno, std::generic_category(), path);
}

std::optional<ItemMarker> ItemMarker::read(const std::string& volume) {
    try {
        auto text = JSONCodec::readIfPresent(volume + "/" + std::string(fileName),
                                             JSONCodec::smallRecordLimit);
        if (!text) return std::nullopt;
        auto value = JSONCodec::decode(*text);
        JSONFields::object(value, "marker");
        auto version = JSONFields::requiredInt64(value, "formatVersion");
        auto kind = LockedItem::kindFromRawValue(JSONFields::requiredString(value, "kind"));
        auto name = JSONFields::requiredString(value, "name");
        if (!kind || version < INT32_MIN || version > INT32_MAX) return std::nullopt;
        ItemMarker marker(*kind, name);
        marker.formatVersion = static_cast<int>(version);
        // A mode outside the permission bits is ignored rather than applied.
        if (auto mode = JSONFields::optionalInt64(value, "mode"); mode && *mode >= 0 && *mode <= 07777)
            marker.mode = static_cast<unsigned>(*mode);
        return marker;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

bool ItemMarker::isSafeName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." &&
           name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

}  // namespace corvane
