#include "AppModel.h"

#include <sys/stat.h>

#include <QCoreApplication>
#include <QFile>
#include <QMetaObject>
#include <QTimer>
#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

#include "Records/AppPaths.h"
#include "Engine/ItemName.h"
#include "FileSystem/GocryptfsTool.h"
#include "FileSystem/ItemFacts.h"
#include "FileSystem/ThumbnailScrubber.h"
#include "Records/DateFormat.h"
#include "Records/IdlePolicy.h"
#include "Records/PasswordRules.h"
#include "Records/Paths.h"
#include "Records/SharedState.h"

namespace corvane::app {

namespace {

std::string failureText(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const CorvaneError& error) {
        return error.errorDescription();
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "An unexpected error occurred.";
    }
}

}  // namespace

AppModel::Configuration AppModel::Configuration::fromEnvironment() {
    Configuration configuration;
    configuration.support = AppPaths::support();
    configuration.home = AppPaths::home();
    if (QCoreApplication::instance())
        configuration.application =
            QFile::encodeName(QCoreApplication::applicationFilePath()).toStdString();
    configuration.keychainService = PasswordStore::serviceFromEnvironment();
    configuration.settingsPath = UserSettings::defaultPath();
    configuration.sharedState = SharedState::defaultURL();
    return configuration;
}

// A fingerprint thread posts its answer under this lock, and the model clears `model` under it
// before it goes, so the thread never reaches a destroyed model; a posted answer that has not
// been delivered yet dies with the model's event queue.
struct AppModel::FingerprintHandoff {
    std::mutex mutex;
    AppModel* model;
    std::atomic<bool> modelGone = false;
};

AppModel::AppModel(Services services, Configuration configuration, QObject* parent)
    : QObject(parent),
      services_(services),
      configuration_(std::move(configuration)),
      passwords_(configuration_.keychainService),
      settings_(configuration_.settingsPath),
      worker_(std::make_unique<Worker>(this)),
      urgent_(std::make_unique<Worker>(this)),
      idleMinutes_(settings_.idleMinutes()) {
    fingerprintHandoff_ = std::make_shared<FingerprintHandoff>();
    fingerprintHandoff_->model = this;
    retryTimer_.setInterval(configuration_.autoLockRetryInterval);
    connect(&retryTimer_, &QTimer::timeout, this, [this] { spawn(retryAutoLock()); });
}

AppModel::~AppModel() {
    {
        std::lock_guard hold(fingerprintHandoff_->mutex);
        fingerprintHandoff_->model = nullptr;
    }
    fingerprintHandoff_->modelGone = true;
    // The worker finishes what it runs before the engine and the support lock go; operations
    // still waiting for it or for the user end with it.
    worker_.reset();
    urgent_.reset();
    destroySpawned();
    locker_.reset();
    supportLock_.reset();
}

void AppModel::setIdleMinutes(int minutes) {
    if (minutes == idleMinutes_) return;
    idleMinutes_ = minutes;
    if (gocryptfs_) gocryptfs_->setIdleLimit(IdlePolicy::unusedLimit(minutes));
    try {
        settings_.setIdleMinutes(minutes);
    } catch (const std::exception& error) {
        qWarning("corvane: could not save the settings: %s", error.what());
    }
    emit settingsChanged();
}

void AppModel::setTouchIDEnabled(bool enabled) {
    try {
        settings_.setTouchIDEnabled(enabled);
    } catch (const std::exception& error) {
        qWarning("corvane: could not save the settings: %s", error.what());
    }
    emit settingsChanged();
}

bool AppModel::fingerprintAvailable() const {
    return reader_.available();
}

