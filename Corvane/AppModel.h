// The application's one controller: it starts the engine (support lock, recovery, a pending
// password migration), takes commands from outside, runs every engine call on its worker thread
// one at a time, and keeps the list the windows show. Its questions, notifications, progress and
// file-manager calls go through small interfaces, so it holds no widgets and a test can answer it
// in advance. Lives on the main thread; every member is called there.
#pragma once

#include <QObject>
#include <QTimer>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AutoLock.h"
#include "Commands/CorvaneCommand.h"
#include "DesktopShell.h"
#include "Engine/LockStep.h"
#include "Engine/Locker.h"
#include "Engine/OpenItem.h"
#include "FileSystem/GocryptfsTool.h"
#include "FingerprintReader.h"
#include "ItemRow.h"
#include "Notifier.h"
#include "PasswordStore.h"
#include "ProgressDisplay.h"
#include "Prompter.h"
#include "Records/Activity.h"
#include "Records/SupportLock.h"
#include "Records/UserSettings.h"
#include "Task.h"
#include "WaitList.h"
#include "Worker.h"

namespace corvane::app {

class AppModel : public QObject {
    Q_OBJECT

public:
    struct Services {
        Prompter& prompter;
        Notifier& notifier;
        ProgressDisplay& progress;
        DesktopShell& shell;
    };

