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
    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }

    // Two spaces between columns; the last column is not padded.
    void print(std::ostream& out) const;

    static std::size_t displayWidth(std::string_view text);

private:
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace corvane::cli
