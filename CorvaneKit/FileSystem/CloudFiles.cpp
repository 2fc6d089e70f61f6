#include "FileSystem/CloudFiles.h"

#include <sys/stat.h>

#include "FileSystem/FileWalk.h"
#include "Records/Paths.h"

namespace corvane {

namespace {

constexpr std::string_view kPlaceholderSuffix = ".icloud";

// No file on Linux is ubiquitous, so there is no download status to read.
constexpr bool kIsUbiquitous = false;

}  // namespace

bool CloudFiles::isPlaceholderName(std::string_view name) {
    return name.size() > kPlaceholderSuffix.size() + 1 && name.starts_with('.') &&
           name.ends_with(kPlaceholderSuffix);
}

bool CloudFiles::needsDownload(std::string_view name, bool isUbiquitous,
                               std::optional<DownloadStatus> status) {
    if (isPlaceholderName(name)) return true;
    if (!isUbiquitous || !status) return false;
    return *status != DownloadStatus::current;
}

std::vector<std::string> CloudFiles::notDownloaded(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return {};
    std::vector<std::string> found;
    if (needsDownload(lastPathComponent(path), kIsUbiquitous, std::nullopt)) found.push_back(path);
    if (!S_ISDIR(status.st_mode)) return found;
    try {
        FileWalk::walk(path, [&](const FileWalk::Entry& entry) {
            if (needsDownload(entry.name(), kIsUbiquitous, std::nullopt))
                found.push_back(path + "/" + entry.relativePath);
            return FileWalk::Next::descend;
        });
    } catch (const FileWalk::WalkError&) {
        // What was found so far is the answer.
    }
    return found;
}

std::string CloudFiles::downloadTarget(const std::string& path) {
    std::string name = lastPathComponent(path);
    if (!isPlaceholderName(name)) return path;
    std::string real = name.substr(1, name.size() - 1 - kPlaceholderSuffix.size());
    return path.substr(0, path.size() - name.size()) + real;
}

void CloudFiles::requestDownload(const std::vector<std::string>&) {
    // A Linux desktop has no service to ask for a download; the lock waits for its time limit and
    // then refuses, naming the item.
}

}  // namespace corvane
