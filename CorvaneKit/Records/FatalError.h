// For conditions that mean the program itself is wrong (an impossible overflow): stop at once
// rather than write a wrong record.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace corvane {

[[noreturn]] inline void fatalError(const char* what) {
    std::fprintf(stderr, "corvane: fatal error: %s\n", what);
    std::abort();
}

}  // namespace corvane
