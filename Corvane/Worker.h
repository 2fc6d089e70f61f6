// The one thread on which the engine runs: jobs run one at a time, in the order they were handed
// in, and the coroutine that handed a job in resumes on the main thread with its result or its
// exception. Created and awaited on the main thread.
#pragma once

#include <QObject>
#include <condition_variable>
#include <coroutine>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>

namespace corvane::app {

class Worker {
public:
    // Results are delivered through `mainContext`'s thread, which must be the main thread.
    explicit Worker(QObject* mainContext);
    // Runs what was handed in, then ends the thread. Coroutines still waiting then stay suspended.
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    template <class Function>
    class Job {
    public:
        using Result = std::invoke_result_t<Function&>;
        Job(Worker& worker, Function function) : worker_(worker), function_(std::move(function)) {}

        bool await_ready() const noexcept { return false; }
        void await_suspend(std::coroutine_handle<> awaiting) {
            worker_.enqueue([this, awaiting] {
                try {
                    if constexpr (std::is_void_v<Result>)
                        function_();
                    else
                        result_.emplace(function_());
                } catch (...) {
                    failure_ = std::current_exception();
                }
                worker_.resumeOnMain(awaiting);
            });
        }
        Result await_resume() {
            if (failure_) std::rethrow_exception(failure_);
            if constexpr (!std::is_void_v<Result>) return std::move(*result_);
        }

    private:
        struct Nothing {};
        Worker& worker_;
        Function function_;
        std::conditional_t<std::is_void_v<Result>, Nothing, std::optional<Result>> result_;
        std::exception_ptr failure_;
    };

    // co_await worker.run([&] { ... }): the function runs on the worker thread; references to the
    // awaiting coroutine's locals stay valid, since it is suspended until the function is done.
    template <class Function>
    Job<Function> run(Function function) {
        return Job<Function>(*this, std::move(function));
    }

    // Jobs handed in and not finished yet.
    int pending() const;

private:
    void enqueue(std::function<void()> job);
    void resumeOnMain(std::coroutine_handle<> awaiting);
    void loop();

    QObject* mainContext_;  // outlives the worker
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> jobs_;
    int unfinished_ = 0;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace corvane::app
