// The setup window's steps and buttons, driven as the user would, with its seams recording what
// reached the model and the system.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

#include "Records/PasswordRules.h"
#include "SetupWindow.h"

namespace corvane::app {
namespace {

struct Harness {
    explicit Harness(bool reader = true)
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
                      }}) {
        QObject::connect(&window, &SetupWindow::finished, [this] { ++finished; });
    }

    QPushButton* button(const QString& text) {
        for (auto* button : window.findChildren<QPushButton*>())
            if (button->text() == text && !button->isHidden()) return button;
        return nullptr;
    }
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

TEST(SetupWindowTest, ContinueFollowsTheFieldsAndTheBoxAsTheyChange) {
    struct Case {
        const char* password;
        const char* confirmation;
        bool understood;
        bool enabled;
    };
    // One window through all rows: each change must update the button at once.
    const Case cases[] = {
        {"", "", false, false},          {"secret", "", true, false},
        {"", "secret", true, false},     {"secret", "other", false, false},
        {"secret", "other", true, true}, {"secret", "", true, false},
        {"x", "y", true, true},
    };
    Harness setup;
    setup.window.showStep(SetupWindow::password);
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message()
                     << c.password << "/" << c.confirmation << "/" << c.understood);
        setup.type(c.password, c.confirmation, c.understood);
        EXPECT_EQ(setup.window.canAdvance(), c.enabled);
        ASSERT_NE(setup.button("Continue"), nullptr);
        EXPECT_EQ(setup.button("Continue")->isEnabled(), c.enabled);
    }
}

TEST(SetupWindowTest, PasswordStepChecksTheRulesBeforeTheMatch) {
    struct Case {
        const char* password;
        const char* confirmation;
        std::string error;
        int step;
    };
    const Case cases[] = {
        {"short", "different", *PasswordRules::problem("short"), SetupWindow::password},
        {"long enough one", "long enough two", "The passwords do not match.",
         SetupWindow::password},
        {"long enough one", "long enough one", "", SetupWindow::fingerprint},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.password);
        Harness setup;
        setup.window.showStep(SetupWindow::password);
        setup.type(c.password, c.confirmation);
        setup.window.advance();
        EXPECT_EQ(setup.window.error().toStdString(), c.error);
        EXPECT_EQ(setup.window.step(), c.step);
    }
}

TEST(SetupWindowTest, StepsMoveOverTheFingerprintStepOnlyWithoutAReader) {
    struct Case {
        bool reader;
        int from;
        int by;
        int to;
    };
    const Case cases[] = {
        {true, SetupWindow::password, 1, SetupWindow::fingerprint},
        {true, SetupWindow::fileManager, -1, SetupWindow::fingerprint},
        {false, SetupWindow::password, 1, SetupWindow::fileManager},
        {false, SetupWindow::fileManager, -1, SetupWindow::password},
        {true, SetupWindow::welcome, -1, SetupWindow::welcome},
        {true, SetupWindow::done, 1, SetupWindow::done},
        {true, SetupWindow::done, -1, SetupWindow::diskProtection},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.reader << " " << c.from << " by " << c.by);
        Harness setup(c.reader);
        setup.window.showStep(c.from);
        setup.window.move(c.by);
        EXPECT_EQ(setup.window.step(), c.to);
    }
}

TEST(SetupWindowTest, SavesOnlyAtTheLastButtonWithTheFingerprintChoice) {
    struct Case {
        bool reader;
        bool keepFingerprint;
        bool saved;
    };
    const Case cases[] = {{true, true, true}, {true, false, false}, {false, true, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.reader << " " << c.keepFingerprint);
        Harness setup(c.reader);
        setup.passPassword();
        if (c.reader) {
            for (auto* box : setup.window.findChildren<QCheckBox*>())
                if (box->text() == "Use fingerprint to unlock") box->setChecked(c.keepFingerprint);
        }
        while (setup.window.step() != SetupWindow::done) {
            EXPECT_TRUE(setup.saved.empty());
            setup.window.advance();
        }
        EXPECT_TRUE(setup.saved.empty());
        ASSERT_NE(setup.button("Start Using Corvane"), nullptr);
        setup.button("Start Using Corvane")->click();
        ASSERT_EQ(setup.saved.size(), 1u);
        EXPECT_EQ(setup.saved[0], std::pair(std::string("correct horse"), c.saved));
        EXPECT_EQ(setup.finished, 1);
    }
}

TEST(SetupWindowTest, AFailedSaveStaysOnTheLastStepWithItsSentence) {
    Harness setup;
    setup.passPassword();
    setup.window.showStep(SetupWindow::done);
    setup.saveFailure = "Could not save your password to the keyring.";
    setup.window.advance();
    EXPECT_EQ(setup.window.step(), SetupWindow::done);
    EXPECT_EQ(setup.window.error(), "Could not save your password to the keyring.");
    EXPECT_EQ(setup.finished, 0);

    setup.saveFailure.reset();
    setup.window.advance();
    EXPECT_EQ(setup.saved.size(), 2u);
    EXPECT_EQ(setup.finished, 1);
}

TEST(SetupWindowTest, FileManagerStepShowsWhatTheMenuSwitchDid) {
    struct Case {
        bool onAtShow;
        std::optional<std::string> failure;
        bool click;
        bool buttonShown;
        bool onShown;
        bool addedShown;
    };
    const Case cases[] = {
        {false, std::nullopt, false, true, false, false},
        {true, std::nullopt, false, false, true, false},
        {false, std::nullopt, true, false, true, true},
        {false, "Could not write the menu.", true, true, false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.onAtShow << " " << c.click);
        Harness setup;
        setup.menuOn = c.onAtShow;
        setup.menuFailure = c.failure;
        setup.window.showStep(SetupWindow::fileManager);
        if (c.click) setup.button("Turn On File Manager Menu")->click();
        EXPECT_EQ(setup.button("Turn On File Manager Menu") != nullptr, c.buttonShown);
        auto shown = [&](const QString& prefix) {
            for (auto* label : setup.window.findChildren<QLabel*>())
                if (label->text().startsWith(prefix)) return !label->isHidden();
            return false;
        };
        EXPECT_EQ(shown("The file manager menu is on"), c.onShown);
        EXPECT_EQ(shown("Corvane added its menu"), c.addedShown);
        EXPECT_EQ(setup.window.error().toStdString(), c.failure.value_or(""));
    }
}

}  // namespace
}  // namespace corvane::app
