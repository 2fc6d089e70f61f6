// The Recents list as the scrubber rewrites it after locking /home/user/Secret: whatever the
// file holds, a damaged one is left as it was, and a rewrite only ever deletes. When the file is
// plain enough that every reader agrees where each bookmark starts and ends (below), the rewrite
// keeps every other bookmark, byte for byte and in order, and drops every one of the item's.
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "FileSystem/ThumbnailScrubber.h"
#include "FuzzSupport.h"

using namespace corvane;

namespace {

constexpr std::string_view kItem = "/home/user/Secret";

struct Bookmark {
    std::string_view element;
    bool aboutItem = false;
};

bool startsBookmark(std::string_view xbel, std::size_t at) {
    if (xbel.substr(at, 9) != "<bookmark" || at + 9 >= xbel.size()) return false;
    char after = xbel[at + 9];
    return after == ' ' || after == '\t' || after == '\n' || after == '\r' || after == '\f' ||
           after == '\v' || after == '>' || after == '/';
}

// The bookmarks of a plain file, or nothing when it is not one. Plain: each bookmark opens with
// href="…" first, the value free of quotes, escapes and angle brackets; it is an empty element or
// is closed before the next one opens; and nothing but a line break, a tag's end or blanks comes
// before it, so that taking one out cannot join its neighbours into a new one.
std::optional<std::vector<Bookmark>> plainBookmarks(std::string_view xbel) {
    std::vector<Bookmark> bookmarks;
    std::size_t previousEnd = 0;
    for (std::size_t at = xbel.find("<bookmark"); at != std::string_view::npos;
         at = xbel.find("<bookmark", at + 1)) {
        if (!startsBookmark(xbel, at)) continue;
        if (at < previousEnd) return std::nullopt;
        std::size_t before = at;
        while (before > 0 && (xbel[before - 1] == ' ' || xbel[before - 1] == '\t')) --before;
        if (before > 0 && xbel[before - 1] != '\n' && xbel[before - 1] != '>') return std::nullopt;
        constexpr std::string_view kOpening = "<bookmark href=\"";
        if (xbel.substr(at, kOpening.size()) != kOpening) return std::nullopt;
        std::size_t valueStart = at + kOpening.size();
        std::size_t valueEnd = xbel.find('"', valueStart);
        std::size_t tagEnd = xbel.find('>', at);
        if (valueEnd == std::string_view::npos || tagEnd == std::string_view::npos ||
            tagEnd < valueEnd)
            return std::nullopt;
        std::string_view value = xbel.substr(valueStart, valueEnd - valueStart);
        if (value.find_first_of(std::string_view("%&<>\0", 5)) != std::string_view::npos)
            return std::nullopt;
        std::size_t end = tagEnd + 1;
        if (xbel[tagEnd - 1] != '/') {
            std::size_t closing = xbel.find("</bookmark>", tagEnd);
            if (closing == std::string_view::npos) return std::nullopt;
            end = closing + 11;
        }
        std::string itemURI = "file://" + std::string(kItem);
        bool aboutItem =
            value == itemURI || (value.starts_with(itemURI) && value.size() > itemURI.size() &&
                                 value[itemURI.size()] == '/');
        bookmarks.push_back({xbel.substr(at, end - at), aboutItem});
        previousEnd = end;
    }
    return bookmarks;
}

bool isSubsequence(std::string_view part, std::string_view whole) {
    std::size_t at = 0;
    for (char c : part) {
        while (at < whole.size() && whole[at] != c) ++at;
        if (at == whole.size()) return false;
        ++at;
    }
    return true;
}

std::string readWhole(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view before = fuzzing::text(data, size);
    std::string recents = fuzzing::scratchFolder() + "/recently-used.xbel";
    fuzzing::writeWhole(recents, before);
    bool cleaned = ThumbnailScrubber::reset(std::string(kItem), {"notes.txt"},
                                            fuzzing::scratchFolder() + "/thumbnails", recents);
    std::string after = readWhole(recents);

    if (!cleaned) CORVANE_FUZZ_CHECK(after == before);
    if (after != before)
        CORVANE_FUZZ_CHECK(after.size() < before.size() && isSubsequence(after, before));

    bool isList = before.find("<xbel") != std::string_view::npos &&
                  before.find("</xbel>") != std::string_view::npos;
    std::optional<std::vector<Bookmark>> bookmarks;
    if (isList) bookmarks = plainBookmarks(before);
    if (!bookmarks) return 0;
    CORVANE_FUZZ_CHECK(cleaned);
    std::size_t kept = 0, searchFrom = 0;
    for (const auto& bookmark : *bookmarks) {
        if (bookmark.aboutItem) continue;
        searchFrom = after.find(bookmark.element, searchFrom);
        CORVANE_FUZZ_CHECK(searchFrom != std::string::npos);
        searchFrom += bookmark.element.size();
        ++kept;
    }
    auto left = plainBookmarks(after);
    CORVANE_FUZZ_CHECK(left && left->size() == kept);
    if (kept == bookmarks->size()) CORVANE_FUZZ_CHECK(after == before);
    return 0;
}
