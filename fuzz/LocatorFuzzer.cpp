// The locator record as the item index hands it back: any bytes resolve to nothing or to a path
// that is the recorded file, found at the recorded path or as another entry of its folder, and
// never anywhere else. The input is tried as it is, then with @DIR@, @DEV@, @ITEM_INO@,
// @LINK_INO@ and @SUB_INO@ replaced by a scratch folder's path, device and inodes, so that the
// fuzzer can reach the files it holds: a regular file, a link to it, a FIFO and a subfolder.
#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "FuzzSupport.h"
#include "Records/JSONCodec.h"
#include "Records/Locator.h"

using namespace corvane;

namespace {

// What a locator holds, read the way Locator::make writes it (checked once at start-up), so that
// every answer can be held against the record it came from.
struct Recorded {
    std::uint64_t device = 0, inode = 0;
    std::string path;

    static std::optional<Recorded> read(std::string_view text) {
        try {
            auto record = JSONCodec::decode(text);
            JSONFields::object(record, "locator");
            return Recorded{JSONFields::uint64(JSONFields::required(record, "device"), "device"),
                            JSONFields::uint64(JSONFields::required(record, "inode"), "inode"),
                            JSONFields::requiredString(record, "path")};
        } catch (const DecodingError&) {
            return std::nullopt;
        }
    }
};

struct Scene {
    std::string folder;
    std::vector<std::pair<std::string, std::string>> placeholders;
};

std::string inodeOf(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) std::abort();
    return std::to_string(status.st_ino);
}

const Scene& scene() {
    static const Scene made = [] {
        Scene scene;
        scene.folder = fuzzing::scratchFolder() + "/locator";
        std::string sub = scene.folder + "/sub";
        if (mkdir(scene.folder.c_str(), 0700) != 0 || mkdir(sub.c_str(), 0700) != 0 ||
            mkfifo((scene.folder + "/fifo").c_str(), 0600) != 0 ||
            symlink("item", (scene.folder + "/link").c_str()) != 0)
            std::abort();
        fuzzing::writeWhole(scene.folder + "/item", "item");
        fuzzing::writeWhole(sub + "/inner", "inner");
        struct stat status {};
        if (lstat(scene.folder.c_str(), &status) != 0) std::abort();
        scene.placeholders = {{"@DIR@", scene.folder},
                              {"@DEV@", std::to_string(status.st_dev)},
                              {"@ITEM_INO@", inodeOf(scene.folder + "/item")},
                              {"@LINK_INO@", inodeOf(scene.folder + "/link")},
                              {"@SUB_INO@", inodeOf(sub)}};
        for (const auto& name : {"item", "link", "fifo", "sub"}) {
            std::string path = scene.folder + "/" + name;
            auto locator = Locator::make(path);
            CORVANE_FUZZ_CHECK(locator && Locator::resolve(*locator) == path);
            auto record = Recorded::read(fuzzing::text(locator->data(), locator->size()));
            CORVANE_FUZZ_CHECK(record && record->path == path);
        }
        return scene;
    }();
    return made;
}

std::string withPlaceholdersReplaced(std::string text) {
    for (const auto& [placeholder, value] : scene().placeholders)
        for (auto at = text.find(placeholder); at != std::string::npos;
             at = text.find(placeholder, at + value.size()))
            text.replace(at, placeholder.size(), value);
    return text;
}

bool isFile(const std::string& path, std::uint64_t device, std::uint64_t inode) {
    struct stat status {};
    return path.find('\0') == std::string::npos && lstat(path.c_str(), &status) == 0 &&
           status.st_dev == device && status.st_ino == inode;
}

void check(const std::string& text) {
    auto resolved = Locator::resolve(std::vector<std::uint8_t>(text.begin(), text.end()));
    auto record = Recorded::read(text);
    if (!record) {
        CORVANE_FUZZ_CHECK(!resolved);
        return;
    }
    auto [device, inode, path] = *record;
    if (isFile(path, device, inode)) CORVANE_FUZZ_CHECK(resolved == path);
    if (!resolved) return;
    // A name with a NUL in it would be checked under one path and handed back as another.
    CORVANE_FUZZ_CHECK(isFile(*resolved, device, inode));
    if (*resolved == path) return;
    auto slash = path.rfind('/');
    CORVANE_FUZZ_CHECK(slash != std::string::npos);
    std::string folder = path.substr(0, slash);
    auto nameAt = resolved->rfind('/');
    CORVANE_FUZZ_CHECK(nameAt != std::string::npos && resolved->substr(0, nameAt) == folder);
    std::string name = resolved->substr(nameAt + 1);
    CORVANE_FUZZ_CHECK(!name.empty() && name != "." && name != "..");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text(fuzzing::text(data, size));
    check(text);
    std::string replaced = withPlaceholdersReplaced(text);
    if (replaced != text) check(replaced);
    return 0;
}
