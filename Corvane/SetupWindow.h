// The first-run window: six steps from the welcome to the new password, fingerprint, file-manager
// menu and disk protection, saving nothing until the last button. What it asks of the model and
// the system comes in as Seams, so it can be shown without either. Main thread only.
#pragma once

#include <QWidget>
#include <functional>
#include <optional>
#include <string>

class QCheckBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QStackedWidget;

namespace corvane::app {

class RightClickDemo;
class StrengthMeter;

class SetupWindow : public QWidget {
    Q_OBJECT

public:
    enum Step { welcome, password, fingerprint, fileManager, diskProtection, done };

    struct Seams {
        bool fingerprintAvailable = false;
        std::function<bool()> diskEncryptionOn;
        std::function<bool()> fileManagerMenuEnabled;
        // Nothing on success, else the sentence to show; the same for save.
        std::function<std::optional<std::string>()> enableFileManagerMenu;
        std::function<std::optional<std::string>(const std::string& password, bool useFingerprint)>
            save;
        // Why no password can be kept (no keyring runs): said on the first screen, which then
        // goes no further.
        std::optional<std::string> keyringProblem;
    };

    explicit SetupWindow(Seams seams, QWidget* parent = nullptr);

    int step() const;
    bool canAdvance() const;
    // What the primary button does: checks the password step, saves on the last one.
    void advance();
    // Steps forward or back, over the fingerprint step without a reader; nothing past either end.
    void move(int by);

    // For still pictures: any step as it is, the password fields filled, the animation stopped.
    void showStep(int step);
    void setPasswordFields(const QString& password, const QString& confirmation, bool understood);
    void freezeDemo();

    QString error() const;

signals:
    // The password is saved and setup is over.
    void finished();

private:
    QWidget* page(const QString& title, const QString& body);
    QWidget* welcomePage();
    QWidget* passwordPage();
    QWidget* fingerprintPage();
    QWidget* fileManagerPage();
    QWidget* diskProtectionPage();
    QWidget* donePage();
    void enter(int step);
    void turnOnFileManagerMenu();
    void showError(const std::optional<std::string>& error);
    void updateButtons();
    std::optional<std::string> passwordProblem() const;

    Seams seams_;
    QStackedWidget* pages_;
    RightClickDemo* demo_ = nullptr;
    QLineEdit* passwordField_ = nullptr;
    QLineEdit* confirmationField_ = nullptr;
    StrengthMeter* meter_ = nullptr;
    QCheckBox* understood_ = nullptr;
    QCheckBox* useFingerprint_ = nullptr;
    QPushButton* menuButton_ = nullptr;
    QLabel* menuAdded_ = nullptr;
    QLabel* menuOn_ = nullptr;
    QLabel* diskState_ = nullptr;
    QLabel* error_;
    QPushButton* back_;
    QPushButton* next_;
};

}  // namespace corvane::app
