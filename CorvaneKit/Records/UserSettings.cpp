#include "Records/UserSettings.h"

#include <cstdlib>

#include "Engine/AppPaths.h"
#include "Records/JSONCodec.h"

namespace corvane {

std::string UserSettings::defaultPath() {
    const char* config = std::getenv("XDG_CONFIG_HOME");
    std::string base = config && config[0] == '/' ? config : AppPaths::home() + "/.config";
    return base + "/corvane/settings.json";
}

std::optional<nlohmann::json> UserSettings::stored() const {
    try {
        auto text = JSONCodec::readIfPresent(path_, JSONCodec::smallRecordLimit);
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
    auto minutes = found->get<std::int64_t>();
    // A count of minutes nobody could mean is not an integer this program can use either.
    if (minutes < 0 || minutes > 1'000'000) return defaultIdleMinutes;
    return static_cast<int>(minutes);
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
            if (JSONCodec::readIfPresent(path_, JSONCodec::smallRecordLimit))
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
