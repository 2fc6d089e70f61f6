// The application's check of its shared records, run from the command line: the state file the
// file-manager integration reads can be written and read back where the integration looks for
// it. Whatever the running application had written there is put back. Main thread.
#pragma once

#include <ostream>

namespace corvane::app {

struct SelfTest {
    // Prints one line, "self-test: group container OK" or "... FAILED"; returns 0 or 1.
    static int run(std::ostream& out);
};

}  // namespace corvane::app
