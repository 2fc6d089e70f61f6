// The one interface through which the engine creates, opens, closes and re-keys encrypted images,
// whatever tool serves them. Passwords only ever travel on a child's standard input. Detaching is
// one algorithm for every tool: three tries while the volume is busy, then either a report of
// who keeps it busy or, when only harmless system readers do, a forced detach. Each operation
// blocks while its tool runs; call from the engine's worker, one at a time.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "FileSystem/AttachedImage.h"
#include "FileSystem/OpenFiles.h"
#include "FileSystem/ProcessResult.h"

namespace corvane {

class ImageTool {
public:
    virtual ~ImageTool() = default;

    virtual void create(const std::string& image, const std::string& volumeName,
                        const std::string& password) const = 0;
    virtual void attach(const std::string& image, const std::string& mountPoint,
                        const std::string& password, bool readOnly) const = 0;
    virtual void changePassword(const std::string& image, const std::string& oldPassword,
                                const std::string& newPassword) const = 0;
    virtual std::vector<AttachedImage> attachedImages() const = 0;
    // Whether `name` in the folder open as `folder` is an image of this tool's kind, or one whose
    // creation was interrupted before it held anything else. Never follows a link.
    virtual bool isImage(int folder, const std::string& name) const = 0;

    // Throws CorvaneError::inUse naming the programs that keep the volume busy, or diskImage for
    // any other failure of the tool. A forced detach that is still busy is reported, not escalated.
    void detach(const std::string& mountPoint, bool force) const;

    // Seams for tests; production uses the defaults.
    std::string lsofPath = OpenFiles::defaultLsofPath;
    OpenFiles::ExecutablePathOf executablePathOf = OpenFiles::executablePath;
    std::chrono::milliseconds busyPause{500};

protected:
    // One run of the tool's detach, as it answered.
    virtual ProcessResult detachAttempt(const std::string& mountPoint, bool force) const = 0;
    virtual bool isBusy(const ProcessResult& result) const = 0;
    // Detaches whatever holds the volume; throws diskImage when that fails too.
    virtual void forceDetach(const std::string& mountPoint) const = 0;
    // The tool's output as a one-line report for CorvaneError::diskImage.
    virtual std::string report(const std::string& output) const = 0;

    // Whether `name` in `folder` is a real folder that holds the regular file `marker`, or
    // nothing but names from `unfinished` (what an interrupted creation leaves).
    static bool isFolderHolding(int folder, const std::string& name, const std::string& marker,
                                const std::vector<std::string>& unfinished);

    // The non-empty lines of `output`, each passed through `tidy` (nothing drops the line), joined
    // by single spaces, trimmed of spaces and tabs.
    static std::string oneLine(const std::string& output,
                               const std::function<std::optional<std::string>(std::string)>& tidy);
};

}  // namespace corvane
