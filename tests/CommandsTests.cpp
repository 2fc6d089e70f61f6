// Command URLs and the file manager's menu, and the two commands built on them that never touch
// the engine: `corvane menu` on a real shared-state file, `corvane open-url` against a real socket
// and a stand-in application program.
#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <tuple>

#include <nlohmann/json.hpp>

#include "CommandLine.h"
#include "Commands/CorvaneCommand.h"
#include "Commands/FileManagerMenuModel.h"
#include "Engine/ItemName.h"
#include "Engine/Locker.h"
#include "Records/SharedState.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using namespace corvane::testing;
using Listener = SocketListener;
using Lines = std::vector<std::string>;
using Kind = CorvaneCommand::Kind;
using Clock = std::chrono::steady_clock;

struct Outcome {
    int status;
    std::string out, err;
};

Outcome runCommand(const std::vector<std::string>& words) {
    CancelToken cancel;
    std::istringstream in;
    std::ostringstream out, err;
    int status = cli::CommandLine::run(words, {}, cancel, in, out, err);
    return {status, out.str(), err.str()};
}

// An item is called by its locked name less ".corvlock" exactly where the menu and the engine see a
// locked item, and by its whole name everywhere else.
TEST(ItemName, DropsOnlyTheLockedItemsOwnExtension) {
    const std::pair<const char*, const char*> rows[] = {
        {"/a/Taxes.corvlock", "Taxes"},          {"/a/Taxes.corvlock/", "Taxes"},
        {"/a/Taxes.CORVLOCK", "Taxes.CORVLOCK"}, {"/a/report.pdf", "report.pdf"},
        {"/a/.corvlock", ".corvlock"},           {"/a/data.zip.corvlock", "data.zip"},
    };
    for (const auto& [path, name] : rows) {
        EXPECT_EQ(itemName(path), name) << path;
        EXPECT_EQ(Locker::itemName(std::nullopt, std::nullopt, path), name) << path;
    }
}

TEST(CorvaneCommand, ParsesWellFormedCommandsOnly) {
    const std::pair<std::string, std::optional<CorvaneCommand>> cases[] = {
        {"corvane://lock?path=%2FUsers%2Fa%2FMy%20Files&path=%2FUsers%2Fa%2Fx%26y",
         CorvaneCommand{Kind::lock, {"/Users/a/My Files", "/Users/a/x&y"}}},
        {"corvane://unlock?path=/a/S.corvlock", CorvaneCommand{Kind::unlock, {"/a/S.corvlock"}}},
        {"corvane://unlock?path=/a&path=/b", std::nullopt},
        {"corvane://lock-now?path=/a&path=/b", CorvaneCommand{Kind::lockNow, {"/a", "/b"}}},
        {"corvane://remove-lock?path=/a", CorvaneCommand{Kind::removeLock, {"/a"}}},
        {"corvane://reveal?path=/a&path=/b", std::nullopt},
        {"corvane://lock?path=relative", std::nullopt},
        {"corvane://lock?path=relative&path=/b", CorvaneCommand{Kind::lock, {"/b"}}},
        {"CORVANE://lock?path=/a", std::nullopt},
        {"corvane:lock?path=/a", std::nullopt},
        {"corvane://?path=/a", std::nullopt},
        {"corvane://open?path=/a", std::nullopt},
        {"corvane://LOCK?path=/a", std::nullopt},
        {"corvane://lock", std::nullopt},
        {"corvane://lock?path&path=/a&path=", CorvaneCommand{Kind::lock, {"/a"}}},
        {"corvane://lock?from=x&Path=/b&path=/a#top", CorvaneCommand{Kind::lock, {"/a"}}},
        {"corvane://u@lock:80/more?path=/a", CorvaneCommand{Kind::lock, {"/a"}}},
        {"corvane://lock:x?path=/a", std::nullopt},
        {"corvane://lock?path=%2Fa%zz", std::nullopt},
        {"corvane://lock?path=/a%2", std::nullopt},
        {"corvane://lock?path=/a&x=%G0", std::nullopt},
        {"corvane://lock?path=/a b", std::nullopt},
        {"corvane://lock?path=/a+b", CorvaneCommand{Kind::lock, {"/a+b"}}},
        {"corvane://lock?path=/a%00b&path=/c", CorvaneCommand{Kind::lock, {"/c"}}},
        {"corvane://lock?path=%2F%FF%fe", CorvaneCommand{Kind::lock, {"/\xFF\xFE"}}},
        {"corvane://lock?path=/" + std::string(CorvaneCommand::maximumURLSize, 'a'), std::nullopt},
    };
    for (const auto& [url, expected] : cases)
        EXPECT_EQ(CorvaneCommand::parse(url), expected) << url.substr(0, 80);
}

