#include "TerminalText.h"

#include <cstdio>

namespace corvane::cli {

std::string escapedControls(std::string_view text) {
    std::string shown;
    shown.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        auto byte = static_cast<unsigned char>(text[at]);
        char escape[8];
        if (byte == '\n') {
            shown += "\\n";
        } else if (byte == '\t') {
            shown += "\\t";
        } else if (byte < 0x20 || byte == 0x7f) {
            std::snprintf(escape, sizeof escape, "\\x%02x", byte);
            shown += escape;
        } else if (byte == 0xc2 && at + 1 < text.size() &&
                   static_cast<unsigned char>(text[at + 1]) >= 0x80 &&
                   static_cast<unsigned char>(text[at + 1]) <= 0x9f) {
            // A C1 control in UTF-8: terminals take U+009B as the start of a sequence.
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned char>(text[++at]));
            shown += escape;
        } else {
            shown += static_cast<char>(byte);
        }
    }
    return shown;
}

}  // namespace corvane::cli
