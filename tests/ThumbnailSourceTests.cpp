// Forgetting a closed item's thumbnails by the source each one records, as the desktop's
// thumbnailers write them, and reading that source from whatever lies in the thumbnail folders.
#include <gtest/gtest.h>

#include <filesystem>

#include "FileSystem/ThumbnailScrubber.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using testing::TempDir;
using testing::writeFile;

std::string chunk(const std::string& type, const std::string& data) {
    std::string length;
    for (int shift = 24; shift >= 0; shift -= 8) length += char((data.size() >> shift) & 0xFF);
    return length + type + data + "CRC!";  // the reader trusts no CRC, so none is needed
}

const std::string kSignature("\x89PNG\r\n\x1a\n", 8);

std::string thumbnail(const std::string& uri, const std::string& kind = "tEXt") {
    std::string text = kind == "tEXt" ? std::string("Thumb::URI\0", 11) + uri
                                      : std::string("Thumb::URI\0\0\0en\0\0", 17) + uri;
    return kSignature + chunk("IHDR", std::string(13, '\0')) +
           chunk("tEXt", std::string("Software\0GNOME", 14)) + chunk(kind, text) +
           chunk("IDAT", "pixels") + chunk("IEND", "");
}

TEST(ThumbnailSource, OnlyTheRecordedURIBeforeTheImageDataCounts) {
    const std::string uri = "file:///home/ann/.local/share/corvane/Open/1/a%20b.pdf";
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        {thumbnail(uri), uri},
        {thumbnail(uri, "iTXt"), uri},
        {kSignature + chunk("IDAT", "x") + chunk("tEXt", std::string("Thumb::URI\0", 11) + uri),
         std::nullopt},                                               // after the image data
        {thumbnail(uri).substr(0, 60), std::nullopt},                 // cut short
        {kSignature + std::string("\xFF\xFF\xFF\xF0tEXt", 8), std::nullopt},  // past the end
        {"GIF89a" + thumbnail(uri).substr(8), std::nullopt},          // not a PNG
        {"", std::nullopt},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(ThumbnailScrubber::thumbnailSource(cases[i].first), cases[i].second) << i;
}

TEST(ThumbnailSource, AClosedItemsThumbnailsGoByTheirSourceAndNothingElseDoes) {
    TempDir root;
    const std::string item = "/run/user/1000/corvane/Open/ID", thumbnails = root / "thumbnails";
    const std::string recents = root / "recently-used.xbel";
    writeFile(thumbnails + "/normal/a.png", thumbnail("file://" + item + "/scan%201.pdf"));
    writeFile(thumbnails + "/large/b.png", thumbnail("file://" + item));
    writeFile(thumbnails + "/fail/gnome/c.png", thumbnail("file://" + item + "/deep/x"));
    writeFile(thumbnails + "/normal/beside.png", thumbnail("file://" + item + "2/y"));
    writeFile(thumbnails + "/normal/other.png", thumbnail("file:///home/ann/z"));
    writeFile(thumbnails + "/normal/damaged.png", "not a picture");
    std::filesystem::create_symlink(thumbnails + "/normal/a.png", thumbnails + "/normal/link.png");
    const std::string head = "<?xml version=\"1.0\"?>\n<xbel version=\"1.0\">\n";
    const std::string bookmark = "  <bookmark href=\"file://" + item + "/scan%201.pdf\"></bookmark>\n";
    writeFile(recents, head + bookmark + "</xbel>\n");

    EXPECT_TRUE(ThumbnailScrubber::forgetBelow(item, thumbnails, recents));
    EXPECT_EQ(testing::listing(thumbnails + "/normal"),
              (std::vector<std::string>{"beside.png", "damaged.png", "link.png", "other.png"}));
    EXPECT_TRUE(testing::listing(thumbnails + "/large").empty());
    EXPECT_TRUE(testing::listing(thumbnails + "/fail/gnome").empty());
    EXPECT_EQ(testing::readFile(recents), head + "</xbel>\n");
}

}  // namespace
}  // namespace corvane
