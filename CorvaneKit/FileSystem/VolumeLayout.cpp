#include "FileSystem/VolumeLayout.h"

namespace corvane {

const std::set<std::string>& VolumeLayout::housekeeping() {
    static const std::set<std::string> names = {
        ".DocumentRevisions-V100", ".TemporaryItems",       ".Trashes",  ".fseventsd",
        ".Spotlight-V100",         ".metadata_never_index", ".DS_Store", std::string(markerName),
    };
    return names;
}

}  // namespace corvane
