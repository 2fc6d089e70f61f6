// The state shared with the file-manager extensions, read from a real file: any bytes give a
// state or nothing, never an exception, and a state read is written and read back unchanged.
#include "FuzzSupport.h"
#include "Records/SharedState.h"

using namespace corvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string path = fuzzing::scratchFolder() + "/" + std::string(SharedState::fileName);
    fuzzing::writeWhole(path, fuzzing::text(data, size));
    auto state = SharedState::read(path);
    if (!state) return 0;
    state->write(path);
    CORVANE_FUZZ_CHECK(SharedState::read(path) == state);
    return 0;
}
