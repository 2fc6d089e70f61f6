// The entries every image's volume carries at its top besides the user's item: the item marker and
// the file that keeps indexers out. The verifier ignores them there, and sizes leave them out; a
// folder that already holds one of them at its top cannot be locked.
#pragma once

#include <set>
#include <string>
#include <string_view>

namespace corvane {

struct VolumeLayout {
    static constexpr std::string_view markerName = ".corvane-item.json";
    static constexpr std::string_view neverIndexName = ".metadata_never_index";

    static const std::set<std::string>& housekeeping();
};

}  // namespace corvane
