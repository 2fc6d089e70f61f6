#include "FingerprintReader.h"

namespace corvane {

// Written with GIO next.
bool FingerprintReader::available() const {
    return false;
}
bool FingerprintReader::verify(std::chrono::milliseconds, const std::function<bool()>&) const {
    return false;
}

}  // namespace corvane
