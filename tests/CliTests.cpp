// The corvane command run in-process on real folders and real gocryptfs mounts, and once as a
// program at a terminal to see Ctrl-C cancel a lock.
#include <gtest/gtest.h>

#include <regex>

#include "CliFixture.h"
#include "Engine/Locker.h"
#include "Records/AppPaths.h"
#include "Records/SharedState.h"
#include "Records/SupportLock.h"

namespace corvane {
namespace {

using testing::CliTest;
using testing::Outcome;
using testing::readFile;
using testing::ScopedVariable;
using testing::TerminalSession;
using testing::writeFile;

class CliCommandTest : public CliTest {
protected:
    std::string sample = root / "Work/Grüße 日本";
    std::string locked = sample + ".corvlock";
    std::string data = std::string(1500, 'x');
};

TEST_F(CliCommandTest, LockListUnlockCloseAndRemove) {
    writeFile(sample + "/notes.txt", "secret notes");
    writeFile(sample + "/Sub/data.bin", data);

    Outcome lock = run({"--password-stdin", "lock", sample});
    ASSERT_EQ(lock.status, 0) << lock.err;
    EXPECT_EQ(lock.out, locked + "\n");
    EXPECT_EQ(lock.err,
              "Getting Grüße 日本 ready…\n"
              "Encrypting Grüße 日本…\n"
              "Checking every file in Grüße 日本…\n"
              "Removing the unlocked original…\n"
              "Finishing up…\n");
    EXPECT_FALSE(std::filesystem::exists(sample));

    EXPECT_EQ(run({"list"}).out,
              "NAME        STATE   SIZE  PATH\n"
              "Grüße 日本  locked  2 KB  " +
                  locked + "\n")
        << "wide characters take two columns";
    nlohmann::json items = listed();
    ASSERT_EQ(items.size(), 1u);
    EXPECT_TRUE(std::regex_match(items[0]["id"].get<std::string>(),
                                 std::regex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}")));
    items[0].erase("id");
    EXPECT_EQ(items[0], (nlohmann::json{{"name", "Grüße 日本"},
                                        {"state", "locked"},
                                        {"path", locked},
                                        {"found", true},
                                        {"needsPasswordUpdate", false},
                                        {"size", "2 KB"},
                                        {"originalSize", 1512},
                                        {"passwordGeneration", 1}}));

    // Each way of naming an open item closes it.
    for (std::string how : {"locked item", "mount point", "--all"}) {
        Outcome unlock = run({"unlock", locked, "--password-stdin"});
        ASSERT_EQ(unlock.status, 0) << unlock.err;
        std::string contents = unlock.out.substr(0, unlock.out.size() - 1);
        EXPECT_EQ(unlock.out, contents + "\n");
        EXPECT_EQ(readFile(contents + "/Sub/data.bin"), data);
        EXPECT_EQ(listed()[0]["state"], "open");
        auto menuSees = [] { return SharedState::read(SharedState::defaultURL())->unlockedPaths; };
        EXPECT_EQ(menuSees(), std::vector<std::string>{locked}) << "the menu offers Lock Now";

        std::string which = how == "locked item" ? locked : how == "mount point" ? contents : how;
        Outcome close = run({"lock-now", which});
        EXPECT_EQ(close.status, 0) << how << ": " << close.err;
        EXPECT_EQ(close.out, locked + "\n") << how;
        EXPECT_EQ(listed()[0]["state"], "locked") << how;
        EXPECT_EQ(menuSees(), std::vector<std::string>{}) << how;
        EXPECT_FALSE(std::filesystem::exists(contents + "/notes.txt")) << how;
    }
    Outcome notOpen = run({"lock-now", locked});
    EXPECT_EQ(notOpen.status, 1);
    EXPECT_EQ(notOpen.err, "Grüße 日本.corvlock is not open.\n");

    Outcome remove = run({"remove-lock", "--yes", "--password-stdin", locked});
    ASSERT_EQ(remove.status, 0) << remove.err;
    EXPECT_EQ(remove.out, sample + "\n");
    EXPECT_EQ(remove.err, "Restoring Grüße 日本…\nFinishing up…\n");
    EXPECT_EQ(readFile(sample + "/notes.txt"), "secret notes");
    EXPECT_EQ(readFile(sample + "/Sub/data.bin"), data);
    EXPECT_FALSE(std::filesystem::exists(locked));
    EXPECT_EQ(run({"list"}).out, "No locked items.\n");
    EXPECT_EQ(run({"list", "--json"}).out, "[]\n");
}

TEST_F(CliCommandTest, MisuseEndsWithStatusTwo) {
    struct Case {
        std::vector<std::string> words;
        std::string firstLine;
    };
    const Case cases[] = {
        {{}, "corvane: no command given"},
        {{"frobnicate"}, "corvane: unknown command frobnicate"},
        {{"--verbose", "list"}, "corvane: unknown option --verbose"},
        {{"list", "--all"}, "corvane: unknown option --all"},
        {{"list", "x"}, "corvane: list takes no paths"},
        {{"lock", "--password-stdin"}, "corvane: lock needs the path of a file or folder"},
        {{"unlock", "a.corvlock", "b.corvlock"},
         "corvane: unlock takes the path of one locked item"},
        {{"remove-lock"}, "corvane: remove-lock takes the path of one locked item"},
        {{"lock-now"}, "corvane: lock-now needs the path of an open item, or --all"},
        {{"lock-now", "--all", locked}, "corvane: lock-now --all takes no paths"},
        {{"unlock", locked},
         "corvane: a password is needed: type it at a terminal or pass --password-stdin"},
        {{"remove-lock", locked},
         "corvane: this needs your answer: run it at a terminal, or add --yes"},
        {{"config", "idle-minutes", "7"},
         "corvane: idle-minutes must be 5, 15, 30, 60, or 0 for never"},
        {{"config", "fingerprint", "maybe"}, "corvane: fingerprint must be on or off"},
        {{"locate", "--id", "nonsense", locked},
         "corvane: locate --id takes an item's id and the path of its locked item"},
    };
    for (const auto& [words, firstLine] : cases) {
        Outcome misuse = run(words);
        EXPECT_EQ(misuse.status, 2) << firstLine;
        EXPECT_EQ(misuse.out, "") << firstLine;
        EXPECT_EQ(misuse.err, firstLine +
                                  "\nUsage: corvane [--password-stdin] COMMAND [ARGUMENTS]\n"
                                  "Run 'corvane --help' to see the commands.\n");
    }
    for (const auto& words : {std::vector<std::string>{"--help"}, {"lock", "--help"}}) {
        Outcome help = run(words);
        EXPECT_EQ(std::tuple(help.status, help.out), std::tuple(0, cli::CommandLine::usage));
    }
    Outcome version = run({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_TRUE(std::regex_match(version.out, std::regex("corvane [0-9]+\\.[0-9]+(\\.[0-9]+)?\n")))
        << version.out;
}

TEST_F(CliCommandTest, FailuresPrintTheirSentenceAlone) {
    writeFile(sample + "/notes.txt", "secret notes");
    writeFile(root / "Work/plain.txt", "plain");
    struct Case {
        std::vector<std::string> words;
        std::string input;
        std::string err;
    };
    const Case cases[] = {
        {{"unlock", root / "Work/plain.txt"}, "pw\n", "This is not a Corvane locked item.\n"},
        {{"remove-lock", "--yes", sample}, "pw\n", "This is not a Corvane locked item.\n"},
        {{"unlock", root / "Work/gone.corvlock"}, "pw\n", "That item could not be found.\n"},
        {{"unlock", root / "Work/gone.corvlock"}, "pW\n", "That password did not work.\n"},
        // A piped password is checked even where none is needed: a typo must not go unnoticed.
        {{"lock", sample}, "\n", "That password did not work.\n"},
        {{"lock", sample}, "", "That password did not work.\n"},
        {{"lock", sample}, "pw \n", "That password did not work.\n"},
    };
    for (const auto& [words, input, expected] : cases) {
        std::vector<std::string> withPassword = words;
        withPassword.push_back("--password-stdin");
        Outcome failure = run(withPassword, input);
        EXPECT_EQ(failure.status, 1) << expected;
        EXPECT_EQ(failure.err, expected);
    }

    // One failing path does not stop the others.
    Outcome several = run({"--password-stdin", "lock", root / "Work/missing", sample});
    EXPECT_EQ(several.status, 1);
    EXPECT_EQ(several.out, locked + "\n");
    EXPECT_NE(several.err.find("Could not lock missing: That item no longer exists.\n"),
              std::string::npos)
        << several.err;
    EXPECT_EQ(run({"--password-stdin", "remove-lock", "--yes", locked}).status, 0);

    cancel.cancel();
    Outcome cancelled = run({"--password-stdin", "lock", sample});
    EXPECT_EQ(cancelled.status, 1);
    EXPECT_TRUE(cancelled.err.ends_with("Cancelled. Nothing was changed.\n")) << cancelled.err;
    EXPECT_EQ(readFile(sample + "/notes.txt"), "secret notes");
    EXPECT_FALSE(std::filesystem::exists(locked));
}

TEST_F(CliCommandTest, AnotherProcessHoldingTheSupportDirectoryStopsTheCommand) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t child = fork();
    if (child == 0) {
        alarm(60);  // never outlives a test that failed before ending it
        auto held = SupportLock::acquire(root / "Support");
        if (write(ready[1], held ? "y" : "n", 1) != 1) _exit(1);
        pause();
    }
    close(ready[1]);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    ASSERT_EQ(byte, 'y');

    Outcome blocked = run({"list"});
    EXPECT_EQ(blocked.status, 1);
    EXPECT_EQ(blocked.out, "");
    EXPECT_EQ(blocked.err, "Another Corvane is working on " + root / "Support" +
                               ". Wait for it to finish, then try again.\n");

    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(run({"list"}).status, 0) << "the lock goes with the process";
}

// Ctrl-C at the terminal, while the copy runs.
TEST_F(CliCommandTest, InterruptCancelsALockAndLeavesTheOriginal) {
    for (int i = 0; i < 4; ++i)
        writeFile(sample + "/part" + std::to_string(i), std::string(50'000'000, char('a' + i)));
    TerminalSession lock({"lock", sample});
    ASSERT_TRUE(lock.expect("Encrypting")) << lock.shown();
    lock.type("\x03");
    EXPECT_EQ(lock.finish(), 1) << lock.shown();
    EXPECT_TRUE(lock.shown().ends_with("Cancelled. Nothing was changed.\r\n")) << lock.shown();
    EXPECT_EQ(testing::listing(root / "Work"), std::vector<std::string>{"Grüße 日本"});
    EXPECT_EQ(readFile(sample + "/part3"), std::string(50'000'000, 'd'));
}

TEST_F(CliCommandTest, InterruptedWorkIsSettledBeforeAnyCommand) {
    writeFile(sample + "/notes.txt", "secret notes");
    Locker engine(root / "Support", root / "Home", std::nullopt, std::make_shared<GocryptfsTool>());
    engine.crashPoint = CrashPoint::lockAfterRename;
    EXPECT_THROW(engine.lock(sample, "pw", 1), SimulatedCrash);

    Outcome list = run({"list", "--json"});
    EXPECT_EQ(list.err, "Corvane finished interrupted work\nIt finished locking 1 item.\n");
    EXPECT_EQ(nlohmann::json::parse(list.out)[0]["path"], locked)
        << "the notice went to the output";
    EXPECT_FALSE(std::filesystem::exists(sample)) << "the original outlived its verified copy";

    Outcome nothing = run({"recover", "--json"});
    EXPECT_EQ(nlohmann::json::parse(nothing.out)["notice"], nullptr);
    EXPECT_EQ(nlohmann::json::parse(nothing.out)["finishedLocks"], 0);

    std::filesystem::resize_file(root / "Support/items.json", 10);
    Outcome damaged = run({"recover"});
    EXPECT_TRUE(
        damaged.out.starts_with("Corvane set a damaged file aside\nCorvane's list of "
                                "locked items was damaged"))
        << damaged.out;
    EXPECT_EQ(damaged.err, "") << "recover says it once, on its output";
    EXPECT_EQ(run({"list"}).out, "No locked items.\n");
}

TEST(CliSupportDirectory, FollowsTheEnvironment) {
    struct Case {
        std::optional<std::string> override, dataHome;
        std::string expected;
        bool isTestOverride;
    };
    const Case cases[] = {
        {"/srv/private", "/data", "/srv/private", true},
        {"", "/data", "/data/corvane", false},
        {std::nullopt, "relative/data", "/home/ann/.local/share/corvane", false},
        {std::nullopt, std::nullopt, "/home/ann/.local/share/corvane", false},
    };
    ScopedVariable home("HOME", "/home/ann");
    for (const auto& [override, dataHome, expected, isTestOverride] : cases) {
        ScopedVariable supportVariable("CORVANE_SUPPORT_DIR", override);
        ScopedVariable dataVariable("XDG_DATA_HOME", dataHome);
        EXPECT_EQ(AppPaths::support(), expected);
        EXPECT_EQ(AppPaths::isTestOverride(), isTestOverride) << expected;
    }
}

}  // namespace
}  // namespace corvane
