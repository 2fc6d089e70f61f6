// The password record as the keyring hands it back: any bytes decode or throw DecodingError, and
// what decodes is encoded and decoded back unchanged.
#include "FuzzSupport.h"
#include "Records/JSONFields.h"
#include "Records/StoredSecret.h"

using namespace corvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    StoredSecret secret;
    try {
        secret = StoredSecret::decode(fuzzing::text(data, size));
    } catch (const DecodingError&) {
        return 0;
    }
    CORVANE_FUZZ_CHECK(StoredSecret::decode(secret.encode()) == secret);
    secret.openCandidates();
    secret.migrated();
    return 0;
}
