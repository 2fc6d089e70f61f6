// The prompts, the progress window, the password form, the settings and the setup window, on Qt's
// offscreen platform: modal dialogs are answered from the event loop as a user would answer them,
// and the windows' seams record what reached the model and the system.
#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QFileDialog>
#include <QFileSystemModel>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QTemporaryDir>
#include <QTimer>
#include <functional>

#include "ChangePasswordDialog.h"
#include "EventLoop.h"
#include "ProgressWindow.h"
#include "PromptPanel.h"
#include "Records/ByteCount.h"
#include "Records/PasswordRules.h"
#include "SettingsWindow.h"
#include "SetupWindow.h"
#include "WaitList.h"

namespace corvane::app {
namespace {

// Runs `answer` on the modal dialog once it is up, from inside its event loop.
void whenModal(std::function<void(QWidget*)> answer, int attempts = 200) {
    QTimer::singleShot(10, [answer, attempts] {
        if (QWidget* dialog = QApplication::activeModalWidget()) return answer(dialog);
        if (attempts > 0) whenModal(answer, attempts - 1);
    });
}

// The button or box labelled `text` that is not hidden, if any.
QAbstractButton* buttonNamed(QWidget* dialog, const QString& text) {
    for (auto* button : dialog->findChildren<QAbstractButton*>())
        if (button->text() == text && !button->isHidden()) return button;
    return nullptr;
}

TEST(PromptPanelTest, ChooseGivesTheClickedButtonsIndexAndTheLastOnClose) {
    const std::vector<std::string> buttons = {"Relock", "Keep Open", "Cancel"};
    // The button clicked (none: the box is closed) and the answer.
    const std::pair<const char*, int> cases[] = {
        {"Relock", 0}, {"Keep Open", 1}, {"Cancel", 2}, {nullptr, 2}};
    PromptPanel panel;
    for (const auto& [click, index] : cases) {
        SCOPED_TRACE(click ? click : "closed");
        QString title;
        bool markupShown = false;
        whenModal([&, click = click](QWidget* box) {
            title = box->windowTitle();
            for (auto* label : box->findChildren<QLabel*>())
                markupShown |=
                    label->text().contains("<b>") && label->textFormat() == Qt::PlainText;
            click ? buttonNamed(box, click)->click() : (void)box->close();
        });
        EXPECT_EQ(panel.choose("Relock Photos?", "<b>Photos</b> is in use.", buttons), index);
        EXPECT_EQ(title, "Corvane");
        EXPECT_TRUE(markupShown);
    }
}

TEST(PromptPanelTest, PasswordTellsAnEmptyEntryFromACancel) {
    const std::tuple<const char*, const char*, std::optional<std::string>> cases[] = {
        {"hunter2 ü", "OK", "hunter2 ü"},
        {"", "OK", ""},
        {"hunter2", "Cancel", std::nullopt},
        {"", "Cancel", std::nullopt},
    };
    PromptPanel panel;
    for (const auto& [typed, button, result] : cases) {
        SCOPED_TRACE(::testing::Message() << typed << " " << button);
        bool focused = false;
        QLineEdit::EchoMode echo = QLineEdit::Normal;
        whenModal([&, typed = typed, button = button](QWidget* dialog) {
            auto* field = dialog->findChild<QLineEdit*>();
            focused = dialog->focusWidget() == field;
            echo = field->echoMode();
            field->setText(QString::fromUtf8(typed));
            buttonNamed(dialog, button)->click();
        });
        EXPECT_EQ(panel.password("Unlock Photos", "Enter your Corvane password."), result);
        EXPECT_TRUE(focused);
        EXPECT_EQ(echo, QLineEdit::Password);
    }
}

TEST(PromptPanelTest, ItemsToLockMayBeFilesAndFoldersButALockedItemMustBeACorvlockFolder) {
    // Which chooser (the locked item's or the items to lock'), what is selected, and whether
    // the chooser takes it.
    const std::tuple<bool, QStringList, bool> cases[] = {{false, {"Photos", "notes.txt"}, true},
                                                         {true, {"Photos.corvlock"}, true},
                                                         {true, {"Photos"}, false}};
    for (const auto& [lockedItem, selected, accepted] : cases) {
        SCOPED_TRACE(selected.join(", ").toStdString());
        QTemporaryDir folder;
        std::vector<std::string> expected;
        for (const QString& name : selected) {
            if (name.endsWith(".txt"))
                QFile(folder.filePath(name)).open(QIODevice::WriteOnly);
            else
                QDir(folder.path()).mkdir(name);
            if (accepted) expected.push_back(folder.filePath(name).toStdString());
        }
        bool acceptEnabled = false;
        // The chooser is shown on the test's folder, where the user selects the names.
        whenModal([&, lockedItem = lockedItem, selected = selected](QWidget* widget) {
            auto* dialog = static_cast<QFileDialog*>(widget);
            dialog->setDirectory(folder.path());
            auto* model = dialog->findChild<QFileSystemModel*>();
            auto* view = dialog->findChild<QListView*>("listView");
            for (const QString& name : selected)
                view->selectionModel()->select(
                    model->index(folder.filePath(name)),
                    QItemSelectionModel::Select | QItemSelectionModel::Rows);
            QAbstractButton* button = buttonNamed(dialog, lockedItem ? "Choose" : "Lock");
            acceptEnabled = button->isEnabled();
            if (acceptEnabled)
                button->click();
            else
                dialog->reject();
        });
        PromptPanel panel;
        std::vector<std::string> chosen;
        if (!lockedItem)
            chosen = panel.chooseItemsToLock();
        else if (auto item = panel.chooseLockedItem("Photos"))
            chosen.push_back(*item);
        std::sort(chosen.begin(), chosen.end());
        EXPECT_EQ(acceptEnabled, accepted);
        EXPECT_EQ(chosen, expected);
    }
}

TEST(PromptPanelTest, TheFingerprintNoticeCallsForThePasswordOnceAndOnlyWhenAsked) {
    for (const auto& [action, called] :
         {std::pair("button", 1), std::pair("close", 1), std::pair("finished", 0)}) {
        SCOPED_TRACE(action);
        PromptPanel panel;
        int calls = 0;
        panel.fingerprintWaiting("unlock Photos", [&] { ++calls; });
        QDialog* notice = panel.fingerprintDialog();
        ASSERT_NE(notice, nullptr);
        EXPECT_FALSE(notice->isModal());
        EXPECT_NE(buttonNamed(notice, "Use Corvane Password"), nullptr);
        if (action == std::string("button")) buttonNamed(notice, "Use Corvane Password")->click();
        if (action == std::string("close")) notice->close();
        // Finishing twice, or after the password was called for, calls for nothing more.
        panel.fingerprintFinished();
        panel.fingerprintFinished();
        QCoreApplication::processEvents();
        EXPECT_EQ(calls, called);
        EXPECT_EQ(panel.fingerprintDialog(), nullptr);
    }
}

TEST(ProgressWindowTest, OneWindowFollowsTheLatestMessageAndBytes) {
    ProgressWindow window;
    int firstCancels = 0, secondCancels = 0;
    window.show("Locking Photos…", [&] { ++firstCancels; });
    QPoint placed = window.pos();
    window.show("Locking Notes…", [&] { ++secondCancels; });
    EXPECT_TRUE(window.isVisible());
    EXPECT_EQ(window.pos(), placed);
    EXPECT_EQ(window.message(), "Locking Notes…");
    EXPECT_FALSE(window.determinate());

    window.showBytes(12'300'000, 45'600'000);
    EXPECT_TRUE(window.determinate());
    EXPECT_EQ(window.barText().toStdString(),
              ByteCount::file(12'300'000) + " of " + ByteCount::file(45'600'000));
    EXPECT_EQ(window.size(), QSize(380, 70));

    buttonNamed(&window, "Cancel")->click();
    EXPECT_EQ(firstCancels, 0);
    EXPECT_EQ(secondCancels, 1);

    window.show("Restoring Notes…", [] {});
    EXPECT_FALSE(window.determinate());
    EXPECT_EQ(window.size(), QSize(380, 70));
    window.close();
    EXPECT_FALSE(window.isVisible());
}

TEST(ChangePasswordDialogTest, MatchesLocallyThenWaitsForTheModel) {
    // What is typed as the confirmation, the model's answer and the error the dialog shows; the
    // dialog closes only when neither says no.
    const std::tuple<const char*, std::optional<std::string>, QString> cases[] = {
        {"new password!", std::nullopt, ""},
        {"new password!", "The current password is not right.",
         "The current password is not right."},
        {"new password?", std::nullopt, "The passwords do not match."},
    };
    for (const auto& [confirmation, answer, error] : cases) {
        SCOPED_TRACE(confirmation);
        const bool matches = confirmation == std::string("new password!");
        WaitList model(QCoreApplication::instance());
        int calls = 0;
        std::pair<std::string, std::string> passed;
        ChangePasswordDialog dialog(
            [&](std::string current, std::string next) -> Task<std::optional<std::string>> {
                ++calls;
                passed = {current, next};
                co_await model.wait();
                co_return answer;
            });
        dialog.show();
        auto fields = dialog.findChildren<QLineEdit*>();
        ASSERT_EQ(fields.size(), 3);
        fields[0]->setText("old password");
        fields[1]->setText("new password!");
        fields[2]->setText(confirmation);
        buttonNamed(&dialog, "Change Password")->click();
        EXPECT_EQ(calls, matches ? 1 : 0);
        if (matches) {
            EXPECT_EQ(passed, std::pair(std::string("old password"), std::string("new password!")));
            EXPECT_FALSE(buttonNamed(&dialog, "Change Password")->isEnabled());
            EXPECT_FALSE(buttonNamed(&dialog, "Cancel")->isEnabled());
            dialog.reject();
            EXPECT_TRUE(dialog.isVisible());
            model.resumeAll();
            ASSERT_TRUE(testing::spinUntil([&] { return !dialog.busy(); }));
        }
        EXPECT_EQ(dialog.error(), error);
        EXPECT_EQ(dialog.isVisible(), !error.isEmpty());
        EXPECT_EQ(buttonNamed(&dialog, "Cancel")->isEnabled(), true);
    }
}

TEST(SettingsWindowTest, ShowsTheSeamsValuesAndPassesOnTheUsersChanges) {
    int idle = 30;
    bool reader = false, fingerprint = true, menu = false;
    std::optional<std::string> menuFailure = "Could not write the menu.";
    SettingsWindow window({
        .idleMinutes = [&] { return idle; },
        .setIdleMinutes = [&](int minutes) { idle = minutes; },
        .fingerprintAvailable = [&] { return reader; },
        .fingerprintEnabled = [&] { return fingerprint; },
        .setFingerprintEnabled = [&](bool on) { fingerprint = on; },
        .startsAtLogin = [] { return true; },
        .setStartsAtLogin = [](bool) {},
        .fileManagerMenuEnabled = [&] { return menu; },
        .setFileManagerMenu =
            [&](bool on) {
                if (!menuFailure) menu = on;
                return menuFailure;
            },
        .changePassword = {},
    });
    window.show();
    auto* choice = window.findChild<QComboBox*>();
    QStringList names;
    for (int i = 0; i < choice->count(); ++i) names << choice->itemText(i);
    EXPECT_EQ(names, QStringList({"5 minutes", "15 minutes", "30 minutes", "1 hour", "Never"}));
    EXPECT_EQ(choice->currentText(), "30 minutes");
    emit choice->activated(3);
    EXPECT_EQ(idle, 60);

    auto* fingerprintBox =
        static_cast<QCheckBox*>(buttonNamed(&window, "Use fingerprint to unlock"));
    EXPECT_FALSE(fingerprintBox->isEnabled());
    EXPECT_TRUE(fingerprintBox->isChecked());

    auto* menuBox = static_cast<QCheckBox*>(buttonNamed(&window, "File manager menu"));
    menuBox->click();
    EXPECT_FALSE(menuBox->isChecked());
    EXPECT_EQ(window.error(), "Could not write the menu.");
    menuFailure.reset();
    menuBox->click();
    EXPECT_TRUE(menuBox->isChecked());
    EXPECT_TRUE(menu);
    EXPECT_TRUE(window.error().isEmpty());
}

struct Harness {
    explicit Harness(bool reader = true, std::optional<std::string> keyringProblem = {})
        : window({.fingerprintAvailable = reader,
                  .diskEncryptionOn = [] { return true; },
                  .fileManagerMenuEnabled = [this] { return menuOn; },
                  .enableFileManagerMenu =
                      [this] {
                          if (!menuFailure) menuOn = true;
                          return menuFailure;
                      },
                  .save =
                      [this](const std::string& password, bool useFingerprint) {
                          saved.push_back({password, useFingerprint});
                          return saveFailure;
                      },
                  .keyringProblem = std::move(keyringProblem)}) {
        QObject::connect(&window, &SetupWindow::finished, [this] { ++finished; });
    }

