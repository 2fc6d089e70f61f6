// Runs the event loop until a model coroutine is done, so that a test can await it in a straight
// line. Main thread only.
#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <chrono>
#include <optional>
#include <stdexcept>

#include "Task.h"

namespace corvane::testing {

// Processes events until `done()` is true; false after `timeout`.
template <class Condition>
bool spinUntil(Condition done, std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeout.count()) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    }
    return true;
}

// Lets the event loop run for `time`, for what must not happen.
inline void spinFor(std::chrono::milliseconds time) {
    spinUntil([] { return false; }, time);
}

// The task's result once the event loop has run it to the end; throws what it throws.
template <class T>
T await(app::Task<T> task, std::chrono::milliseconds timeout = std::chrono::seconds(120)) {
    bool finished = false;
    std::exception_ptr failure;
    std::optional<std::conditional_t<std::is_void_v<T>, bool, T>> result;
    app::spawn([](app::Task<T> inner, bool& finished, std::exception_ptr& failure,
                  auto& result) -> app::Task<> {
        try {
            if constexpr (std::is_void_v<T>) {
                co_await std::move(inner);
                result.emplace(true);
            } else {
                result.emplace(co_await std::move(inner));
            }
        } catch (...) {
            failure = std::current_exception();
        }
        finished = true;
    }(std::move(task), finished, failure, result));
    if (!spinUntil([&] { return finished; }, timeout))
        throw std::runtime_error("the task did not finish in time");
    if (failure) std::rethrow_exception(failure);
    if constexpr (!std::is_void_v<T>) return std::move(*result);
}

}  // namespace corvane::testing
