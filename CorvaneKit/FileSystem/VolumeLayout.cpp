#include "FileSystem/VolumeLayout.h"

namespace corvane {

const std::set<std::string>& VolumeLayout::housekeeping() {
    // Only Corvane's own two: names other systems keep at a volume's root are the user's data here.
    static const std::set<std::string> names = {std::string(markerName),
                                                std::string(neverIndexName)};
    return names;
}

}  // namespace corvane
