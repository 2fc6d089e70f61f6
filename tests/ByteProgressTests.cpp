// Byte progress: the copier's own count read from /proc/PID/io, the runner's watch over a running
// child, the verifier's count of bytes hashed, and what a lock and a restore report on real
// gocryptfs images.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "FileSystem/ProcessIO.h"
#include "LockerFixture.h"

namespace corvane {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing::TempDir;
using testing::writeFile;

const std::string kPassword = "byte progress password";

// Watches and reports come at least an interval apart; this is slack for the timed waits only.
constexpr auto kSlack = 5ms;

TEST(ByteProgress, WrittenCountIsTheWcharLineOfWholeLines) {
    const struct {
        const char* name;
        std::string text;
        std::optional<std::int64_t> count;
    } cases[] = {
        {"typical",
         "rchar: 323934931\nwchar: 323929600\nsyscr: 632687\nsyscw: 632675\nread_bytes: 0\n"
         "write_bytes: 323932160\ncancelled_write_bytes: 0\n",
         323929600},
        {"zero", "wchar: 0\n", 0},
        {"tab and space", "wchar:\t 17\n", 17},
        {"int64 maximum", "wchar: 9223372036854775807\n", INT64_MAX},
        {"garbage around the line", std::string(100000, '\xff') + "\nwchar: 8\n\x01\x02", 8},
        {"empty", "", std::nullopt},
        {"no wchar line", "rchar: 5\nsyscw: 3\n", std::nullopt},
        {"cut before the line's end", "rchar: 5\nwchar: 12", std::nullopt},
        {"no number", "wchar:\n", std::nullopt},
        {"negative", "wchar: -1\n", std::nullopt},
        {"trailing letters", "wchar: 12x\n", std::nullopt},
        {"trailing space", "wchar: 12 \n", std::nullopt},
        {"hexadecimal", "wchar: 0x10\n", std::nullopt},
        {"past int64", "wchar: 9223372036854775808\n", std::nullopt},
        {"far past int64", "wchar: 99999999999999999999999999\n", std::nullopt},
        {"no colon", "wchar 12\n", std::nullopt},
        {"key not at the line's start", " wchar: 12\nxwchar: 3\n", std::nullopt},
        {"repeated", "wchar: 12\nwchar: 12\n", std::nullopt},
        {"repeated, the second garbled", "wchar: 12\nwchar: ?\n", std::nullopt},
        {"NUL inside", std::string("wchar: 1\0002\n", 12), std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(ProcessIO::bytesWrittenIn(c.text), c.count) << c.name;
}

TEST(ByteProgress, WrittenCountOfARealProcess) {
    auto before = ProcessIO::bytesWritten(getpid());
    ASSERT_TRUE(before) << "this process's /proc/PID/io could not be read";
    TempDir folder;
    writeFile(folder / "data", std::string(100000, 'd'));
    auto after = ProcessIO::bytesWritten(getpid());
    ASSERT_TRUE(after);
    EXPECT_GE(*after - *before, 100000);

    EXPECT_EQ(ProcessIO::bytesWritten(0), std::nullopt);
    EXPECT_EQ(ProcessIO::bytesWritten(-1), std::nullopt);
    // A process that has exited and been reaped has no counters left to read.
    pid_t child = fork();
    if (child == 0) _exit(0);
    ASSERT_GT(child, 0);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(ProcessIO::bytesWritten(child), std::nullopt);
}

TEST(ByteProgress, RunnerWatchesTheRunningChildOnTheCallingThread) {
    TempDir folder;
    // The shell's own echo writes 100 lines of 100 bytes, then the child idles.
    const std::string script = "i=0; while [ $i -lt 100 ]; do echo " + std::string(99, 'w') +
                               "; i=$((i+1)); done > '" + (folder / "out") + "'; sleep 1";
    std::vector<std::optional<std::int64_t>> counts;
    std::vector<Clock::time_point> times;
    pid_t watched = 0;
    const auto caller = std::this_thread::get_id();
    const auto start = Clock::now();
    auto result = ProcessRunner::run(
        "/bin/sh", {"-c", script}, std::nullopt, 30.0, nullptr, [&](pid_t child) {
            EXPECT_EQ(std::this_thread::get_id(), caller);
            EXPECT_TRUE(watched == 0 || watched == child) << "the child changed";
            watched = child;
            times.push_back(Clock::now());
            counts.push_back(ProcessIO::bytesWritten(child));
        });
    const auto calls = times.size();
    const auto elapsed = Clock::now() - start;
    EXPECT_EQ(result.status, 0);
    EXPECT_FALSE(result.timedOut);
    // A second's idling is several watches, and none comes sooner than the interval after the last.
    EXPECT_GE(calls, 3u);
    EXPECT_LE(calls, static_cast<std::size_t>(elapsed / ProcessRunner::watchInterval));
    for (std::size_t i = 0; i < times.size(); ++i)
        EXPECT_GE(times[i] - (i == 0 ? start : times[i - 1]),
                  ProcessRunner::watchInterval - kSlack);
    ASSERT_FALSE(counts.empty());
    ASSERT_TRUE(counts.back());
    EXPECT_GE(*counts.back(), 10000) << "the child's writes were not counted";
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(times.size(), calls) << "watched after the run returned";

    // A child too short for one watch is never watched.
    int quick = 0;
    ProcessRunner::run("/bin/true", {}, std::nullopt, std::nullopt, nullptr,
                       [&](pid_t) { ++quick; });
    EXPECT_EQ(quick, 0);
}

TEST(ByteProgress, WatchThatThrowsEndsTheChildAndTheRun) {
    pid_t watched = 0;
    const auto start = Clock::now();
    EXPECT_THROW(ProcessRunner::run("/bin/sleep", {"30"}, std::nullopt, std::nullopt, nullptr,
                                    [&](pid_t child) {
                                        watched = child;
                                        throw std::runtime_error("enough");
                                    }),
                 std::runtime_error);
    EXPECT_LT(Clock::now() - start, 10s) << "the child was left running";
    ASSERT_GT(watched, 0);
    errno = 0;
    EXPECT_EQ(waitpid(watched, nullptr, WNOHANG), -1) << "the child was not reaped";
    EXPECT_EQ(errno, ECHILD);
}

TEST(ByteProgress, VerifierReportsBytesHashedOnEachSideFewTimesASecond) {
    TempDir folder;
    // Enough to take a few intervals through the sanitizers on a slow machine.
    const std::int64_t size = 48 << 20;
    for (const char* side : {"original", "copy"}) {
        writeFile(folder / side + "/a.bin", std::string(size / 2, 'a'));
        writeFile(folder / side + "/b/c.bin", std::string(size / 2, 'c'));
    }
    std::vector<std::int64_t> reports;
    std::vector<Clock::time_point> times;
    const auto caller = std::this_thread::get_id();
    const auto start = Clock::now();
    auto mismatches = TreeVerifier::compare(folder / "original", folder / "copy", {}, nullptr,
                                            [&](std::int64_t hashed) {
                                                EXPECT_EQ(std::this_thread::get_id(), caller);
                                                reports.push_back(hashed);
                                                times.push_back(Clock::now());
                                            });
    const auto elapsed = Clock::now() - start;
    EXPECT_TRUE(mismatches.empty());
    for (std::size_t i = 0; i < reports.size(); ++i) {
        EXPECT_GE(reports[i], i == 0 ? 0 : reports[i - 1]) << "went back";
        EXPECT_LE(reports[i], size) << "more than one side holds";
        EXPECT_GE(times[i] - (i == 0 ? start : times[i - 1]),
                  TreeVerifier::progressInterval - kSlack);
    }
    // Throttled by time: at most one report an interval, whatever the number of pieces read.
    EXPECT_LE(reports.size(), static_cast<std::size_t>(elapsed / TreeVerifier::progressInterval));
    EXPECT_TRUE(elapsed <= 3 * TreeVerifier::progressInterval || !reports.empty());
    const auto count = reports.size();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(reports.size(), count) << "reported after compare returned";

    // A single file is counted too, and a failure still ends the comparison.
    EXPECT_TRUE(TreeVerifier::compare(folder / "original/a.bin", folder / "copy/a.bin", {}, nullptr,
                                      [](std::int64_t) {})
                    .empty());
    EXPECT_ANY_THROW(TreeVerifier::compare(folder / "missing", folder / "copy", {}, nullptr,
                                           [](std::int64_t) {}));
}

// What a lock or a restore reported: each byte report with the step it belongs to.
struct Recorder {
    struct Report {
        LockStep step;
        std::int64_t done, total;
    };
    std::optional<LockStep> step;
    std::vector<Report> reports;
    std::thread::id caller = std::this_thread::get_id();
    std::function<void(LockStep)> onStep;

    Locker::Progress progress() {
        return [this](LockStep s) {
            step = s;
            if (onStep) onStep(s);
        };
    }
    Locker::BytesProgress bytes() {
        return [this](std::int64_t done, std::int64_t total) {
            EXPECT_EQ(std::this_thread::get_id(), caller) << "reported on another thread";
            ASSERT_TRUE(step) << "bytes reported before any step";
            reports.push_back({*step, done, total});
        };
    }
    std::vector<Report> in(LockStep wanted) const {
        std::vector<Report> found;
        for (const auto& report : reports)
            if (report.step == wanted) found.push_back(report);
        return found;
    }
};

// Every report within bounds and never back; the last one the whole total.
void expectCompleteStep(const std::vector<Recorder::Report>& reports, std::int64_t total,
                        const char* name) {
    SCOPED_TRACE(name);
    ASSERT_FALSE(reports.empty()) << "nothing reported";
    for (std::size_t i = 0; i < reports.size(); ++i) {
        EXPECT_EQ(reports[i].total, total);
        EXPECT_LE(reports[i].done, reports[i].total);
        EXPECT_GE(reports[i].done, i > 0 ? reports[i - 1].done : 0)
            << "negative or went back at " << i;
    }
    EXPECT_EQ(reports.back().done, total) << "the step ended short of its total";
}

// A copy of a few megabytes ends within one watch interval on a fast machine. Once started, this
// stops this process's cp as soon as it has written something, for several intervals, so that
// the copy is watched while it runs; `paused` tells whether it caught one.
class CopyPause {
public:
    void start() {
        thread_ = std::jthread([this](std::stop_token stop) {
            for (auto until = Clock::now() + 30s; !stop.stop_requested() && Clock::now() < until;
                 std::this_thread::sleep_for(1ms)) {
                std::error_code ignored;
                for (const auto& entry : std::filesystem::directory_iterator("/proc", ignored)) {
                    pid_t pid = std::atoi(entry.path().filename().c_str());
                    if (pid <= 0 || !isOurCopier(pid)) continue;
                    auto written = ProcessIO::bytesWritten(pid);
                    if (!written || *written == 0 || kill(pid, SIGSTOP) != 0) continue;
                    std::this_thread::sleep_for(4 * ProcessRunner::watchInterval);
                    kill(pid, SIGCONT);
                    paused = true;
                    return;
                }
            }
        });
    }
    void finish() { thread_ = {}; }
    std::atomic<bool> paused{false};

private:
    static bool isOurCopier(pid_t pid) {
        const std::string proc = "/proc/" + std::to_string(pid);
        return testing::readFile(proc + "/comm") == "cp\n" &&
               testing::readFile(proc + "/status")
                       .find("\nPPid:\t" + std::to_string(getpid()) + "\n") != std::string::npos;
    }
    std::jthread thread_;
};

class ByteProgressLock : public testing::LockerFixture {
public:
    void SetUp() override {
        LockerFixture::SetUp();
        // A few megabytes in files of several sizes, with a link and an empty file.
        writeFile(home + "/Big/one.bin", std::string(6 << 20, '1'));
        writeFile(home + "/Big/inner/two.bin", std::string(3 << 20, '2'));
        for (int i = 0; i < 40; ++i)
            writeFile(home + "/Big/inner/many/" + std::to_string(i) + ".txt",
                      std::string(20000, 'm'));
        writeFile(home + "/Big/empty", "");
        symlink("one.bin", (home + "/Big/link").c_str());
    }
    static constexpr std::int64_t kSize = (6 << 20) + (3 << 20) + 40 * 20000;
};

TEST_F(ByteProgressLock, LockAndRestoreReportCopyAndCheck) {
    Locker locker = makeLocker();
    Recorder lock;
    CopyPause lockPause;
    lock.onStep = [&](LockStep step) {
        if (step == LockStep::encrypting) lockPause.start();
        if (step == LockStep::verifying) lockPause.finish();
    };
    LockedItem item =
        locker.lock(home + "/Big", kPassword, 1, nullptr, lock.progress(), lock.bytes());
    lockPause.finish();
    ASSERT_EQ(item.contentSize, kSize);
    for (const auto& report : lock.reports)
        EXPECT_TRUE(report.step == LockStep::encrypting || report.step == LockStep::verifying)
            << "bytes reported in step " << LockSteps::rawValue(report.step);
    expectCompleteStep(lock.in(LockStep::encrypting), kSize, "encrypting");
    expectCompleteStep(lock.in(LockStep::verifying), kSize, "verifying");
    // While cp was stopped it was watched: its count came before the copy's end.
    EXPECT_TRUE(!lockPause.paused || lock.in(LockStep::encrypting).size() >= 2)
        << "the running copy was not heard";

    Recorder restore;
    CopyPause restorePause;
    restore.onStep = [&](LockStep step) {
        if (step == LockStep::restoring) restorePause.start();
    };
    locker.afterRestoreCopy = [&](const std::string&) { restorePause.finish(); };
    std::string restored = locker.removeLock(item.lastKnownPath, kPassword, nullptr,
                                             restore.progress(), restore.bytes());
    restorePause.finish();
    EXPECT_EQ(std::filesystem::file_size(restored + "/one.bin"), 6u << 20);
    for (const auto& report : restore.reports)
        EXPECT_EQ(report.step, LockStep::restoring)
            << "bytes reported in step " << LockSteps::rawValue(report.step);
    // One step: the copy up to the item's size, then the check up to twice that.
    auto restoring = restore.in(LockStep::restoring);
    expectCompleteStep(restoring, 2 * kSize, "restoring");
    auto copyReports = std::count_if(restoring.begin(), restoring.end(),
                                     [](const auto& report) { return report.done <= kSize; });
    EXPECT_TRUE(std::any_of(restoring.begin(), restoring.end(), [](const auto& report) {
        return report.done == kSize;
    })) << "the copy's end was not reported";
    EXPECT_TRUE(!restorePause.paused || copyReports >= 2) << "the running copy was not heard";
    EXPECT_TRUE(lockPause.paused || restorePause.paused) << "no copy was caught running";

    // Nothing arrives once the operations have returned.
    const auto locks = lock.reports.size(), restores = restore.reports.size();
    std::this_thread::sleep_for(2 * ProcessRunner::watchInterval);
    EXPECT_EQ(lock.reports.size(), locks);
    EXPECT_EQ(restore.reports.size(), restores);
}

TEST_F(ByteProgressLock, EmptyItemReportsNoBytes) {
    std::filesystem::create_directories(home + "/Hollow/inner");
    writeFile(home + "/Hollow/inner/empty", "");
    Locker locker = makeLocker();
    Recorder recorder;
    LockedItem item =
        locker.lock(home + "/Hollow", kPassword, 1, nullptr, recorder.progress(), recorder.bytes());
    locker.removeLock(item.lastKnownPath, kPassword, nullptr, recorder.progress(),
                      recorder.bytes());
    EXPECT_TRUE(recorder.reports.empty()) << "a total of nothing was reported";
}

TEST_F(ByteProgressLock, CancelFromAReportUndoesTheLockAndReportsNoMore) {
    Locker locker = makeLocker();
    CancelToken cancel;
    Recorder recorder;
    auto record = recorder.bytes();
    auto error = testing::errorFrom([&] {
        locker.lock(home + "/Big", kPassword, 1, &cancel, recorder.progress(),
                    [&](std::int64_t done, std::int64_t total) {
                        record(done, total);
                        cancel.cancel();
                    });
    });
    ASSERT_TRUE(error) << "the lock finished although cancelled";
    EXPECT_EQ(error->errorCase(), CorvaneError::Case::cancelled);
    EXPECT_FALSE(recorder.reports.empty());
    EXPECT_TRUE(std::filesystem::exists(home + "/Big/one.bin"));
    EXPECT_FALSE(std::filesystem::exists(home + "/Big.corvlock"));
    EXPECT_TRUE(locker.journal.load().empty());
    EXPECT_TRUE(ourMounts().empty());
    const auto count = recorder.reports.size();
    std::this_thread::sleep_for(2 * ProcessRunner::watchInterval);
    EXPECT_EQ(recorder.reports.size(), count);
}

}  // namespace
}  // namespace corvane