bool AppModel::start() {
    try {
        supportLock_ = SupportLock::acquire(configuration_.support);
    } catch (const std::exception& error) {
        qWarning("corvane: %s", error.what());
        return false;
    }
    if (!supportLock_) return false;
    std::shared_ptr<const ImageTool> tool = configuration_.tool;
    if (!tool) {
        // Items close themselves when unused for the inactivity limit, should this application
        // be gone by then.
        gocryptfs_ = std::make_shared<GocryptfsTool>();
        gocryptfs_->setIdleLimit(IdlePolicy::unusedLimit(idleMinutes_));
        tool = gocryptfs_;
    }
    locker_ = std::make_unique<Locker>(configuration_.support, configuration_.home,
                                       configuration_.application, std::move(tool));
    // A locked keyring is not an empty one: setup is offered only where no record is, and the
    // desktop is asked (in the background) to unlock a locked one.
    const auto keyring = passwords_.read();
    needsSetup_ = keyring.state == PasswordStore::State::noRecord;
    keyringLocked_ = keyring.state == PasswordStore::State::locked;
    if (keyring.state == PasswordStore::State::noService) {
        needsSetup_ = true;  // setup is where the user hears why nothing can be kept
        keyringProblem_ = PasswordStore::unavailableReason().value_or(
            "Corvane could not reach your desktop keyring. Start it, then open Corvane again.");
    }
    emit needsSetupChanged();
    spawn(startUp());
    return true;
}

Task<> AppModel::startUp() {
    if (keyringLocked_) {
        // The desktop's own prompt; the worker waits for the user's answer, the tray does not.
        const PasswordStore& store = passwords_;
        auto state = co_await worker_->run([&store] {
            store.unlock();
            return store.read().state;
        });
        keyringLocked_ = state == PasswordStore::State::locked;
        if (state == PasswordStore::State::noRecord && !needsSetup_) {
            needsSetup_ = true;
            emit needsSetupChanged();
        }
    }
    co_await tracking("finishing interrupted work", [this]() -> Task<> {
        RecoveryReport report = co_await worker_->run([this] { return locker_->recover(); });
        if (auto notice = report.notice()) services_.notifier.post(notice->title, notice->body);
    });
    co_await finishPasswordMigrationIfNeeded();

    isReady_ = true;
    // Commands that came in early run one after the other, in the order they arrived.
    if (!pending_.empty())
        spawn([](AppModel* model, std::vector<CorvaneCommand> early) -> Task<> {
            for (auto& command : early) co_await model->run(std::move(command));
        }(this, std::exchange(pending_, {})));
    readyWaiters_.resumeAll();
    emit becameReady();
    autoLock().start();

    co_await refresh();
    co_await repairNames(true);
}

Task<> AppModel::repairNames(bool scheduleRecheck) {
    co_await tracking("checking locked item names", [this]() -> Task<> {
        co_await worker_->run([this] {
            for (const auto& item : locker_->index.load())
                if (auto url = ItemIndex::locate(item)) Locker::setHiddenExtension(*url);
        });
    });
    if (!scheduleRecheck) co_return;
    // Items on a volume that was still being mounted at login are found a little later.
    co_await sleepFor(this, configuration_.nameRecheckDelay);
    co_await repairNames(false);
}

template <class Body>
auto AppModel::tracking(std::string label, Body body) -> decltype(body()) {
    Uuid id = activity_.begin(std::move(label));
    emit activityChanged();
    struct End {
        AppModel* model;
        Uuid id;
        ~End() { model->endActivity(id); }
    } end{this, id};
    co_return co_await body();
}

void AppModel::endActivity(const Uuid& id) {
    activity_.end(id);
    emit activityChanged();
    if (activity_.isIdle()) idleWaiters_.resumeAll();
}

void AppModel::handle(const CorvaneCommand& command) {
    if (!isReady_) {
        pending_.push_back(command);
        return;
    }
    spawn(run(command));
}

Task<> AppModel::run(CorvaneCommand command) {
    requestArrived_ = true;
    switch (command.kind) {
        case CorvaneCommand::Kind::lock:
            for (const auto& path : command.paths) co_await lock(path);
            break;
        case CorvaneCommand::Kind::lockNow:
            for (const auto& path : command.paths) co_await lockNow(path);
            break;
        case CorvaneCommand::Kind::unlock:
            if (!command.paths.empty()) co_await unlock(command.paths.front());
            break;
        case CorvaneCommand::Kind::removeLock:
            if (!command.paths.empty()) co_await removeLock(command.paths.front());
            break;
        case CorvaneCommand::Kind::reveal:
            if (!command.paths.empty()) reveal(command.paths.front());
            break;
    }
}

