// The application's system services against stand-in notification and file-manager services on a
// private bus, scripts for the programs started, files under fake XDG folders and real sockets.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <QElapsedTimer>
#include <atomic>
#include <cstring>
#include <thread>

#include "AutoStart.h"
#include "BusServiceStandIn.h"
#include "DBusNotifier.h"
#include "EventLoop.h"
#include "InstanceChannel.h"
#include "PrivateBus.h"
#include "Records/SharedState.h"
#include "SelfTest.h"
#include "SystemChecks.h"
#include "TestSupport.h"
#include "XdgDesktopShell.h"

namespace corvane::app {
namespace {

using namespace corvane::testing;
using namespace std::chrono_literals;

// The application's end of a private bus, closed at the end of the test.
struct BusClient {
    explicit BusClient(const PrivateBus& bus)
        : name(QStringLiteral("client-%1").arg(reinterpret_cast<quintptr>(this))),
          connection(QDBusConnection::connectToBus(QString::fromStdString(bus.address()), name)) {}
    ~BusClient() {
        connection = QDBusConnection(QString());
        QDBusConnection::disconnectFromBus(name);
    }
    QString name;
    QDBusConnection connection;
};

// A script under `folder` that appends its arguments, one a line, to `log`.
std::string recordingScript(const TempDir& folder, const std::string& name, const std::string& log,
                            const std::string& then = "exit 0") {
    auto path = folder / name;
    writeFile(path, "#!/bin/sh\nprintf '%s\\n' \"$@\" >> '" + log + "'\n" + then + "\n");
    chmod(path.c_str(), 0755);
    return path;
}

// --- Notifications ---

struct NotificationServer {
    explicit NotificationServer(const PrivateBus& bus, bool markup = true)
        : service(bus.address(), {QStringLiteral("org.freedesktop.Notifications")},
                  QStringLiteral("/org/freedesktop/Notifications"),
                  [this, markup](const QDBusMessage& call) -> std::optional<QVariantList> {
                      if (call.member() == QStringLiteral("GetCapabilities"))
                          return QVariantList{markup ? QStringList{"body", "body-markup"}
                                                     : QStringList{"body"}};
                      return QVariantList{QVariant::fromValue(++lastId)};
                  }) {
        EXPECT_TRUE(bus.waitForName("org.freedesktop.Notifications"));
    }
    std::vector<QDBusMessage> notices() const { return service.calls("Notify"); }
    bool waitFor(std::size_t count) const {
        return spinUntil([&] { return notices().size() >= count; }, 5s);
    }
    // Each notice's argument at `index`, as text.
    QStringList field(int index) const {
        QStringList values;
        for (const auto& notice : notices()) values << notice.arguments().value(index).toString();
        return values;
    }

