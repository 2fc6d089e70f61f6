// Times the tree verifier's manifest of a folder, and makes the folders it is timed on.
//   corvane-verifier-bench generate DIR COUNT BYTES [PER-FOLDER]
//                                     COUNT files of BYTES random bytes in DIR, PER-FOLDER (1000
//                                     unless given) to each sub-folder
//   corvane-verifier-bench manifest DIR THREADS RUNS  best seconds of RUNS manifests
//   corvane-verifier-bench lastlook DIR RUNS          best seconds of RUNS of the look a lock
//                                     takes at its original before deleting it
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "Engine/Folder.h"
#include "Engine/Locker.h"
#include "FileSystem/TreeVerifier.h"

namespace {

int generate(const std::string& folder, long count, long bytes, long perFolder) {
    std::filesystem::create_directories(folder);
    std::vector<char> data(static_cast<std::size_t>(bytes));
    for (long i = 0; i < count; ++i) {
        // Fresh random bytes for the first megabyte of files, then shifted copies: cheap but distinct.
        if (i < 64) getrandom(data.data(), data.size(), 0);
        data[static_cast<std::size_t>(i) % data.size()] ^= static_cast<char>(i);
        char name[64];
        std::snprintf(name, sizeof name, "/%03ld/f%06ld", i / perFolder, i);
        std::string path = folder + name;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0 || write(fd, data.data(), data.size()) != static_cast<ssize_t>(data.size())) return 1;
        close(fd);
    }
    return 0;
}

int manifest(const std::string& folder, unsigned threads, int runs) {
    corvane::TreeVerifier::hashingThreads = threads;
    double best = 1e9;
    std::size_t entries = 0;
    for (int run = 0; run < runs; ++run) {
        auto start = std::chrono::steady_clock::now();
        entries = corvane::TreeVerifier::manifest(folder, {}).size();
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    std::printf("%.6f %zu\n", best, entries);
    return 0;
}

}  // namespace

int lastLook(const std::string& item, int runs) {
    const std::filesystem::path path = std::filesystem::absolute(item);
    const corvane::Folder folder(path.parent_path().string());
    const auto facts = corvane::Locker::factsOf(corvane::Locker::metadataSnapshot(path.string()));
    double best = 1e9;
    for (int run = 0; run < runs; ++run) {
        auto start = std::chrono::steady_clock::now();
        if (!corvane::Locker::unchangedSinceCopy(folder, path.filename().string(), facts)) {
            std::fprintf(stderr, "the folder changed while it was looked at\n");
            return 1;
        }
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start)
                                  .count());
    }
    std::printf("%.4f\n", best);
    return 0;
}

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if ((args.size() == 4 || args.size() == 5) && args[0] == "generate") {
        long perFolder = args.size() == 5 ? std::stol(args[4]) : 1000;
        if (perFolder < 1) perFolder = 1;
        return generate(args[1], std::stol(args[2]), std::stol(args[3]), perFolder);
    }
    if (args.size() == 4 && args[0] == "manifest")
        return manifest(args[1], static_cast<unsigned>(std::stoul(args[2])), std::stoi(args[3]));
    if (args.size() == 3 && args[0] == "lastlook") return lastLook(args[1], std::stoi(args[2]));
    std::fprintf(stderr, "usage: corvane-verifier-bench generate DIR COUNT BYTES [PER-FOLDER] | manifest DIR THREADS RUNS | lastlook DIR RUNS\n");
    return 2;
}
