// UTF-8 checks for text that comes from outside: file names and tool output are bytes, and the
// records can only hold valid text.
#pragma once

#include <string>
#include <string_view>

namespace corvane {

struct UTF8 {
    static bool isValid(std::string_view bytes);

    // Invalid sequences become U+FFFD, one per maximal invalid subpart; never fails.
    static std::string lenient(std::string_view bytes);
};

}  // namespace corvane
