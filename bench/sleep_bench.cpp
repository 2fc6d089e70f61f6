// The sleep's lock: three open items of 20,000 files each, closed as the application closes them
// when the machine goes to sleep, timed from the trigger to the last detach. Also the same with
// the walk that used to come first, for comparison. Target: under 1 s.
//   corvane-sleep-bench FOLDER [FILES]
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "FileSystem/FileWalk.h"
#include "FileSystem/GocryptfsTool.h"
#include "FileSystem/ThumbnailScrubber.h"

using Clock = std::chrono::steady_clock;

namespace {

const std::string kPassword = "benchmark password";

// Three images, each opened with FILES small files in 100 folders.
std::vector<std::string> openItems(const corvane::GocryptfsTool& tool, const std::string& folder,
                                   int files) {
    std::vector<std::string> mounts;
    for (int item = 0; item < 3; ++item) {
        std::string image = folder + "/item-" + std::to_string(item) + ".corvlock";
        std::string mount = folder + "/open-" + std::to_string(item);
        std::filesystem::create_directories(mount);
        if (!std::filesystem::exists(image + "/gocryptfs.conf")) {
            tool.create(image, "Bench", kPassword);
            tool.attach(image, mount, kPassword, false);
            for (int file = 0; file < files; ++file) {
                std::string sub = mount + "/folder " + std::to_string(file % 100);
                std::filesystem::create_directories(sub);
                std::ofstream(sub + "/file " + std::to_string(file)) << std::string(2000, 'x');
            }
            tool.detach(mount, false);
        }
        tool.attach(image, mount, kPassword, false);
        mounts.push_back(mount);
    }
    return mounts;
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: corvane-sleep-bench FOLDER [FILES]\n");
        return 2;
    }
    const std::string folder = argv[1];
    const int files = argc > 2 ? std::stoi(argv[2]) : 20000;
    corvane::GocryptfsTool tool;

    auto mounts = openItems(tool, folder, files);
    auto start = Clock::now();
    for (const auto& mount : mounts) {
        tool.attachedImages();  // as the lock reads what is open
        tool.detach(mount, false);
    }
    const double closing = secondsSince(start);
    auto scrubStart = Clock::now();
    for (const auto& mount : mounts) corvane::ThumbnailScrubber::forgetBelow(mount);
    const double scrubbing = secondsSince(scrubStart);

    mounts = openItems(tool, folder, files);
    start = Clock::now();
    for (const auto& mount : mounts) {
        corvane::FileWalk::relativePaths(mount);
        tool.detach(mount, false);
    }
    const double walkingFirst = secondsSince(start);

    std::printf("sleep lock of 3 open items x %d files: %.3f s to the last detach (target < 1 s), "
                "then %.3f s scrubbing; walking each item first took %.3f s\n",
                files, closing, scrubbing, walkingFirst);
    return closing < 1.0 ? 0 : 1;
}
