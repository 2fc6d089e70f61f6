// Coroutines waiting for one event (ready, idle, password change over): each is resumed once, in
// the order it began to wait, from the event loop rather than from inside whoever fired the event.
// Main thread only.
#pragma once

#include <QMetaObject>
#include <QObject>
#include <coroutine>
#include <vector>

namespace corvane::app {

class WaitList {
public:
    // Resumptions go through `context`'s event queue, and are dropped when it is destroyed.
    explicit WaitList(QObject* context) : context_(context) {}

    // co_await list.wait(): suspends until the next resumeAll().
    auto wait() {
        struct Awaiter {
            WaitList& list;
            bool await_ready() const noexcept { return false; }
            void await_suspend(std::coroutine_handle<> awaiting) {
                list.waiting_.push_back(awaiting);
            }
            void await_resume() const noexcept {}
        };
        return Awaiter{*this};
    }

    void resumeAll() {
        std::vector<std::coroutine_handle<>> waiting;
        waiting.swap(waiting_);
        for (auto awaiting : waiting)
            QMetaObject::invokeMethod(
                context_, [awaiting] { awaiting.resume(); }, Qt::QueuedConnection);
    }

    std::size_t size() const { return waiting_.size(); }

private:
    QObject* context_;
    std::vector<std::coroutine_handle<>> waiting_;
};

}  // namespace corvane::app
