// The process runner: no shell or search path, one merged output that never blocks the child,
// input followed by its end, exit codes and signals, time limits and Cancel; and the lenient UTF-8
// that its output goes through.
#include <gtest/gtest.h>

#include <sys/prctl.h>

#include <atomic>
#include <cerrno>
#include <system_error>
#include <thread>
#include <tuple>

#include "FileSystem/ProcessRunner.h"
#include "Records/CorvaneError.h"
#include "Records/UTF8.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing::secondsSince;

// Whether a five-second sleep run with `cancel` ends in the cancelled error.
bool sleepIsCancelled(const CancelToken& cancel) {
    try {
        ProcessRunner::run("/bin/sleep", {"5"}, std::nullopt, std::nullopt, &cancel);
    } catch (const CorvaneError& error) {
        return error.errorCase() == CorvaneError::Case::cancelled;
    }
    return false;
}

TEST(ProcessRunner, ReportsOutputAndStatus) {
    const std::string mebibyte(1 << 20, 'x'), as(1 << 20, 'a'), bs(1 << 20, 'b');
    const char* bothStreams =
        "head -c 1M /dev/zero | tr '\\0' a; head -c 1M /dev/zero | tr '\\0' b >&2";
    auto sh = [](const char* script) { return std::vector<std::string>{"/bin/sh", "-c", script}; };
    // cat runs directly: the time limit ends it, where a shell would leave it holding the output.
    const std::vector<std::string> cat = {"/bin/cat"};
    struct Case {
        const char* name;
        std::vector<std::string> command;
        std::optional<std::string> input;
        std::string output;
        int status;
    };
    const Case cases[] = {
        {"no shell expands arguments", {"/bin/echo", "$HOME; *", ""}, {}, "$HOME; * \n", 0},
        {"errors merged", sh("echo out; echo err >&2; echo again"), {}, "out\nerr\nagain\n", 0},
        {"input echoed", cat, "one\ntwo", "one\ntwo", 0},
        {"no input is an immediate end", cat, {}, "", 0},
        {"input larger than a pipe while output is read", cat, mebibyte, mebibyte, 0},
        {"more than a pipe holds on both streams", sh(bothStreams), {}, as + bs, 0},
        // The runner ignores SIGPIPE for itself; this process would die here otherwise.
        {"child exits before reading its input", sh("exit 3"), std::string(4 << 20, 'x'), "", 3},
        {"exit code", sh("exit 7"), {}, "", 7},
        {"signal number", sh("kill -KILL $$"), {}, "", SIGKILL},
        {"invalid UTF-8 replaced", sh("printf '\\377abc'"), {}, "\uFFFDabc", 0},
        // With SIGPIPE still ignored in the child, yes would complain about a broken pipe.
        {"child has the default SIGPIPE", sh("yes | head -n1"), {}, "y\n", 0},
        // A Ctrl-C can reach the child before it leaves the terminal's group; the user's Cancel
        // ends it, never the signal.
        {"terminal signals are ignored",
         sh("kill -INT $$; kill -HUP $$; kill -QUIT $$; echo on"),
         {},
         "on\n",
         0},
    };
    for (const auto& c : cases) {
        // The time limit turns a hang into a failure.
        auto result = ProcessRunner::run(c.command[0], {c.command.begin() + 1, c.command.end()},
                                         c.input, 30.0);
        SCOPED_TRACE(c.name);
        EXPECT_FALSE(result.timedOut) << "the child hung";
        EXPECT_EQ(result.status, c.status) << "wrong exit status or signal";
        EXPECT_TRUE(result.output == c.output) << "wrong output, " << result.output.size()
                                               << " bytes: " << result.output.substr(0, 200);
    }
    // A bare name is not looked up on PATH, and a launch failure is the system's error.
    EXPECT_THROW(ProcessRunner::run("sleep", {"0"}), std::system_error);
    EXPECT_THROW(ProcessRunner::run("/nonexistent/sleep", {"0"}), std::system_error);
}

