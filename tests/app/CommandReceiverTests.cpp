// Commands sent over the real command socket to a receiver in front of the real model: which are
// confirmed, which are dropped, and what the user hears. This process is the sender, taken for the
// application or a stranger by the program file the receiver is told is the application's.
#include <QUrl>

#include "AppModelFixture.h"
#include "CommandReceiver.h"
#include "InstanceChannel.h"

namespace corvane::testing {
namespace {

using namespace std::chrono_literals;
using app::CommandReceiver;
using app::InstanceChannel;

const std::string kAsked = "choose: Another app asked Corvane to lock ";

QByteArray commandURL(const std::string& host, const std::string& path) {
    return "corvane://" + QByteArray::fromStdString(host) +
           "?path=" + QByteArray::fromStdString(path).toPercentEncoding();
}

class CommandReceiverTest : public AppModelTest {
protected:
    void SetUp() override {
        AppModelTest::SetUp();
        started();
        QObject::connect(&channel, &InstanceChannel::messageReceived, [this] { ++received; });
        ASSERT_TRUE(channel.listen());
    }

    // A receiver that takes this process for the application or for a stranger.
    void receiveAs(bool trusted) {
        auto facts = SenderCheck::Facts::current();
        if (!trusted) facts.ownExecutable = "/usr/bin/sleep";
        receiver = std::make_unique<CommandReceiver>(*model, user, user, facts);
        QObject::connect(&channel, &InstanceChannel::messageReceived, receiver.get(),
                         &CommandReceiver::receive);
    }

    // Sends as this process and waits until the receiver had the line and the model is idle.
    void send(const QByteArray& message) {
        int before = received;
        ASSERT_TRUE(InstanceChannel::send(message, 1000));
        ASSERT_TRUE(spinUntil([&] { return received > before; }, 5s));
        ASSERT_TRUE(spinUntil([&] { return model->activity().isIdle(); }));
    }

    bool isOpen() const { return !model->openItems().empty(); }

