// The prompts, the progress window, the password form and the settings, on Qt's offscreen
// platform: modal dialogs are answered from the event loop as a user would answer them.
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
#include "SettingsWindow.h"
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

QAbstractButton* buttonNamed(QWidget* dialog, const QString& text) {
    for (auto* button : dialog->findChildren<QAbstractButton*>())
        if (button->text() == text) return button;
    return nullptr;
}

TEST(PromptPanelTest, ChooseGivesTheClickedButtonsIndexAndTheLastOnClose) {
    struct Case {
        const char* click;  // nothing: the box is closed
        int index;
    };
    const std::vector<std::string> buttons = {"Relock", "Keep Open", "Cancel"};
    const Case cases[] = {{"Relock", 0}, {"Keep Open", 1}, {"Cancel", 2}, {nullptr, 2}};
    PromptPanel panel;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.click ? c.click : "closed");
        QString title;
        bool markupShown = false;
        whenModal([&](QWidget* box) {
            title = box->windowTitle();
            for (auto* label : box->findChildren<QLabel*>())
                markupShown |=
                    label->text().contains("<b>") && label->textFormat() == Qt::PlainText;
            if (c.click)
                buttonNamed(box, c.click)->click();
            else
                box->close();
        });
        EXPECT_EQ(panel.choose("Relock Photos?", "<b>Photos</b> is in use.", buttons), c.index);
        EXPECT_EQ(title, "Corvane");
        EXPECT_TRUE(markupShown);
    }
}

TEST(PromptPanelTest, PasswordTellsAnEmptyEntryFromACancel) {
    struct Case {
        const char* typed;
        const char* button;
        std::optional<std::string> result;
    };
    const Case cases[] = {
        {"hunter2 ü", "OK", "hunter2 ü"},
        {"", "OK", ""},
        {"hunter2", "Cancel", std::nullopt},
        {"", "Cancel", std::nullopt},
    };
    PromptPanel panel;
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.typed << " " << c.button);
        bool focused = false;
        QLineEdit::EchoMode echo = QLineEdit::Normal;
        whenModal([&](QWidget* dialog) {
            auto* field = dialog->findChild<QLineEdit*>();
            focused = dialog->focusWidget() == field;
            echo = field->echoMode();
            field->setText(QString::fromUtf8(c.typed));
            buttonNamed(dialog, c.button)->click();
        });
        EXPECT_EQ(panel.password("Unlock Photos", "Enter your Corvane password."), c.result);
        EXPECT_TRUE(focused);
        EXPECT_EQ(echo, QLineEdit::Password);
    }
}

TEST(PromptPanelTest, ItemsToLockMayBeFilesAndFoldersButALockedItemMustBeACorvlockFolder) {
    struct Case {
        bool lockedItem;  // which chooser
        QStringList selected;
        bool accepted;
    };
    const Case cases[] = {{false, {"Photos", "notes.txt"}, true},
                          {true, {"Photos.corvlock"}, true},
                          {true, {"Photos"}, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.selected.join(", ").toStdString());
        QTemporaryDir folder;
        std::vector<std::string> expected;
        for (const QString& name : c.selected) {
            if (name.endsWith(".txt"))
                QFile(folder.filePath(name)).open(QIODevice::WriteOnly);
            else
                QDir(folder.path()).mkdir(name);
            if (c.accepted) expected.push_back(folder.filePath(name).toStdString());
        }
        bool acceptEnabled = false;
        // The chooser is shown on the test's folder, where the user selects the names.
        whenModal([&](QWidget* widget) {
            auto* dialog = static_cast<QFileDialog*>(widget);
            dialog->setDirectory(folder.path());
            auto* model = dialog->findChild<QFileSystemModel*>();
            auto* view = dialog->findChild<QListView*>("listView");
            for (const QString& name : c.selected)
                view->selectionModel()->select(
                    model->index(folder.filePath(name)),
                    QItemSelectionModel::Select | QItemSelectionModel::Rows);
            QAbstractButton* button = buttonNamed(dialog, c.lockedItem ? "Choose" : "Lock");
            acceptEnabled = button->isEnabled();
            if (acceptEnabled)
                button->click();
            else
                dialog->reject();
        });
        PromptPanel panel;
        std::vector<std::string> chosen;
        if (!c.lockedItem)
            chosen = panel.chooseItemsToLock();
        else if (auto item = panel.chooseLockedItem("Photos"))
            chosen.push_back(*item);
        std::sort(chosen.begin(), chosen.end());
        EXPECT_EQ(acceptEnabled, c.accepted);
        EXPECT_EQ(chosen, expected);
    }
}

TEST(PromptPanelTest, TheFingerprintNoticeCallsForThePasswordOnceAndOnlyWhenAsked) {
    struct Case {
        const char* action;
        int calls;
    };
    const Case cases[] = {{"button", 1}, {"close", 1}, {"finished", 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.action);
        PromptPanel panel;
        int calls = 0;
        panel.fingerprintWaiting("unlock Photos", [&] { ++calls; });
        QDialog* notice = panel.fingerprintDialog();
        ASSERT_NE(notice, nullptr);
        EXPECT_FALSE(notice->isModal());
        EXPECT_NE(buttonNamed(notice, "Use Corvane Password"), nullptr);
        std::string action = c.action;
        if (action == "button") buttonNamed(notice, "Use Corvane Password")->click();
        if (action == "close") notice->close();
        if (action == "finished") panel.fingerprintFinished();
        panel.fingerprintFinished();
        QCoreApplication::processEvents();
        EXPECT_EQ(calls, c.calls);
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
    struct Case {
        const char* confirmation;
        std::optional<std::string> answer;
        int calls;
        QString error;
        bool closed;
    };
    const Case cases[] = {
        {"new password!", std::nullopt, 1, "", true},
        {"new password!", "The current password is not right.", 1,
         "The current password is not right.", false},
        {"new password?", std::nullopt, 0, "The passwords do not match.", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.confirmation);
        WaitList model(QCoreApplication::instance());
        int calls = 0;
        std::pair<std::string, std::string> passed;
        ChangePasswordDialog dialog(
            [&](std::string current, std::string next) -> Task<std::optional<std::string>> {
                ++calls;
                passed = {current, next};
                co_await model.wait();
                co_return c.answer;
            });
        dialog.show();
        auto fields = dialog.findChildren<QLineEdit*>();
        ASSERT_EQ(fields.size(), 3);
        fields[0]->setText("old password");
        fields[1]->setText("new password!");
        fields[2]->setText(c.confirmation);
        buttonNamed(&dialog, "Change Password")->click();
        EXPECT_EQ(calls, c.calls);
        if (c.calls) {
            EXPECT_EQ(passed, std::pair(std::string("old password"), std::string("new password!")));
            EXPECT_FALSE(buttonNamed(&dialog, "Change Password")->isEnabled());
            EXPECT_FALSE(buttonNamed(&dialog, "Cancel")->isEnabled());
            dialog.reject();
            EXPECT_TRUE(dialog.isVisible());
            model.resumeAll();
            ASSERT_TRUE(testing::spinUntil([&] { return !dialog.busy(); }));
        }
        EXPECT_EQ(dialog.error(), c.error);
        EXPECT_EQ(dialog.isVisible(), !c.closed);
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

}  // namespace
}  // namespace corvane::app
