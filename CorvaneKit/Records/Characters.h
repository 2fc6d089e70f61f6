// Text as the user sees it: characters are grapheme clusters, so names are never shortened in the
// middle of one and passwords are counted the way they are typed.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace corvane {

struct Characters {
    static std::size_t count(std::string_view text);

    // `text` without its last character; "" stays "".
    static std::string droppingLast(std::string_view text);
};

}  // namespace corvane
