// The application's system services against real counterparts: stand-in notification and
// file-manager services on a private session bus, scripts standing in for the programs started,
// real files under fake XDG folders and real Unix sockets.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <QElapsedTimer>
#include <atomic>
#include <cstring>
#include <sstream>
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

void spinFor(std::chrono::milliseconds time) {
    spinUntil([] { return false; }, time);
}

// --- Notifications ---

struct NotificationServer {
    explicit NotificationServer(const PrivateBus& bus, bool markup = true)
        : service(
              bus.address(), QStringLiteral("org.freedesktop.Notifications"),
              QStringLiteral("/org/freedesktop/Notifications"),
              [this, markup](const QDBusMessage& call) -> QVariantList {
                  if (call.member() == QStringLiteral("GetCapabilities"))
                      return {markup ? QStringList{"body", "body-markup"} : QStringList{"body"}};
                  return {QVariant::fromValue(++lastId)};
              }) {
        EXPECT_TRUE(bus.waitForName("org.freedesktop.Notifications"));
    }
    std::vector<QDBusMessage> notices() const { return service.calls("Notify"); }
    bool waitFor(std::size_t count) const {
        return spinUntil([&] { return notices().size() >= count; }, 5s);
    }
    std::vector<uint> replacedIds() const {
        std::vector<uint> ids;
        for (const auto& notice : notices()) ids.push_back(notice.arguments().value(1).toUInt());
        return ids;
    }

    uint lastId = 0;
    BusServiceStandIn service;
};

TEST(DBusNotifierTest, PostShowsEachNoticeAsNew) {
    PrivateBus bus;
    NotificationServer server(bus);
    BusClient client(bus);
    DBusNotifier notifier(client.connection);

    notifier.post("Locked", "Taxes is locked.");
    notifier.post("Locked", "Photos is locked.");
    ASSERT_TRUE(server.waitFor(2));
    auto arguments = server.notices()[0].arguments();
    ASSERT_EQ(arguments.size(), 8);
    EXPECT_EQ(arguments[0].toString(), "Corvane");
    EXPECT_EQ(arguments[2].toString(), "corvane");
    EXPECT_EQ(arguments[3].toString(), "Locked");
    EXPECT_EQ(arguments[4].toString(), "Taxes is locked.");
    EXPECT_TRUE(arguments[5].toStringList().isEmpty());
    EXPECT_EQ(arguments[7].toInt(), -1);
    EXPECT_EQ(server.notices()[1].arguments()[4].toString(), "Photos is locked.");
    EXPECT_EQ(server.replacedIds(), (std::vector<uint>{0, 0}));
}

TEST(DBusNotifierTest, IdentifiedNoticeReplacesTheLastOneUnderItsIdentifierOnly) {
    PrivateBus bus;
    NotificationServer server(bus);
    BusClient client(bus);
    DBusNotifier notifier(client.connection);

    const char* identifiers[] = {"idle", "idle", "other", "idle"};
    for (std::size_t i = 0; i < std::size(identifiers); ++i) {
        notifier.postIfAllowed(identifiers[i], "Title", std::to_string(i));
        ASSERT_TRUE(server.waitFor(i + 1));
    }
    // The stand-in gives every notice a new id, so the last one must carry the second's.
    EXPECT_EQ(server.replacedIds(), (std::vector<uint>{0, 1, 0, 2}));
}

TEST(DBusNotifierTest, NoticesPostedBeforeTheServerAnsweredStillReplace) {
    PrivateBus bus;
    NotificationServer server(bus);
    BusClient client(bus);
    DBusNotifier notifier(client.connection);

    for (const char* body : {"1", "2", "3"}) notifier.postIfAllowed("progress", "Locking", body);
    ASSERT_TRUE(server.waitFor(2));
    spinFor(300ms);
    ASSERT_EQ(server.notices().size(), 2u);
    EXPECT_EQ(server.replacedIds(), (std::vector<uint>{0, 1}));
    EXPECT_EQ(server.notices()[1].arguments()[4].toString(), "3");
}

