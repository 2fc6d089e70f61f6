// The operation journal's entries: any bytes either decode or are refused with DecodingError
// (which sets the file aside), and whatever decodes is saved and read back unchanged.
#include "FuzzSupport.h"
#include "Records/JSONCodec.h"
#include "Records/JournalEntry.h"

using namespace corvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<JournalEntry> entries;
    try {
        entries =
            JSONCodec::decodeArray<JournalEntry>(fuzzing::text(data, size), JournalEntry::fromJSON);
    } catch (const DecodingError&) {
        return 0;
    }
    nlohmann::json array = nlohmann::json::array();
    for (const auto& entry : entries) array.push_back(entry.toJSON());
    auto again =
        JSONCodec::decodeArray<JournalEntry>(JSONCodec::encode(array), JournalEntry::fromJSON);
    CORVANE_FUZZ_CHECK(again == entries);
    return 0;
}
