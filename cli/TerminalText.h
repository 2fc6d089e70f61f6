// File names as a terminal may show them: names are bytes, and a control character in one would
// otherwise move the cursor, change colours or break a table row.
#pragma once

#include <string>
#include <string_view>

namespace corvane::cli {

// C0 and C1 control characters and DEL written as visible escapes (\n, \t, \x1b, \u009b), every
// other byte kept.
std::string escapedControls(std::string_view text);

}  // namespace corvane::cli
