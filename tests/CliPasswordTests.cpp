// The password as a user meets it through the corvane command: setup, locking with the stored
// password, proving it at a terminal (fingerprint or five tries), items under earlier passwords,
// the change of password with its migration, and what the keyring being away does.
#include <gtest/gtest.h>

#include <filesystem>

#include <nlohmann/json.hpp>

#include "CliFixture.h"
#include "Engine/Locker.h"
#include "PrivateSystemBus.h"
#include "Records/ItemIndex.h"

namespace corvane {
namespace {

using testing::CliTest;
using testing::Outcome;
using testing::readFile;
using testing::ScopedVariable;
using testing::TerminalSession;
using testing::writeFile;

class CliPasswordTest : public CliTest {
protected:
    // A folder with one file, locked under the stored password; its locked item's path.
    std::string lockedFolder(const std::string& name) {
        std::string folder = root / ("Work/" + name);
        writeFile(folder + "/note.txt", "note of " + name);
        Outcome lock = run({"lock", folder});
        EXPECT_EQ(lock.status, 0) << lock.err;
        return folder + ".corvlock";
    }
};

TEST_F(CliPasswordTest, SetupFromAScriptChecksThePasswordAndSavesItOnce) {
    ScopedVariable fresh("CORVANE_KEYCHAIN_SERVICE", "corvane-test-setup:" + root.path());
    PasswordStore empty;
    const std::pair<std::string, std::string> refusals[] = {
        {"short\n", "Use at least 8 characters.\n"},
        {"\n", "The password is empty.\n"},
        {std::string(2049, 'a') + "\n", "A password can be at most 2048 bytes long.\n"},
        {"", "Standard input ended before a password.\n"},
    };
    for (const auto& [input, err] : refusals) {
        Outcome refused = run({"--password-stdin", "setup"}, input);
        EXPECT_EQ(refused.status, 1) << err;
        EXPECT_EQ(refused.err, err);
        EXPECT_FALSE(empty.load()) << err;
    }
    EXPECT_EQ(run({"lock", root / "Work"}).err,
              "Corvane has no password yet. Run corvane setup first.\n");

    Outcome setup = run({"--password-stdin", "setup"}, "correct horse\r\n");
    ASSERT_EQ(setup.status, 0) << setup.err;
    EXPECT_EQ(empty.load(), (StoredSecret{"correct horse", 1, std::nullopt, {}}));
    Outcome again = run({"--password-stdin", "setup"}, "another one\n");
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.err, "Corvane already has a password. Use corvane passwd to change it.\n");
    EXPECT_EQ(empty.load()->password, "correct horse");
}

TEST_F(CliPasswordTest, SetupAtATerminalHidesTheTypingAndAsksForTheAcknowledgement) {
    ScopedVariable fresh("CORVANE_KEYCHAIN_SERVICE", "corvane-test-setup:" + root.path());
    TerminalSession session({"setup"});
    ASSERT_TRUE(session.expect("Password: "));
    session.type("short\n");
    ASSERT_TRUE(session.expect("Use at least 8 characters.\r\nPassword: "));
    session.type("sesame-street\n");
    ASSERT_TRUE(session.expect("Strength: fair\r\nConfirm password: "));
    session.type("sesame-streets\n");
    ASSERT_TRUE(session.expect("The passwords do not match.\r\nPassword: "));
    session.type("Sesame-Street-7\n");
    ASSERT_TRUE(session.expect("Strength: strong\r\nConfirm password: "));
    session.type("Sesame-Street-7\n");
    ASSERT_TRUE(
        session.expect("I understand there is no way to recover a forgotten password. [y/N] "));
    session.type("y\n");
    EXPECT_EQ(session.finish(), 0) << session.shown();
    EXPECT_EQ(session.shown().find("sesame"), std::string::npos) << "typing was echoed";
    EXPECT_EQ(PasswordStore().load()->password, "Sesame-Street-7");

    // Declining the acknowledgement saves nothing.
    ScopedVariable other("CORVANE_KEYCHAIN_SERVICE", "corvane-test-decline:" + root.path());
    TerminalSession declined({"setup"});
    for (const char* line : {"Sesame-Street-7\n", "Sesame-Street-7\n", "\n"}) {
        ASSERT_TRUE(declined.expect(": ") || declined.expect("] "));
        declined.type(line);
    }
    EXPECT_EQ(declined.finish(), 1);
    EXPECT_FALSE(PasswordStore().load());
}

TEST_F(CliPasswordTest, LockAsksNothingAndUnlockGivesUpAfterFiveWrongEntries) {
    writeFile(root / "Work/Data/note.txt", "note");
    TerminalSession lock({"lock", root / "Work/Data"});
    EXPECT_EQ(lock.finish(), 0) << lock.shown();
    EXPECT_EQ(lock.shown().find("assword"), std::string::npos) << lock.shown();

    TerminalSession unlock({"unlock", root / "Work/Data.corvlock"});
    ASSERT_TRUE(
        unlock.expect("Enter your Corvane password\r\n"
                      "Corvane needs your password to unlock Data\r\nPassword: "));
    // The support directory is free while the prompt waits.
    EXPECT_EQ(run({"list"}).status, 0);
    for (int attempt = 1; attempt <= 5; ++attempt) {
        unlock.type("nope\n");
        if (attempt < 5) {
            ASSERT_TRUE(unlock.expect("That password did not work. Try again.\r\nPassword: "))
                << attempt;
        }
    }
    EXPECT_EQ(unlock.finish(), 1);
    EXPECT_EQ(listed()[0]["state"], "locked");
    EXPECT_TRUE(testing::listing(root / "Support/Open").empty()) << "a mount point was left";

    TerminalSession right({"unlock", root / "Work/Data.corvlock"});
    ASSERT_TRUE(right.expect("Password: "));
    right.type("nope\n");
    ASSERT_TRUE(right.expect("Try again.\r\nPassword: "));
    right.type("pw\n");
    EXPECT_EQ(right.finish(), 0) << right.shown();
    EXPECT_EQ(listed()[0]["state"], "open");
}

TEST_F(CliPasswordTest, AnItemUnderAnEarlierPasswordOpensWithItsCandidatesOrWhatTheUserTypes) {
    std::string first = lockedFolder("First");
    // The record moves on twice; "pw" stays among the candidates.
    store.save(StoredSecret{"pw", 1, std::nullopt, {}}.changing("second-pw").changing("third-pw"));
    Outcome candidates = run({"--password-stdin", "unlock", first}, "third-pw\n");
    EXPECT_EQ(candidates.status, 0) << candidates.err;
    EXPECT_EQ(run({"lock-now", "--all"}).status, 0);

    // An item locked with a password the record never held: only its own password opens it.
    writeFile(root / "Work/Stray/note.txt", "stray");
    Locker engine(root / "Support", root / "Home", std::nullopt, std::make_shared<GocryptfsTool>());
    engine.lock(root / "Work/Stray", "stray-pw", 1);
    std::string stray = root / "Work/Stray.corvlock";
    Outcome noSecondLine = run({"--password-stdin", "unlock", stray}, "third-pw\n");
    EXPECT_EQ(noSecondLine.status, 1);
    EXPECT_TRUE(noSecondLine.err.ends_with(
        "Stray could not be updated yet. Corvane will try again next time it opens.\n" +
        CorvaneError::wrongPassword().errorDescription() + "\n"))
        << "First moved to the current password with an earlier one; " << noSecondLine.err;
    Outcome secondLine = run({"--password-stdin", "unlock", stray}, "third-pw\nstray-pw\n");
    EXPECT_EQ(secondLine.status, 0) << secondLine.err;
    EXPECT_EQ(readFile(secondLine.out.substr(0, secondLine.out.size() - 1) + "/note.txt"), "stray");
    EXPECT_EQ(run({"lock-now", "--all"}).status, 0);

    TerminalSession asked({"unlock", stray});
    ASSERT_TRUE(asked.expect("Password: "));
    asked.type("third-pw\n");
    ASSERT_TRUE(
        asked.expect("This item uses a different password\r\n"
                     "Enter the password it was locked with.\r\nPassword: "));
    EXPECT_EQ(run({"list"}).status, 0) << "the support directory was held during the question";
    asked.type("wrong\n");
    ASSERT_TRUE(asked.expect("Enter the password it was locked with.\r\nPassword: "));
    asked.type("stray-pw\n");
    EXPECT_EQ(asked.finish(), 0) << asked.shown();
}

TEST_F(CliPasswordTest, PasswordChangeMovesEveryItemAndAnUnreachableOneLater) {
    std::vector<std::string> items = {lockedFolder("A"), lockedFolder("B"), lockedFolder("C")};
    const std::pair<std::string, std::string> refusals[] = {
        {"pw\nshort\n", "Use at least 8 characters.\n"},
        {"pw\n\n", "The password is empty.\n"},
        {"wrong\nlong enough\n", "Your current password is not correct.\n"},
    };
    for (const auto& [input, err] : refusals) {
        Outcome refused = run({"--password-stdin", "passwd"}, input);
        EXPECT_EQ(refused.status, 1) << err;
        EXPECT_EQ(refused.err, err);
    }
    EXPECT_EQ(run({"--password-stdin", "unlock", items[0]}).status, 0);
    Outcome open = run({"--password-stdin", "passwd"}, "pw\nlong enough\n");
    EXPECT_EQ(open.err, "Lock every unlocked item first.\n");
    EXPECT_EQ(store.load()->password, "pw") << "saved before the refusal";
    EXPECT_EQ(run({"lock-now", "--all"}).status, 0);

    // C is out of reach during the change.
    std::filesystem::rename(items[2], root / "Elsewhere.corvlock");
    TerminalSession change({"passwd"});
    for (const char* line : {"pw\n", "long enough\n", "long enough\n"}) {
        ASSERT_TRUE(change.expect("password: "));
        change.type(line);
    }
    ASSERT_TRUE(change.expect("Updating A…\r\nUpdating B…\r\nUpdating C…\r\n"));
    ASSERT_TRUE(
        change.expect("Your password was changed.\r\n"
                      "C could not be updated yet. Corvane will try again next time it "
                      "opens.\r\n"));
    EXPECT_EQ(change.finish(), 1);
    StoredSecret changed = *store.load();
    EXPECT_EQ(changed, (StoredSecret{"long enough", 2, "pw", {"pw"}}));
    nlohmann::json rows = listed();
    EXPECT_EQ(rows[0]["passwordGeneration"], 2);
    EXPECT_EQ(rows[2]["passwordGeneration"], 1);
    EXPECT_EQ(rows[2]["found"], false);
    EXPECT_EQ(rows[2]["needsPasswordUpdate"], true);
    std::string table = run({"list"}).out;
    EXPECT_NE(table.find("C     locked, Needs password update  9 bytes  Can't find this item\n"),
              std::string::npos)
        << table;
    Outcome stillMoving = run({"--password-stdin", "passwd"}, "long enough\nlonger still\n");
    EXPECT_EQ(stillMoving.err,
              "C could not be updated yet. Corvane will try again next time it opens.\n" +
                  PasswordRules::stillMigratingMessage({"C"}) + "\n");

    // C comes back while A is open: closing A lets the update finish, the old password leaves
    // the record, and nothing asks for the lock just done.
    EXPECT_EQ(run({"--password-stdin", "unlock", items[0]}, "long enough\n").status, 0);
    std::filesystem::rename(root / "Elsewhere.corvlock", items[2]);
    Outcome lockAll = run({"lock-now", "--all"});
    EXPECT_EQ(lockAll.status, 0) << lockAll.err;
    EXPECT_EQ(lockAll.err.find("Lock every unlocked item"), std::string::npos) << lockAll.err;
    EXPECT_EQ(listed()[2]["passwordGeneration"], 2);
    EXPECT_EQ(store.load(), changed.migrated());
    for (const auto& item : items) {
        Outcome unlock = run({"--password-stdin", "unlock", item}, "long enough\n");
        EXPECT_EQ(unlock.status, 0) << item << unlock.err;
    }
}

TEST_F(CliPasswordTest, AFingerprintStandsInForThePasswordUnlessTurnedOff) {
    std::string data = lockedFolder("Data");
    testing::PrivateSystemBus reader("match");
    TerminalSession touched({"unlock", data});
    ASSERT_TRUE(
        touched.expect("Touch the fingerprint reader, or press Enter to type your "
                       "password.\r\n"));
    EXPECT_EQ(touched.finish(), 0) << touched.shown();
    EXPECT_EQ(touched.shown().find("Password: "), std::string::npos);
    EXPECT_EQ(run({"lock-now", "--all"}).status, 0);

    EXPECT_EQ(run({"config", "fingerprint", "off"}).status, 0);
    EXPECT_EQ(run({"config"}).out, "idle-minutes 15\nfingerprint off\n");
    TerminalSession typed({"unlock", data});
    ASSERT_TRUE(typed.expect("Password: "));
    EXPECT_EQ(typed.shown().find("fingerprint"), std::string::npos);
    typed.type("pw\n");
    EXPECT_EQ(typed.finish(), 0) << typed.shown();

    nlohmann::json status = nlohmann::json::parse(run({"status", "--json"}).out);
    EXPECT_EQ(status["setupDone"], true);
    EXPECT_EQ(status["keyringReachable"], true);
    EXPECT_EQ(status["fingerprintAvailable"], true);
    EXPECT_EQ(status["fingerprintEnabled"], false);
    EXPECT_EQ(status["openItems"], 1);
    EXPECT_EQ(status["gocryptfsUsable"], true);
}

TEST_F(CliPasswordTest, WithoutAKeyringEveryPasswordCommandSaysWhatToStart) {
    std::string data = lockedFolder("Data");
    ScopedVariable noBus("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + root / "no-session-bus");
    const std::string sentence = *PasswordStore::unavailableReason();
    for (const auto& words : {std::vector<std::string>{"lock", root / "Work"},
                              {"--password-stdin", "unlock", data},
                              {"--password-stdin", "setup"},
                              {"--password-stdin", "passwd"}}) {
        Outcome refused = run(words, "pw\nlong enough\n");
        EXPECT_EQ(refused.status, 1) << words[1];
        EXPECT_EQ(refused.err, sentence + "\n") << words[1];
    }
    EXPECT_EQ(nlohmann::json::parse(run({"status", "--json"}).out)["keyringReachable"], false);
}

TEST_F(CliPasswordTest, ForgetAndLocateChangeOnlyTheList) {
    std::string data = lockedFolder("Data");
    std::string id = listed()[0]["id"];
    Outcome forget = run({"forget", "--yes", data});
    EXPECT_EQ(forget.out, "Forgot Data.\n");
    EXPECT_EQ(listed().size(), 0u);
    EXPECT_TRUE(std::filesystem::exists(data + "/gocryptfs.conf"));

    Outcome locate = run({"locate", data});
    EXPECT_EQ(locate.out, "Data is listed again.\n") << locate.err;
    EXPECT_EQ(listed()[0]["path"], data);
    EXPECT_EQ(run({"--password-stdin", "unlock", data}).status, 0);
    EXPECT_EQ(run({"lock-now", "--all"}).status, 0);

    // A lost item takes its place again, under its own id.
    std::string relisted = listed()[0]["id"];
    std::filesystem::rename(data, root / "Moved.corvlock");
    EXPECT_EQ(run({"locate", root / "Work/Nothing.corvlock"}).status, 1);
    EXPECT_EQ(run({"locate", "--id", relisted, root / "Moved.corvlock"}).status, 0);
    ASSERT_EQ(listed().size(), 1u);
    EXPECT_EQ(listed()[0]["id"], relisted);
    EXPECT_EQ(listed()[0]["path"], root / "Moved.corvlock");
    EXPECT_EQ(run({"forget", "--yes", relisted}).status, 0);
    EXPECT_EQ(run({"forget", "--yes", relisted}).err, "Corvane does not list " + relisted + ".\n");
}

TEST_F(CliPasswordTest, ControlCharactersInNamesNeverReachTheTerminalRaw) {
    std::string name = "Evil\x1b[31m\nName";
    lockedFolder(name);
    std::string table = run({"list"}).out;
    EXPECT_EQ(table.find('\x1b'), std::string::npos);
    EXPECT_NE(table.find("Evil\\x1b[31m\\nName"), std::string::npos) << table;
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 2) << "one line per row";

    TerminalSession shown({"lock-now", root / ("Work/" + name + ".corvlock")});
    EXPECT_EQ(shown.finish(), 1);
    EXPECT_EQ(shown.shown().find('\x1b'), std::string::npos) << shown.shown();
}

}  // namespace
}  // namespace corvane
