// Encrypted images on Linux: gocryptfs cipher directories (AES-256-GCM, scrypt), mounted through
// FUSE. gocryptfs has no volume names; the image's name and its marker say what it holds.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "FileSystem/ImageTool.h"
#include "FileSystem/MountTable.h"

namespace corvane {

class GocryptfsTool : public ImageTool {
public:
    // gocryptfs reads at most this many bytes of password from its input.
    static constexpr std::size_t maximumPasswordBytes = 2048;

    explicit GocryptfsTool(std::string gocryptfs = "/usr/bin/gocryptfs",
                           std::string fusermount = "/usr/bin/fusermount3")
        : gocryptfs_(std::move(gocryptfs)), fusermount_(std::move(fusermount)) {}

    void create(const std::string& image, const std::string& volumeName,
                const std::string& password) const override;
    // attach and changePassword throw diskImage, before gocryptfs runs, for an image without a
    // regular gocryptfs.conf file.
    void attach(const std::string& image, const std::string& mountPoint,
                const std::string& password, bool readOnly) const override;
    void changePassword(const std::string& image, const std::string& oldPassword,
                        const std::string& newPassword) const override;
    // Each image as its server's command line names it (the mount table mangles some names);
    // the mount table's source where no server can be identified. Throws std::system_error
    // when the mount table cannot be read.
    std::vector<AttachedImage> attachedImages() const override;
    bool isImage(int folder, const std::string& name) const override;

    // An item opened for writing closes itself once nothing has used it for this long (no file
    // open, no working folder in it), even when no Corvane runs any more; zero keeps it open
    // until it is detached. Set from any thread; read at each attach.
    void setIdleLimit(std::chrono::seconds limit) { idleLimitSeconds_ = limit.count(); }

    // The tool's output on one line, without the complaints about a missing system log.
    static std::string clean(const std::string& output);

    // Why gocryptfs could not take `password` whole on its input, or nothing when it can. It reads
    // one line, so a line break would cut the password short without a word.
    static std::optional<std::string> passwordProblem(const std::string& password);

    // What /proc shows of a gocryptfs process that holds a FUSE connection open.
    struct Server {
        pid_t pid = 0;
        std::string cipherDirectory;  // the two paths of its command line, possibly relative
        std::string mountPoint;
        std::vector<unsigned long> connections;  // the kernel's numbers; empty where it gives none
    };

    // Whether `server` serves `mount`. The kernel's connection number settles it where the kernel
    // names it (recent kernels); elsewhere the server's mount point, when absolute, must be
    // this mount's.
    static bool serves(const Server& server, const MountEntry& mount);

protected:
    ProcessResult detachAttempt(const std::string& mountPoint, bool force) const override;
    bool isBusy(const ProcessResult& result) const override;
    void forceDetach(const std::string& mountPoint) const override;
    std::string report(const std::string& output) const override { return clean(output); }

private:
    // A lazy unmount alone would keep the plaintext readable through files still open, so the
    // cached contents of those files are dropped and the process serving the mount is ended.
    // Throws diskImage, leaving the mount as it was, when no locked item is open there or when
    // its live server cannot be identified (a mount whose server has died is simply unmounted),
    // and when the server does not end.
    ProcessResult unmountForcibly(const std::string& mountPoint) const;

    std::string gocryptfs_;
    std::atomic<std::int64_t> idleLimitSeconds_{0};
    std::string fusermount_;
};

}  // namespace corvane