    struct Configuration {
        std::string support;  // the support directory
        std::string home;
        std::optional<std::string> application;  // the running program, for the lock policy
        std::string keychainService;
        std::string settingsPath;                // the user's settings file
        std::optional<std::string> sharedState;  // where the unlocked paths are published
        std::shared_ptr<const ImageTool> tool;   // gocryptfs when empty
        std::chrono::milliseconds nameRecheckDelay{20'000};
        std::chrono::milliseconds fingerprintTimeout = FingerprintReader::defaultTimeout;
        // How often an automatic lock that found files in use tries again, and how often the
        // desktop is asked for the idle time.
        std::chrono::milliseconds autoLockRetryInterval{30'000};
        std::chrono::milliseconds idleCheckInterval{30'000};

        // From the environment and the XDG folders, as a user's run has them.
        static Configuration fromEnvironment();
    };

    AppModel(Services services, Configuration configuration, QObject* parent = nullptr);
    ~AppModel() override;

    // What the windows show.
    const std::vector<ItemRow>& rows() const { return rows_; }
    const std::vector<OpenItem>& openItems() const { return openItems_; }
    bool needsSetup() const { return needsSetup_; }
    // Why no keyring could be reached at start; nothing when one answered.
    const std::optional<std::string>& keyringProblem() const { return keyringProblem_; }
    int idleMinutes() const { return idleMinutes_; }
    void setIdleMinutes(int minutes);
    bool touchIDEnabled() const { return settings_.touchIDEnabled(); }
    void setTouchIDEnabled(bool enabled);
    // A fingerprint reader with enrolled fingers answers on the system bus (asked each time).
    bool fingerprintAvailable() const;

    bool isReady() const { return isReady_; }
    bool requestArrived() const { return requestArrived_; }
    bool changingPassword() const { return changingPassword_; }
    const Activity& activity() const { return activity_; }
    Activity& activity() { return activity_; }
    const std::string& supportDirectory() const { return configuration_.support; }

    // Takes the support directory's lock and starts the rest of start-up. False, with nothing
    // else done, when another copy of the application holds it.
    bool start();

    // Every command from outside; queued until start-up is done.
    void handle(const CorvaneCommand& command);

    Task<> waitUntilReady();
    Task<> waitUntilIdle();
    Task<> waitWhilePasswordChanges();

    Task<> lock(std::string path);
    Task<> chooseAndLock();
    Task<> unlock(std::string path);
    Task<> lockNow(std::string path);
    Task<> lockAll();
    Task<> removeLock(std::string path);
    void reveal(const std::string& path);
    Task<> forget(ItemRow row);
    Task<> locate(ItemRow row);
    Task<> refresh();
    // Nothing on success, else the sentence to show beside the form.
    Task<std::optional<std::string>> changePassword(std::string current, std::string next);
    Task<> finishPasswordMigrationIfNeeded();
    // Relocks every open item without asking; the names of those whose files were in use.
    // `urgent` (a sleep or a shutdown) runs it beside the worker's current job instead of after.
    Task<std::vector<std::string>> relockAllQuietly(bool urgent = false);

    // What locks the open items when the user walks away; made at its first use, started at the
    // end of start-up.
    AutoLock& autoLock();
    // Locks every open item quietly, unless none is open or an automatic lock already runs.
    // Files in use are reported once; then retryAutoLock() runs until they close, the user is
    // back or nothing is open.
    Task<> autoLockTriggered(AutoLock::Trigger trigger);
    bool autoLockRetrying() const { return retryTimer_.isActive(); }

    // The end of setup: the first password record is saved, then setup is over. Nothing on
    // success, else the sentence to show.
    std::optional<std::string> finishSetup(const std::string& password, bool useFingerprint);

    // The password after the user proved knowing it: the fingerprint, else up to five typed
    // tries. Nothing when the user gave up.
    Task<std::optional<std::string>> verifiedPassword(std::string reason);

signals:
    void rowsChanged();
    void needsSetupChanged();
    void settingsChanged();
    void activityChanged();
    void becameReady();

private:
    Task<> startUp();
    Task<> repairNames(bool scheduleRecheck);
    // Runs `body` inside an activity with `label`; waiters for idleness are resumed when the last
    // activity ends.
    template <class Body>
    auto tracking(std::string label, Body body) -> decltype(body());
    void endActivity(const Uuid& id);
    Task<> run(CorvaneCommand command);

    // Runs `attempt` on the worker with each password the item may use, then with what the user
    // types for it. False when the user gave up.
    template <class Attempt>
    Task<bool> withItemPassword(Attempt attempt);

    Task<> relock(OpenItem item);
    // On the worker: closes the item and makes the desktop forget its previews and recent files.
    void closeAndScrub(const OpenItem& item, bool force);
    Task<std::vector<OpenItem>> currentOpenItems();
    std::optional<OpenItem> openItemAt(const std::string& path) const;
    std::string nameFor(const std::string& path) const;
    void showFailure(const std::string& title, const std::exception_ptr& failure);
    // Progress and bytes reported on the worker thread, shown on the main thread.
    Locker::Progress progressReporter(const std::string& name, std::function<void()> onCancel);
    Locker::BytesProgress bytesReporter();
    void finishChangingPassword();
    Task<> retryAutoLock();
    // One quiet lock of every open item for the automatic lock; the names of those still in use.
    Task<std::vector<std::string>> autoRelock(bool urgent = false);
    // What is open, as just read, shown in the list without reading the rest again.
    void showOpen(std::vector<OpenItem> open);

    Services services_;
    Configuration configuration_;
    PasswordStore passwords_;
    UserSettings settings_;
    FingerprintReader reader_;
    // Shared with fingerprint threads, which outlive the model when the user quits mid-scan.
    struct FingerprintHandoff;
    std::shared_ptr<FingerprintHandoff> fingerprintHandoff_;
    std::unique_ptr<SupportLock> supportLock_;
    // Touched on the worker thread only, once start() made it.
    bool keyringLocked_ = false;
    std::optional<std::string> keyringProblem_;
    std::shared_ptr<GocryptfsTool> gocryptfs_;  // the tool, when made here
    std::unique_ptr<Locker> locker_;
    std::unique_ptr<Worker> worker_;
    std::unique_ptr<Worker> urgent_;
    std::uint64_t openSeen_ = 0;  // counts the looks at what is open, to drop late ones  // the sleep's lock, which cannot wait for a copy to end

    std::vector<ItemRow> rows_;
    std::vector<OpenItem> openItems_;
    bool needsSetup_ = false;
    int idleMinutes_ = UserSettings::defaultIdleMinutes;

    bool isReady_ = false;
    bool requestArrived_ = false;
    bool changingPassword_ = false;
    std::vector<CorvaneCommand> pending_;
    Activity activity_;
    WaitList readyWaiters_{this};
    WaitList idleWaiters_{this};
    WaitList passwordWaiters_{this};

    std::unique_ptr<AutoLock> autoLock_;
    bool autoLockInFlight_ = false;
    QTimer retryTimer_;
};

}  // namespace corvane::app