    QAbstractButton* button(const QString& text) { return buttonNamed(&window, text); }
    void type(const QString& password, const QString& confirmation, bool understood = true) {
        window.setPasswordFields(password, confirmation, understood);
    }
    // The fields filled and checked, on the step after the password.
    void passPassword() {
        window.showStep(SetupWindow::password);
        type("correct horse", "correct horse");
        window.advance();
    }

    bool menuOn = false;
    std::optional<std::string> menuFailure;
    std::optional<std::string> saveFailure;
    std::vector<std::pair<std::string, bool>> saved;
    SetupWindow window;
    int finished = 0;
};


// Without a keyring nothing could be kept: the first screen says so and goes no further.
TEST(SetupWindowTest, WithoutAKeyringTheFirstScreenSaysSoAndStops) {
    const std::string why = "Corvane keeps its password in your desktop keyring, and no keyring "
                            "is running.";
    Harness setup(true, why);
    EXPECT_EQ(setup.window.step(), SetupWindow::welcome);
    EXPECT_EQ(setup.window.error().toStdString(), why);
    ASSERT_NE(setup.button("Get Started"), nullptr);
    EXPECT_FALSE(setup.button("Get Started")->isEnabled());
    setup.window.advance();
    EXPECT_EQ(setup.window.step(), SetupWindow::welcome);
}

TEST(SetupWindowTest, ContinueFollowsTheFieldsAndTheBoxThenChecksTheRulesBeforeTheMatch) {
    // The fields and the box; whether Continue is enabled; the error once it is clicked (none: on
    // to the next step). One window through all rows: each change must update the button at once.
    const std::tuple<const char*, const char*, bool, bool, std::optional<std::string>> cases[] = {
        {"", "", false, false, {}},
        {"secret", "", true, false, {}},
        {"", "secret", true, false, {}},
        {"secret", "other", false, false, {}},
        {"short", "different", true, true, PasswordRules::problem("short")},
        {"secret", "", true, false, {}},
        {"x", "y", true, true, PasswordRules::problem("x")},
        {"long enough one", "long enough two", true, true, "The passwords do not match."},
        {"long enough one", "long enough one", true, true, std::nullopt},
    };
    Harness setup;
    setup.window.showStep(SetupWindow::password);
    for (const auto& [password, confirmation, understood, enabled, error] : cases) {
        SCOPED_TRACE(::testing::Message() << password << "/" << confirmation << "/" << understood);
        setup.type(password, confirmation, understood);
        ASSERT_NE(setup.button("Continue"), nullptr);
        EXPECT_EQ(setup.button("Continue")->isEnabled(), enabled);
        EXPECT_EQ(setup.window.canAdvance(), enabled);
        if (!enabled) continue;
        setup.button("Continue")->click();
        EXPECT_EQ(setup.window.error().toStdString(), error.value_or(""));
        EXPECT_EQ(setup.window.step(), error ? SetupWindow::password : SetupWindow::fingerprint);
    }
}

TEST(SetupWindowTest, StepsMoveOverTheFingerprintStepOnlyWithoutAReader) {
    // With a reader or not: from one step, by one forward or back, to another.
    const std::tuple<bool, int, int, int> cases[] = {
        {true, SetupWindow::password, 1, SetupWindow::fingerprint},
        {true, SetupWindow::fileManager, -1, SetupWindow::fingerprint},
        {false, SetupWindow::password, 1, SetupWindow::fileManager},
        {false, SetupWindow::fileManager, -1, SetupWindow::password},
        {true, SetupWindow::welcome, -1, SetupWindow::welcome},
        {true, SetupWindow::done, 1, SetupWindow::done},
        {true, SetupWindow::done, -1, SetupWindow::diskProtection},
    };
    for (const auto& [reader, from, by, to] : cases) {
        Harness setup(reader);
        setup.window.showStep(from);
        setup.window.move(by);
        EXPECT_EQ(setup.window.step(), to) << reader << " " << from << " by " << by;
    }
}

TEST(SetupWindowTest, SavesOnlyAtTheLastButtonWithTheFingerprintChoiceAndStaysThereOnFailure) {
    const std::string failure = "Could not save your password to the keyring.";
    // With a reader or not, the fingerprint box left ticked or not, the choice saved (as made, even
    // without a reader today), and whether the first save fails.
    const std::tuple<bool, bool, bool, bool> cases[] = {{true, true, true, false},
                                                        {true, false, false, false},
                                                        {false, true, true, false},
                                                        {true, true, true, true}};
    for (const auto& [reader, keepFingerprint, saved, failsFirst] : cases) {
        SCOPED_TRACE(::testing::Message() << reader << " " << keepFingerprint << " " << failsFirst);
        Harness setup(reader);
        setup.passPassword();
        for (auto* box : setup.window.findChildren<QCheckBox*>())
            if (box->text() == "Use fingerprint to unlock") box->setChecked(keepFingerprint);
        while (setup.window.step() != SetupWindow::done) {
            EXPECT_TRUE(setup.saved.empty());
            setup.window.advance();
        }
        EXPECT_TRUE(setup.saved.empty());
        ASSERT_NE(setup.button("Start Using Corvane"), nullptr);
        if (failsFirst) {
            setup.saveFailure = failure;
            setup.button("Start Using Corvane")->click();
            EXPECT_EQ(setup.window.step(), SetupWindow::done);
            EXPECT_EQ(setup.window.error().toStdString(), failure);
            EXPECT_EQ(setup.finished, 0);
            setup.saveFailure.reset();
        }
        setup.button("Start Using Corvane")->click();
        ASSERT_EQ(setup.saved.size(), failsFirst ? 2u : 1u);
        EXPECT_EQ(setup.saved.back(), std::pair(std::string("correct horse"), saved));
        EXPECT_EQ(setup.finished, 1);
    }
}

TEST(SetupWindowTest, FileManagerStepShowsWhatTheMenuSwitchDid) {
    // The menu on when the step shows; why turning it on fails; whether the button is clicked;
    // then whether the button, "is on" and "added" are shown.
    const std::tuple<bool, std::optional<std::string>, bool, bool, bool, bool> cases[] = {
        {false, std::nullopt, false, true, false, false},
        {true, std::nullopt, false, false, true, false},
        {false, std::nullopt, true, false, true, true},
        {false, "Could not write the menu.", true, true, false, false},
    };
    for (const auto& [onAtShow, failure, click, buttonShown, onShown, addedShown] : cases) {
        SCOPED_TRACE(::testing::Message() << onAtShow << " " << click);
        Harness setup;
        setup.menuOn = onAtShow;
        setup.menuFailure = failure;
        setup.window.showStep(SetupWindow::fileManager);
        if (click) setup.button("Turn On File Manager Menu")->click();
        EXPECT_EQ(setup.button("Turn On File Manager Menu") != nullptr, buttonShown);
        auto shown = [&](const QString& prefix) {
            for (auto* label : setup.window.findChildren<QLabel*>())
                if (label->text().startsWith(prefix)) return !label->isHidden();
            return false;
        };
        EXPECT_EQ(shown("The file manager menu is on"), onShown);
        EXPECT_EQ(shown("Corvane added its menu"), addedShown);
        EXPECT_EQ(setup.window.error().toStdString(), failure.value_or(""));
    }
}

}  // namespace
}  // namespace corvane::app
