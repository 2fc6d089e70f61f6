// Encrypted sparse-bundle images through the macOS disk image tool, hdiutil: the exact command
// lines, the reading of its answers and the translation of its failures.
#pragma once

#include <string>
#include <string_view>

#include "FileSystem/ImageTool.h"

namespace corvane {

class DiskImageTool : public ImageTool {
public:
    static constexpr const char* virtualSize = "2t";

    explicit DiskImageTool(std::string hdiutil = "/usr/bin/hdiutil")
        : hdiutil_(std::move(hdiutil)) {}

    const std::string& hdiutil() const { return hdiutil_; }

    // The image's name must end in ".sparsebundle"; anything else is a programming error.
    void create(const std::string& image, const std::string& volumeName,
                const std::string& password) const override;
    void attach(const std::string& image, const std::string& mountPoint,
                const std::string& password, bool readOnly) const override;
    void changePassword(const std::string& image, const std::string& oldPassword,
                        const std::string& newPassword) const override;
    std::vector<AttachedImage> attachedImages() const override;
    bool isImage(int folder, const std::string& name) const override;
    // What "hdiutil info -plist" printed; anything that is not such a list throws diskImage.
    static std::vector<AttachedImage> parseAttachedImages(std::string_view output);

    // The tool's output on one line, without its "hdiutil: " prefixes.
    static std::string clean(const std::string& output);

protected:
    ProcessResult detachAttempt(const std::string& mountPoint, bool force) const override;
    bool isBusy(const ProcessResult& result) const override;
    void forceDetach(const std::string& mountPoint) const override;
    std::string report(const std::string& output) const override { return clean(output); }

private:
    ProcessResult run(const std::vector<std::string>& arguments,
                      std::optional<std::string> input) const;
    // Status 0 passes; "Authentication error" is a wrong password; anything else the tool's report.
    void expectSuccess(const ProcessResult& result, bool passwordChecked) const;

    std::string hdiutil_;
};

}  // namespace corvane
