// The corvane command run in-process, or as a program on a pseudo-terminal, against real folders,
// real gocryptfs mounts and a private keyring holding the password "pw". Each test gets its own
// support directory, home, settings and keyring item.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>

#include <chrono>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "CommandLine.h"
#include "FileSystem/GocryptfsTool.h"
#include "FileSystem/ProcessRunner.h"
#include "PasswordStore.h"
#include "PrivateKeyring.h"
#include "TestSupport.h"

namespace corvane::testing {

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

// The program on a pseudo-terminal, as a user at a terminal meets it: standard input, output and
// error are all the terminal.
class TerminalSession {
public:
    explicit TerminalSession(const std::vector<std::string>& words) {
        pid_ = forkpty(&terminal_, nullptr, nullptr, nullptr);
        if (pid_ == 0) {
            std::vector<char*> argv{const_cast<char*>("corvane")};
            for (const auto& word : words) argv.push_back(const_cast<char*>(word.c_str()));
            argv.push_back(nullptr);
            execv(CORVANE_PROGRAM, argv.data());
            _exit(127);
        }
    }
    ~TerminalSession() {
        if (pid_ > 0 && !exited_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (terminal_ >= 0) close(terminal_);
    }

    // Reads until `text` has appeared after what earlier calls consumed; false after `seconds`.
    bool expect(const std::string& text, int seconds = 30) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        for (;;) {
            if (auto at = seen_.find(text, consumed_); at != std::string::npos) {
                consumed_ = at + text.size();
                return true;
            }
            if (std::chrono::steady_clock::now() > deadline || !readSome()) return false;
        }
    }
    void type(const std::string& text) {
        ASSERT_EQ(write(terminal_, text.data(), text.size()), ssize_t(text.size()));
    }
    // Everything shown so far, and then the exit status once the program ends.
    const std::string& shown() const { return seen_; }
    int finish() {
        while (readSome()) {
        }
        int status = 0;
        waitpid(pid_, &status, 0);
        exited_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    bool readSome() {
        pollfd ready{terminal_, POLLIN, 0};
        if (poll(&ready, 1, 200) < 0) return false;
        if (!(ready.revents & (POLLIN | POLLHUP))) return true;
        char buffer[4096];
        ssize_t count = read(terminal_, buffer, sizeof buffer);
        if (count <= 0) return false;
        seen_.append(buffer, std::size_t(count));
        return true;
    }

    pid_t pid_ = -1;
    int terminal_ = -1;
    bool exited_ = false;
    std::string seen_;
    std::size_t consumed_ = 0;
};

class CliTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { keyring_ = std::make_unique<PrivateKeyring>(); }
    static void TearDownTestSuite() { keyring_.reset(); }

    void SetUp() override { store.save({"pw", 1, std::nullopt, {}}); }

    void TearDown() override {
        for (const auto& image : GocryptfsTool().attachedImages())
            if (image.mountPoint.starts_with(root.path() + "/"))
                ProcessRunner::run("/usr/bin/fusermount3", {"-u", "-z", image.mountPoint});
    }

    Outcome run(const std::vector<std::string>& words, const std::string& input = "pw\n") {
        std::istringstream in(input);
        std::ostringstream out, err;
        int status = cli::CommandLine::run(words, {}, cancel, in, out, err);
        return {status, out.str(), err.str()};
    }
    // The items as `list --json` gives them.
    nlohmann::json listed() { return nlohmann::json::parse(run({"list", "--json"}).out); }

    TempDir root;
    ScopedVariable support{"CORVANE_SUPPORT_DIR", root / "Support"};
    ScopedVariable home{"HOME", root / "Home"};
    ScopedVariable config{"XDG_CONFIG_HOME", root / "Config"};
    // Where the file manager's menu reads what is open.
    ScopedVariable runtime{"XDG_RUNTIME_DIR", root / "Runtime"};
    // Each test its own keyring item, so no test sees another's password.
    ScopedVariable service{"CORVANE_KEYCHAIN_SERVICE", "corvane-test:" + root.path()};
    // No fingerprint reader unless a test brings its own bus.
    ScopedVariable systemBus{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + root / "no-bus"};
    PasswordStore store;
    CancelToken cancel;

private:
    static inline std::unique_ptr<PrivateKeyring> keyring_;
};

}  // namespace corvane::testing
