#include "Records/UserSettings.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include "Records/AppPaths.h"
#include "Records/JSONCodec.h"

namespace corvane {

std::string UserSettings::defaultPath() {
    const char* config = std::getenv("XDG_CONFIG_HOME");
    std::string base = config && config[0] == '/' ? config : AppPaths::home() + "/.config";
    return base + "/corvane/settings.json";
}

std::optional<nlohmann::json> UserSettings::stored() const {
    try {
        auto text = JSONCodec::readRecord(path_, JSONCodec::smallRecordLimit);
        if (!text) return std::nullopt;
        auto value = JSONCodec::decode(*text);
        if (!value.is_object()) return std::nullopt;
        return value;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

int UserSettings::idleMinutes() const {
    auto value = stored();
    if (!value) return defaultIdleMinutes;
    auto found = value->find(idleMinutesKey);
    if (found == value->end() || !found->is_number_integer()) return defaultIdleMinutes;
    // Every integer keeps its meaning: none or below one is never, and one past what an int
    // holds is as good as never too.
    constexpr std::int64_t most = std::numeric_limits<int>::max();
    if (found->is_number_unsigned())
        return static_cast<int>(std::min<std::uint64_t>(found->get<std::uint64_t>(), most));
    return static_cast<int>(std::clamp<std::int64_t>(found->get<std::int64_t>(),
                                                     std::numeric_limits<int>::min(), most));
}

bool UserSettings::touchIDEnabled() const {
    auto value = stored();
    if (!value) return true;
    auto found = value->find(touchIDKey);
    return found == value->end() || !found->is_boolean() || found->get<bool>();
}

void UserSettings::setIdleMinutes(int minutes) const {
    store(idleMinutesKey, minutes);
}

void UserSettings::setTouchIDEnabled(bool enabled) const {
    store(touchIDKey, enabled);
}

void UserSettings::store(std::string_view key, nlohmann::json value) const {
    auto settings = stored();
    if (!settings) {
        // Whatever is there could not be read as settings: keep it for the user to look at.
        try {
            if (JSONCodec::readRecord(path_, JSONCodec::smallRecordLimit))
                JSONCodec::setAside(path_);
        } catch (const DecodingError&) {
            JSONCodec::setAside(path_);
        }
        settings = nlohmann::json::object();
    }
    (*settings)[std::string(key)] = std::move(value);
    JSONCodec::writeAtomically(settings->dump(2) + "\n", path_);
}

}  // namespace corvane
