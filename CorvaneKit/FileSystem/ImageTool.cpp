#include "FileSystem/ImageTool.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <thread>

#include "Records/CorvaneError.h"

namespace corvane {

void ImageTool::detach(const std::string& mountPoint, bool force) const {
    constexpr int kAttempts = 3;
    constexpr double kHoldersTimeout = 10;
    for (int attempt = 1; attempt <= kAttempts; ++attempt) {
        ProcessResult result = detachAttempt(mountPoint, force);
        if (!isBusy(result)) {
            if (result.status == 0) return;
            throw CorvaneError::diskImage(report(result.output));
        }
        if (attempt < kAttempts) std::this_thread::sleep_for(busyPause);
    }
    Holders holders = OpenFiles::holders(mountPoint, kHoldersTimeout, lsofPath);
    if (!force && OpenFiles::safeToAutoEject(holders, executablePathOf))
        return forceDetach(mountPoint);
    throw CorvaneError::inUse(OpenFiles::blockingNames(holders));
}

bool ImageTool::isFolderHolding(int folder, const std::string& name, const std::string& marker,
                                const std::vector<std::string>& unfinished) {
    int fd = openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return false;
    std::unique_ptr<DIR, int (*)(DIR*)> entries(fdopendir(fd), closedir);
    if (!entries) {
        close(fd);
        return false;
    }
    struct stat status {};
    if (fstatat(fd, marker.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        return S_ISREG(status.st_mode);
    while (dirent* entry = readdir(entries.get())) {
        std::string child = entry->d_name;
        if (child != "." && child != ".." &&
            std::find(unfinished.begin(), unfinished.end(), child) == unfinished.end())
            return false;
    }
    return true;
}

std::string ImageTool::oneLine(const std::string& output,
                               const std::function<std::optional<std::string>(std::string)>& tidy) {
    std::string joined;
    bool first = true;
    for (std::size_t start = 0; start <= output.size();) {
        std::size_t end = output.find('\n', start);
        if (end == std::string::npos) end = output.size();
        std::string line = output.substr(start, end - start);
        start = end + 1;
        if (line.empty()) continue;
        auto kept = tidy(std::move(line));
        if (!kept) continue;
        joined += (first ? "" : " ") + *kept;
        first = false;
    }
    auto begin = joined.find_first_not_of(" \t");
    if (begin == std::string::npos) return "";
    return joined.substr(begin, joined.find_last_not_of(" \t") - begin + 1);
}

}  // namespace corvane
