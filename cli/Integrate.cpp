// corvane integrate: not written yet.
#include "Commands.h"
#include "UsageError.h"

namespace corvane::cli {

int runIntegrate(CommandContext&, const Words&, std::istream&, std::ostream&, std::ostream&) {
    throw UsageError("integrate is not available yet");
}

}  // namespace corvane::cli
