#include "CommandContext.h"

#include "CommandFailure.h"
#include "Engine/AppPaths.h"
#include "FileSystem/GocryptfsTool.h"

namespace corvane::cli {

Locker& CommandContext::locker() {
    if (locker_) return *locker_;
    std::string support = AppPaths::support();
    supportLock_ = SupportLock::acquire(support);
    if (!supportLock_)
        throw CommandFailure("Another Corvane is working on " + support +
                             ". Wait for it to finish, then try again.");
    locker_ = std::make_unique<Locker>(support, AppPaths::home(), settings_.applicationLocation,
                                       std::make_shared<GocryptfsTool>());
    return *locker_;
}

}  // namespace corvane::cli
