// Makes the desktop forget a freshly locked item: its files' freedesktop thumbnails (every size
// and the failure records) and its entries in the Recents list, so nothing of its contents shows
// in previews or "Recent" views. Never throws; blocks on file I/O only.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

struct ThumbnailScrubber {
    // `relativePaths` are the item's entries below `itemPath` (the item itself is always
    // included). True when every thumbnail is gone and the Recents list was cleaned or had
    // nothing of the item; a damaged Recents file is left alone and gives false.
    static bool reset(const std::string& itemPath, const std::vector<std::string>& relativePaths);

    // The same with the thumbnail folder (~/.cache/thumbnails) and the Recents file
    // (~/.local/share/recently-used.xbel) given.
    static bool reset(const std::string& itemPath, const std::vector<std::string>& relativePaths,
                      const std::string& thumbnailsFolder, const std::string& recentsFile);

    // The same for an item whose files can no longer be listed (it is closed already): every
    // thumbnail whose recorded source (its Thumb::URI) is the item or lies below it goes, and so
    // do its Recents entries.
    static bool forgetBelow(const std::string& itemPath);
    static bool forgetBelow(const std::string& itemPath, const std::string& thumbnailsFolder,
                            const std::string& recentsFile);

    // The source a freedesktop thumbnail records in its Thumb::URI text, read from the PNG's
    // chunks before its image data; nothing for anything else.
    static std::optional<std::string> thumbnailSource(std::string_view png);

    // "file://" and the path escaped as the desktop's thumbnailers escape it.
    static std::string fileURI(const std::string& path);

    // The thumbnail's file name: the MD5 of the URI in hexadecimal, then ".png".
    static std::string thumbnailName(const std::string& uri);
};

}  // namespace corvane