TEST(CorvaneCommand, EncodesEveryByteOutsideTheQuerySetLessSeparatorsAndSlash) {
    EXPECT_EQ((CorvaneCommand{Kind::lock, {"/a b&c=d+e#f?g%h:@!$'()*,;~-._\xFF", "/z"}}.url()),
              "corvane://lock?path=%2Fa%20b%26c%3Dd%2Be%23f%3Fg%25h:@!$'()*,;~-._%FF&path=%2Fz");
}

TEST(CorvaneCommand, EveryActionRoundTripsThroughItsURL) {
    const std::vector<std::string> paths = {"/My Files/x&y", "/h#?",      "/p+q=r",      "/50%",
                                            "/\xC3\x28\xFF", "/\n\t\x7F", "/a:@!$'()*,;"};
    for (auto kind : {Kind::lock, Kind::unlock, Kind::lockNow, Kind::removeLock, Kind::reveal}) {
        bool several = kind == Kind::lock || kind == Kind::lockNow;
        for (std::size_t i = 0; i < (several ? 1 : paths.size()); ++i) {
            CorvaneCommand command{kind, several ? paths : std::vector{paths[i]}};
            EXPECT_EQ(CorvaneCommand::parse(command.url()), command) << command.url();
        }
    }
}

TEST(CorvaneCommand, OnlyLocksFromUntrustedSendersNeedConfirmation) {
    // Kind, sender, test override, whether a confirmation is asked.
    const std::tuple<Kind, std::optional<std::string>, bool, bool> cases[] = {
        {Kind::lock, std::nullopt, false, true},
        {Kind::lock, "com.pellmoor.corvane", false, false},
        {Kind::lockNow, "com.pellmoor.corvane.finder", false, false},
        {Kind::lock, "com.pellmoor.corvane.finderx", false, true},
        {Kind::lock, "com.pellmoor.corvane.e2e", false, true},
        {Kind::lockNow, "com.pellmoor.corvane.e2e", true, false},
        {Kind::lock, "org.other", true, true},
        {Kind::unlock, std::nullopt, false, false},
        {Kind::removeLock, "org.other", false, false},
        {Kind::reveal, "org.other", true, false},
    };
    for (const auto& [kind, sender, testOverride, expected] : cases)
        EXPECT_EQ((CorvaneCommand{kind, {"/a"}}.needsConfirmation(sender, testOverride)), expected)
            << int(kind) << " " << sender.value_or("(none)") << " " << testOverride;
}

TEST(CorvaneCommand, ConfirmationNamesTheItems) {
    EXPECT_EQ((CorvaneCommand{Kind::lock, {"/a/Secret.corvlock"}}.confirmationQuestion()),
              "Another app asked Corvane to lock Secret. Lock it?");
    EXPECT_EQ((CorvaneCommand{Kind::lock, {"/a/One", "/b/Two.corvlock", "/Three/"}}
                   .confirmationQuestion()),
              "Another app asked Corvane to lock One, Two and Three. Lock them?");
}

// Entries as "Title=host(names)", names relative to `root`.
std::string described(const std::vector<FileManagerMenuEntry>& entries, const std::string& root) {
    std::string text;
    for (const auto& entry : entries) {
        text += (text.empty() ? "" : " ") + entry.title + "=" +
                std::string(CorvaneCommand::hosts[std::size_t(entry.command.kind)]) + "(";
        for (const auto& path : entry.command.paths)
            text += (text.back() == '(' ? "" : ",") + path.substr(root.size() + 1);
        text += ")";
    }
    return text;
}

