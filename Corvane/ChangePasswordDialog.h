// The form that replaces the Corvane password: the current one, the new one twice. The match is
// checked here; the rules and the current password are the model's to check, on its own time.
// Main thread only.
#pragma once

#include <QDialog>
#include <QPointer>
#include <functional>
#include <optional>
#include <string>

#include "Task.h"

class QLabel;
class QLineEdit;
class QPushButton;

namespace corvane::app {

class StrengthMeter;

class ChangePasswordDialog : public QDialog {
    Q_OBJECT

public:
    // Nothing on success, else the sentence to show beside the form.
    using Change =
        std::function<Task<std::optional<std::string>>(std::string current, std::string next)>;

    explicit ChangePasswordDialog(Change change, QWidget* parent = nullptr);

    // Checks the match, then hands the change to the model; closes once it is done.
    void submit();
    // The dialog cannot be closed while the change runs.
    void reject() override;

    QString error() const;
    bool busy() const { return busy_; }

private:
    static Task<> run(QPointer<ChangePasswordDialog> self, Task<std::optional<std::string>> change);
    void setBusy(bool busy);
    void showError(const QString& error);
    void updateButtons();

    Change change_;
    QLineEdit* current_;
    QLineEdit* next_;
    QLineEdit* confirmation_;
    StrengthMeter* meter_;
    QLabel* error_;
    QPushButton* submit_;
    QPushButton* cancel_;
    bool busy_ = false;
};

}  // namespace corvane::app
