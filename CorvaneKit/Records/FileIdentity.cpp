#include "Records/FileIdentity.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "Records/JSONFields.h"

namespace corvane {

std::optional<FileIdentity> FileIdentity::of(const std::string& path) {
    struct statx status {};
    if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME, &status) != 0)
        return std::nullopt;
    FileIdentity identity;
    identity.inode = status.stx_ino;
    if (status.stx_mask & STATX_BTIME) {
        identity.birthSeconds = status.stx_btime.tv_sec;
        identity.birthNanoseconds = status.stx_btime.tv_nsec;
    }
    return identity;
}

nlohmann::json FileIdentity::toJSON() const {
    return {
        {"inode", inode}, {"birthSeconds", birthSeconds}, {"birthNanoseconds", birthNanoseconds}};
}

FileIdentity FileIdentity::fromJSON(const nlohmann::json& value) {
    JSONFields::object(value, "lockedIdentity");
    FileIdentity identity;
    identity.inode = JSONFields::uint64(JSONFields::required(value, "inode"), "inode");
    identity.birthSeconds = JSONFields::requiredInt64(value, "birthSeconds");
    identity.birthNanoseconds = JSONFields::requiredInt64(value, "birthNanoseconds");
    return identity;
}

}  // namespace corvane
