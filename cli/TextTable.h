// Rows of text printed in aligned columns, each as wide as its widest cell as a terminal shows
// it: wide East Asian characters take two cells, combining marks none.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::cli {

class TextTable {
public:
    // Control characters in a cell are shown escaped: a line break in a file name must not
    // break its row.
    void add(std::vector<std::string> row);

    // Two spaces between columns; the last column is not padded.
    void print(std::ostream& out) const;

    static std::size_t displayWidth(std::string_view text);

private:
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace corvane::cli
