#include "Worker.h"

#include <QMetaObject>

namespace corvane::app {

Worker::Worker(QObject* mainContext) : mainContext_(mainContext), thread_([this] { loop(); }) {}

Worker::~Worker() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

int Worker::pending() const {
    std::lock_guard lock(mutex_);
    return unfinished_;
}

void Worker::enqueue(std::function<void()> job) {
    {
        std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
        ++unfinished_;
    }
    wake_.notify_one();
}

void Worker::resumeOnMain(std::coroutine_handle<> awaiting) {
    // Queued, so the coroutine never runs on this thread, and results arrive in job order.
    QMetaObject::invokeMethod(
        mainContext_, [awaiting] { awaiting.resume(); }, Qt::QueuedConnection);
}

void Worker::loop() {
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
            if (jobs_.empty()) return;
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        job();
        std::lock_guard lock(mutex_);
        --unfinished_;
    }
}

}  // namespace corvane::app
