// Times the Linux image tool's create, attach and detach on real gocryptfs mounts.
//   corvane-image-bench FOLDER RUNS
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include "FileSystem/GocryptfsTool.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: corvane-image-bench FOLDER RUNS\n");
        return 2;
    }
    std::string folder = argv[1];
    int runs = std::stoi(argv[2]);
    corvane::GocryptfsTool tool;
    using Clock = std::chrono::steady_clock;
    double create = 0, attach = 0, detach = 0;
    for (int run = 0; run < runs; ++run) {
        std::string image = folder + "/image-" + std::to_string(run) + ".corvlock";
        std::string mountPoint = folder + "/open-" + std::to_string(run);
        std::filesystem::create_directories(mountPoint);
        auto t0 = Clock::now();
        tool.create(image, "Bench", "benchmark password");
        auto t1 = Clock::now();
        tool.attach(image, mountPoint, "benchmark password", false);
        auto t2 = Clock::now();
        tool.detach(mountPoint, false);
        auto t3 = Clock::now();
        create += std::chrono::duration<double>(t1 - t0).count();
        attach += std::chrono::duration<double>(t2 - t1).count();
        detach += std::chrono::duration<double>(t3 - t2).count();
    }
    std::printf("gocryptfs over %d runs: create %.0f ms, attach %.0f ms, detach %.0f ms (means)\n", runs,
                1000 * create / runs, 1000 * attach / runs, 1000 * detach / runs);
    return 0;
}