Task<> AppModel::waitUntilReady() {
    if (isReady_) co_return;
    co_await readyWaiters_.wait();
}

Task<> AppModel::waitUntilIdle() {
    if (activity_.isIdle()) co_return;
    co_await idleWaiters_.wait();
}

Task<> AppModel::waitWhilePasswordChanges() {
    if (!changingPassword_) co_return;
    co_await passwordWaiters_.wait();
}

Locker::Progress AppModel::progressReporter(const std::string& name,
                                            std::function<void()> onCancel) {
    // Reports come from the worker thread; the window is only touched on the main thread, and
    // queued calls arrive before the operation's own result does.
    return [this, name, onCancel](LockStep step) {
        QMetaObject::invokeMethod(
            this,
            [this, step, name, onCancel] {
                services_.progress.show(LockSteps::message(step, name), onCancel);
            },
            Qt::QueuedConnection);
    };
}

Locker::BytesProgress AppModel::bytesReporter() {
    return [this](std::int64_t done, std::int64_t total) {
        QMetaObject::invokeMethod(
            this, [this, done, total] { services_.progress.showBytes(done, total); },
            Qt::QueuedConnection);
    };
}

void AppModel::showFailure(const std::string& title, const std::exception_ptr& failure) {
    services_.prompter.choose(title, failureText(failure), {"OK"});
}

Task<> AppModel::lock(std::string path) {
    std::string name = itemName(path);
    co_await tracking("locking " + name, [&]() -> Task<> {
        auto cancel = std::make_shared<CancelToken>();
        auto onCancel = [cancel] { cancel->cancel(); };
        services_.progress.show(LockSteps::message(LockStep::preparing, name), onCancel);
        std::optional<StoredSecret> secret = passwords_.load();
        std::exception_ptr failure;
        if (secret) {
            try {
                co_await worker_->run([&] {
                    locker_->lock(path, secret->password, secret->generation, cancel.get(),
                                  progressReporter(name, onCancel), bytesReporter());
                });
            } catch (...) {
                failure = std::current_exception();
            }
        }
        services_.progress.close();
        if (failure) {
            std::optional<CorvaneError::Notice> notice;
            try {
                std::rethrow_exception(failure);
            } catch (const CorvaneError& error) {
                notice = error.lockedNotice();
            } catch (...) {
            }
            if (notice)
                services_.prompter.choose(notice->title, notice->message, {"OK"});
            else
                showFailure("Could not lock " + name, failure);
        }
    });
    co_await refresh();
}

Task<> AppModel::chooseAndLock() {
    for (const auto& path : services_.prompter.chooseItemsToLock()) co_await lock(path);
}

std::string AppModel::nameFor(const std::string& path) const {
    std::string wanted = canonicalPath(path);
    for (const auto& row : rows_)
        if (row.url && canonicalPath(*row.url) == wanted) return row.name;
    return itemName(path);
}

