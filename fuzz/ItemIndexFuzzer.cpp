// The item index's records: any bytes either decode or are refused with DecodingError (which sets
// the file aside), and whatever decodes is saved and read back unchanged.
#include "FuzzSupport.h"
#include "Records/JSONCodec.h"
#include "Records/LockedItem.h"

using namespace corvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<LockedItem> items;
    try {
        items = JSONCodec::decodeArray<LockedItem>(fuzzing::text(data, size), LockedItem::fromJSON);
    } catch (const DecodingError&) {
        return 0;
    }
    nlohmann::json array = nlohmann::json::array();
    for (const auto& item : items) array.push_back(item.toJSON());
    auto again = JSONCodec::decodeArray<LockedItem>(JSONCodec::encode(array), LockedItem::fromJSON);
    CORVANE_FUZZ_CHECK(again == items);
    return 0;
}
