// Answers the model's questions with dialogs: message boxes with its buttons, the password entry,
// the choosers for items to lock and for a moved locked item, and the fingerprint notice. Every
// dialog is raised and activated, since the application has no main window. Main thread only.
#pragma once

#include <QPointer>

#include "Prompter.h"

class QDialog;

namespace corvane::app {

class PromptPanel : public Prompter {
public:
    PromptPanel() = default;
    ~PromptPanel() override;

    int choose(const std::string& title, const std::string& message,
               const std::vector<std::string>& buttons) override;
    std::optional<std::string> password(const std::string& title,
                                        const std::string& message) override;
    std::vector<std::string> chooseItemsToLock() override;
    std::optional<std::string> chooseLockedItem(const std::string& name) override;
    void fingerprintWaiting(const std::string& reason, std::function<void()> usePassword) override;
    void fingerprintFinished() override;

    // The fingerprint notice while it is shown.
    QDialog* fingerprintDialog() const { return fingerprint_; }

private:
    QPointer<QDialog> fingerprint_;
};

}  // namespace corvane::app
