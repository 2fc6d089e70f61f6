// The sender check against real processes: copies of small system programs stand in for the
// application, the `corvane` beside it, file managers and launchers, started through real shells.
#include <gtest/gtest.h>
#include <poll.h>

#include <filesystem>

#include "Commands/SenderCheck.h"
#include "TestSupport.h"

namespace corvane::testing {
namespace {

using Facts = SenderCheck::Facts;
using Sender = std::optional<std::string>;
const Sender application(SenderCheck::application), menu(SenderCheck::fileManagerMenu),
    endToEnd(SenderCheck::endToEndTest), unknown;

std::string copyProgram(const std::string& from, const std::string& to) {
    std::filesystem::create_directories(std::filesystem::path(to).parent_path());
    std::filesystem::copy_file(from, to);
    chmod(to.c_str(), 0755);
    return to;
}

// The application's folder with `corvane` beside it, and shells standing in for a file manager
// (named with parentheses and spaces, as a command name may be), a launcher and a terminal.
struct Installation {
    TempDir root;
    std::string app = copyProgram("/usr/bin/sleep", root / "bin/corvane-app");
    std::string command = copyProgram("/usr/bin/sleep", root / "bin/corvane");
    std::string fileManager = copyProgram("/usr/bin/dash", root / "fm/files) 1 (x");
    std::string launcher = copyProgram("/usr/bin/dash", root / "fm/kioexec");
    std::string terminal = copyProgram("/usr/bin/dash", root / "fm/terminal");
    Facts facts{app, {"/usr/bin/nautilus", fileManager}, false, geteuid()};
};

// `program` started through `shells`, outermost first, each staying the parent of the next (with
// none, this process is its parent), with `environment` (NAME=VALUE) added to all of them; the
// sender it is taken for. Ending the program lets each level end and be reaped by the one above.
Sender senderOf(const std::vector<std::string>& shells, const std::string& program,
                const Facts& facts, std::string environment = "") {
    std::vector<std::string> argv;
    for (const auto& shell : shells) argv.insert(argv.end(), {shell, "-c", "\"$@\"; :", shell});
    argv.insert(argv.end(),
                {"/bin/sh", "-c", "echo $$ >&3; exec \"$@\" 3>&-", "sh", program, "60"});
    int fds[2];
    if (pipe(fds) != 0) return "no pipe";
    pid_t top = fork();
    if (top == 0) {
        dup2(fds[1], 3);
        // Shells report the program's end by a signal; expected here.
        dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), 2);
        if (!environment.empty()) putenv(environment.data());
        std::vector<char*> args;
        for (auto& arg : argv) args.push_back(arg.data());
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    close(fds[1]);
    char text[32] = {};
    pollfd readable{fds[0], POLLIN, 0};
    if (poll(&readable, 1, 5000) > 0) (void)!read(fds[0], text, sizeof text - 1);
    close(fds[0]);
    pid_t pid = std::atoi(text);
    // Until its exec, the process still runs the shell.
    struct stat running {
    }, wanted{};
    stat(program.c_str(), &wanted);
    for (int i = 0; pid > 0 && i < 500; ++i, usleep(10'000))
        if (stat(("/proc/" + std::to_string(pid) + "/exe").c_str(), &running) == 0 &&
            running.st_ino == wanted.st_ino)
            break;
    Sender sender = pid > 0 ? SenderCheck::senderIdentifier(pid, facts) : "no process";
    kill(pid > 0 ? pid : top, SIGKILL);
    waitpid(top, nullptr, 0);
    return sender;
}

TEST(SenderCheckTest, TheApplicationIsKnownByItsProgramFileNotByItsPathOrContents) {
    Installation installed;
    std::string self = std::filesystem::read_symlink("/proc/self/exe");
    std::filesystem::create_symlink(self, installed.root / "link-to-self");
    for (const auto& [own, expected] : std::vector<std::pair<std::string, Sender>>{
             {self, application}, {installed.root / "link-to-self", application}, {"", unknown}})
        EXPECT_EQ(SenderCheck::senderIdentifier(getpid(), {own, {}, false, geteuid()}), expected)
            << own;
    EXPECT_EQ(SenderCheck::senderIdentifier(getpid(), Facts::current()), application);
    EXPECT_EQ(senderOf({}, installed.app, installed.facts), application);
    EXPECT_EQ(senderOf({}, "/usr/bin/sleep", installed.facts), unknown);
}

TEST(SenderCheckTest, TheInstalledCommandCountsOnlyWhenAFileManagerStartedIt) {
    Installation installed;
    const std::string fm = installed.fileManager, launcher = installed.launcher;
    struct {
        const char* startedBy;
        std::vector<std::string> shells;
        Sender expected;
        const char* environment = "";
    } cases[] = {
        {"the file manager", {fm}, menu},
        // Code loaded into the program could send anything in its name.
        {"the file manager, preloading", {fm}, unknown,
         "LD_PRELOAD=/lib/x86_64-linux-gnu/libm.so.6"},
        {"the file manager, auditing", {fm}, unknown, "LD_AUDIT=/nonexistent/audit.so"},
        {"three launchers", {fm, "/bin/sh", launcher, "/bin/bash"}, menu},
        {"four launchers", {fm, "/bin/sh", "/bin/sh", launcher, "/bin/bash"}, unknown},
        {"a terminal's shell", {installed.terminal, "/bin/sh"}, unknown},
        {"a script run from here", {"/bin/sh"}, unknown},
        {"this test", {}, unknown},
    };
    for (const auto& each : cases)
        EXPECT_EQ(senderOf(each.shells, installed.command, installed.facts, each.environment),
                  each.expected)
            << each.startedBy;
}

TEST(SenderCheckTest, TheCommandIsTheFileBesideTheApplicationThatOnlyItsOwnerCanChange) {
    // Each change is made to a fresh installation; it returns the program to start.
    using Change = std::function<std::string(Installation&)>;
    auto moved = [](const char* name) -> Change {
        return [name](Installation& at) { return copyProgram(at.command, at.root / name); };
    };
    auto owned = [](uid_t us) -> Change {
        return [us](Installation& at) {
            at.facts.uid = us;
            return chown(at.command.c_str(), kNobody, kNobody) == 0 ? at.command : "";
        };
    };
    struct {
        const char* change;
        Change make;
        Sender expected;
    } cases[] = {
        {"none", [](Installation& at) { return at.command; }, menu},
        {"group-writable",
         [](Installation& at) { return chmod(at.command.c_str(), 0775), at.command; }, unknown},
        {"other-writable",
         [](Installation& at) { return chmod(at.command.c_str(), 0757), at.command; }, unknown},
        {"another user's", owned(0), unknown},
        {"the user's", owned(kNobody), menu},
        {"elsewhere", moved("other/corvane"), unknown},
        {"another name", moved("bin/corvane-tool"), unknown},
        {"a link to elsewhere",
         [&](Installation& at) {
             auto target = moved("other/corvane")(at);
             std::filesystem::remove(at.command);
             std::filesystem::create_symlink(target, at.command);
             return target;
         },
         unknown},
    };
    for (const auto& each : cases) {
        Installation installed;
        std::string program = each.make(installed);
        if (geteuid() != 0 && program.empty()) continue;  // only root gives files away
        EXPECT_EQ(senderOf({installed.fileManager}, program, installed.facts), each.expected)
            << each.change;
    }
}

TEST(SenderCheckTest, TheEndToEndProgramCountsOnlyUnderTheTestOverride) {
    Installation installed;
    std::string program = copyProgram("/usr/bin/sleep", installed.root / "e2e/corvane-e2e");
    EXPECT_EQ(senderOf({}, program, installed.facts), unknown);
    installed.facts.testOverride = true;
    EXPECT_EQ(senderOf({}, program, installed.facts), endToEnd);
    EXPECT_EQ(senderOf({}, installed.command, installed.facts), unknown);
}

TEST(SenderCheckTest, AProcessThatIsGoneOrNeverWasIsUnknown) {
    pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    for (pid_t pid : {child, pid_t(0), pid_t(-1), pid_t(1 << 30)})
        EXPECT_EQ(SenderCheck::senderIdentifier(pid, Facts::current()), unknown) << pid;
}

}  // namespace
}  // namespace corvane::testing
