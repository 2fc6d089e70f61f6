#include "Records/SharedState.h"

#include <fstream>
#include <sstream>

#include "Records/JSONCodec.h"
#include "Records/Paths.h"

namespace corvane {

std::optional<std::string> SharedState::defaultURL() {
    auto folder = sessionRuntimeFolder();
    if (!folder) return std::nullopt;
    return *folder + "/" + std::string(fileName);
}

std::optional<SharedState> SharedState::read(const std::optional<std::string>& path) {
    if (!path) return std::nullopt;
    try {
        auto text = JSONCodec::readIfPresent(*path, JSONCodec::smallRecordLimit);
        if (!text) return std::nullopt;
        auto value = JSONCodec::decode(*text);
        JSONFields::object(value, "state");
        const auto& paths = JSONFields::required(value, "unlockedPaths");
        if (!paths.is_array()) return std::nullopt;
        SharedState state;
        for (const auto& each : paths)
            state.unlockedPaths.push_back(JSONFields::string(each, "unlockedPaths"));
        state.bootTime = JSONFields::requiredInt64(value, "bootTime");
        return state;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

void SharedState::write(const std::string& path) const {
    nlohmann::ordered_json value = {{"unlockedPaths", unlockedPaths}, {"bootTime", bootTime}};
    JSONCodec::writeAtomically(JSONCodec::encodeCompact(value), path);
}

std::int64_t SharedState::currentBootTime() {
    std::ifstream stat("/proc/stat");
    std::string line;
    while (std::getline(stat, line)) {
        std::istringstream fields(line);
        std::string key;
        std::int64_t seconds = 0;
        if (fields >> key && key == "btime" && fields >> seconds) return seconds;
    }
    return 0;
}

std::optional<std::set<std::string>> SharedState::unlockedSet(std::int64_t currentBootTime) const {
    if (bootTime != currentBootTime) return std::nullopt;
    return std::set<std::string>(unlockedPaths.begin(), unlockedPaths.end());
}

}  // namespace corvane