// Ctrl-C typed at the terminal the instant a tool starts reaches the new child while it is still
// in our group; a tool that then unblocks the signal, as gocryptfs's runtime does, must not die of
// it. Run in a process of its own, in a group of its own, which a flood of SIGINT never leaves.
TEST(ProcessRunner, ATerminalInterruptAsAToolStartsNeverEndsIt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setpgid(0, 0);
            signal(SIGINT, [](int) {});
            std::atomic<bool> done{false};
            // Every few microseconds: often enough to land in each child's first moments, seldom
            // enough to let this process's own sleeps end.
            std::thread interrupter([&] {
                while (!done) {
                    kill(0, SIGINT);
                    std::this_thread::sleep_for(std::chrono::microseconds(20));
                }
            });
            const std::string unblocksAndWaits =
                "import signal, time\n"
                "signal.signal(signal.SIGINT, signal.SIG_DFL)\n"
                "signal.pthread_sigmask(signal.SIG_UNBLOCK, [signal.SIGINT])\n"
                "time.sleep(0.01)\n";
            int ended = 0;
            for (int run = 0; run < 60; ++run)
                if (ProcessRunner::run("/usr/bin/python3", {"-c", unblocksAndWaits}).status != 0)
                    ++ended;
            done = true;
            interrupter.join();
            std::exit(ended);
        },
        ::testing::ExitedWithCode(0), "");
}

// A process that keeps itself out of core dumps closes its descriptors to every other process,
// its children too: a tool reaches a folder held open by starting in it.
TEST(ProcessRunner, AChildStartsInTheFolderHeldOpenByAnUndumpableParent) {
    testing::TempDir dir;
    chmod(dir.path().c_str(), 0777);
    testing::writeFile(dir / "held/file", "content");
    chmod((dir / "held").c_str(), 0777);
    chmod((dir / "held/file").c_str(), 0644);
    EXPECT_EQ(testing::outcomeInChild(
                  [&] {
                      prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
                      int folder = open((dir / "held").c_str(), O_RDONLY | O_DIRECTORY);
                      auto started = ProcessRunner::run("/bin/cat", {"./file"}, std::nullopt, 30.0,
                                                        nullptr, nullptr, folder);
                      auto viaProc = ProcessRunner::run(
                          "/bin/cat", {"/proc/" + std::to_string(getpid()) + "/fd/" +
                                       std::to_string(folder) + "/file"});
                      return started.output + (viaProc.status == 0 ? " and through /proc" : "");
                  },
                  true),
              "content");
}

TEST(ProcessRunner, TimeoutAndCancelEndTheChild) {
    auto start = Clock::now();
    auto result = ProcessRunner::run("/bin/sleep", {"5"}, std::nullopt, 0.5);
    EXPECT_TRUE(result.timedOut) << "a timeout not reported";
    EXPECT_EQ(result.status, SIGTERM) << "a timed-out child must be ended with SIGTERM";

    CancelToken early;
    early.cancel();
    EXPECT_TRUE(sleepIsCancelled(early)) << "cancelled before the start, yet it ran";
    CancelToken late;
    std::thread canceller([&] {
        std::this_thread::sleep_for(300ms);
        late.cancel();
    });
    EXPECT_TRUE(sleepIsCancelled(late)) << "cancelling a running child did not end it";
    canceller.join();
    EXPECT_LT(secondsSince(start), 4.0) << "a sleep ran out its time despite timeout or cancel";
    // Every child was waited for: none is left running or unreaped.
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD) << "a child was left unreaped";
}

TEST(UTF8, LenientReplacesEachMaximalInvalidSubpart) {
    const std::string r = "\uFFFD";
    // Name, bytes, and the text they read as.
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"valid text", "Grüße 日本 😀", "Grüße 日本 😀"},
        {"lone lead byte", "\xC3", r},
        {"truncated three-byte sequence", std::string("\xE2\x82") + "A", r + "A"},
        {"truncated four-byte sequence at the end", "a\xF0\x9F\x98", "a" + r},
        {"lone continuation bytes", "\x80\x80", r + r},
        {"surrogate", "\xED\xA0\x80", r + r + r},
        {"overlong", "\xC0\xAF", r + r},
        {"above U+10FFFF", "\xF4\x90\x80\x80", r + r + r + r},
        {"invalid between valid", "\xC3\xA9\xFF\xC3\xA9", "é" + r + "é"},
    };
    for (const auto& [name, bytes, text] : cases) {
        EXPECT_EQ(UTF8::lenient(bytes), text) << "wrong replacement: " << name;
        EXPECT_EQ(UTF8::isValid(bytes), bytes == text) << "wrong validity: " << name;
    }
}

}  // namespace
}  // namespace corvane
