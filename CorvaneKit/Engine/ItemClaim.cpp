#include "Engine/ItemClaim.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "Records/CorvaneError.h"

namespace corvane {

ItemClaim::ItemClaim(const Folder& folder, const std::string& name) {
    fd_ = openat(folder.descriptor(), name.c_str(),
                 O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd_ < 0) return;
    while (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
        if (errno == EINTR) continue;
        const bool held = errno == EWOULDBLOCK;
        close(fd_);
        fd_ = -1;
        if (held) throw CorvaneError::refused(LockRefusal::busyElsewhere);
        return;
    }
}

ItemClaim::~ItemClaim() {
    if (fd_ >= 0) close(fd_);
}

}  // namespace corvane