TEST(DBusNotifierTest, BodyIsEscapedOnlyForServersThatReadMarkup) {
    struct {
        bool markup;
        QString body;
    } cases[] = {{true, "Tom &amp; Jerry &lt;2&gt; is locked."},
                 {false, "Tom & Jerry <2> is locked."}};
    for (const auto& each : cases) {
        PrivateBus bus;
        NotificationServer server(bus, each.markup);
        BusClient client(bus);
        DBusNotifier notifier(client.connection);
        notifier.post("Tom & Jerry", "Tom & Jerry <2> is locked.");
        ASSERT_TRUE(server.waitFor(1));
        EXPECT_EQ(server.notices()[0].arguments()[3].toString(), "Tom & Jerry");
        EXPECT_EQ(server.notices()[0].arguments()[4].toString(), each.body) << each.markup;
    }
}

TEST(DBusNotifierTest, WithoutServerNothingFailsOrWaitsAndALaterServerIsUsed) {
    PrivateBus bus;
    BusClient client(bus);
    DBusNotifier notifier(client.connection);
    DBusNotifier offline(QDBusConnection(QStringLiteral("no-such-connection")));

    QElapsedTimer timer;
    timer.start();
    notifier.post("Locked", "Nobody sees this.");
    notifier.postIfAllowed("idle", "Idle", "Nobody sees this either.");
    offline.post("Locked", "Nor this.");
    EXPECT_LT(timer.elapsed(), 200);
    spinFor(300ms);

    NotificationServer server(bus);
    notifier.postIfAllowed("idle", "Idle", "1");
    ASSERT_TRUE(server.waitFor(1));
    notifier.postIfAllowed("idle", "Idle", "2");
    ASSERT_TRUE(server.waitFor(2));
    EXPECT_EQ(server.replacedIds(), (std::vector<uint>{0, 1}));
}

// --- File manager ---