TEST(FileManagerMenuModel, EntriesFollowTheSelectionAndWhatIsUnlocked) {
    TempDir root;
    std::string a = root / "A.corvlock", b = root / "B.corvlock", c = root / "C.corvlock";
    std::string notes = root / "notes.txt", viaLink = root / "link/A.corvlock";
    std::filesystem::create_directory_symlink(root.path(), root / "link");
    const std::optional<std::set<std::string>> unknown,
        onlyA = std::set{a}, aAndCThroughLink = {{a, root / "link/C.corvlock"}};
    struct Case {
        std::vector<std::string> selection;
        std::optional<std::set<std::string>> unlocked;
        std::string expected;
    };
    const Case cases[] = {
        {{}, unknown, ""},
        {{notes, b + "x"}, onlyA, "Lock with Corvane=lock(notes.txt,B.corvlockx)"},
        {{root / "X.CORVLOCK"}, onlyA, "Lock with Corvane=lock(X.CORVLOCK)"},
        {{a}, onlyA, "Lock Now=lock-now(A.corvlock) Show Unlocked Files=reveal(A.corvlock)"},
        {{viaLink},
         onlyA,
         "Lock Now=lock-now(link/A.corvlock) Show Unlocked Files=reveal(link/A.corvlock)"},
        {{b}, onlyA, "Unlock with Corvane=unlock(B.corvlock) Remove Lock…=remove-lock(B.corvlock)"},
        {{b},
         unknown,
         "Unlock with Corvane=unlock(B.corvlock) Lock Now=lock-now(B.corvlock) Remove Lock…=remove-lock(B.corvlock)"},
        {{a, notes}, onlyA, ""},
        {{a, b, c}, aAndCThroughLink, "Lock Now=lock-now(A.corvlock,C.corvlock)"},
        {{b, c}, onlyA, ""},
        {{a, b}, unknown, "Lock Now=lock-now(A.corvlock,B.corvlock)"},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(described(FileManagerMenuModel::entries(cases[i].selection, cases[i].unlocked),
                            root.path()),
                  cases[i].expected)
            << "case " << i;
}

TEST(MenuCommand, ReadsTheSharedStateAndFallsBackToUnknown) {
    TempDir root;
    ScopedVariable runtime{"XDG_RUNTIME_DIR", root / "run"};
    std::string a = root / "A.corvlock", statePath = *SharedState::defaultURL();
    std::filesystem::create_directories(root / "run/corvane");
    const std::vector<std::string> unlocked = {"Lock Now", "Show Unlocked Files"},
                                   unknown = {"Unlock with Corvane", "Lock Now", "Remove Lock…"};
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"this boot", unlocked}, {"earlier boot", unknown}, {"none", unknown}, {"FIFO", unknown}};
    for (const auto& [state, expected] : cases) {
        std::filesystem::remove(statePath);
        auto boot = SharedState::currentBootTime() - (state == "earlier boot" ? 60 : 0);
        if (state.ends_with("boot")) SharedState{{a}, boot}.write(statePath);
        if (state == "FIFO") mkfifo(statePath.c_str(), 0600);
        Outcome json = runCommand({"menu", "--json", a});
        ASSERT_EQ(json.status, 0) << json.err;
        std::vector<std::string> titles;
        for (const auto& entry : nlohmann::json::parse(json.out)) {
            titles.push_back(entry.at("title"));
            EXPECT_TRUE(CorvaneCommand::parse(entry.at("url").get<std::string>()));
        }
        EXPECT_EQ(titles, expected) << state;
    }

    SharedState{{a}, SharedState::currentBootTime()}.write(statePath);
    auto folder = std::filesystem::current_path();
    std::filesystem::current_path(root.path());
    Outcome plain = runCommand({"menu", "A.corvlock"});
    std::filesystem::current_path(folder);
    std::string expected = "Lock Now\t" + CorvaneCommand{Kind::lockNow, {a}}.url() +
                           "\nShow Unlocked Files\t" + CorvaneCommand{Kind::reveal, {a}}.url() +
                           "\n";
    EXPECT_EQ(plain.out, expected) << "a relative path is taken from the working folder";
}

class OpenUrlCommand : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(root / "run/corvane");
        std::filesystem::create_directories(root / "bin");
    }
    // A stand-in application on PATH that notes its arguments, whether it leads its own
    // session, its input and its folder.
    void provideApplication() {
        writeFile(root / "bin/corvane-app",
                  "#!/bin/sh\nread -r pid name state parent group session rest < /proc/$$/stat\n"
                  "echo \"$* $((session == $$)) $(/usr/bin/readlink /proc/$$/fd/0) $(pwd)\" > " +
                      mark + ".new\n/usr/bin/mv " + mark + ".new " + mark + "\n");
        chmod((root / "bin/corvane-app").c_str(), 0755);
    }
    Outcome timedRun(const std::string& url, double& seconds) {
        auto start = Clock::now();
        Outcome outcome = runCommand({"open-url", url});
        seconds = std::chrono::duration<double>(Clock::now() - start).count();
        return outcome;
    }

    TempDir root;
    ScopedVariable runtime{"XDG_RUNTIME_DIR", root / "run"};
    ScopedVariable path{"PATH", root / "bin"};
    ScopedVariable limit{"CORVANE_OPEN_URL_TIMEOUT_MS", "4000"};
    std::string socketPath = root / "run/corvane/command.sock", mark = root / "started";
    std::string command = "corvane://reveal?path=/a";
};

