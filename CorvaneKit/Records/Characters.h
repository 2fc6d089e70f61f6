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

    // The longest start of `text` that fits in `bytes` and ends between two characters. Bytes
    // that are not UTF-8 are kept as they are, each a character of its own.
    static std::string prefix(std::string_view text, std::size_t bytes);
};

}  // namespace corvane
