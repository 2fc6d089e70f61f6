// A C++20 coroutine that runs on the main thread: the model's operations are written as straight
// lines that suspend while the worker runs, or while they wait for the model to be ready or idle,
// and the event loop stays free meanwhile. A Task starts when it is awaited or spawned; a spawned
// task owns itself and is gone when it ends. Main thread only.
#pragma once

#include <QDebug>
#include <QTimer>
#include <chrono>
#include <coroutine>
#include <exception>
#include <optional>
#include <set>
#include <utility>

namespace corvane::app {

template <class T = void>
class [[nodiscard]] Task;

namespace detail {

struct PromiseBase {
    std::coroutine_handle<> continuation;
    std::exception_ptr failure;

    std::suspend_always initial_suspend() noexcept { return {}; }
    // Hands control back to whoever awaited this task, without growing the stack.
    struct FinalAwaiter {
        bool await_ready() noexcept { return false; }
        template <class Promise>
        std::coroutine_handle<> await_suspend(std::coroutine_handle<Promise> self) noexcept {
            auto next = self.promise().continuation;
            return next ? next : std::noop_coroutine();
        }
        void await_resume() noexcept {}
    };
    FinalAwaiter final_suspend() noexcept { return {}; }
    void unhandled_exception() { failure = std::current_exception(); }
};

template <class T>
struct Promise : PromiseBase {
    std::optional<T> value;
    Task<T> get_return_object();
    template <class U>
    void return_value(U&& result) {
        value.emplace(std::forward<U>(result));
    }
    T take() {
        if (failure) std::rethrow_exception(failure);
        return std::move(*value);
    }
};

template <>
struct Promise<void> : PromiseBase {
    Task<void> get_return_object();
    void return_void() {}
    void take() {
        if (failure) std::rethrow_exception(failure);
    }
};

}  // namespace detail

template <class T>
class [[nodiscard]] Task {
public:
    using promise_type = detail::Promise<T>;
    using Handle = std::coroutine_handle<promise_type>;

    explicit Task(Handle handle) : handle_(handle) {}
    Task(Task&& other) noexcept : handle_(std::exchange(other.handle_, {})) {}
    Task& operator=(Task&& other) noexcept {
        if (this != &other) {
            if (handle_) handle_.destroy();
            handle_ = std::exchange(other.handle_, {});
        }
        return *this;
    }
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    ~Task() {
        if (handle_) handle_.destroy();
    }

    bool await_ready() const noexcept { return false; }
    std::coroutine_handle<> await_suspend(std::coroutine_handle<> awaiting) noexcept {
        handle_.promise().continuation = awaiting;
        return handle_;
    }
    T await_resume() { return handle_.promise().take(); }

private:
    Handle handle_;
};

namespace detail {

template <class T>
Task<T> Promise<T>::get_return_object() {
    return Task<T>(std::coroutine_handle<Promise<T>>::from_promise(*this));
}
inline Task<void> Promise<void>::get_return_object() {
    return Task<void>(std::coroutine_handle<Promise<void>>::from_promise(*this));
}

// Spawned tasks still running, so that they can be ended when what they wait for goes away.
inline std::set<std::coroutine_handle<>>& spawned() {
    static std::set<std::coroutine_handle<>> tasks;
    return tasks;
}

// Runs at once and frees itself at the end; nobody awaits it.
struct Detached {
    struct promise_type {
        promise_type() {
            spawned().insert(std::coroutine_handle<promise_type>::from_promise(*this));
        }
        ~promise_type() {
            spawned().erase(std::coroutine_handle<promise_type>::from_promise(*this));
        }
        Detached get_return_object() noexcept { return {}; }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() noexcept {}
        void unhandled_exception() noexcept {}
    };
};

}  // namespace detail

// Starts `task` now; it runs until its first suspension before spawn returns. A failure that
// escapes it is logged: every operation reports its own failures to the user before that.
template <class T>
void spawn(Task<T> task) {
    [](Task<T> owned) -> detail::Detached {
        try {
            co_await std::move(owned);
        } catch (const std::exception& error) {
            qWarning("corvane: unexpected failure: %s", error.what());
        } catch (...) {
            qWarning("corvane: unexpected failure");
        }
    }(std::move(task));
}

// Destroys every spawned task that is still suspended, with the tasks it awaits and their locals.
// Only for shutdown, once nothing is left that could resume them.
inline void destroySpawned() {
    auto suspended = std::exchange(detail::spawned(), {});
    for (auto task : suspended) task.destroy();
}

// Suspends the awaiting coroutine for `delay`; it resumes on the event loop, unless `context`
// is gone by then.
inline auto sleepFor(QObject* context, std::chrono::milliseconds delay) {
    struct Awaiter {
        QObject* context;
        std::chrono::milliseconds delay;
        bool await_ready() const noexcept { return delay.count() <= 0; }
        void await_suspend(std::coroutine_handle<> awaiting) {
            QTimer::singleShot(delay, context, [awaiting] { awaiting.resume(); });
        }
        void await_resume() const noexcept {}
    };
    return Awaiter{context, delay};
}

}  // namespace corvane::app
