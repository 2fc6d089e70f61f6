// lsof's field output: any text parses without throwing, names each process once, and the lists
// built on it only ever name processes that were parsed.
#include <algorithm>

#include "FileSystem/OpenFiles.h"
#include "FuzzSupport.h"

using namespace corvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string output(fuzzing::text(data, size));
    auto holders = OpenFiles::parse(output);
    for (std::size_t i = 0; i < holders.size(); ++i)
        for (std::size_t k = i + 1; k < holders.size(); ++k)
            CORVANE_FUZZ_CHECK(holders[i].pid != holders[k].pid);
    auto classified = OpenFiles::classify(0, false, output);
    CORVANE_FUZZ_CHECK(classified.isKnown && classified.list == holders);
    for (const auto& name : OpenFiles::blockingNames(classified))
        CORVANE_FUZZ_CHECK(std::any_of(holders.begin(), holders.end(),
                                       [&](const Holder& h) { return h.command == name; }));
    return 0;
}