    uint lastId = 0;
    BusServiceStandIn service;
};

// A notifier on a private bus, with or without a server there.
struct Notifying {
    PrivateBus bus;
    BusClient client{bus};
    DBusNotifier notifier{client.connection};
};

TEST(DBusNotifierTest, WithoutServerNothingWaitsAndOnceThereEachIdentifiedNoticeReplacesItsLast) {
    Notifying session;
    DBusNotifier offline(QDBusConnection(QStringLiteral("no-such-connection")));
    QElapsedTimer timer;
    timer.start();
    session.notifier.post("Locked", "Nobody sees this.");
    session.notifier.postIfAllowed("idle", "Idle", "Nobody sees this either.");
    offline.post("Locked", "Nor this.");
    EXPECT_LT(timer.elapsed(), 200);
    spinFor(300ms);

    // Plain notices are new; the first "idle" one too, though one was tried before the server.
    NotificationServer server(session.bus);
    // A burst before the server has answered anything: the first goes out, the newest follows
    // the reply in its place, the one between is dropped.
    for (const char* body : {"1", "2", "3"})
        session.notifier.postIfAllowed("progress", "Locking", body);
    ASSERT_TRUE(server.waitFor(2));
    session.notifier.post("Locked", "Taxes is locked.");
    session.notifier.post("Locked", "Photos is locked.");
    ASSERT_TRUE(server.waitFor(4));
    for (std::size_t i = 0; const char* identifier : {"idle", "idle", "other", "idle"}) {
        session.notifier.postIfAllowed(identifier, "Title", std::to_string(i++));
        ASSERT_TRUE(server.waitFor(4 + i));
    }
    spinFor(300ms);

    // The stand-in gives every notice a new id, counting from one.
    EXPECT_EQ(server.field(1), (QStringList{"0", "1", "0", "0", "0", "5", "0", "6"}));
    EXPECT_EQ(server.field(4),
              (QStringList{"1", "3", "Taxes is locked.", "Photos is locked.", "0", "1", "2", "3"}));
    auto arguments = server.notices()[2].arguments();
    ASSERT_EQ(arguments.size(), 8);
    EXPECT_EQ((QStringList{arguments[0].toString(), arguments[2].toString(),
                           arguments[3].toString(), arguments[7].toString()}),
              (QStringList{"Corvane", "corvane", "Locked", "-1"}));
    EXPECT_TRUE(arguments[5].toStringList().isEmpty());
}

TEST(DBusNotifierTest, BodyIsEscapedOnlyForServersThatReadMarkup) {
    for (const auto& [markup, body] : {std::pair(true, "Tom &amp; Jerry &lt;2&gt; is locked."),
                                       std::pair(false, "Tom & Jerry <2> is locked.")}) {
        Notifying session;
        NotificationServer server(session.bus, markup);
        session.notifier.post("Tom & Jerry", "Tom & Jerry <2> is locked.");
        ASSERT_TRUE(server.waitFor(1));
        EXPECT_EQ(server.field(3), QStringList{"Tom & Jerry"});
        EXPECT_EQ(server.field(4), QStringList{body}) << markup;
    }
}

// --- File manager ---

TEST(XdgDesktopShellTest, OpenTakesAnyNameAndRevealUsesTheFileManagerElseOpensTheFolder) {
    PrivateBus bus;
    BusClient client(bus);
    TempDir folder;
    auto log = folder / "log";
    XdgDesktopShell shell(client.connection,
                          QString::fromStdString(recordingScript(folder, "opener", log)));
    // Each opened in turn, nothing on the bus answering for the file manager.
    for (const auto& [opened, uri] :
         {std::pair(true, "/Tax%FF"), std::pair(false, "/My%20Files")}) {
        opened ? shell.open(folder / "Tax\xff") : shell.reveal({folder / "My Files/report 1.pdf"});
        ASSERT_TRUE(spinUntil([&] { return !readFile(log).empty(); }, 5s));
        EXPECT_EQ(readFile(log), "file://" + folder.path() + uri + "\n");
        std::filesystem::remove(log);
    }

    BusServiceStandIn fileManager(bus.address(), {QStringLiteral("org.freedesktop.FileManager1")},
                                  QStringLiteral("/org/freedesktop/FileManager1"),
                                  [](const QDBusMessage&) { return QVariantList(); });
    ASSERT_TRUE(bus.waitForName("org.freedesktop.FileManager1"));
    const std::pair<std::string, QString> cases[] = {
        {"/home/ann/Tax Files", "file:///home/ann/Tax%20Files"},
        {"/home/ann/100%.txt", "file:///home/ann/100%25.txt"},
        {"/home/ann/#1 draft", "file:///home/ann/%231%20draft"},
        {"/home/ann/a?b&c=d;e", "file:///home/ann/a%3Fb%26c%3Dd%3Be"},
        {"/home/ann/caf\xc3\xa9", "file:///home/ann/caf%C3%A9"},
        {"/home/ann/raw\xff\xfe\x01", "file:///home/ann/raw%FF%FE%01"},
        {"/home/ann/-n", "file:///home/ann/-n"},
    };
    std::vector<std::string> paths;
    QStringList expected;
    for (const auto& [path, uri] : cases) {
        paths.push_back(path);
        expected << uri;
    }
    shell.reveal(paths);
    ASSERT_TRUE(spinUntil([&] { return !fileManager.calls("ShowItems").empty(); }, 5s));
    auto arguments = fileManager.calls("ShowItems")[0].arguments();
    ASSERT_EQ(arguments.size(), 2);
    EXPECT_EQ(arguments[0].toStringList(), expected);
    EXPECT_EQ(arguments[1].toString(), "");
    spinFor(300ms);
    EXPECT_FALSE(std::filesystem::exists(log)) << "the folder was opened as well";
}

// --- System checks ---

TEST(SystemChecksTest, MenuCommandsRunCorvaneIntegrateAndReportItsFirstLine) {
    // The stand-in program's last line (none: no program), then why it failed (none: it did not).
    const std::pair<std::optional<std::string>, std::optional<std::string>> cases[] = {
        {"exit 0", std::nullopt},
        {"printf '\\n  nautilus-python is missing\\nsee the manual\\n'; exit 3",
         "nautilus-python is missing"},
        {"exit 4", "the corvane command ended with status 4."},
        {std::nullopt,
         "the corvane command is not installed beside the application or on the search path."},
    };
    for (const auto& [then, why] : cases) {
        TempDir folder;
        std::filesystem::create_directory(folder / "bin");
        ScopedVariable path("PATH", folder / "bin");
        if (then) recordingScript(folder, "bin/corvane", folder / "log", *then);
        auto failure = [why = why](const std::string& what) {
            return why ? std::optional("Corvane could not " + what + " the file manager: " + *why)
                       : std::nullopt;
        };
        EXPECT_EQ(SystemChecks::enableFileManagerMenu(), failure("add its menu to"));
        EXPECT_EQ(SystemChecks::disableFileManagerMenu(), failure("remove its menu from"));
        EXPECT_EQ(readFile(folder / "log"), then ? "integrate\nintegrate\n--remove\n" : "");
    }
}

TEST(SystemChecksTest, MenuCountsAsEnabledWhenAnExtensionFileIsInstalled) {
    // XDG_DATA_HOME (none, under the home folder or as it is), what is installed under the home
    // folder, whether as a folder, and whether the menu counts as enabled.
    const std::tuple<const char*, bool, std::string, bool, bool> cases[] = {
        {"data", true, "", false, false},
        {"data", true, "data/nautilus-python/extensions/corvane.py", false, true},
        {"data", true, "data/nemo/actions/corvane-lock.nemo_action", false, true},
        {"data", true, "data/nautilus-python/extensions/corvane.py", true, false},
        {nullptr, false, ".local/share/nemo/actions/corvane-lock.nemo_action", false, true},
        // A relative value is ignored by the XDG rules.
        {"data", false, "data/nemo/actions/corvane-lock.nemo_action", false, false},
    };
    for (const auto& [variable, underHome, installed, asFolder, enabled] : cases) {
        TempDir home;
        ScopedVariable homeVariable("HOME", home.path());
        ScopedVariable data(
            "XDG_DATA_HOME",
            variable ? std::optional(underHome ? home / variable : variable) : std::nullopt);
        if (asFolder)
            std::filesystem::create_directories(home / installed);
        else if (!installed.empty())
            writeFile(home / installed, "# menu\n");
        EXPECT_EQ(SystemChecks::fileManagerMenuEnabled(), enabled) << installed;
    }
}

// --- Start at login ---

const std::string kEntryHeader = "[Desktop Entry]\nType=Application\n";

// The entry Corvane writes to start `exec` (the Exec value's program), or to hide the system's.
std::string ourEntry(const std::string& exec, bool hidden = false) {
    return kEntryHeader + "Name=Corvane\nExec=" + exec + " --background\nIcon=corvane\n" +
           (hidden ? "Hidden=true\n" : "X-GNOME-Autostart-enabled=true\nNoDisplay=false\n");
}

TEST(AutoStartTest, EntryStartsTheProgramWithItsNameQuotedAndIsRemovedAgain) {
    const std::pair<std::string, std::string> cases[] = {
        {"/usr/bin/corvane-app", "/usr/bin/corvane-app"},
        {"/opt/my apps/corvane-app", "\"/opt/my apps/corvane-app\""},
        {"/opt/100%/corvane-app", "/opt/100%%/corvane-app"},
        {"/opt/a\"b$c\\d/corvane-app", "\"/opt/a\\\\\"b\\\\$c\\\\\\\\d/corvane-app\""},
    };
    for (const auto& [program, exec] : cases) {
        SCOPED_TRACE(program);
        TempDir home;
        ScopedVariable config("XDG_CONFIG_HOME", home / "config");
        ScopedVariable system("XDG_CONFIG_DIRS", home / "xdg");
        ASSERT_EQ(AutoStart::entryPath(), home / "config/autostart/corvane.desktop");
        EXPECT_FALSE(AutoStart::isEnabled());
        ASSERT_EQ(AutoStart::setEnabled(true, program), std::nullopt);
        EXPECT_TRUE(AutoStart::isEnabled());
        EXPECT_EQ(readFile(AutoStart::entryPath()), ourEntry(exec));
        EXPECT_EQ(permissions(AutoStart::entryPath()), 0644u);
        // Removal finds the program again in what was written.
        EXPECT_EQ(AutoStart::setEnabled(false, program), std::nullopt);
        EXPECT_FALSE(std::filesystem::exists(AutoStart::entryPath()));
    }
}

TEST(AutoStartTest, LinkIsNeverFollowedAndANameThatIsNotTextIsRefused) {
    TempDir home;
    ScopedVariable config("XDG_CONFIG_HOME", std::nullopt);
    ScopedVariable homeVariable("HOME", home.path());
    ScopedVariable system("XDG_CONFIG_DIRS", home / "xdg");
    ASSERT_EQ(AutoStart::entryPath(), home / ".config/autostart/corvane.desktop");
    auto target = home / "elsewhere.desktop";
    writeFile(target, "[Desktop Entry]\nExec=corvane-app\n");
    std::filesystem::create_directories(home / ".config/autostart");
    std::filesystem::create_symlink(target, AutoStart::entryPath());

    EXPECT_FALSE(AutoStart::isEnabled());
    EXPECT_TRUE(AutoStart::setEnabled(false, "/usr/bin/corvane-app")
                    .value_or("")
                    .starts_with("Corvane could not change its start at login: "));
    EXPECT_TRUE(std::filesystem::is_symlink(AutoStart::entryPath()));
    EXPECT_TRUE(std::filesystem::exists(target));

    EXPECT_EQ(AutoStart::setEnabled(true, "/opt/\xff/corvane-app"),
              "Corvane cannot start at login from a folder whose name is not UTF-8 text.");
    // Enabling replaces the link itself with our entry; what it pointed to stays as it was.
    ASSERT_EQ(AutoStart::setEnabled(true, "/usr/bin/corvane-app"), std::nullopt);
    EXPECT_FALSE(std::filesystem::is_symlink(AutoStart::entryPath()));
    EXPECT_EQ(readFile(target), "[Desktop Entry]\nExec=corvane-app\n");
}

TEST(AutoStartTest, SystemEntryIsTheFirstRegularFileAmongTheConfigFolders) {
    TempDir root;
    for (std::string folder : {"a", "b", "c"})
        writeFile(root / folder + "/autostart/corvane.desktop", "[Desktop Entry]\n");
    std::filesystem::create_directories(root / "folder/autostart/corvane.desktop");
    std::filesystem::create_directories(root / "linked/autostart");
    std::filesystem::create_symlink(root / "c/autostart/corvane.desktop",
                                    root / "linked/autostart/corvane.desktop");
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        {root / "b" + ":" + root / "a", root / "b/autostart/corvane.desktop"},
        {root / "none:" + root / "a/", root / "a/autostart/corvane.desktop"},
        // Relative folders are ignored; so is a folder in the entry's place.
        {"a:" + root / "folder:" + root / "c", root / "c/autostart/corvane.desktop"},
        // Packages and administrators link entries: the link counts.
        {root / "linked", root / "linked/autostart/corvane.desktop"},
        {root / "none", std::nullopt},
    };
    for (const auto& [folders, found] : cases) {
        ScopedVariable variable("XDG_CONFIG_DIRS", folders);
        EXPECT_EQ(AutoStart::systemEntryPath(), found) << folders;
    }
    // Unset or empty: the system's own folder.
    const std::string standard = "/etc/xdg/autostart/corvane.desktop";
    for (auto unset : {std::optional<std::string>(), std::optional(std::string())}) {
        ScopedVariable variable("XDG_CONFIG_DIRS", unset);
        EXPECT_EQ(AutoStart::systemEntryPath(), std::filesystem::is_regular_file(standard)
                                                    ? std::optional(standard)
                                                    : std::nullopt);
    }
}

TEST(AutoStartTest, UserEntryOverridesTheSystemEntryBothWays) {
    const std::string& header = kEntryHeader;
    const std::string installed = header + "Exec=corvane-app --background\n",
                      hidden = header + "Exec=corvane-app\nHidden=true\n",
                      mine = header + "Exec=/opt/corvane-app\n",
                      theirs = header + "Exec=/usr/bin/backup-tool\n",
                      hides = ourEntry("corvane-app", true),
                      starts = ourEntry("/usr/bin/corvane-app");
    // The system's entry and the user's beforehand; switched on or off; enabled before; refused;
    // the user's entry and enabled after.
    using Entry = std::optional<std::string>;
    const std::tuple<Entry, Entry, bool, bool, bool, Entry, bool> cases[] = {
        // The package's entry alone starts us; off hides it for this user, on lifts that again.
        {installed, std::nullopt, false, true, false, hides, false},
        {installed, std::nullopt, true, true, false, std::nullopt, true},
        {installed, hidden, true, false, false, std::nullopt, true},
        {installed, hidden, false, false, false, hidden, false},
        // An entry of ours that is on stays on, and turning off hides the system's through it.
        {installed, mine, true, true, false, mine, true},
        {installed, mine, false, true, false, hides, false},
        // Someone else's entry under our name is refused when turning off, replaced when on.
        {installed, theirs, false, true, true, theirs, true},
        {installed, theirs + "Hidden=true\n", true, false, false, starts, true},
        // A system entry that is off or starts another program is no help: ours is written.
        {hidden, std::nullopt, true, false, false, starts, true},
        {header + "Exec=corvane-app\nX-GNOME-Autostart-enabled=false\n",
         header + "Exec=corvane-app\n", false, true, false, std::nullopt, false},
        {theirs, std::nullopt, true, true, false, starts, true},
        {theirs, std::nullopt, false, true, true, std::nullopt, true},
        // Without a system entry, the user's is read as it stands: removed when ours, else kept.
        {std::nullopt, header + "Exec=/usr/local/bin/corvane-app --hidden\n", false, true, false,
         std::nullopt, false},
        {std::nullopt, header + "Exec=corvane-app\nX-GNOME-Autostart-enabled=false\n", false, false,
         false, std::nullopt, false},
        {std::nullopt, "[Other]\nHidden=true\n" + header + "Exec = corvane-app\n", false, true,
         false, std::nullopt, false},
        {std::nullopt, header + "Exec=/usr/bin/not-corvane-app\n", false, true, true,
         header + "Exec=/usr/bin/not-corvane-app\n", true},
    };
    for (const auto& [system, user, turnOn, enabledBefore, refused, userAfter, enabledAfter] :
         cases) {
        TempDir home;
        ScopedVariable config("XDG_CONFIG_HOME", home / "config");
        ScopedVariable folders("XDG_CONFIG_DIRS", home / "empty:" + home / "xdg");
        auto userEntry = AutoStart::entryPath();
        auto systemEntry = home / "xdg/autostart/corvane.desktop";
        if (system) writeFile(systemEntry, *system);
        if (user) writeFile(userEntry, *user);
        SCOPED_TRACE(system.value_or("no system entry") + "| user: " + user.value_or("none") +
                     "| on: " + std::to_string(turnOn));
        EXPECT_EQ(AutoStart::isEnabled(), enabledBefore);
        // Whatever was asked, asking again changes nothing more.
        for (int time = 0; time < (refused ? 1 : 2); ++time) {
            EXPECT_EQ(AutoStart::setEnabled(turnOn, "/usr/bin/corvane-app"),
                      refused ? std::optional("Corvane left " + (user ? userEntry : systemEntry) +
                                              " in place: it starts another program.")
                              : std::nullopt);
            EXPECT_EQ(AutoStart::isEnabled(), enabledAfter);
            EXPECT_EQ(
                std::filesystem::exists(userEntry) ? Entry(readFile(userEntry)) : std::nullopt,
                userAfter);
        }
    }
}

// --- Single instance ---

struct RuntimeFolder {
    TempDir folder;
    ScopedVariable variable{"XDG_RUNTIME_DIR", folder.path()};
    std::string socket() const { return folder / "corvane/command.sock"; }
};

struct Received {
    explicit Received(InstanceChannel& channel) {
        QObject::connect(&channel, &InstanceChannel::messageReceived,
                         [this](const QByteArray& message, qint64 pid) {
                             messages.push_back(message);
                             pids.push_back(pid);
                         });
        QObject::connect(&channel, &InstanceChannel::showRequested, [this] { ++shows; });
    }
    bool waitFor(std::size_t count, std::chrono::milliseconds limit = 5s) const {
        return spinUntil([&] { return messages.size() >= count; }, limit);
    }
    std::vector<QByteArray> messages;
    std::vector<qint64> pids;
    int shows = 0;
};

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

// A socket connected to `path`; -1 when nobody listens there.
int connectTo(const std::string& path) {
    auto address = addressOf(path);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
    close(fd);
    return -1;
}

// Whether the channel has closed its end of `fd`, waiting up to `waitMs` for it.
bool closedByPeer(int fd, int waitMs = 0) {
    pollfd readable{fd, POLLIN, 0};
    char byte;
    return poll(&readable, 1, waitMs) > 0 && recv(fd, &byte, 1, MSG_DONTWAIT) <= 0;
}

// A runtime folder of the test's own and a channel there, not yet listening.
class InstanceChannelTest : public ::testing::Test {
protected:
    RuntimeFolder runtime;
    InstanceChannel channel;
    Received received{channel};
};

TEST_F(InstanceChannelTest, OneCopyListensAndLinesFromOurOwnUserAreDelivered) {
    {
        ScopedVariable unset("XDG_RUNTIME_DIR", std::nullopt);
        InstanceChannel nowhere;
        EXPECT_FALSE(nowhere.listen());
        EXPECT_FALSE(InstanceChannel::send("show", 200));
    }
    // Made earlier, looser, by the writer of the shared state.
    ASSERT_EQ(mkdir((runtime.folder / "corvane").c_str(), 0755), 0);
    EXPECT_FALSE(InstanceChannel::send("show", 200)) << "nobody listens yet";
    ASSERT_TRUE(channel.listen());
    EXPECT_EQ(permissions(runtime.folder / "corvane"), 0700u);
    EXPECT_EQ(permissions(runtime.socket()), 0600u);
    {
        InstanceChannel second;
        EXPECT_FALSE(second.listen());
    }

    // The second copy's end left the first listening.
    const QByteArray url = "corvane://lock?path=%2Fhome%2Fann%2FTax%20Files";
    ASSERT_TRUE(InstanceChannel::send("show", 1000));
    ASSERT_TRUE(InstanceChannel::send(url, 1000));
    ASSERT_TRUE(InstanceChannel::send(QByteArray(InstanceChannel::maximumMessage, 'a'), 1000));
    EXPECT_FALSE(InstanceChannel::send("two\nlines", 1000));
    ASSERT_TRUE(received.waitFor(3));
    EXPECT_EQ(received.messages[0], "show");
    EXPECT_EQ(received.messages[1], url);
    EXPECT_EQ(std::size_t(received.messages[2].size()), InstanceChannel::maximumMessage);
    EXPECT_EQ(received.pids[0], getpid());
    EXPECT_EQ(received.shows, 1);
}

// A sender that connects and then runs another program to write its line is not the one that
// connected: its line is dropped. One that stays itself is heard.
TEST_F(InstanceChannelTest, ASenderThatRunsAnotherProgramAfterConnectingIsNotHeard) {
    ASSERT_TRUE(channel.listen());
    for (const bool runsAnother : {true, false}) {
        int go[2];
        ASSERT_EQ(pipe2(go, O_CLOEXEC), 0);
        pid_t child = fork();
        if (child == 0) {
            close(go[1]);
            int fd = connectTo(runtime.socket());
            char byte;
            (void)!read(go[0], &byte, 1);  // once the channel has accepted it as it is now
            if (runsAnother) {
                dup2(fd, 3);
                execl("/bin/sh", "sh", "-c", "printf 'corvane://lock?path=%2Fa\\n' >&3; sleep 1",
                      nullptr);
            } else {
                (void)!write(fd, "corvane://lock?path=%2Fb\n", 25);
                sleep(1);
            }
            _exit(0);
        }
        close(go[0]);
        spinFor(500ms);
        close(go[1]);
        EXPECT_EQ(received.waitFor(1, 2s), !runsAnother) << runsAnother;
        waitpid(child, nullptr, 0);
    }
    EXPECT_EQ(received.messages, std::vector<QByteArray>{"corvane://lock?path=%2Fb"});
}

TEST(InstanceChannelTakeOverTest, OnlyASocketNobodyAnswersOnIsTakenOver) {
    enum Left { staleSocket, regularFile, link };
    for (Left left : {staleSocket, regularFile, link}) {
        RuntimeFolder runtime;
        ASSERT_EQ(mkdir((runtime.folder / "corvane").c_str(), 0700), 0);
        if (left == staleSocket) {
            auto address = addressOf(runtime.socket());
            int fd = socket(AF_UNIX, SOCK_STREAM, 0);
            ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
            close(fd);
        } else if (left == regularFile) {
            writeFile(runtime.socket(), "notes");
        } else {
            std::filesystem::create_symlink(runtime.folder / "elsewhere", runtime.socket());
        }
        InstanceChannel channel;
        Received received(channel);
        EXPECT_EQ(channel.listen(), left == staleSocket) << left;
        if (left == staleSocket) {
            ASSERT_TRUE(InstanceChannel::send("show", 1000));
            EXPECT_TRUE(received.waitFor(1));
        } else {
            EXPECT_FALSE(std::filesystem::is_socket(runtime.socket()));
        }
    }
}

TEST_F(InstanceChannelTest, OversizedAndSilentPeersAreDroppedWithoutHoldingUpOthers) {
    ASSERT_TRUE(channel.listen());

    QElapsedTimer timer;
    timer.start();
    int silent = connectTo(runtime.socket());
    ASSERT_GE(silent, 0);
    // Written from a thread: the channel must drop it while this thread runs the event loop.
    std::atomic<bool> oversizedDone = false;
    std::thread oversized([&] {
        int fd = connectTo(runtime.socket());
        std::string line(InstanceChannel::maximumMessage + 1, 'x');
        line += '\n';
        (void)!::send(fd, line.data(), line.size(), MSG_NOSIGNAL);
        close(fd);
        oversizedDone = true;
    });
    spinFor(200ms);
    ASSERT_TRUE(InstanceChannel::send("show", 1000));
    ASSERT_TRUE(received.waitFor(1, 1s));
    EXPECT_LT(timer.elapsed(), InstanceChannel::peerTimeLimitMs);
    EXPECT_TRUE(spinUntil([&] { return oversizedDone.load(); }, 5s));
    oversized.join();

    EXPECT_TRUE(spinUntil([&] { return closedByPeer(silent); }, 5s));
    EXPECT_GE(timer.elapsed(), InstanceChannel::peerTimeLimitMs - 100);
    close(silent);
    spinFor(100ms);
    EXPECT_EQ(received.messages, (std::vector<QByteArray>{"show"}));
}

TEST_F(InstanceChannelTest, PeerOfAnotherUserIsDroppedUnread) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to connect as another user";
    ASSERT_TRUE(channel.listen());
    // Opened up for this test only, so that the other user reaches the socket at all.
    chmod((runtime.folder / "corvane").c_str(), 0711);
    chmod(runtime.socket().c_str(), 0666);

