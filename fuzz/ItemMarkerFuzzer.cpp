// The marker at the root of a volume, read from a real file as the engine reads it: any bytes
// give a marker or nothing, never an exception, and a marker read is written and read back
// unchanged.
#include "FuzzSupport.h"
#include "Records/ItemMarker.h"

using namespace corvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string& volume = fuzzing::scratchFolder();
    fuzzing::writeWhole(volume + "/" + std::string(ItemMarker::fileName),
                        fuzzing::text(data, size));
    auto marker = ItemMarker::read(volume);
    if (!marker) return 0;
    marker->write(volume);
    CORVANE_FUZZ_CHECK(ItemMarker::read(volume) == marker);
    return 0;
}
