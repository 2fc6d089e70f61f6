// Byte counts for sentences, in the file-size style of desktop file managers: decimal units
// (1 KB = 1000 bytes) chosen automatically, as in "1.2 GB".
#pragma once

#include <cstdint>
#include <string>

namespace corvane {

struct ByteCount {
    static std::string file(std::int64_t bytes);
};

}  // namespace corvane
