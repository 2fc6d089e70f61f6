// corvane open-url: not written yet.
#include "Commands.h"
#include "UsageError.h"

namespace corvane::cli {

int runOpenUrl(CommandContext&, const Words&, std::istream&, std::ostream&, std::ostream&) {
    throw UsageError("open-url is not available yet");
}

}  // namespace corvane::cli
