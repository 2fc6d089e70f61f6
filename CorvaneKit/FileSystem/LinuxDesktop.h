// The facts of a Linux desktop that decide what may be locked, kept as data in one place: the
// system's own folders, the user's application folders, and which file systems are network drives.
#pragma once

#include <array>
#include <string_view>

namespace corvane {

struct LinuxDesktop {
    // Refused themselves; what lies inside may be locked (removable drives, temporary files).
    static constexpr std::array<std::string_view, 7> systemLocations = {
        "/", "/home", "/media", "/mnt", "/run/media", "/tmp", "/var/tmp",
    };

    // Refused with everything below them...
    static constexpr std::array<std::string_view, 17> systemTrees = {
        "/bin",  "/boot", "/dev",  "/etc",  "/lib", "/lib32", "/lib64", "/libx32", "/opt",
        "/proc", "/run",  "/sbin", "/snap", "/srv", "/sys",   "/usr",   "/var",
    };

    // ...except the user's own places inside them, named above as system locations: a drive
    // mounted under /run/media, files kept in /var/tmp.
    static constexpr std::array<std::string_view, 2> userPlacesInSystemTrees = {"/run/media",
                                                                                "/var/tmp"};

    // Folders of the home folder that applications rely on.
    static constexpr std::array<std::string_view, 3> libraryFolders = {".config", ".local",
                                                                       ".cache"};

    struct StandardFolder {
        std::string_view key;          // in ~/.config/user-dirs.dirs
        std::string_view defaultName;  // in the home folder when the key is not set
    };
    static constexpr std::array<StandardFolder, 3> standardFolders = {{
        {"XDG_DESKTOP_DIR", "Desktop"},
        {"XDG_DOCUMENTS_DIR", "Documents"},
        {"XDG_DOWNLOAD_DIR", "Downloads"},
    }};

    // Name endings (lower case) of applications and of everything inside them.
    static constexpr std::array<std::string_view, 2> applicationSuffixes = {".app", ".appimage"};

    // File system types, as /proc/self/mountinfo names them, whose files live on another machine.
    static constexpr std::array<std::string_view, 12> networkFileSystems = {
        "nfs",  "nfs4", "cifs",       "smb3",        "smbfs",          "afs",
        "ceph", "9p",   "fuse.sshfs", "fuse.rclone", "fuse.ceph-fuse", "fuse.s3fs",
    };

    // Indexers and thumbnailers that may keep a volume busy only by reading it, by the command
    // name lsof gives (the kernel keeps 15 characters: tracker-miner-fs-3 reads tracker-miner-f).
    // A volume held only by them may be ejected by force.
    static constexpr std::array<std::string_view, 5> autoEjectAllowlist = {
        "tracker-miner-f", "tracker-extract", "baloo_file", "baloo_file_extr", "tumblerd",
    };

    // ...and only when their program is installed by the system, not a user's program borrowing
    // the name.
    static constexpr std::array<std::string_view, 3> systemExecutablePrefixes = {
        "/usr/libexec/",
        "/usr/lib/",
        "/usr/bin/",
    };
};

}  // namespace corvane
