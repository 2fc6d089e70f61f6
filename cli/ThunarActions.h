// Corvane's actions inside Thunar's custom-actions file (uca.xml), put in and taken out without
// changing any other byte, so that the user's own actions stay exactly as they were. A small XML
// scanner reads the file; whatever it does not understand is refused, never rewritten.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane::cli {

struct ThunarActions {
    // An <action> whose <unique-id> starts with this is Corvane's.
    static constexpr std::string_view idPrefix = "corvane-";
    // What a new file holds before any action is added.
    static constexpr std::string_view emptyFile =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<actions>\n</actions>\n";

    // The file without Corvane's actions; nothing when `text` is not well-formed UTF-8 XML with an
    // <actions> root (or declares a document type).
    static std::optional<std::string> withoutOurs(std::string_view text);
    // The file with `elements` at the end of the root in place of Corvane's earlier actions.
    // Taking them out again gives back `withoutOurs(text)` byte for byte.
    static std::optional<std::string> withOurs(std::string_view text, std::string_view elements);
};

}  // namespace corvane::cli
