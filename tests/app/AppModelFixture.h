// The application model against the real engine on real gocryptfs, with the keyring in a private
// session bus and no fingerprint reader. The user's answers are given in advance; every question,
// notification, progress message and file-manager call lands in one log, in the order it came.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AppModel.h"
#include "EventLoop.h"
#include "FileSystem/GocryptfsTool.h"
#include "FileSystem/ProcessRunner.h"
#include "PrivateKeyring.h"
#include "TestSupport.h"

namespace corvane::testing {

class ScriptedUser : public app::Prompter,
                     public app::Notifier,
                     public app::ProgressDisplay,
                     public app::DesktopShell {
public:
    std::vector<std::string> log;
    std::deque<std::string> buttons;  // the button to press at each choice, by its title
    std::deque<std::optional<std::string>> passwords;
    std::vector<std::string> itemsToLock;
    std::optional<std::string> lockedItem;
    std::function<void()> onCancel;
    std::function<void()> whenAsked;  // runs once, at the next choice, before it is answered

    // The next of `answers`; nothing, and a failure, when none is left.
    template <class T>
    static std::optional<T> next(std::deque<T>& answers, const std::string& what) {
        if (answers.empty()) {
            ADD_FAILURE() << "unexpected " << what;
            return std::nullopt;
        }
        T answer = std::move(answers.front());
        answers.pop_front();
        return answer;
    }

    // Unanswered, or answered with a button not offered: the last button, as closing the box.
    int choose(const std::string& title, const std::string& message,
               const std::vector<std::string>& offered) override {
        log.push_back("choose: " + title + " | " + message);
        if (auto hook = std::exchange(whenAsked, nullptr)) hook();
        auto button = next(buttons, "question: " + title);
        auto found = std::find(offered.begin(), offered.end(), button.value_or(""));
        if (button && found == offered.end())
            ADD_FAILURE() << "no button " << *button << " at " << title;
        return found == offered.end() ? static_cast<int>(offered.size()) - 1
                                      : static_cast<int>(found - offered.begin());
    }
    std::optional<std::string> password(const std::string& title,
                                        const std::string& message) override {
        log.push_back("password: " + title + " | " + message);
        return next(passwords, "password prompt: " + title).value_or(std::nullopt);
    }
    std::vector<std::string> chooseItemsToLock() override { return itemsToLock; }
    std::optional<std::string> chooseLockedItem(const std::string& name) override {
        log.push_back("find: " + name);
        return lockedItem;
    }
    void fingerprintWaiting(const std::string& reason, std::function<void()>) override {
        log.push_back("fingerprint: " + reason);
    }
    void fingerprintFinished() override {}

    void post(const std::string& title, const std::string& body) override {
        log.push_back("notify: " + title + " | " + body);
    }
    void postIfAllowed(const std::string& identifier, const std::string& title,
                       const std::string& body) override {
        log.push_back("notify " + identifier + ": " + title + " | " + body);
    }

    void show(const std::string& message, std::function<void()> cancel) override {
        if (log.empty() || log.back() != "progress: " + message)
            log.push_back("progress: " + message);
        onCancel = std::move(cancel);
    }
    void showBytes(std::int64_t done, std::int64_t total) override {
        if (done > total) ADD_FAILURE() << done << " of " << total;
    }
    void close() override { log.push_back("progress closed"); }

    void open(const std::string& path) override { log.push_back("open: " + path); }
    void reveal(const std::vector<std::string>& paths) override {
        for (const auto& path : paths) log.push_back("reveal: " + path);
    }

    // The entries of the log that start with `prefix`.
    std::vector<std::string> entries(const std::string& prefix) const {
        std::vector<std::string> found;
        for (const auto& entry : log)
            if (entry.starts_with(prefix)) found.push_back(entry);
        return found;
    }
};

// A process holding `path` open until it is destroyed.
inline std::unique_ptr<BackgroundProcess> holding(const std::string& path) {
    auto holder = std::make_unique<BackgroundProcess>(
        std::vector<std::string>{"/bin/sh", "-c", "exec 3<\"$0\"; exec sleep 600", path});
    EXPECT_TRUE(holder->waitUntilHolding(path));
    return holder;
}

class AppModelTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { keyring_ = std::make_unique<PrivateKeyring>(); }
    static void TearDownTestSuite() { keyring_.reset(); }

    void SetUp() override { store.save({"password 1", 1, std::nullopt, {}}); }

    void TearDown() override {
        model.reset();
        for (const auto& image : GocryptfsTool().attachedImages())
            if (image.mountPoint.starts_with(root.path() + "/"))
                ProcessRunner::run("/usr/bin/fusermount3", {"-u", "-z", image.mountPoint});
    }

    app::AppModel::Configuration configuration() const {
        app::AppModel::Configuration result;
        result.support = root / "Support";
        result.home = root / "Home";
        result.keychainService = service;
        result.settingsPath = root / "settings.json";
        result.sharedState = root / "Runtime/state.json";
        return result;
    }

    // A new model, not started, in place of any earlier one.
    app::AppModel& created(std::optional<app::AppModel::Configuration> settings = {}) {
        model.reset();
        model = std::make_unique<app::AppModel>(app::AppModel::Services{user, user, user, user},
                                                settings.value_or(configuration()));
        return *model;
    }

    // Starts a new model and waits until start-up, with its name check, is over.
    app::AppModel& started(std::optional<app::AppModel::Configuration> settings = {}) {
        EXPECT_TRUE(created(settings).start());
        settle();
        return *model;
    }

    void settle() {
        await(model->waitUntilReady());
        // Start-up's own refresh is not an activity; this one runs after it on the worker.
        await(model->refresh());
        EXPECT_TRUE(spinUntil([&] { return model->activity().isIdle(); }));
    }

    // A folder "NAME" with two files in the home folder.
    std::string folder(const std::string& name) {
        std::string path = root / ("Home/" + name);
        std::filesystem::create_directories(path + "/inner");
        writeFile(path + "/a.txt", "alpha of " + name);
        writeFile(path + "/inner/b.txt", std::string(100'000, 'b'));
        return path;
    }

    // The locked item the model makes of a new folder("NAME").
    std::string lockedItem(const std::string& name) {
        await(model->lock(folder(name)));
        return root / ("Home/" + name + ".corvlock");
    }

    // Unlocks `item`, answering the password prompt with `password`.
    void unlock(const std::string& item, const std::string& password = "password 1") {
        user.passwords = {password};
        await(model->unlock(item));
    }

    // The engine on its own, outside the model, as a crash or an earlier run left things.
    Locker engine() {
        return Locker(root / "Support", root / "Home", std::nullopt,
                      std::make_shared<GocryptfsTool>());
    }

    TempDir root;
    // No fingerprint reader: the bus is not there.
    ScopedVariable systemBus{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + root / "no-bus"};
    std::string service = "corvane-app-test:" + root.path();
    PasswordStore store{service};
    ScriptedUser user;
    std::unique_ptr<app::AppModel> model;

private:
    static inline std::unique_ptr<PrivateKeyring> keyring_;
};

}  // namespace corvane::testing
