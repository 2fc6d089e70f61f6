// Files of an item whose content is not on this computer yet: locking them would lock empty
// placeholders. Linux has no system-wide cloud placeholders, so only the placeholder name rule
// (".NAME.icloud", as synced folders may carry) applies and no file is ubiquitous. Never fails.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

struct CloudFiles {
    enum class DownloadStatus { notDownloaded, downloaded, current };

    static bool needsDownload(std::string_view name, bool isUbiquitous,
                              std::optional<DownloadStatus> status);

    // The item and entries below it that still need downloading, in walk order.
    static std::vector<std::string> notDownloaded(const std::string& path);

    // Asks for each placeholder's real item to be fetched; errors are ignored.
    static void requestDownload(const std::vector<std::string>& paths);

    // The item a download of `path` brings: the sibling a placeholder stands for, else itself.
    static std::string downloadTarget(const std::string& path);

    static bool isPlaceholderName(std::string_view name);
};

}  // namespace corvane
