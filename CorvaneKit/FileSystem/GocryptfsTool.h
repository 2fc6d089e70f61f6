// Encrypted images on Linux: gocryptfs cipher directories (AES-256-GCM, scrypt), mounted through
// FUSE. gocryptfs has no volume names; the image's name and its marker say what it holds.
#pragma once

#include <optional>
#include <string>

#include "FileSystem/ImageTool.h"

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
    void attach(const std::string& image, const std::string& mountPoint,
                const std::string& password, bool readOnly) const override;
    void changePassword(const std::string& image, const std::string& oldPassword,
                        const std::string& newPassword) const override;
    std::vector<AttachedImage> attachedImages() const override;

    // The tool's output on one line, without the complaints about a missing system log.
    static std::string clean(const std::string& output);

    // Why gocryptfs could not take `password` whole on its input, or nothing when it can. It reads
    // one line, so a line break would cut the password short without a word.
    static std::optional<std::string> passwordProblem(const std::string& password);

protected:
    ProcessResult detachAttempt(const std::string& mountPoint, bool force) const override;
    bool isBusy(const ProcessResult& result) const override;
    void forceDetach(const std::string& mountPoint) const override;
    std::string report(const std::string& output) const override { return clean(output); }

private:
    // A lazy unmount alone would keep the plaintext readable through files still open, so the
    // cached contents of those files are dropped and the process serving the mount is ended.
    ProcessResult unmountForcibly(const std::string& mountPoint) const;

    std::string gocryptfs_;
    std::string fusermount_;
};

}  // namespace corvane
