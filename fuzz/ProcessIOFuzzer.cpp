// A process's I/O counters as /proc/PID/io gives them: any text parses without throwing, a count
// is never negative, and a second `wchar:` line makes any count untrustworthy.
#include <string>

#include "FileSystem/ProcessIO.h"
#include "FuzzSupport.h"

using namespace corvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(fuzzing::text(data, size));
    auto written = ProcessIO::bytesWrittenIn(text);
    if (!written) return 0;
    CORVANE_FUZZ_CHECK(*written >= 0);
    CORVANE_FUZZ_CHECK(text.find("wchar:") != std::string::npos);
    const std::string completed = text.ends_with('\n') ? text : text + "\n";
    CORVANE_FUZZ_CHECK(!ProcessIO::bytesWrittenIn(completed + "wchar: 1\n"));
    return 0;
}