Task<std::optional<std::string>> AppModel::verifiedPassword(std::string reason) {
    std::optional<StoredSecret> secret = passwords_.load();
    if (!secret) co_return services_.prompter.password("Enter the password for this item", "");

    // Read at each check: a command may have changed it while the application ran.
    if (settings_.touchIDEnabled()) {
        // The reader waits on a thread of its own, so that the engine's worker stays free and the
        // user can choose to type instead.
        auto stop = std::make_shared<std::atomic<bool>>(false);
        bool verified = false;
        struct Check {
            AppModel* model;
            std::shared_ptr<std::atomic<bool>> stop;
            bool& verified;
            std::string reason;
            bool await_ready() const noexcept { return false; }
            void await_suspend(std::coroutine_handle<> awaiting) {
                auto timeout = model->configuration_.fingerprintTimeout;
                model->services_.prompter.fingerprintWaiting(reason,
                                                             [stop = stop] { *stop = true; });
                std::thread([handoff = model->fingerprintHandoff_, stop = stop,
                             &verified = verified, awaiting, timeout] {
                    FingerprintReader reader;
                    bool result = reader.available() && reader.verify(timeout, [&] {
                        return *stop || handoff->modelGone;
                    });
                    std::lock_guard hold(handoff->mutex);
                    if (!handoff->model) return;
                    QMetaObject::invokeMethod(
                        handoff->model,
                        [model = handoff->model, result, &verified, awaiting] {
                            model->services_.prompter.fingerprintFinished();
                            verified = result;
                            awaiting.resume();
                        },
                        Qt::QueuedConnection);
                }).detach();
            }
            void await_resume() const noexcept {}
        };
        if (reader_.available()) {
            Check check{this, stop, verified, reason};
            co_await check;
        }
        if (verified) co_return secret->password;
    }

    std::string message = "Corvane needs your password to " + reason;
    for (int attempt = 0; attempt < 5; ++attempt) {
        auto typed = services_.prompter.password("Enter your Corvane password", message);
        if (!typed) co_return std::nullopt;
        if (*typed == secret->password) co_return typed;
        message = "That password did not work. Try again.";
    }
    co_return std::nullopt;
}

template <class Attempt>
Task<bool> AppModel::withItemPassword(Attempt attempt) {
    std::vector<std::string> candidates;
    if (auto secret = passwords_.load()) candidates = secret->openCandidates();
    for (const auto& candidate : candidates) {
        try {
            co_await worker_->run([&] { attempt(candidate); });
            co_return true;
        } catch (...) {
            if (!CorvaneError::is(std::current_exception(), CorvaneError::Case::wrongPassword))
                throw;
        }
    }
    for (;;) {
        auto typed = services_.prompter.password("This item uses a different password",
                                                 "Enter the password it was locked with.");
        if (!typed) co_return false;
        try {
            co_await worker_->run([&] { attempt(*typed); });
            co_return true;
        } catch (...) {
            if (!CorvaneError::is(std::current_exception(), CorvaneError::Case::wrongPassword))
                throw;
        }
    }
}

Task<> AppModel::unlock(std::string path) {
    std::string name = nameFor(path);
    auto password = co_await verifiedPassword("unlock " + name);
    if (!password) co_return;
    co_await tracking("unlocking " + name, [&]() -> Task<> {
        std::optional<OpenItem> opened;
        try {
            co_await withItemPassword(
                [&](const std::string& each) { opened = locker_->unlock(path, each); });
        } catch (...) {
            showFailure("Could not unlock " + name, std::current_exception());
        }
        if (!opened) co_return;
        // A folder opens in the file manager; a file is shown selected in its folder.
        if (opened->kind == LockedItem::Kind::folder)
            services_.shell.open(opened->contentURL());
        else
            services_.shell.reveal({opened->contentURL()});
    });
    co_await refresh();
}

std::optional<OpenItem> AppModel::openItemAt(const std::string& path) const {
    std::string wanted = canonicalPath(path);
    for (const auto& item : openItems_)
        for (const auto& place : {item.lockedURL, item.mountPoint, item.contentURL()})
            if (canonicalPath(place) == wanted) return item;
    return std::nullopt;
}

Task<std::vector<OpenItem>> AppModel::currentOpenItems() {
    openItems_ = co_await worker_->run([this] { return locker_->openItems(); });
    co_return openItems_;
}

Task<> AppModel::lockNow(std::string path) {
    co_await currentOpenItems();
    std::optional<OpenItem> item = openItemAt(path);
    if (!item) co_return;
    co_await relock(*item);
    co_await refresh();
}

