// Construction of the engine and the small file-system helpers its operations share.
#include "Engine/Locker.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "Engine/ItemName.h"
#include "FileSystem/ExtensionTypes.h"
#include "FileSystem/FileWalk.h"
#include "FileSystem/ItemFacts.h"
#include "FileSystem/OpenFiles.h"
#include "FileSystem/VolumeLayout.h"
#include "Records/Characters.h"
#include "Records/JSONCodec.h"
#include "Records/PasswordRules.h"
#include "Records/Paths.h"

namespace corvane {

namespace {

[[noreturn]] void throwErrno(int error, const std::string& path) {
    throw std::system_error(error, std::generic_category(), path);
}

std::string shortenedBelow(const std::string& text, std::size_t bytes) {
    return Characters::prefix(text, bytes - 1);
}

}  // namespace

Locker::Locker(const std::string& supportDirectory, const std::string& home,
               const std::optional<std::string>& appBundle, std::shared_ptr<const ImageTool> tool)
    : tool(std::move(tool)),
      index(supportDirectory + "/items.json"),
      journal(supportDirectory + "/operations.json"),
      mountsRoot(supportDirectory + "/Open"),
      policy(realPath(home), realPath(mountsRoot),
             appBundle ? std::optional<std::string_view>(realPath(*appBundle)) : std::nullopt,
             supportDirectory) {}

void Locker::requireUsablePassword(std::string_view password) {
    if (auto problem = PasswordRules::inputProblem(password)) throw std::invalid_argument(*problem);
}

std::string Locker::lockedItemPath(const std::string& path) {
    std::string locked = itemPath(path);
    if (!locked.ends_with(".corvlock")) throw CorvaneError::notLocked();
    struct stat status {};
    if (lstat(locked.c_str(), &status) != 0) throw CorvaneError::notFound();
    // The image tool would follow it to whatever it points at, locked item or not.
    if (S_ISLNK(status.st_mode)) throw CorvaneError::refused(LockRefusal::lockedItemShortcut);
    return locked;
}

std::string Locker::lockedBaseName(const std::string& name, bool isFileOrPackage) {
    if (!isFileOrPackage) return name;
    std::string base = name;
    // At most two known extensions go: archive.tar.gz becomes archive; notes.v2 stays whole.
    for (int round = 0; round < 2; ++round) {
        std::string extension = pathExtension(base);
        if (!ExtensionTypes::isRegistered(extension)) break;
        base.resize(base.size() - extension.size() - 1);
    }
    return base;
}

std::string Locker::availableLockedURL(const std::string& base, const std::string& directory) {
    std::string shortened = shortenedBelow(base, 243);
    auto exists = [](const std::string& path) {
        struct stat status {};
        return lstat(path.c_str(), &status) == 0;
    };
    std::string candidate = directory + "/" + shortened + ".corvlock";
    for (int n = 2; exists(candidate); ++n)
        candidate = directory + "/" + shortened + " " + std::to_string(n) + ".corvlock";
    return candidate;
}

std::string Locker::availableName(const std::string& name, const std::string& directory,
                                  const std::string& word) {
    // A name is at most 255 bytes: the base gives way, whole characters at a time, so that the
    // extension and the word stay.
    constexpr std::size_t longestName = 255, longestKeptExtension = 32;
    std::string extension = pathExtension(name);
    if (extension.size() > longestKeptExtension) extension.clear();
    std::string base =
        extension.empty() ? name : name.substr(0, name.size() - extension.size() - 1);
    std::string suffix = extension.empty() ? "" : "." + extension;
    for (int n = 0;; ++n) {
        std::string insert = n == 0   ? ""
                             : n == 1 ? " (" + word + ")"
                                      : " (" + word + " " + std::to_string(n) + ")";
        std::string candidate =
            directory + "/" +
            Characters::prefix(base, longestName - insert.size() - suffix.size()) + insert + suffix;
        struct stat status {};
        if (lstat(candidate.c_str(), &status) != 0) return candidate;
    }
}

std::string Locker::volumeName(const std::string& name) {
    return shortenedBelow(name, 64);
}

bool Locker::isPackageExtension(const std::string&) {
    return false;  // Linux has no folders that pose as files
}

void Locker::setHiddenExtension(const std::string&) {
    // Linux file managers have no hidden extensions; the locked item shows its full name.
}

std::optional<std::int64_t> Locker::availableSpace(const std::string& path) {
    struct statvfs volume {};
    if (statvfs(path.c_str(), &volume) != 0) return std::nullopt;
    return static_cast<std::int64_t>(volume.f_bavail) * static_cast<std::int64_t>(volume.f_frsize);
}

void Locker::makeMountPoint(const std::string& path) const {
    // Only a folder of ours holds mount points: whatever else took its name is kept aside.
    if (struct stat status {}; lstat(mountsRoot.c_str(), &status) == 0 && !S_ISDIR(status.st_mode))
        JSONCodec::setAside(mountsRoot);
    JSONCodec::createDirectories(mountsRoot, 0700);
    JSONCodec::createDirectories(path, 0777);
}

bool Locker::isMarkedUnchangeable(const std::string& path) {
    struct statx status {};
    if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, &status) != 0)
        return false;
    return (status.stx_attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND)) != 0;
}

