// A home folder holding a sample folder "Taxes" (nested folders, an empty file, a link, non-Latin
// names) with a pristine copy beside it, and an engine working on a private support directory.
// Whatever a test leaves attached under its folder is detached at the end.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "Engine/Locker.h"
#include "FileSystem/GocryptfsTool.h"
#include "FileSystem/MountTable.h"
#include "FileSystem/ProcessRunner.h"
#include "FileSystem/TreeVerifier.h"
#include "TestSupport.h"

namespace corvane::testing {

// Acts once, on its own thread, the moment an entry named `name` is moved into `folder` (or out
// of it, with IN_MOVED_FROM): what a program watching the folder would do at that instant.
class NameWatcher {
public:
    NameWatcher(const std::string& folder, std::string name, std::function<void()> action,
                std::uint32_t events = IN_MOVED_TO)
        : watch_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        EXPECT_GE(inotify_add_watch(watch_, folder.c_str(), events), 0);
        thread_ = std::jthread(
            [this, name = std::move(name), action = std::move(action)](std::stop_token stop) {
                alignas(inotify_event) char buffer[4096];
                while (!done_ && !stop.stop_requested()) {
                    pollfd ready{watch_, POLLIN, 0};
                    ssize_t n = poll(&ready, 1, 50) == 1 ? read(watch_, buffer, sizeof buffer) : 0;
                    for (char* at = buffer; at < buffer + std::max<ssize_t>(n, 0);) {
                        auto* event = reinterpret_cast<inotify_event*>(at);
                        if (!done_ && event->len && name == event->name) {
                            action();
                            done_ = true;
                        }
                        at += sizeof(inotify_event) + event->len;
                    }
                }
            });
    }
    ~NameWatcher() {
        thread_.request_stop();
        thread_.join();
        close(watch_);
    }
    NameWatcher(const NameWatcher&) = delete;
    NameWatcher& operator=(const NameWatcher&) = delete;

    // Whether the action has run, after waiting up to ten seconds for it.
    bool waitUntilDone() const {
        for (int i = 0; i < 1000 && !done_; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return done_;
    }

private:
    int watch_;
    std::atomic<bool> done_{false};
    std::jthread thread_;
};

class LockerFixture : public ::testing::Test {
public:
    void SetUp() override {
        std::filesystem::create_directories(home);
        makeSample(home + "/Taxes");
        std::filesystem::create_directories(pristine);
        ProcessRunner::run("/bin/cp", {"-a", home + "/Taxes", pristine + "/Taxes"});
    }

    // Every mount a test left under its folder goes, wherever a rename has taken it.
    void TearDown() override {
        closeHeldFiles();
        for (const auto& image : ourMounts())
            ProcessRunner::run("/usr/bin/fusermount3", {"-u", "-z", image.mountPoint});
        auto mounts = MountTable::read();
        for (auto mount = mounts.rbegin(); mount != mounts.rend(); ++mount)
            if (mount->mountPoint.starts_with(root.path() + "/"))
                umount2(mount->mountPoint.c_str(), MNT_DETACH);
    }

    static void makeSample(const std::string& folder) {
        writeFile(folder + "/2024/scan é.pdf", std::string(300000, 'p'));
        writeFile(folder + "/2024/deep/empty.txt", "");
        writeFile(folder + "/notes 日本.txt", "notes");
        symlink("2024/scan é.pdf", (folder + "/latest").c_str());
    }

    // Mounts `source` again at `place`; false where mounting is not allowed. The test unmounts.
    static bool bindMount(const std::string& source, const std::string& place) {
        std::filesystem::create_directories(place);
        return mount(source.c_str(), place.c_str(), nullptr, MS_BIND, nullptr) == 0;
    }

    // A program's save into the file at `path`: bytes added; as many other bytes with the
    // modification time put back (as rsync -t or cp -p leave a file); or the file opened for
    // writing and held open until the test ends.
    enum class Save { append, rewriteKeepingTime, holdForWriting };
    void save(Save kind, const std::string& path) {
        struct stat before {};
        ASSERT_EQ(lstat(path.c_str(), &before), 0) << path;
        int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC | (kind == Save::append ? O_APPEND : 0));
        ASSERT_GE(fd, 0) << path;
        if (kind == Save::holdForWriting) return held_.push_back(fd);
        const std::string bytes = kind == Save::append
                                      ? std::string(" saved")
                                      : std::string(static_cast<std::size_t>(before.st_size), 'S');
        EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        const timespec times[2] = {before.st_atim, before.st_mtim};
        if (kind == Save::rewriteKeepingTime) {
            EXPECT_EQ(futimens(fd, times), 0);
        }
        close(fd);
    }
    // What a file that held `contents` holds after the save.
    static std::string saved(Save kind, const std::string& contents) {
        if (kind == Save::append) return contents + " saved";
        if (kind == Save::rewriteKeepingTime) return std::string(contents.size(), 'S');
        return contents;
    }
    void closeHeldFiles() {
        for (int fd : held_) close(fd);
        held_.clear();
    }

    Locker makeLocker() const {
        return Locker(support, home, std::nullopt, std::make_shared<GocryptfsTool>());
    }

    bool sameAsPristine(const std::string& restored) const {
        return TreeVerifier::compare(pristine + "/Taxes", restored, {}).empty();
    }

    // What an operation that ended, or was undone, leaves: `names` in the home folder, nothing
    // attached, no mount point, no journal entry, and (when given) these records.
    void expectSettled(const Locker& locker, const std::vector<std::string>& names,
                       const std::optional<std::vector<LockedItem>>& records = std::nullopt) {
        EXPECT_EQ(listing(home), names);
        EXPECT_TRUE(ourMounts().empty());
        EXPECT_TRUE(!std::filesystem::exists(locker.mountsRoot) ||
                    std::filesystem::is_empty(locker.mountsRoot));
        EXPECT_TRUE(locker.journal.load().empty());
        if (records) {
            EXPECT_EQ(locker.index.load(), *records);
        }
    }

    // Images attached by this test; other test processes mount their own meanwhile.
    std::vector<AttachedImage> ourMounts() const {
        std::vector<AttachedImage> ours;
        for (const auto& image : GocryptfsTool().attachedImages())
            if (image.mountPoint.starts_with(root.path() + "/")) ours.push_back(image);
        return ours;
    }

    TempDir root;
    std::string home = root / "home";
    std::string support = root / "support";
    std::string pristine = root / "pristine";

private:
    std::vector<int> held_;
};

}  // namespace corvane::testing