void AppModel::closeAndScrub(const OpenItem& item, bool force) {
    // Closed first, which is what a sleep waits for; what was shown while it was open is found
    // by where it was, not by walking it.
    locker_->relock(item, force);
    ThumbnailScrubber::forgetBelow(item.contentURL());
}

Task<> AppModel::relock(OpenItem item) {
    co_await tracking("locking " + item.name, [&]() -> Task<> {
        bool force = false;
        for (;;) {
            std::exception_ptr failure;
            try {
                co_await worker_->run([&] { closeAndScrub(item, force); });
                co_return;
            } catch (...) {
                failure = std::current_exception();
            }
            std::optional<std::vector<std::string>> holders;
            try {
                std::rethrow_exception(failure);
            } catch (const CorvaneError& error) {
                if (error.errorCase() == CorvaneError::Case::inUse)
                    if (auto* names = std::get_if<std::vector<std::string>>(&error.payload()))
                        holders = *names;
            } catch (...) {
            }
            if (!holders) {
                showFailure("Could not lock " + item.name, failure);
                co_return;
            }
            std::string apps = holders->empty() ? "another app" : CorvaneError::list(*holders);
            int choice = services_.prompter.choose(
                item.name + " is still in use",
                "Files are open in " + apps +
                    ". Close them, then try again. Force Lock closes them without saving, so "
                    "unsaved changes in open apps will be lost.",
                {"Try Again", "Force Lock", "Cancel"});
            if (choice == 1)
                force = true;
            else if (choice != 0)
                co_return;
        }
    });
}

Task<> AppModel::lockAll() {
    for (const auto& item : co_await currentOpenItems()) co_await relock(item);
    co_await refresh();
}

Task<std::vector<std::string>> AppModel::relockAllQuietly(bool urgent) {
    // A sleep or shutdown waits only a few seconds: its lock runs beside whatever the worker is
    // busy with, closes every item before any scrubbing, and awaits nothing else.
    Worker& on = urgent ? *urgent_ : *worker_;
    auto open = co_await on.run([this] { return locker_->openItems(); });
    std::vector<std::string> inUse;
    std::vector<OpenItem> closed;
    for (const auto& item : open) {
        try {
            co_await tracking("locking " + item.name, [&]() -> Task<> {
                co_await on.run([&] { locker_->relock(item, false); });
            });
            closed.push_back(item);
        } catch (const CorvaneError& error) {
            if (error.errorCase() == CorvaneError::Case::inUse) inUse.push_back(item.name);
        } catch (const std::exception& error) {
            qWarning("corvane: could not lock an item: %s", error.what());
        }
    }
    // What is open now, without the list's slower parts, before anyone waiting is let go.
    try {
        showOpen(co_await on.run([this] { return locker_->openItems(); }));
    } catch (const std::exception& error) {
        qWarning("corvane: could not read what is open: %s", error.what());
    }
    spawn([](AppModel* model, Worker& on, std::vector<OpenItem> closed) -> Task<> {
        co_await on.run([&] {
            for (const auto& item : closed) ThumbnailScrubber::forgetBelow(item.contentURL());
        });
        co_await model->refresh();
    }(this, on, std::move(closed)));
    co_return inUse;
}

AutoLock& AppModel::autoLock() {
    if (!autoLock_) {
        autoLock_ = std::make_unique<AutoLock>(
            AutoLock::Hooks{
                [this] { return !openItems_.empty(); },
                [this](AutoLock::Trigger trigger) { spawn(autoLockTriggered(trigger)); }},
            settings_, configuration_.idleCheckInterval);
        connect(this, &AppModel::rowsChanged, autoLock_.get(),
                [this] { autoLock_->setItemsOpen(!openItems_.empty()); });
        autoLock_->setItemsOpen(!openItems_.empty());
    }
    return *autoLock_;
}

