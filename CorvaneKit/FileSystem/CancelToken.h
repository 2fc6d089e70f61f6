// The user's Cancel, shared between the thread that asks for it and the thread doing the work. It
// only ever goes from not cancelled to cancelled; long loops call check() between units of work.
#pragma once

#include <mutex>

namespace corvane {

class CancelToken {
public:
    void cancel() {
        std::lock_guard guard(lock_);
        cancelled_ = true;
    }

    bool isCancelled() const {
        std::lock_guard guard(lock_);
        return cancelled_;
    }

    // Throws CorvaneError::cancelled() once cancelled.
    void check() const;

private:
    mutable std::mutex lock_;
    bool cancelled_ = false;
};

}  // namespace corvane
