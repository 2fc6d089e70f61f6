// The entries every image's volume may carry at its top besides the user's item: the item marker
// and file-system bookkeeping. The verifier ignores them there, and sizes leave them out.
#pragma once

#include <set>
#include <string>
#include <string_view>

namespace corvane {

struct VolumeLayout {
    static constexpr std::string_view markerName = ".corvane-item.json";

    static const std::set<std::string>& housekeeping();
};

}  // namespace corvane
