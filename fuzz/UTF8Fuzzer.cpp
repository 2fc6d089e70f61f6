// UTF-8 checks on names and tool output: any bytes are judged exactly as the Unicode standard's
// table of well-formed sequences judges them, and the lenient text is the bytes with each maximal
// invalid subpart replaced by one U+FFFD. The reference below walks that table, a different route
// from the decoder's, so that a rewrite of either is held to the same answer.
#include "FuzzSupport.h"
#include "Records/UTF8.h"

using namespace corvane;

namespace {

struct Row {
    unsigned char leadLow, leadHigh;
    // Allowed ranges of the following bytes; a row uses as many as its length asks.
    unsigned char low[3], high[3];
    std::size_t length;
};

// Well-formed UTF-8 byte sequences, one row per lead-byte range.
constexpr Row kWellFormed[] = {
    {0x00, 0x7F, {}, {}, 1},
    {0xC2, 0xDF, {0x80}, {0xBF}, 2},
    {0xE0, 0xE0, {0xA0, 0x80}, {0xBF, 0xBF}, 3},
    {0xE1, 0xEC, {0x80, 0x80}, {0xBF, 0xBF}, 3},
    {0xED, 0xED, {0x80, 0x80}, {0x9F, 0xBF}, 3},
    {0xEE, 0xEF, {0x80, 0x80}, {0xBF, 0xBF}, 3},
    {0xF0, 0xF0, {0x90, 0x80, 0x80}, {0xBF, 0xBF, 0xBF}, 4},
    {0xF1, 0xF3, {0x80, 0x80, 0x80}, {0xBF, 0xBF, 0xBF}, 4},
    {0xF4, 0xF4, {0x80, 0x80, 0x80}, {0x8F, 0xBF, 0xBF}, 4},
};

// How many bytes at `at` match a row, and whether they make a whole sequence.
std::pair<std::size_t, bool> matchAt(std::string_view bytes, std::size_t at) {
    auto lead = static_cast<unsigned char>(bytes[at]);
    for (const auto& row : kWellFormed) {
        if (lead < row.leadLow || lead > row.leadHigh) continue;
        std::size_t taken = 1;
        while (taken < row.length && at + taken < bytes.size()) {
            auto next = static_cast<unsigned char>(bytes[at + taken]);
            if (next < row.low[taken - 1] || next > row.high[taken - 1]) break;
            ++taken;
        }
        return {taken, taken == row.length};
    }
    return {1, false};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view bytes = fuzzing::text(data, size);
    std::string expected;
    bool valid = true;
    for (std::size_t at = 0; at < bytes.size();) {
        auto [taken, whole] = matchAt(bytes, at);
        if (whole) {
            expected.append(bytes.substr(at, taken));
        } else {
            expected += "\xEF\xBF\xBD";
            valid = false;
        }
        at += taken;
    }
    CORVANE_FUZZ_CHECK(UTF8::isValid(bytes) == valid);
    std::string lenient = UTF8::lenient(bytes);
    CORVANE_FUZZ_CHECK(lenient == expected);
    CORVANE_FUZZ_CHECK(UTF8::isValid(lenient));
    return 0;
}
