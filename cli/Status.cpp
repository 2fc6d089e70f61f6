// corvane status [--json]: what Corvane needs and how it stands: setup, the keyring, the
// fingerprint reader, the inactivity limit, disk encryption, gocryptfs and FUSE, and the items.
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "Arguments.h"
#include "Commands.h"
#include "Records/AppPaths.h"
#include "FileSystem/DiskEncryption.h"
#include "FileSystem/ProcessRunner.h"
#include "UsageError.h"

namespace corvane::cli {

namespace {

bool runs(const std::string& program, const std::vector<std::string>& arguments) {
    try {
        return ProcessRunner::run(program, arguments).status == 0;
    } catch (const std::exception&) {
        return false;
    }
}

std::string yesNo(bool value) {
    return value ? "yes" : "no";
}

}  // namespace

int runStatus(CommandContext& context, const Words& words, std::istream&, std::ostream& out,
              std::ostream&) {
    Arguments arguments = Arguments::parse(words, {"--json"});
    if (!arguments.operands.empty()) throw UsageError("status takes no paths");
    Locker& locker = context.locker();

    auto keyring = context.store().read();
    std::optional<std::string> keyringProblem;
    if (keyring.state == PasswordStore::State::noService)
        keyringProblem = PasswordStore::unavailableReason().value_or("not reachable");
    const auto& secret = keyring.secret;
    const bool locked = keyring.state == PasswordStore::State::locked;
    bool fingerprint = context.fingerprintReader().available();
    bool fingerprintOn = context.userSettings().touchIDEnabled();
    int idleMinutes = context.userSettings().idleMinutes();
    auto encrypted = DiskEncryption::protects(AppPaths::home());
    bool gocryptfs = runs("/usr/bin/gocryptfs", {"-version"});
    bool fuse = access("/dev/fuse", R_OK | W_OK) == 0 && access("/usr/bin/fusermount3", X_OK) == 0;
    std::size_t open = locker.openItems().size();
    std::size_t behind = secret ? locker.itemsStillMigrating(secret->generation).size() : 0;
    std::size_t unfinished = locker.journal.load().size();
    std::size_t items = locker.index.load().size();

    if (arguments.has("--json")) {
        nlohmann::ordered_json status = {
            {"setupDone", keyring.state == PasswordStore::State::record},
            {"keyringReachable", !keyringProblem},
            {"keyringLocked", locked},
            {"fingerprintAvailable", fingerprint},
            {"fingerprintEnabled", fingerprintOn},
            {"idleMinutes", idleMinutes},
            {"diskEncryption", encrypted ? nlohmann::ordered_json(*encrypted) : nullptr},
            {"gocryptfsUsable", gocryptfs},
            {"fuseUsable", fuse},
            {"items", items},
            {"openItems", open},
            {"itemsNeedingPasswordUpdate", behind},
            {"unfinishedWork", unfinished}};
        out << status.dump(2) << '\n';
        return 0;
    }
    out << "Set up:                 "
        << (keyring.state == PasswordStore::State::record     ? "yes"
            : keyring.state == PasswordStore::State::noRecord ? "no"
                                                              : "unknown")
        << '\n'
        << "Keyring:                "
        << (keyringProblem ? *keyringProblem
            : locked       ? "locked: unlock it to use Corvane"
                           : "reachable")
        << '\n'
        << "Fingerprint reader:     " << (fingerprint ? "available" : "not available")
        << (fingerprintOn ? ", used when available" : ", turned off") << '\n'
        << "Lock after inactivity:  "
        << (idleMinutes > 0 ? std::to_string(idleMinutes) + " minutes" : "never") << '\n'
        << "Disk encryption:        " << (encrypted ? (*encrypted ? "on" : "off") : "unknown")
        << '\n'
        << "gocryptfs usable:       " << yesNo(gocryptfs) << '\n'
        << "FUSE usable:            " << yesNo(fuse) << '\n'
        << "Locked items:           " << items << '\n'
        << "Open items:             " << open << '\n'
        << "Needing password update: " << behind << '\n'
        << "Unfinished work:        " << unfinished << '\n';
    return 0;
}

}  // namespace corvane::cli
