// A folder held open by its descriptor. Once an operation has checked an item, its folder's path
// may be swapped for a link to somewhere else; everything after the checks creates, renames and
// deletes through this descriptor instead, and confirms the folder's identity before anything is
// deleted. Move-only; one owner, one thread at a time.
#pragma once

#include <sys/stat.h>

#include <string>

namespace corvane {

class Folder {
public:
    // Opens the folder at `path` (a real path), never following a final symbolic link.
    explicit Folder(std::string path);
    ~Folder();
    Folder(Folder&& other) noexcept;
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    Folder& operator=(Folder&&) = delete;

    int descriptor() const { return fd_; }
    const std::string& path() const { return path_; }

    // A path to `name` that reaches it through the descriptor, whatever the folder's path now
    // leads to; for this process alone (another one may not read its descriptors). A child
    // process starts in the folder instead (ProcessRunner's working folder).
    std::string anchored(const std::string& name) const;

    // Throws unless the folder's path still leads to the very folder opened at the start.
    void confirmIdentity() const;

    bool contains(const std::string& name) const;
    // lstat of an entry; false when it cannot be read.
    bool status(const std::string& name, struct stat& result) const;

    // Never replaces an existing entry; the rename is made durable in the folder.
    void renameExclusively(const std::string& from, const std::string& to) const;

    // Everything written to this folder's file system reaches stable storage, the folder's own
    // entries included.
    void synchronize() const;

    // Deletes `name` and everything below it, making read-only folders writable first and never
    // crossing into another file system. Confirms the folder's identity first. Nothing missing
    // is fine.
    void removeOwnedTree(const std::string& name) const;

private:
    std::string path_;
    int fd_ = -1;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace corvane