TEST(XdgDesktopShellTest, RevealHandsTheFileManagerEveryPathAsAnEscapedURI) {
    PrivateBus bus;
    BusServiceStandIn fileManager(bus.address(), QStringLiteral("org.freedesktop.FileManager1"),
                                  QStringLiteral("/org/freedesktop/FileManager1"),
                                  [](const QDBusMessage&) { return QVariantList{}; });
    ASSERT_TRUE(bus.waitForName("org.freedesktop.FileManager1"));
    BusClient client(bus);
    TempDir folder;
    XdgDesktopShell shell(client.connection, QString::fromStdString(recordingScript(
                                                 folder, "opener", folder / "log")));

    struct {
        std::string path;
        QString uri;
    } cases[] = {
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
    for (const auto& each : cases) {
        paths.push_back(each.path);
        expected << each.uri;
    }
    shell.reveal(paths);
    ASSERT_TRUE(spinUntil([&] { return !fileManager.calls("ShowItems").empty(); }, 5s));
    auto arguments = fileManager.calls("ShowItems")[0].arguments();
    ASSERT_EQ(arguments.size(), 2);
    EXPECT_EQ(arguments[0].toStringList(), expected);
    EXPECT_EQ(arguments[1].toString(), "");
    spinFor(300ms);
    EXPECT_FALSE(std::filesystem::exists(folder / "log")) << "the folder was opened as well";
}

TEST(XdgDesktopShellTest, WithoutFileManagerServiceTheFolderIsOpenedAndOpenTakesAnyName) {
    PrivateBus bus;
    BusClient client(bus);
    TempDir folder;
    auto log = folder / "log";
    XdgDesktopShell shell(client.connection,
                          QString::fromStdString(recordingScript(folder, "opener", log)));

    shell.reveal({folder / "My Files/report 1.pdf"});
    ASSERT_TRUE(spinUntil([&] { return !readFile(log).empty(); }, 5s));
    EXPECT_EQ(readFile(log), "file://" + folder.path() + "/My%20Files\n");

    std::filesystem::remove(log);
    shell.open(folder / "Tax\xff");
    ASSERT_TRUE(spinUntil([&] { return !readFile(log).empty(); }, 5s));
    EXPECT_EQ(readFile(log), "file://" + folder.path() + "/Tax%FF\n");
}

// --- System checks ---

TEST(SystemChecksTest, MenuCommandsRunCorvaneIntegrateAndReportItsFirstLine) {
    const std::string add = "Corvane could not add its menu to the file manager: ";
    const std::string remove = "Corvane could not remove its menu from the file manager: ";
    struct {
        std::optional<std::string> then;  // the stand-in program's last line; none: no program
        std::optional<std::string> enabled, disabled;
    } cases[] = {
        {"exit 0", std::nullopt, std::nullopt},
        {"printf '\\n  nautilus-python is missing\\nsee the manual\\n'; exit 3",
         add + "nautilus-python is missing", remove + "nautilus-python is missing"},
        {"exit 4", add + "the corvane command ended with status 4.",
         remove + "the corvane command ended with status 4."},
        {std::nullopt,
         add + "the corvane command is not installed beside the application or on the search "
               "path.",
         remove + "the corvane command is not installed beside the application or on the "
                  "search path."},
    };
    for (const auto& each : cases) {
        TempDir folder;
        std::filesystem::create_directory(folder / "bin");
        ScopedVariable path("PATH", folder / "bin");
        auto log = folder / "log";
        if (each.then) recordingScript(folder, "bin/corvane", log, *each.then);
        EXPECT_EQ(SystemChecks::enableFileManagerMenu(), each.enabled);
        EXPECT_EQ(SystemChecks::disableFileManagerMenu(), each.disabled);
        if (each.then) {
            EXPECT_EQ(readFile(log), "integrate\nintegrate\n--remove\n");
        }
    }
}

TEST(SystemChecksTest, MenuCountsAsEnabledWhenAnExtensionFileIsInstalled) {
    struct {
        const char* variable;  // XDG_DATA_HOME: none, under the home folder, or as it is
        bool underHome;
        std::string installed;  // under the home folder
        bool folder;
        bool enabled;
    } cases[] = {
        {"data", true, "", false, false},
        {"data", true, "data/nautilus-python/extensions/corvane.py", false, true},
        {"data", true, "data/nemo/actions/corvane-lock.nemo_action", false, true},
        {"data", true, "data/nautilus-python/extensions/corvane.py", true, false},
        {nullptr, false, ".local/share/nemo/actions/corvane-lock.nemo_action", false, true},
        // A relative value is ignored by the XDG rules.
        {"data", false, "data/nemo/actions/corvane-lock.nemo_action", false, false},
    };
    for (const auto& each : cases) {
        TempDir home;
        ScopedVariable homeVariable("HOME", home.path());
        ScopedVariable data(
            "XDG_DATA_HOME",
            each.variable ? std::optional(each.underHome ? home / each.variable : each.variable)
                          : std::nullopt);
        if (each.folder)
            std::filesystem::create_directories(home / each.installed);
        else if (!each.installed.empty())
            writeFile(home / each.installed, "# menu\n");
        EXPECT_EQ(SystemChecks::fileManagerMenuEnabled(), each.enabled) << each.installed;
    }
}

// --- Start at login ---

TEST(AutoStartTest, EntryStartsTheProgramWithItsNameQuotedAndIsRemovedAgain) {
    struct {
        std::string program;
        std::string exec;
    } cases[] = {
        {"/usr/bin/corvane-app", "Exec=/usr/bin/corvane-app"},
        {"/opt/my apps/corvane-app", "Exec=\"/opt/my apps/corvane-app\""},
        {"/opt/100%/corvane-app", "Exec=/opt/100%%/corvane-app"},
        {"/opt/a\"b$c\\d/corvane-app", "Exec=\"/opt/a\\\\\"b\\\\$c\\\\\\\\d/corvane-app\""},
    };
    for (const auto& each : cases) {
        TempDir home;
        ScopedVariable config("XDG_CONFIG_HOME", home / "config");
        ScopedVariable system("XDG_CONFIG_DIRS", home / "xdg");
        ASSERT_EQ(AutoStart::entryPath(), home / "config/autostart/corvane.desktop");
        EXPECT_FALSE(AutoStart::isEnabled());
        ASSERT_EQ(AutoStart::setEnabled(true, each.program), std::nullopt);
        EXPECT_TRUE(AutoStart::isEnabled());
        auto text = readFile(AutoStart::entryPath());
        EXPECT_TRUE(text.starts_with("[Desktop Entry]\n")) << text;
        EXPECT_NE(text.find("\n" + each.exec + " --background\n"), std::string::npos) << text;
        EXPECT_EQ(permissions(AutoStart::entryPath()), 0644u);
        // Removal finds the program again in what was written.
        EXPECT_EQ(AutoStart::setEnabled(false, each.program), std::nullopt) << each.program;
        EXPECT_FALSE(std::filesystem::exists(AutoStart::entryPath())) << each.program;
    }
}

TEST(AutoStartTest, EntriesThatAreNotOursOrSwitchedOffAreReadAsSuchAndKept) {
    const std::string header = "[Desktop Entry]\nType=Application\n";
    struct {
        std::string contents;
        bool enabled;
        bool removable;
    } cases[] = {
        {header + "Exec=/usr/local/bin/corvane-app --hidden\n", true, true},
        {header + "Exec=/usr/bin/backup-tool\n", true, false},
        {header + "Exec=corvane-app\nHidden=true\n", false, true},
        {header + "Exec=corvane-app\nX-GNOME-Autostart-enabled=false\n", false, true},
        {"[Other]\nHidden=true\n" + header + "Exec = corvane-app\n", true, true},
        {header + "Exec=/usr/bin/not-corvane-app\n", true, false},
    };
    for (const auto& each : cases) {
        TempDir home;
        ScopedVariable config("XDG_CONFIG_HOME", std::nullopt);
        ScopedVariable system("XDG_CONFIG_DIRS", home / "xdg");
        ScopedVariable homeVariable("HOME", home.path());
        auto path = home / ".config/autostart/corvane.desktop";
        ASSERT_EQ(AutoStart::entryPath(), path);
        writeFile(path, each.contents);
        EXPECT_EQ(AutoStart::isEnabled(), each.enabled) << each.contents;
        auto refusal = AutoStart::setEnabled(false, "/usr/bin/corvane-app");
        EXPECT_EQ(!refusal.has_value(), each.removable) << each.contents;
        EXPECT_EQ(std::filesystem::exists(path), !each.removable) << each.contents;
    }
}

TEST(AutoStartTest, LinkIsNeverFollowedAndANameThatIsNotTextIsRefused) {
    TempDir home;
    ScopedVariable config("XDG_CONFIG_HOME", home / "config");
    ScopedVariable system("XDG_CONFIG_DIRS", home / "xdg");
    auto target = home / "elsewhere.desktop";
    writeFile(target, "[Desktop Entry]\nExec=corvane-app\n");
    std::filesystem::create_directories(home / "config/autostart");
    std::filesystem::create_symlink(target, AutoStart::entryPath());

    EXPECT_FALSE(AutoStart::isEnabled());
    EXPECT_NE(AutoStart::setEnabled(false, "/usr/bin/corvane-app"), std::nullopt);
    EXPECT_TRUE(std::filesystem::is_symlink(AutoStart::entryPath()));
    EXPECT_TRUE(std::filesystem::exists(target));

    EXPECT_NE(AutoStart::setEnabled(true, "/opt/\xff/corvane-app"), std::nullopt);
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
    struct {
        std::string folders;
        std::optional<std::string> found;
    } cases[] = {
        {root / "b" + ":" + root / "a", root / "b/autostart/corvane.desktop"},
        {root / "none:" + root / "a/", root / "a/autostart/corvane.desktop"},
        // Relative folders are ignored; so is a folder in the entry's place.
        {"a:" + root / "folder:" + root / "c", root / "c/autostart/corvane.desktop"},
        // Packages and administrators link entries: the link counts.
        {root / "linked", root / "linked/autostart/corvane.desktop"},
        {root / "none", std::nullopt},
    };
    for (const auto& each : cases) {
        ScopedVariable folders("XDG_CONFIG_DIRS", each.folders);
        EXPECT_EQ(AutoStart::systemEntryPath(), each.found) << each.folders;
    }
    for (std::optional<std::string> unset :
         {std::optional<std::string>(), std::optional(std::string())}) {
        ScopedVariable folders("XDG_CONFIG_DIRS", unset);
        auto found = AutoStart::systemEntryPath();
        EXPECT_EQ(found.has_value(),
                  std::filesystem::is_regular_file("/etc/xdg/autostart/corvane.desktop"));
        if (found) {
            EXPECT_EQ(*found, "/etc/xdg/autostart/corvane.desktop");
        }
    }
}

TEST(AutoStartTest, UserEntryOverridesTheSystemEntryBothWays) {
    const std::string header = "[Desktop Entry]\nType=Application\n";
    const std::string installed = header + "Exec=corvane-app --background\n";
    enum class After { none, hidden, ours, unchanged };
    struct {
        std::optional<std::string> system;
        std::optional<std::string> user;
        bool turnOn;
        bool enabledBefore;
        bool refused;
        After userAfter;
        bool enabledAfter;
    } cases[] = {
        // The package's entry alone starts us; off hides it for this user, on lifts that again.
        {installed, std::nullopt, false, true, false, After::hidden, false},
        {installed, std::nullopt, true, true, false, After::none, true},
        {installed, header + "Exec=corvane-app\nHidden=true\n", true, false, false, After::none,
         true},
        {installed, header + "Exec=/usr/bin/corvane-app\nX-GNOME-Autostart-enabled=false\n", true,
         false, false, After::none, true},
        {installed, header + "Exec=corvane-app\nHidden=true\n", false, false, false,
         After::unchanged, false},
        // An entry of ours that is on stays on, and turning off hides the system's through it.
        {installed, header + "Exec=/opt/corvane-app\n", true, true, false, After::unchanged, true},
        {installed, header + "Exec=/opt/corvane-app\n", false, true, false, After::hidden, false},
        // Someone else's entry under our name is refused when turning off, replaced when on.
        {installed, header + "Exec=/usr/bin/backup-tool\n", false, true, true, After::unchanged,
         true},
        {installed, header + "Exec=/usr/bin/backup-tool\nHidden=true\n", true, false, false,
         After::ours, true},
        // A system entry that is off or starts another program is no help: ours is written.
        {header + "Exec=corvane-app\nHidden=true\n", std::nullopt, true, false, false, After::ours,
         true},
        {header + "Exec=corvane-app\nX-GNOME-Autostart-enabled=false\n",
         header + "Exec=corvane-app\n", false, true, false, After::none, false},
        {header + "Exec=/usr/bin/backup-tool\n", std::nullopt, true, true, false, After::ours,
         true},
        {header + "Exec=/usr/bin/backup-tool\n", std::nullopt, false, true, true, After::none,
         true},
    };
    for (const auto& each : cases) {
        TempDir home;
        ScopedVariable config("XDG_CONFIG_HOME", home / "config");
        ScopedVariable system("XDG_CONFIG_DIRS", home / "empty:" + home / "xdg");
        auto user = AutoStart::entryPath();
        if (each.system) writeFile(home / "xdg/autostart/corvane.desktop", *each.system);
        if (each.user) writeFile(user, *each.user);
        auto label = each.system.value_or("no system entry") +
                     "| user: " + each.user.value_or("none") +
                     "| on: " + std::to_string(each.turnOn);

        EXPECT_EQ(AutoStart::isEnabled(), each.enabledBefore) << label;
        auto refusal = AutoStart::setEnabled(each.turnOn, "/usr/bin/corvane-app");
        EXPECT_EQ(refusal.has_value(), each.refused) << label << refusal.value_or("");
        EXPECT_EQ(AutoStart::isEnabled(), each.enabledAfter) << label;
        auto text = std::filesystem::exists(user) ? std::optional(readFile(user)) : std::nullopt;
        switch (each.userAfter) {
            case After::none: EXPECT_EQ(text, std::nullopt) << label; break;
            case After::unchanged: EXPECT_EQ(text, each.user) << label; break;
            case After::hidden:
                ASSERT_TRUE(text) << label;
                EXPECT_NE(text->find("\nExec=corvane-app --background\n"), std::string::npos)
                    << *text;
                EXPECT_NE(text->find("\nHidden=true\n"), std::string::npos) << *text;
                break;
            case After::ours:
                ASSERT_TRUE(text) << label;
                EXPECT_NE(text->find("\nExec=/usr/bin/corvane-app --background\n"),
                          std::string::npos)
                    << *text;
                EXPECT_EQ(text->find("Hidden"), std::string::npos) << *text;
                break;
        }
        // Whatever was asked, asking again changes nothing more.
        if (!each.refused) {
            EXPECT_EQ(AutoStart::setEnabled(each.turnOn, "/usr/bin/corvane-app"), std::nullopt)
                << label;
            EXPECT_EQ(AutoStart::isEnabled(), each.enabledAfter) << label;
            auto again =
                std::filesystem::exists(user) ? std::optional(readFile(user)) : std::nullopt;
            EXPECT_EQ(again, text) << label;
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

int connectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Whether the channel has closed its end of `fd`, without waiting.
bool closedByPeer(int fd) {
    pollfd readable{fd, POLLIN, 0};
    char byte;
    return poll(&readable, 1, 0) > 0 && recv(fd, &byte, 1, MSG_DONTWAIT) <= 0;
}

TEST(InstanceChannelTest, LinesFromOurOwnUserAreDeliveredAndShowIsRecognised) {
    RuntimeFolder runtime;
    // Made earlier, looser, by the writer of the shared state.
    ASSERT_EQ(mkdir((runtime.folder / "corvane").c_str(), 0755), 0);
    InstanceChannel channel;
    Received received(channel);
    ASSERT_TRUE(channel.listen());
    EXPECT_EQ(permissions(runtime.folder / "corvane"), 0700u);
    EXPECT_EQ(permissions(runtime.socket()), 0600u);

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

TEST(InstanceChannelTest, WithoutRuntimeFolderNothingListensOrIsSent) {
    ScopedVariable runtime("XDG_RUNTIME_DIR", std::nullopt);
    InstanceChannel channel;
    EXPECT_FALSE(channel.listen());
    EXPECT_FALSE(InstanceChannel::send("show", 200));
}

TEST(InstanceChannelTest, SecondCopyIsRefusedAndLeavesTheFirstListening) {
    RuntimeFolder runtime;
    EXPECT_FALSE(InstanceChannel::send("show", 200)) << "nobody listens yet";
    InstanceChannel first;
    Received received(first);
    ASSERT_TRUE(first.listen());
    {
        InstanceChannel second;
        EXPECT_FALSE(second.listen());
    }
    ASSERT_TRUE(InstanceChannel::send("show", 1000));
    ASSERT_TRUE(received.waitFor(1));
    EXPECT_EQ(received.shows, 1);
}

TEST(InstanceChannelTest, OnlyASocketNobodyAnswersOnIsTakenOver) {
    enum class Left { staleSocket, regularFile, link };
    struct {
        Left left;
        bool listens;
    } cases[] = {{Left::staleSocket, true}, {Left::regularFile, false}, {Left::link, false}};
    for (const auto& each : cases) {
        RuntimeFolder runtime;
        ASSERT_EQ(mkdir((runtime.folder / "corvane").c_str(), 0700), 0);
        if (each.left == Left::staleSocket) {
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            std::strncpy(address.sun_path, runtime.socket().c_str(), sizeof address.sun_path - 1);
            int fd = socket(AF_UNIX, SOCK_STREAM, 0);
            ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
            close(fd);
        } else if (each.left == Left::regularFile) {
            writeFile(runtime.socket(), "notes");
        } else {
            std::filesystem::create_symlink(runtime.folder / "elsewhere", runtime.socket());
        }
        InstanceChannel channel;
        Received received(channel);
        EXPECT_EQ(channel.listen(), each.listens) << int(each.left);
        if (each.listens) {
            ASSERT_TRUE(InstanceChannel::send("show", 1000));
            EXPECT_TRUE(received.waitFor(1));
        } else {
            EXPECT_FALSE(std::filesystem::is_socket(runtime.socket()));
        }
    }
}

TEST(InstanceChannelTest, OversizedAndSilentPeersAreDroppedWithoutHoldingUpOthers) {
    RuntimeFolder runtime;
    InstanceChannel channel;
    Received received(channel);
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

TEST(InstanceChannelTest, PeerOfAnotherUserIsDroppedUnread) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to connect as another user";
    RuntimeFolder runtime;
    InstanceChannel channel;
    Received received(channel);
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
        pollfd readable{fd, POLLIN, 0};
        char byte;
        bool closed = poll(&readable, 1, 1500) > 0 && recv(fd, &byte, 1, 0) <= 0;
        _exit(closed ? 0 : 4);
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
    struct {
        std::optional<std::string> runtime;  // relative to the test folder; none: unset
        std::optional<std::string> before;   // the state file's bytes beforehand
        int status;
    } cases[] = {
        {"run", std::nullopt, 0},
        {"run", previous, 0},
        {std::nullopt, std::nullopt, 1},
        {"plain-file/run", std::nullopt, 1},
    };
    for (const auto& each : cases) {
        TempDir folder;
        writeFile(folder / "plain-file", "");
        ScopedVariable runtime("XDG_RUNTIME_DIR",
                               each.runtime ? std::optional(folder / *each.runtime) : std::nullopt);
        auto state = folder / "run/corvane/state.json";
        if (each.before) writeFile(state, *each.before);
        std::ostringstream out;
        EXPECT_EQ(SelfTest::run(out), each.status);
        EXPECT_EQ(out.str(), each.status == 0 ? "self-test: group container OK\n"
                                              : "self-test: group container FAILED\n");
        if (each.before) {
            EXPECT_EQ(readFile(state), *each.before);
        } else {
            EXPECT_FALSE(std::filesystem::exists(state));
        }
    }
}

}  // namespace
}  // namespace corvane::app