void Locker::removeOwnedTree(const std::string& path) {
    std::string standardized = standardizedPath(path);
    Folder(parentPath(standardized)).removeOwnedTree(lastPathComponent(standardized));
}

bool Locker::isMountPoint(const std::string& path) {
    struct stat item {
    }, parent{};
    std::string standardized = standardizedPath(path);
    if (stat(standardized.c_str(), &item) != 0 ||
        stat(parentPath(standardized).c_str(), &parent) != 0)
        return false;
    return item.st_dev != parent.st_dev;
}

bool Locker::hasDenyDeleteACL(const std::string&) {
    return false;  // POSIX access lists have no deny entries
}

Locker::EntryMetadata Locker::metadataOf(const struct stat& status) {
    auto nanoseconds = [](const struct timespec& time) {
        return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
    };
    return EntryMetadata{static_cast<mode_t>(status.st_mode & S_IFMT),
                         static_cast<std::int64_t>(status.st_size), nanoseconds(status.st_mtim),
                         nanoseconds(status.st_ctim), static_cast<std::uint64_t>(status.st_ino)};
}

Locker::Snapshot Locker::metadataSnapshot(const std::string& path) {
    Snapshot snapshot;
    struct stat item {};
    if (lstat(path.c_str(), &item) != 0) throwErrno(errno, path);
    snapshot[""] = metadataOf(item);
    if (S_ISDIR(item.st_mode)) {
        FileWalk::walk(path, [&](const FileWalk::Entry& entry) {
            snapshot[entry.relativePath] = entry.problem ? EntryMetadata{} : metadataOf(entry.info);
            return FileWalk::Next::descend;
        });
    }
    return snapshot;
}

OriginalFacts Locker::factsOf(const Snapshot& snapshot) {
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1)
        throw std::runtime_error("SHA-256 is not available");
    OriginalFacts facts;
    for (const auto& [path, metadata] : snapshot) {
        auto number = [](const auto& value) {
            return value ? std::to_string(*value) : std::string("-");
        };
        // The item's own status-change time is kept beside the digest, not in it.
        std::string changed = "-";
        if (path.empty())
            facts.itemChangedNanoseconds = metadata.changedNanoseconds.value_or(0);
        else
            changed = number(metadata.changedNanoseconds);
        // The path ends at its NUL, which no name holds; the numbers follow as text.
        std::string line = path;
        line += '\0';
        line += std::to_string(metadata.type) + " " + number(metadata.size) + " " +
                number(metadata.modifiedNanoseconds) + " " + changed + " " +
                number(metadata.inode) + "\n";
        EVP_DigestUpdate(context.get(), line.data(), line.size());
    }
    unsigned char sum[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context.get(), sum, &length);
    static constexpr char digits[] = "0123456789abcdef";
    for (unsigned int i = 0; i < length; ++i) {
        facts.digest += digits[sum[i] >> 4];
        facts.digest += digits[sum[i] & 0xf];
    }
    return facts;
}

