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
constexpr auto application = SenderCheck::application;
constexpr auto menu = SenderCheck::fileManagerMenu;
constexpr auto endToEnd = SenderCheck::endToEndTest;

std::string copyProgram(const std::string& from, const std::string& to, mode_t mode = 0755) {
    std::filesystem::create_directories(std::filesystem::path(to).parent_path());
    std::filesystem::copy_file(from, to);
    chmod(to.c_str(), mode);
    return to;
}

std::string ownExecutable() {
    return std::filesystem::read_symlink("/proc/self/exe");
}

// The application's folder with `corvane` beside it, and programs that stand in for a file
// manager (its name has parentheses and spaces, as a command name may), a launcher and a terminal.
struct Installation {
    TempDir root;
    std::string app = copyProgram("/usr/bin/sleep", root / "bin/corvane-app");
    std::string command = copyProgram("/usr/bin/sleep", root / "bin/corvane");
    std::string fileManager = copyProgram("/usr/bin/dash", root / "fm/files) 1 (x");
    std::string launcher = copyProgram("/usr/bin/dash", root / "fm/kioexec");
    std::string terminal = copyProgram("/usr/bin/dash", root / "fm/terminal");

    Facts facts() const { return {app, {"/usr/bin/nautilus", fileManager}, false, geteuid()}; }
};

