// What the fuzz targets share: the input as text, a private scratch folder for the readers that
// only take a path, and a check that stops the run on a broken promise. Single-threaded.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>

namespace corvane::fuzzing {

inline std::string_view text(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// A fresh folder for this process, removed at exit (libFuzzer's workers each get their own).
inline const std::string& scratchFolder() {
    struct Scratch {
        std::string path;
        Scratch() {
            std::string pattern =
                std::filesystem::temp_directory_path().string() + "/corvane-fuzz-XXXXXX";
            if (!mkdtemp(pattern.data())) std::abort();
            path = pattern;
        }
        ~Scratch() {
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
        }
    };
    static Scratch scratch;
    return scratch.path;
}

inline void writeWhole(const std::string& path, std::string_view contents) {
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(contents.data(), static_cast<std::streamsize>(contents.size()));
}

// A parser broke a promise: report it and abort, which every fuzzer counts as a crash.
#define CORVANE_FUZZ_CHECK(condition)                                                          \
    do {                                                                                       \
        if (!(condition)) {                                                                    \
            std::fprintf(stderr, "%s:%d: %s does not hold\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                      \
        }                                                                                      \
    } while (0)

}  // namespace corvane::fuzzing
