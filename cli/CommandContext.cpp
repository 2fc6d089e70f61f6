#include "CommandContext.h"

#include "CommandFailure.h"
#include "Engine/AppPaths.h"
#include "FileSystem/GocryptfsTool.h"

namespace corvane::cli {

Locker& CommandContext::locker(bool announce) {
    if (locker_) return *locker_;
    std::string support = AppPaths::support();
    supportLock_ = SupportLock::acquire(support);
    if (!supportLock_)
        throw CommandFailure("Another Corvane is working on " + support +
                             ". Wait for it to finish, then try again.");
    locker_ = std::make_unique<Locker>(support, AppPaths::home(), settings_.applicationLocation,
                                       std::make_shared<GocryptfsTool>());
    // Whatever an interrupted command left is finished or undone before anything else runs.
    recovery_ = locker_->recover();
    if (auto notice = recovery_.notice(); notice && announce)
        notices_ << notice->title << "\n" << notice->body << "\n";
    return *locker_;
}

}  // namespace corvane::cli