Task<> AppModel::autoLockTriggered(AutoLock::Trigger trigger) {
    // A sleep or shutdown cannot wait for a lock that may itself wait behind a copy.
    const bool urgent =
        trigger == AutoLock::Trigger::sleep || trigger == AutoLock::Trigger::sessionEnded;
    // The running lock takes in every open item already; a second would only report it twice.
    if (autoLockInFlight_ && !urgent) co_return;
    if (openItems_.empty()) {
        autoLock().lockFinished();
        co_return;
    }
    std::vector<std::string> inUse = co_await autoRelock(urgent);
    if (inUse.empty()) {
        retryTimer_.stop();
        co_return;
    }
    // Said once: the retries, and the idle checks that trigger again meanwhile, stay quiet.
    if (retryTimer_.isActive()) co_return;
    services_.notifier.post(
        "Corvane could not lock " + CorvaneError::list(inUse),
        "Files are still open in another app. Close them and Corvane will lock automatically.");
    retryTimer_.start();
}

Task<> AppModel::retryAutoLock() {
    if (autoLockInFlight_) co_return;
    AutoLock& lock = autoLock();
    // Whether the user is back is asked now, not taken from the last regular check.
    struct FreshIdle {
        AutoLock& lock;
        bool await_ready() const noexcept { return false; }
        void await_suspend(std::coroutine_handle<> awaiting) {
            lock.refreshIdle([awaiting] { awaiting.resume(); });
        }
        void await_resume() const noexcept {}
    };
    co_await FreshIdle{lock};
    if (autoLockInFlight_) co_return;
    // Back at the computer, the user locks what is still open.
    if ((!lock.screenIsLocked() && !lock.idleRuleHolds()) || openItems_.empty()) {
        retryTimer_.stop();
        co_return;
    }
    std::vector<std::string> inUse = co_await autoRelock();
    if (inUse.empty()) retryTimer_.stop();
}

Task<std::vector<std::string>> AppModel::autoRelock(bool urgent) {
    autoLockInFlight_ = true;
    std::vector<std::string> inUse;
    try {
        inUse = co_await relockAllQuietly(urgent);
    } catch (const std::exception& error) {
        qWarning("corvane: could not lock the open items: %s", error.what());
    }
    autoLockInFlight_ = false;
    autoLock().lockFinished();
    co_return inUse;
}

Task<> AppModel::removeLock(std::string path) {
    std::string name = nameFor(path);
    int answer = services_.prompter.choose(
        "Remove the lock from " + name + "?",
        name + " turns back into normal files that anyone using this computer can open.",
        {"Remove Lock", "Cancel"});
    if (answer != 0) co_return;
    auto password = co_await verifiedPassword("remove the lock from " + name);
    if (!password) co_return;
    co_await tracking("removing the lock from " + name, [&]() -> Task<> {
        auto cancel = std::make_shared<CancelToken>();
        auto onCancel = [cancel] { cancel->cancel(); };
        services_.progress.show("Removing the lock from " + name, onCancel);
        std::exception_ptr failure;
        try {
            co_await withItemPassword([&](const std::string& each) {
                locker_->removeLock(path, each, cancel.get(), progressReporter(name, onCancel),
                                    bytesReporter());
            });
        } catch (...) {
            failure = std::current_exception();
        }
        services_.progress.close();
        if (failure) showFailure("Could not remove the lock", failure);
    });
    co_await refresh();
}

void AppModel::reveal(const std::string& path) {
    // Only an open item has contents to show.
    if (auto item = openItemAt(path)) services_.shell.reveal({item->contentURL()});
}

Task<> AppModel::forget(ItemRow row) {
    int answer = services_.prompter.choose("Forget " + row.name + "?",
                                           "Corvane stops listing it. Nothing is deleted.",
                                           {"Forget", "Cancel"});
    if (answer != 0) co_return;
    try {
        co_await worker_->run([&] { locker_->index.remove(row.id); });
    } catch (...) {
        showFailure("Could not forget " + row.name, std::current_exception());
    }
    co_await refresh();
}

