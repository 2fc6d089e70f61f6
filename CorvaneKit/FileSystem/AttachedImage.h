// An encrypted image that is attached now, and where one of its volumes is mounted.
#pragma once

#include <string>

namespace corvane {

struct AttachedImage {
    std::string imagePath;  // canonical
    std::string mountPoint;

    bool operator==(const AttachedImage&) const = default;
};

}  // namespace corvane
