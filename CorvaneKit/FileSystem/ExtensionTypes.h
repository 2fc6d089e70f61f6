// Which file-name extensions the desktop knows as a type, from the shared-mime-info glob
// database: an extension is registered when a glob "*.ext" names a MIME type. Read once.
#pragma once

#include <string_view>

namespace corvane {

struct ExtensionTypes {
    // Case is ignored, as file managers do.
    static bool isRegistered(std::string_view extension);
};

}  // namespace corvane