TEST_F(OpenUrlCommand, DeliversCommandsAndOpensLockedItemsAsUnlock) {
    const std::pair<std::string, std::string> cases[] = {
        {"corvane://lock?path=%2Fa&path=/b%20c#x", "corvane://lock?path=%2Fa&path=/b%20c#x"},
        {"/home/u/My Secret.corvlock",
         CorvaneCommand{Kind::unlock, {"/home/u/My Secret.corvlock"}}.url()},
        {"file:///home/u/A%26B.corvlock",
         CorvaneCommand{Kind::unlock, {"/home/u/A&B.corvlock"}}.url()},
        {"file://localhost/x/S.corvlock/", CorvaneCommand{Kind::unlock, {"/x/S.corvlock"}}.url()},
    };
    for (const auto& [url, line] : cases) {
        std::filesystem::remove(socketPath);
        Listener listener(socketPath);
        Outcome outcome = runCommand({"open-url", url});
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(listener.lines(), Lines{line});
    }
}

TEST_F(OpenUrlCommand, RefusesWhatItMustNotSendWithoutStartingTheApplication) {
    provideApplication();
    struct Case {
        std::string url, atSocket, reason;
    };
    const std::string notACommand = "neither a Corvane command";
    const Case cases[] = {
        {"corvane://unlock?path=/a&path=/b", "", notACommand},
        {"/tmp/notes.txt", "", notACommand},
        {"S.corvlock", "", notACommand},
        {"file://elsewhere/S.corvlock", "", notACommand},
        {"file:///S%00.corvlock", "", notACommand},
        {command, "a file", "is not a socket"},
        {command, "a link to a listener", "is not a socket"},
        {command, "another user's listener", "belongs to another user"},
        {command, "no runtime folder", "no runtime folder"},
        {command, "a relative runtime folder", "no runtime folder"},
    };
    for (const auto& each : cases) {
        std::filesystem::remove(socketPath);
        std::filesystem::remove(root / "real.sock");
        std::unique_ptr<Listener> listener;
        if (each.atSocket == "a file") writeFile(socketPath, "");
        if (each.atSocket == "a link to a listener") {
            listener = std::make_unique<Listener>(root / "real.sock");
            std::filesystem::create_symlink(root / "real.sock", socketPath);
        }
        if (each.atSocket == "another user's listener") {
            listener = std::make_unique<Listener>(socketPath);
            ASSERT_EQ(chown(socketPath.c_str(), kNobody, kNobody), 0);
        }
        std::optional<ScopedVariable> runtime;
        if (each.atSocket == "no runtime folder") runtime.emplace("XDG_RUNTIME_DIR", std::nullopt);
        if (each.atSocket == "a relative runtime folder") {
            // Even where the relative path would lead to a listener.
            listener = std::make_unique<Listener>(socketPath);
            runtime.emplace("XDG_RUNTIME_DIR",
                            std::filesystem::relative(
                                std::filesystem::path(socketPath).parent_path().parent_path())
                                .string());
        }
        double seconds = 0;
        Outcome outcome = timedRun(each.url, seconds);
        EXPECT_EQ(outcome.status, 1) << each.url;
        EXPECT_NE(outcome.err.find(each.reason), std::string::npos) << outcome.err;
        EXPECT_LT(seconds, 1.0) << each.url;
        if (listener) {
            EXPECT_EQ(listener->stop(), Lines{}) << each.atSocket;
        }
        EXPECT_FALSE(std::filesystem::exists(mark)) << each.url;
    }
}

TEST_F(OpenUrlCommand, StartsTheApplicationDetachedAndGivesUpAtTheTimeLimit) {
    double seconds = 0;
    Outcome outcome = timedRun(command, seconds);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "Corvane is not running and could not be started.\n");
    EXPECT_LT(seconds, 1.0) << "waited although nothing was started";

    provideApplication();
    ScopedVariable shortLimit{"CORVANE_OPEN_URL_TIMEOUT_MS", "700"};
    outcome = timedRun(command, seconds);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "Corvane did not answer within 700 milliseconds.\n");
    EXPECT_GE(seconds, 0.65);
    EXPECT_LT(seconds, 2.0);
    EXPECT_EQ(readFile(mark), "--background 1 /dev/null /\n");
}

TEST_F(OpenUrlCommand, ReachesTheApplicationOnceItListens) {
    provideApplication();
    {  // left behind by a copy that ended without removing it
        Listener stale(socketPath);
    }
    std::optional<Listener> listener;
    std::thread application([&] {
        for (int i = 0; i < 300 && !std::filesystem::exists(mark); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        std::filesystem::remove(socketPath);
        listener.emplace(socketPath);
    });
    Outcome outcome = runCommand({"open-url", command});
    application.join();
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(listener->lines(), Lines{command});
}

}  // namespace
}  // namespace corvane
