// Runs the fuzz targets over saved inputs without a fuzzing engine, so that the seed corpora (and
// any crash a fuzzer found) are checked on every test run with the ordinary compiler:
//   corvane-fuzz-replay TARGET FILE_OR_FOLDER...
// Fails when the target is unknown or no input was found; a broken input aborts, as it would
// under the fuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#define CORVANE_FUZZ_TARGET(name) \
    extern "C" int corvaneFuzz##name(const std::uint8_t* data, std::size_t size);
#include "FuzzTargets.inc"
#undef CORVANE_FUZZ_TARGET

namespace {

struct Target {
    const char* name;
    int (*run)(const std::uint8_t*, std::size_t);
};

const Target kTargets[] = {
#define CORVANE_FUZZ_TARGET(name) {#name, corvaneFuzz##name},
#include "FuzzTargets.inc"
#undef CORVANE_FUZZ_TARGET
};

std::vector<std::filesystem::path> inputsIn(const std::filesystem::path& place) {
    if (!std::filesystem::is_directory(place)) return {place};
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(place))
        if (entry.is_regular_file()) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    const Target* target = nullptr;
    for (const auto& each : kTargets)
        if (argc > 1 && std::strcmp(argv[1], each.name) == 0) target = &each;
    if (!target) {
        std::fprintf(stderr, "usage: %s TARGET FILE_OR_FOLDER...\ntargets:", argv[0]);
        for (const auto& each : kTargets) std::fprintf(stderr, " %s", each.name);
        std::fprintf(stderr, "\n");
        return 2;
    }
    std::size_t count = 0;
    for (int i = 2; i < argc; ++i) {
        for (const auto& file : inputsIn(argv[i])) {
            std::ifstream stream(file, std::ios::binary);
            std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(stream)),
                                            std::istreambuf_iterator<char>());
            if (!stream.good() && !stream.eof()) {
                std::fprintf(stderr, "could not read %s\n", file.c_str());
                return 1;
            }
            std::fprintf(stderr, "%s %s\n", target->name, file.c_str());
            target->run(bytes.data(), bytes.size());
            ++count;
        }
    }
    std::fprintf(stderr, "%s: %zu inputs passed\n", target->name, count);
    return count > 0 ? 0 : 1;
}
