#include "FileSystem/CancelToken.h"

#include "Records/CorvaneError.h"

namespace corvane {

void CancelToken::check() const {
    if (isCancelled()) throw CorvaneError::cancelled();
}

}  // namespace corvane
