// The small floating window that shows what a long operation is doing, with a "Cancel" button.
// Main thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace corvane::app {

class ProgressDisplay {
public:
    virtual ~ProgressDisplay() = default;

    // Shows the window, or updates it when it is shown; the bar turns indeterminate.
    virtual void show(const std::string& message, std::function<void()> onCancel) = 0;
    // Bytes done of `total` for the current step: the bar becomes determinate.
    virtual void showBytes(std::int64_t done, std::int64_t total) = 0;
    virtual void close() = 0;
};

}  // namespace corvane::app
