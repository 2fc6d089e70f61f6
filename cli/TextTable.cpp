#include "TextTable.h"

#include "TerminalText.h"

#include <algorithm>
#include <cstdint>

namespace corvane::cli {

void TextTable::add(std::vector<std::string> row) {
    for (auto& cell : row) cell = escapedControls(cell);
    rows_.push_back(std::move(row));
}

namespace {

struct Range {
    char32_t first;
    char32_t last;
};

// Combining marks and zero-width characters.
constexpr Range kZeroWidth[] = {{0x0300, 0x036F}, {0x0483, 0x0489}, {0x0591, 0x05BD},
                                {0x0610, 0x061A}, {0x064B, 0x065F}, {0x200B, 0x200F},
                                {0x20D0, 0x20FF}, {0xFE00, 0xFE0F}, {0xFE20, 0xFE2F}};

// East Asian wide and full-width characters, and the emoji blocks.
constexpr Range kDoubleWidth[] = {
    {0x1100, 0x115F}, {0x2E80, 0x303E},   {0x3041, 0x33FF},   {0x3400, 0x4DBF},  {0x4E00, 0x9FFF},
    {0xA000, 0xA4CF}, {0xAC00, 0xD7A3},   {0xF900, 0xFAFF},   {0xFE30, 0xFE4F},  {0xFF00, 0xFF60},
    {0xFFE0, 0xFFE6}, {0x1F300, 0x1F64F}, {0x1F900, 0x1F9FF}, {0x20000, 0x3FFFD}};

bool within(char32_t character, const auto& ranges) {
    return std::any_of(std::begin(ranges), std::end(ranges), [character](const Range& range) {
        return character >= range.first && character <= range.last;
    });
}

}  // namespace

std::size_t TextTable::displayWidth(std::string_view text) {
    std::size_t width = 0;
    for (std::size_t i = 0; i < text.size();) {
        auto lead = static_cast<std::uint8_t>(text[i]);
        std::size_t length = lead < 0x80    ? 1
                             : lead >= 0xF0 ? 4
                             : lead >= 0xE0 ? 3
                             : lead >= 0xC0 ? 2
                                            : 1;
        char32_t character = length == 1 ? lead : lead & (0x7F >> length);
        for (std::size_t k = 1; k < length && i + k < text.size(); ++k)
            character = (character << 6) | (static_cast<std::uint8_t>(text[i + k]) & 0x3F);
        i += length;
        if (within(character, kZeroWidth)) continue;
        width += within(character, kDoubleWidth) ? 2 : 1;
    }
    return width;
}

void TextTable::print(std::ostream& out) const {
    std::vector<std::size_t> widths;
    for (const auto& row : rows_) {
        if (widths.size() < row.size()) widths.resize(row.size());
        for (std::size_t column = 0; column < row.size(); ++column)
            widths[column] = std::max(widths[column], displayWidth(row[column]));
    }
    for (const auto& row : rows_) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            out << row[column];
            if (column + 1 < row.size())
                out << std::string(widths[column] - displayWidth(row[column]) + 2, ' ');
        }
        out << '\n';
    }
}

}  // namespace corvane::cli