Task<> AppModel::locate(ItemRow row) {
    auto chosen = services_.prompter.chooseLockedItem(row.name);
    if (!chosen) co_return;
    try {
        co_await worker_->run([&] {
            std::string path = standardizedPath(*chosen);
            struct stat info {};
            if (lstat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) ||
                itemName(path) == lastPathComponent(path) ||
                lstat((path + "/gocryptfs.conf").c_str(), &info) != 0 || !S_ISREG(info.st_mode))
                throw CorvaneError::notLocked();
            for (const auto& item : locker_->index.load())
                if (item.id == row.id) locker_->index.upsert(ItemIndex::refreshed(item, path));
        });
    } catch (...) {
        showFailure("Could not find " + row.name, std::current_exception());
    }
    co_await refresh();
}

Task<> AppModel::refresh() {
    struct Snapshot {
        std::vector<ItemRow> rows;
        std::vector<OpenItem> open;
    };
    // A look at what is open that started before a later one ended is out of date.
    const std::uint64_t started = ++openSeen_;
    Snapshot snapshot;
    try {
        snapshot = co_await worker_->run([&] {
            // The keyring too is asked here, never on the main thread: it may wait for a prompt.
            std::optional<std::int64_t> generation;
            if (auto secret = passwords_.load()) generation = secret->generation;
            Snapshot result;
            result.open = locker_->openItems();
            std::vector<LockedItem> items = locker_->index.load();
            std::stable_sort(items.begin(), items.end(), [](const auto& a, const auto& b) {
                return QString::fromUtf8(a.displayName)
                           .compare(QString::fromUtf8(b.displayName), Qt::CaseInsensitive) < 0;
            });
            for (const auto& item : items) {
                ItemRow row;
                row.id = item.id;
                row.name = item.displayName;
                row.url = ItemIndex::locate(item);
                row.location = parentPath(row.url ? *row.url : item.lastKnownPath);
                if (row.url) {
                    row.size = ItemFacts::allocatedSize(*row.url);
                    Locker::setHiddenExtension(*row.url);
                }
                row.originalSize = item.contentSize;
                row.isOpen = std::any_of(result.open.begin(), result.open.end(),
                                         [&](const OpenItem& open) { return open.id == item.id; });
                row.needsPasswordUpdate = generation && item.passwordGeneration < *generation;
                result.rows.push_back(std::move(row));
            }
            if (configuration_.sharedState) {
                SharedState state;
                for (const auto& open : result.open)
                    state.unlockedPaths.push_back(canonicalPath(open.lockedURL));
                state.bootTime = SharedState::currentBootTime();
                try {
                    state.write(*configuration_.sharedState);
                } catch (const std::exception& error) {
                    qWarning("corvane: could not write the shared state: %s", error.what());
                }
            }
            return result;
        });
    } catch (const std::exception& error) {
        qWarning("corvane: could not read the item list: %s", error.what());
        co_return;
    }
    if (started != openSeen_) co_return;
    rows_ = std::move(snapshot.rows);
    openItems_ = std::move(snapshot.open);
    emit rowsChanged();
}

void AppModel::showOpen(std::vector<OpenItem> open) {
    ++openSeen_;
    openItems_ = std::move(open);
    for (auto& row : rows_)
        row.isOpen = std::any_of(openItems_.begin(), openItems_.end(),
                                 [&](const OpenItem& item) { return item.id == row.id; });
    emit rowsChanged();
}

