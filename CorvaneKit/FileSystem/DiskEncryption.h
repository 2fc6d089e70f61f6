// Whether deleted originals stay protected: the file system that holds a folder lies on a
// dm-crypt device, directly or under other device-mapper layers (LVM on LUKS). Read from the
// mount table and /sys; no privileges needed.
#pragma once

#include <optional>
#include <string>

namespace corvane {

struct DiskEncryption {
    // Nothing when it cannot be told (no mount found, /sys unreadable).
    static std::optional<bool> protects(const std::string& path);

    // The same below a given /sys/dev/block folder and mount table, for tests.
    static std::optional<bool> protects(const std::string& path, const std::string& mountTable,
                                        const std::string& blockDevices);
};

}  // namespace corvane