// `program` started by a chain of shells, outermost first, each staying the parent of the next;
// with no shells, this test process is its parent. Ending the program lets every level end and
// be reaped by the one above it.
class ProcessChain {
public:
    ProcessChain(const std::vector<std::string>& shells, const std::string& program) {
        std::vector<std::string> argv;
        for (const auto& shell : shells) argv.insert(argv.end(), {shell, "-c", "\"$@\"; :", shell});
        // The last shell reports its id and becomes the program.
        argv.insert(argv.end(),
                    {"/bin/sh", "-c", "echo $$ >&3; exec \"$@\" 3>&-", "sh", program, "60"});
        int fds[2];
        if (pipe(fds) != 0) return;
        top_ = fork();
        if (top_ == 0) {
            setpgid(0, 0);
            dup2(fds[1], 3);
            // Shells report the program's end by signal; that is expected here.
            int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
            dup2(null, 2);
            std::vector<char*> args;
            for (auto& arg : argv) args.push_back(arg.data());
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
        close(fds[1]);
        std::string text;
        pollfd readable{fds[0], POLLIN, 0};
        char buffer[32];
        while (text.find('\n') == std::string::npos && poll(&readable, 1, 5000) > 0) {
            ssize_t n = read(fds[0], buffer, sizeof buffer);
            if (n <= 0) break;
            text.append(buffer, std::size_t(n));
        }
        close(fds[0]);
        pid_ = std::atoi(text.c_str());
        // Until the exec has happened, the process still runs the shell.
        for (int i = 0; pid_ > 0 && i < 500 && !runs(program); ++i) usleep(10'000);
    }
    ~ProcessChain() {
        if (pid_ > 0)
            kill(pid_, SIGKILL);
        else if (top_ > 0)
            kill(-top_, SIGKILL);
        if (top_ > 0) waitpid(top_, nullptr, 0);
    }
    ProcessChain(const ProcessChain&) = delete;
    ProcessChain& operator=(const ProcessChain&) = delete;

    pid_t pid() const { return pid_; }

private:
    bool runs(const std::string& program) const {
        struct stat running {
        }, wanted{};
        return stat(("/proc/" + std::to_string(pid_) + "/exe").c_str(), &running) == 0 &&
               stat(program.c_str(), &wanted) == 0 && running.st_ino == wanted.st_ino;
    }

    pid_t top_ = -1;
    pid_t pid_ = -1;
};

std::optional<std::string> senderOf(const std::vector<std::string>& shells,
                                    const std::string& program, const Facts& facts) {
    ProcessChain chain(shells, program);
    EXPECT_GT(chain.pid(), 0) << program;
    return SenderCheck::senderIdentifier(chain.pid(), facts);
}

TEST(SenderCheckTest, TheApplicationIsRecognisedByItsProgramFileNotByItsPath) {
    Installation installed;
    std::filesystem::create_symlink(ownExecutable(), installed.root / "link-to-self");
    Facts self = installed.facts();
    self.ownExecutable = ownExecutable();
    Facts throughLink = self;
    throughLink.ownExecutable = installed.root / "link-to-self";
    Facts none = self;
    none.ownExecutable.clear();

    EXPECT_EQ(SenderCheck::senderIdentifier(getpid(), self), application);
    EXPECT_EQ(SenderCheck::senderIdentifier(getpid(), throughLink), application);
    EXPECT_EQ(SenderCheck::senderIdentifier(getpid(), SenderCheck::Facts::current()), application);
    EXPECT_EQ(SenderCheck::senderIdentifier(getpid(), none), std::nullopt);
    // Another process running the application's file, and one running an identical copy of it.
    EXPECT_EQ(senderOf({}, installed.app, installed.facts()), application);
    EXPECT_EQ(senderOf({}, "/usr/bin/sleep", installed.facts()), std::nullopt);
}

TEST(SenderCheckTest, TheInstalledCommandCountsOnlyWhenAFileManagerStartedIt) {
    Installation installed;
    const std::string fm = installed.fileManager, launcher = installed.launcher;
    struct {
        const char* started;
        std::vector<std::string> shells;
        bool fromMenu;
    } cases[] = {
        {"by the file manager", {fm}, true},
        {"through three launchers", {fm, "/bin/sh", launcher, "/bin/bash"}, true},
        {"through four launchers", {fm, "/bin/sh", "/bin/sh", launcher, "/bin/bash"}, false},
        {"from a terminal's shell", {installed.terminal, "/bin/sh"}, false},
        {"by a script run from here", {"/bin/sh"}, false},
        {"by this test", {}, false},
    };
    for (const auto& each : cases) {
        auto expected = each.fromMenu ? std::optional<std::string>(menu) : std::nullopt;
        EXPECT_EQ(senderOf(each.shells, installed.command, installed.facts()), expected)
            << each.started;
    }
}

TEST(SenderCheckTest, TheCommandMustBeTheFileBesideTheApplicationThatOnlyItsOwnerCanChange) {
    bool root = geteuid() == 0;
    enum class Change {
        none,
        groupWritable,
        otherWritable,
        otherOwner,
        otherOwnerIsUs,
        elsewhere,
        otherName,
        linked
    };
    struct {
        Change change;
        bool fromMenu;
    } cases[] = {
        {Change::none, true},        {Change::groupWritable, false}, {Change::otherWritable, false},
        {Change::otherOwner, false}, {Change::otherOwnerIsUs, true}, {Change::elsewhere, false},
        {Change::otherName, false},  {Change::linked, false},
    };
    for (const auto& each : cases) {
        if (!root && (each.change == Change::otherOwner || each.change == Change::otherOwnerIsUs))
            continue;
        Installation installed;
        Facts facts = installed.facts();
        std::string program = installed.command;
        switch (each.change) {
            case Change::none: break;
            case Change::groupWritable: chmod(program.c_str(), 0775); break;
            case Change::otherWritable: chmod(program.c_str(), 0757); break;
            case Change::otherOwner: ASSERT_EQ(chown(program.c_str(), kNobody, kNobody), 0); break;
            case Change::otherOwnerIsUs:
                ASSERT_EQ(chown(program.c_str(), kNobody, kNobody), 0);
                facts.uid = kNobody;
                break;
            case Change::elsewhere:
                program = copyProgram(installed.command, installed.root / "other/corvane");
                break;
            case Change::otherName:
                program = copyProgram(installed.command, installed.root / "bin/corvane-tool");
                break;
            case Change::linked:
                program = copyProgram(installed.command, installed.root / "other/corvane");
                std::filesystem::remove(installed.command);
                std::filesystem::create_symlink(program, installed.command);
                break;
        }
        auto expected = each.fromMenu ? std::optional<std::string>(menu) : std::nullopt;
        EXPECT_EQ(senderOf({installed.fileManager}, program, facts), expected) << int(each.change);
    }
}

TEST(SenderCheckTest, TheEndToEndProgramCountsOnlyUnderTheTestOverride) {
    Installation installed;
    std::string program = copyProgram("/usr/bin/sleep", installed.root / "e2e/corvane-e2e");
    Facts facts = installed.facts();
    EXPECT_EQ(senderOf({}, program, facts), std::nullopt);
    facts.testOverride = true;
    EXPECT_EQ(senderOf({}, program, facts), endToEnd);
    EXPECT_EQ(senderOf({}, installed.command, facts), std::nullopt);
}

TEST(SenderCheckTest, AProcessThatIsGoneOrNeverWasIsUnknown) {
    Facts facts = Facts::current();
    pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    for (pid_t pid : {child, pid_t(0), pid_t(-1), pid_t(1 << 30)})
        EXPECT_EQ(SenderCheck::senderIdentifier(pid, facts), std::nullopt) << pid;
}

}  // namespace
}  // namespace corvane::testing
