#include "Records/OriginalFacts.h"

#include "Records/JSONFields.h"

namespace corvane {

nlohmann::json OriginalFacts::toJSON() const {
    return {{"digest", digest}, {"itemChangedNanoseconds", itemChangedNanoseconds}};
}

OriginalFacts OriginalFacts::fromJSON(const nlohmann::json& value) {
    JSONFields::object(value, "originalFacts");
    OriginalFacts facts;
    facts.digest = JSONFields::requiredString(value, "digest");
    if (facts.digest.size() != 64 ||
        facts.digest.find_first_not_of("0123456789abcdef") != std::string::npos)
        throw DecodingError("digest is not a SHA-256 digest");
    facts.itemChangedNanoseconds = JSONFields::requiredInt64(value, "itemChangedNanoseconds");
    return facts;
}

}  // namespace corvane