bool Locker::unchangedSinceCopy(const Folder& folder, const std::string& name,
                                const OriginalFacts& facts) {
    // A writer still holding a file could write after the look; one that cannot be ruled out
    // counts as one.
    Holders holders =
        OpenFiles::holdersFromProc((folder.path() == "/" ? "" : folder.path()) + "/" + name);
    if (!holders.isKnown || std::any_of(holders.list.begin(), holders.list.end(),
                                        [](const Holder& holder) { return holder.isWriter; }))
        return false;
    try {
        return factsOf(metadataSnapshot(folder.anchored(name))).digest == facts.digest;
    } catch (...) {
        return false;  // what cannot be read cannot be shown unchanged
    }
}

std::string Locker::keepOriginal(const Folder& folder, const std::string& movedName,
                                 const std::string& name) {
    try {
        folder.renameExclusively(movedName, name);
        return name;
    } catch (const std::system_error& error) {
        if (error.code() != std::errc::file_exists) throw;
    }
    // A program saved under the name meanwhile: both stay, the original beside it.
    std::string kept = lastPathComponent(availableName(name, folder.path(), "original"));
    folder.renameExclusively(movedName, kept);
    return kept;
}

void Locker::undoVisibleLock(const Folder& folder, const JournalEntry& entry,
                             const std::string& finalName, const std::string& mountPoint) const {
    // Only the very image this lock made goes, by way of its partial name, which recovery
    // removes should this stop halfway.
    if (!entry.lockedIdentity ||
        FileIdentity::of(folder.anchored(finalName)) != entry.lockedIdentity)
        throw std::runtime_error("the locked item was replaced");
    const std::string partialName = lastPathComponent(entry.partialPath);
    folder.renameExclusively(finalName, partialName);
    index.remove(entry.id);
    abandon(mountPoint, folder, partialName, entry.id);
}

std::string Locker::itemName(const std::optional<ItemMarker>& marker,
                             const std::optional<LockedItem>& record, const std::string& locked) {
    const std::string lockedName = corvane::itemName(locked);
    for (const std::string* candidate :
         {marker ? &marker->name : nullptr, record ? &record->displayName : nullptr,
          static_cast<const std::string*>(&lockedName)})
        if (candidate && ItemMarker::isSafeName(*candidate)) return *candidate;
    return "Corvane item";
}

Locker::VolumeContents Locker::contentsOf(const std::string& mountPoint,
                                          const std::optional<LockedItem>& record,
                                          const std::string& locked) {
    auto marker = ItemMarker::read(mountPoint);
    return {itemName(marker, record, locked), marker   ? marker->kind
                                              : record ? record->kind
                                                       : LockedItem::Kind::folder};
}

std::int64_t Locker::contentLogicalSize(const std::string& mount, LockedItem::Kind kind,
                                        const std::string& name) {
    if (kind == LockedItem::Kind::file) return ItemFacts::logicalSize(mount + "/" + name);
    std::error_code error;
    std::int64_t total = 0;
    for (const auto& entry : std::filesystem::directory_iterator(mount, error)) {
        if (VolumeLayout::housekeeping().count(entry.path().filename())) continue;
        total += ItemFacts::logicalSize(entry.path());
    }
    return error ? 0 : total;
}

bool Locker::closeAndForget(const std::string& mountPoint) const {
    bool closed = true;
    try {
        tool->detach(mountPoint, true);
    } catch (...) {
        closed = !isMountPoint(mountPoint);
    }
    rmdir(mountPoint.c_str());
    return closed;
}

void Locker::abandon(const std::string& mountPoint, const Folder& folder, const std::string& work,
                     const Uuid& id) const {
    bool clean = closeAndForget(mountPoint);
    try {
        folder.removeOwnedTree(work);
    } catch (...) {
        clean = false;
    }
    if (!clean) return;  // the journal entry stays, so that recovery finishes the clean-up
    try {
        journal.remove(id);
    } catch (...) {
    }
}

}  // namespace corvane
