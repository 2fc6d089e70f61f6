// corvane menu: not written yet.
#include "Commands.h"
#include "UsageError.h"

namespace corvane::cli {

int runMenu(CommandContext&, const Words&, std::istream&, std::ostream&, std::ostream&) {
    throw UsageError("menu is not available yet");
}

}  // namespace corvane::cli