    pid_t child = fork();
    if (child == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0) _exit(2);
        int fd = connectTo(runtime.socket());
        if (fd < 0) _exit(3);
        (void)!::send(fd, "show\n", 5, MSG_NOSIGNAL);
        _exit(closedByPeer(fd, 1500) ? 0 : 4);
    }
    int status = -1;
    ASSERT_TRUE(spinUntil([&] { return waitpid(child, &status, WNOHANG) == child; }, 5s));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    spinFor(100ms);
    EXPECT_TRUE(received.messages.empty());
    EXPECT_EQ(received.shows, 0);
}

// --- Self-test ---

TEST(SelfTestTest, WritesAndReadsTheSharedStateAndPutsBackWhatWasThere) {
    const std::string previous = R"({"unlockedPaths":["\/home\/ann\/Taxes"],"bootTime":42})";
    // XDG_RUNTIME_DIR under the test folder (none: unset), the state file's bytes beforehand, and
    // the exit status.
    const std::tuple<std::optional<std::string>, std::optional<std::string>, int> cases[] = {
        {"run", std::nullopt, 0},
        {"run", previous, 0},
        {std::nullopt, std::nullopt, 1},
        {"plain-file/run", std::nullopt, 1},
    };
    for (const auto& [runtime, before, status] : cases) {
        TempDir folder;
        writeFile(folder / "plain-file", "");
        ScopedVariable variable("XDG_RUNTIME_DIR",
                                runtime ? std::optional(folder / *runtime) : std::nullopt);
        auto state = folder / "run/corvane/state.json";
        if (before) writeFile(state, *before);
        std::ostringstream out;
        EXPECT_EQ(SelfTest::run(out), status);
        EXPECT_EQ(out.str(), status == 0 ? "self-test: group container OK\n"
                                         : "self-test: group container FAILED\n");
        EXPECT_EQ(std::filesystem::exists(state) ? std::optional(readFile(state)) : std::nullopt,
                  before);
    }
}

}  // namespace
}  // namespace corvane::app
