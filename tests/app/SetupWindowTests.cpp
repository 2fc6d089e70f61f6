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

TEST(SetupWindowTest, ContinueFollowsTheFieldsAndTheBoxThenChecksTheRulesBeforeTheMatch) {
    struct Case {
        const char* password;
        const char* confirmation;
        bool understood;
        bool enabled;
        std::optional<std::string> error;  // once Continue is clicked; none: on to the next step
    };
    // One window through all rows: each change must update the button at once.
    const Case cases[] = {
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
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message()
                     << c.password << "/" << c.confirmation << "/" << c.understood);
        setup.type(c.password, c.confirmation, c.understood);
        EXPECT_EQ(setup.window.canAdvance(), c.enabled);
        ASSERT_NE(setup.button("Continue"), nullptr);
        EXPECT_EQ(setup.button("Continue")->isEnabled(), c.enabled);
        if (!c.enabled) continue;
        setup.button("Continue")->click();
        EXPECT_EQ(setup.window.error().toStdString(), c.error.value_or(""));
        EXPECT_EQ(setup.window.step(), c.error ? SetupWindow::password : SetupWindow::fingerprint);
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

TEST(SetupWindowTest, SavesOnlyAtTheLastButtonWithTheFingerprintChoiceAndStaysThereOnFailure) {
    const std::string failure = "Could not save your password to the keyring.";
    struct Case {
        bool reader;
        bool keepFingerprint;
        bool saved;
        bool failsFirst;
    };
    const Case cases[] = {{true, true, true, false},
                          {true, false, false, false},
                          {false, true, false, false},
                          {true, true, true, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message()
                     << c.reader << " " << c.keepFingerprint << " " << c.failsFirst);
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
        if (c.failsFirst) {
            setup.saveFailure = failure;
            setup.button("Start Using Corvane")->click();
            EXPECT_EQ(setup.window.step(), SetupWindow::done);
            EXPECT_EQ(setup.window.error().toStdString(), failure);
            EXPECT_EQ(setup.finished, 0);
            setup.saveFailure.reset();
        }
        setup.button("Start Using Corvane")->click();
        ASSERT_EQ(setup.saved.size(), c.failsFirst ? 2u : 1u);
        EXPECT_EQ(setup.saved.back(), std::pair(std::string("correct horse"), c.saved));
        EXPECT_EQ(setup.finished, 1);
    }
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
