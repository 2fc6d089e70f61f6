#include "Records/StoredSecret.h"

#include <string.h>

#include <algorithm>
#include <limits>

#include "Records/FatalError.h"
#include "Records/JSONCodec.h"

namespace corvane {

namespace {

void wipe(std::string& text) {
    explicit_bzero(text.data(), text.size());
}

}  // namespace

StoredSecret::~StoredSecret() {
    wipe(password);
    if (previous) wipe(*previous);
    for (auto& each : history) wipe(each);
}

StoredSecret StoredSecret::changing(const std::string& newPassword) const {
    if (generation == std::numeric_limits<std::int64_t>::max())
        fatalError("password generation overflow");
    StoredSecret changed;
    changed.password = newPassword;
    changed.generation = generation + 1;
    changed.previous = password;
    changed.history = history;
    std::erase(changed.history, password);
    changed.history.push_back(password);
    return changed;
}

StoredSecret StoredSecret::migrated() const {
    StoredSecret copy = *this;
    copy.previous.reset();
    return copy;
}

std::vector<std::string> StoredSecret::openCandidates() const {
    std::vector<std::string> candidates;
    auto offer = [&](const std::string& candidate) {
        if (std::find(candidates.begin(), candidates.end(), candidate) == candidates.end())
            candidates.push_back(candidate);
    };
    offer(password);
    if (previous) offer(*previous);
    for (auto it = history.rbegin(); it != history.rend(); ++it) offer(*it);
    return candidates;
}

std::string StoredSecret::encode() const {
    nlohmann::ordered_json value = {{"password", password}, {"generation", generation}};
    if (previous) value["previous"] = *previous;
    value["history"] = history;
    return JSONCodec::encodeCompact(value);
}

StoredSecret StoredSecret::decode(std::string_view text) {
    // The keyring hands back whatever is stored under our name; a password record is small.
    if (text.size() > JSONCodec::smallRecordLimit) throw DecodingError("password record too large");
    auto value = JSONCodec::decode(text);
    JSONFields::object(value, "password record");
    StoredSecret secret;
    secret.password = JSONFields::requiredString(value, "password");
    secret.generation = JSONFields::requiredInt64(value, "generation");
    secret.previous = JSONFields::optionalString(value, "previous");
    if (auto* history = JSONFields::optional(value, "history")) {
        if (!history->is_array()) throw DecodingError("history is not an array");
        for (const auto& each : *history)
            secret.history.push_back(JSONFields::string(each, "history"));
    }
    return secret;
}

}  // namespace corvane