    TempDir runtime;
    ScopedVariable runtimeVariable{"XDG_RUNTIME_DIR", runtime.path()};
    InstanceChannel channel;
    std::unique_ptr<CommandReceiver> receiver;
    int received = 0;
};

TEST_F(CommandReceiverTest, AStrangersLockIsAskedAndOnlyLockGoesAheadTheApplicationsIsNot) {
    // Whether the sender is the application, the button pressed when asked, whether it locks.
    const std::tuple<bool, std::optional<std::string>, bool> cases[] = {
        {false, "Cancel", false}, {false, "Lock", true}, {true, std::nullopt, true}};
    for (const auto& [trusted, button, locked] : cases) {
        std::string name = "Taxes " + button.value_or("trusted");
        SCOPED_TRACE(name);
        receiveAs(trusted);
        std::string original = folder(name);
        if (button) user.buttons = {*button};
        user.log.clear();
        send(commandURL("lock", original));
        EXPECT_EQ(user.entries("choose: "),
                  button ? std::vector{kAsked + name +
                                       ". Lock it? | Only lock it if you asked for "
                                       "this."}
                         : std::vector<std::string>{});
        EXPECT_EQ(std::filesystem::exists(original + ".corvlock"), locked);
        EXPECT_EQ(std::filesystem::exists(original + "/a.txt"), !locked);
    }
}

TEST_F(CommandReceiverTest, NonCommandsAreDroppedAndActionsThatAskOrOnlyShowAreNeverConfirmed) {
    receiveAs(false);
    for (const char* message : {"show", "hello", "corvane://explode?path=%2Ftmp", "/tmp/notes"})
        send(message);
    spinFor(300ms);
    EXPECT_EQ(received, 4);
    EXPECT_FALSE(model->requestArrived());
    EXPECT_TRUE(user.log.empty());

    std::string locked = lockedItem("Tax Files");
    user.log.clear();
    user.buttons = {"Cancel"};
    send(commandURL("remove-lock", locked));
    user.passwords = {std::nullopt};
    send(commandURL("unlock", locked));
    send(commandURL("reveal", locked));
    ASSERT_TRUE(spinUntil([&] { return !user.entries("notify: ").empty(); }, 10s));
    EXPECT_EQ(user.log, (std::vector<std::string>{
                            "choose: Remove the lock from Tax Files? | Tax Files turns back into "
                            "normal files that anyone using this computer can open.",
                            "password: Enter your Corvane password | Corvane needs your password "
                            "to unlock Tax Files",
                            "notify: Corvane | Tax Files is not unlocked."}));
    EXPECT_TRUE(std::filesystem::exists(locked));

    // The item's own file URL, as a file manager opens it, unlocks it.
    user.log.clear();
    user.passwords = {"password 1"};
    send(QUrl::fromLocalFile(QString::fromStdString(locked)).toEncoded());
    ASSERT_TRUE(spinUntil([&] { return isOpen(); }, 10s));
    EXPECT_EQ(user.entries("choose: "), std::vector<std::string>{});
    EXPECT_EQ(user.entries("open: ").size(), 1u);
}

// A command that waits for the model keeps the ones behind it waiting: a locked item's path that
// arrives right after a reveal is opened after the reveal found it closed, not before.
TEST_F(CommandReceiverTest, LockNowAndRevealOfAClosedItemSayWhyAndCommandsRunInArrivalOrder) {
    receiveAs(true);
    std::string locked = lockedItem("Taxes");
    const std::vector<std::string> notOpen = {"notify: Corvane | Taxes is not unlocked."};
    user.log.clear();
    send(commandURL("lock-now", locked));
    ASSERT_TRUE(spinUntil([&] { return !user.log.empty(); }, 10s));
    EXPECT_EQ(user.log, notOpen);

    user.log.clear();
    user.passwords = {"password 1"};
    ASSERT_TRUE(InstanceChannel::send(commandURL("reveal", locked), 1000));
    ASSERT_TRUE(spinUntil([&] { return received == 2; }, 5s));
    ASSERT_TRUE(InstanceChannel::send(QByteArray::fromStdString(locked), 1000));
    ASSERT_TRUE(spinUntil([&] { return isOpen() && model->activity().isIdle(); }, 10s));
    auto told = user.entries("notify: "), asked = user.entries("password: ");
    ASSERT_EQ(told, notOpen);
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_LT(std::find(user.log.begin(), user.log.end(), told[0]),
              std::find(user.log.begin(), user.log.end(), asked[0]));
    EXPECT_TRUE(user.entries("reveal: ").empty());

    // Open, both do what they say without a word.
    user.log.clear();
    send(commandURL("reveal", locked));
    ASSERT_TRUE(spinUntil([&] { return !user.entries("reveal: ").empty(); }, 10s));
    send(commandURL("lock-now", locked));
    ASSERT_TRUE(spinUntil([&] { return !isOpen() && model->activity().isIdle(); }, 30s));
    EXPECT_TRUE(user.entries("notify: Corvane").empty());
}

TEST(CommandReceiverPathsTest, OnlyALockedItemsPathOrFileURLIsTakenForOne) {
    const std::pair<QByteArray, std::optional<std::string>> cases[] = {
        {"/home/ann/Tax Files.corvlock", "/home/ann/Tax Files.corvlock"},
        {"/home/ann/Tax.corvlock/", "/home/ann/Tax.corvlock/"},
        {"file:///home/ann/Tax%20Files.corvlock", "/home/ann/Tax Files.corvlock"},
        {"file://localhost/home/ann/%FF%3F.corvlock", "/home/ann/\xff?.corvlock"},
        {"file:///home/ann/a%23b.corvlock", "/home/ann/a#b.corvlock"},
        {"file://server/home/ann/Tax.corvlock", std::nullopt},
        {"file:///home/ann/Tax.corvlock#x", std::nullopt},
        {"file:///home/ann/Tax.corvlock.txt", std::nullopt},
        {"file:///home/ann/a%00.corvlock", std::nullopt},
        {"home/ann/Tax.corvlock", std::nullopt},
        {"corvane://unlock?path=%2Fhome%2Fann%2FTax.corvlock", std::nullopt},
    };
    for (const auto& [message, path] : cases)
        EXPECT_EQ(CommandReceiver::lockedItemPath(message), path) << message.constData();
}

TEST(CommandReceiverPathsTest, TheSendersTheCheckNamesAreTheOnesCommandsTrust) {
    const CorvaneCommand lock{CorvaneCommand::Kind::lock, {"/home/ann/Taxes"}};
    for (auto sender : {SenderCheck::application, SenderCheck::fileManagerMenu})
        EXPECT_FALSE(lock.needsConfirmation(std::string(sender), false)) << sender;
    EXPECT_FALSE(lock.needsConfirmation(std::string(SenderCheck::endToEndTest), true));
    EXPECT_TRUE(lock.needsConfirmation(std::string(SenderCheck::endToEndTest), false));
}

}  // namespace
}  // namespace corvane::testing
