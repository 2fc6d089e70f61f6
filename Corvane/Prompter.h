// How the model asks the user something. The application answers with modal dialogs; a test
// answers in advance. Every call is made on the main thread and returns once the user answered;
// the event loop keeps running meanwhile, so the worker's results still arrive.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace corvane::app {

class Prompter {
public:
    virtual ~Prompter() = default;

    // The index of the chosen button, 0 for the first; closing the dialog counts as the last.
    virtual int choose(const std::string& title, const std::string& message,
                       const std::vector<std::string>& buttons) = 0;

    // The typed text on "OK", nothing on "Cancel" (never an empty text for a cancel).
    virtual std::optional<std::string> password(const std::string& title,
                                                const std::string& message) = 0;

    // Files and folders to lock, several at once; empty when the user cancelled.
    virtual std::vector<std::string> chooseItemsToLock() = 0;

    // A locked item (a folder named *.corvlock) for the item called `name`; nothing on cancel.
    virtual std::optional<std::string> chooseLockedItem(const std::string& name) = 0;

    // Shown while the fingerprint reader waits; `usePassword` is called when the user would rather
    // type. fingerprintFinished() closes it. Both on the main thread.
    virtual void fingerprintWaiting(const std::string& reason,
                                    std::function<void()> usePassword) = 0;
    virtual void fingerprintFinished() = 0;
};

}  // namespace corvane::app
