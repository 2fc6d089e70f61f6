// The user's two settings, kept under the keys the application has always used in
// $XDG_CONFIG_HOME/corvane/settings.json: the inactivity limit and whether a fingerprint may stand
// in for the password. Other keys in the file are kept. A missing, damaged or oversized file reads
// as the defaults; the next write sets a damaged one aside first.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace corvane {

class UserSettings {
public:
    static constexpr std::string_view idleMinutesKey = "corvane.idleMinutes";
    static constexpr std::string_view touchIDKey = "corvane.touchIDEnabled";
    static constexpr int defaultIdleMinutes = 15;

    // $XDG_CONFIG_HOME/corvane/settings.json when that is an absolute path, else
    // ~/.config/corvane/settings.json.
    static std::string defaultPath();

    explicit UserSettings(std::string path = defaultPath()) : path_(std::move(path)) {}

    const std::string& path() const { return path_; }

    // The stored value when present and an integer (held within an int), else 15.
    int idleMinutes() const;
    // The stored value when present and a Boolean, else true.
    bool touchIDEnabled() const;

    // Throw what the file system reports.
    void setIdleMinutes(int minutes) const;
    void setTouchIDEnabled(bool enabled) const;

private:
    // The stored object; nothing when the file is missing, damaged or not an object.
    std::optional<nlohmann::json> stored() const;
    void store(std::string_view key, nlohmann::json value) const;

    std::string path_;
};

}  // namespace corvane
