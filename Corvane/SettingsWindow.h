// The settings: when inactivity locks, fingerprint, starting at log-in, the file-manager menu and
// the password change. It reads every value through Seams each time it is shown or reloaded, so it
// never shows a stale copy. Main thread only.
#pragma once

#include <QWidget>
#include <functional>
#include <optional>
#include <string>

#include "ChangePasswordDialog.h"

class QCheckBox;
class QComboBox;
class QLabel;

namespace corvane::app {

class SettingsWindow : public QWidget {
    Q_OBJECT

public:
    struct Seams {
        std::function<int()> idleMinutes;
        std::function<void(int)> setIdleMinutes;
        std::function<bool()> fingerprintAvailable;
        std::function<bool()> fingerprintEnabled;
        std::function<void(bool)> setFingerprintEnabled;
        std::function<bool()> startsAtLogin;
        std::function<void(bool)> setStartsAtLogin;
        std::function<bool()> fileManagerMenuEnabled;
        // Nothing on success, else the sentence to show.
        std::function<std::optional<std::string>(bool on)> setFileManagerMenu;
        ChangePasswordDialog::Change changePassword;
        // Whether the desktop reports idle time; without it the limit has no effect.
        std::function<bool()> idleAvailable = [] { return true; };
    };

    explicit SettingsWindow(Seams seams, QWidget* parent = nullptr);

    // "5 minutes", "1 hour", "Never".
    static QString idleChoiceName(int minutes);

    // Opens the password form (one at a time) and returns it.
    ChangePasswordDialog* openChangePassword();
    QString error() const;

public slots:
    // Shows the values the seams hold now.
    void reload();

protected:
    void showEvent(QShowEvent* event) override;

private:
    void switchFileManagerMenu(bool on);

    Seams seams_;
    QComboBox* idle_;
    QLabel* idleUnavailable_;
    QCheckBox* fingerprint_;
    QCheckBox* startAtLogin_;
    QCheckBox* fileManagerMenu_;
    QLabel* error_;
    QPointer<ChangePasswordDialog> changePassword_;
};

}  // namespace corvane::app