Task<std::optional<std::string>> AppModel::changePassword(std::string current, std::string next) {
    if (auto refusal = activity_.passwordChangeRefusal()) co_return refusal;
    if (changingPassword_) co_return Activity::passwordChangeRefusal({"updating your password"});
    if (auto problem = PasswordRules::problem(next)) co_return problem;
    std::optional<StoredSecret> secret = passwords_.load();
    if (!secret || current != secret->password) co_return "Your current password is not correct.";
    auto behind =
        co_await worker_->run([&] { return locker_->itemsStillMigrating(secret->generation); });
    if (!behind.empty()) co_return PasswordRules::stillMigratingMessage(behind);

    // Nothing changes when the change is refused: open items are found before the keyring is.
    if (co_await worker_->run([&] { return !locker_->openItems().empty(); }))
        co_return CorvaneError::needsAllLocked().errorDescription();

    changingPassword_ = true;
    struct Finish {
        AppModel* model;
        ~Finish() { model->finishChangingPassword(); }
    } finish{this};
    StoredSecret changed = secret->changing(next);
    try {
        passwords_.save(changed);
    } catch (const std::exception&) {
        co_return "Could not save the new password to your keyring.";
    }
    std::optional<std::string> result;
    co_await tracking("updating your password", [&]() -> Task<> {
        try {
            auto failures = co_await worker_->run([&] {
                return locker_->changePassword(secret->password, changed.password,
                                               changed.generation);
            });
            if (failures.empty()) {
                passwords_.save(changed.migrated());
            } else {
                std::vector<std::string> names;
                for (const auto& row : rows_)
                    if (failures.contains(row.id)) names.push_back(row.name);
                result = PasswordRules::migrationFailureMessage(names, failures.size());
            }
        } catch (...) {
            result = failureText(std::current_exception());
            // An item opened meanwhile refuses the change before any item moved: the keyring
            // gets its record back. Otherwise the new password is saved, and items not moved yet
            // move at the next start.
            if (CorvaneError::is(std::current_exception(), CorvaneError::Case::needsAllLocked)) {
                try {
                    passwords_.save(*secret);
                } catch (const std::exception&) {
                    result = "Could not save your password to the keyring.";
                }
            }
        }
    });
    co_await refresh();
    co_return result;
}

void AppModel::finishChangingPassword() {
    changingPassword_ = false;
    passwordWaiters_.resumeAll();
}

Task<> AppModel::finishPasswordMigrationIfNeeded() {
    std::optional<StoredSecret> secret = passwords_.load();
    if (!secret) co_return;
    auto behind =
        co_await worker_->run([&] { return locker_->itemsStillMigrating(secret->generation); });
    if (behind.empty()) {
        if (secret->previous) {
            try {
                passwords_.save(secret->migrated());
            } catch (const std::exception&) {
                // Dropped at the next start instead.
            }
        }
        co_return;
    }
    std::optional<std::string> problem;
    co_await tracking("updating your password", [&]() -> Task<> {
        try {
            auto outcome = co_await worker_->run([&]() -> std::optional<std::string> {
                if (!locker_->openItems().empty())
                    return "Lock every unlocked item to finish updating your password.";
                auto failures = locker_->finishMigration(*secret);
                if (failures.empty()) return std::nullopt;
                std::vector<std::string> names;
                for (const auto& item : locker_->index.load())
                    if (failures.contains(item.id)) names.push_back(item.displayName);
                return PasswordRules::migrationFailureMessage(names, failures.size());
            });
            problem = outcome;
            if (!outcome && secret->previous) passwords_.save(secret->migrated());
        } catch (...) {
            problem = failureText(std::current_exception());
        }
    });
    if (problem) services_.notifier.post("Updating your password", *problem);
}

std::optional<std::string> AppModel::finishSetup(const std::string& password, bool useFingerprint) {
    // Never over an existing record, which holds every earlier password too.
    switch (passwords_.read().state) {
        case PasswordStore::State::noRecord: break;
        case PasswordStore::State::locked:
            return "Your keyring is locked. Unlock it, then try again.";
        case PasswordStore::State::noService:
            return "Could not save your password to the keyring.";
        case PasswordStore::State::record:
            return "Corvane already has a password in your keyring. Change it in Settings.";
    }
    StoredSecret first;
    first.password = password;
    first.generation = StoredSecret::firstGeneration;
    try {
        passwords_.save(first);
    } catch (const std::exception&) {
        return "Could not save your password to the keyring.";
    }
    setTouchIDEnabled(useFingerprint);
    needsSetup_ = false;
    emit needsSetupChanged();
    return std::nullopt;
}

}  // namespace corvane::app
