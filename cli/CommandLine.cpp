#include "CommandLine.h"

#include <algorithm>
#include <map>

#include "Commands.h"
#include "FailureMessage.h"
#include "UsageError.h"

namespace corvane::cli {

const std::string CommandLine::usage =
    "Usage: corvane [--password-stdin] COMMAND [ARGUMENTS]\n"
    "\n"
    "Commands:\n"
    "  setup                          create the password that protects every locked item\n"
    "  lock PATH...                   lock files and folders where they stand\n"
    "  unlock PATH                    open a locked item; prints where its contents are\n"
    "  lock-now [--force] PATH...     close open items (--force: even while in use)\n"
    "  lock-now [--force] --all       close every open item\n"
    "  remove-lock [--yes] PATH       turn a locked item back into normal files\n"
    "  passwd                         change the password and move every item to it\n"
    "  list [--json]                  show every locked item\n"
    "  forget [--yes] PATH|ID         stop listing an item (nothing is deleted)\n"
    "  locate [--id ID] PATH          list a locked item that was found again\n"
    "  status [--json]                what Corvane needs and how it stands\n"
    "  config [idle-minutes N | fingerprint on|off]\n"
    "                                 show or change the settings\n"
    "  recover [--json]               finish or undo interrupted work (every command does first)\n"
    "  menu [--json] PATH...          the file-manager menu entries for a selection\n"
    "  open-url URL                   hand a corvane:// command to the running application\n"
    "  integrate [--remove]           add (or remove) Corvane's file-manager menus for you\n"
    "\n"
    "Options:\n"
    "  --password-stdin               read passwords from standard input, one per line, instead\n"
    "                                 of asking at the terminal\n"
    "  --help                         show this help\n"
    "  --version                      show the version\n";

namespace {

using Command = int (*)(CommandContext&, const Words&, std::istream&, std::ostream&, std::ostream&);

const std::map<std::string, Command, std::less<>> kCommands = {
    {"setup", runSetup},
    {"lock", runLock},
    {"unlock", runUnlock},
    {"lock-now", runLockNow},
    {"remove-lock", runRemoveLock},
    {"passwd", runPasswd},
    {"list", runList},
    {"forget", runForget},
    {"locate", runLocate},
    {"status", runStatus},
    {"config", runConfig},
    {"recover", runRecover},
    {"menu", runMenu},
    {"open-url", runOpenUrl},
    {"integrate", runIntegrate},
    {"menu-action", runMenuAction},
};

// Takes `option` out of the words before "--"; whether it was there.
bool takeOption(std::vector<std::string>& words, std::string_view option) {
    auto end = std::find(words.begin(), words.end(), "--");
    auto found = std::remove(words.begin(), end, option);
    if (found == end) return false;
    words.erase(found, end);
    return true;
}

}  // namespace

int CommandLine::run(std::vector<std::string> words, CommandContext::Settings settings,
                     CancelToken& cancel, std::istream& in, std::ostream& out, std::ostream& err) {
    try {
        settings.passwordFromInput = takeOption(words, "--password-stdin");
        bool help = takeOption(words, "--help") || (!words.empty() && words.front() == "help");
        if (help) {
            out << usage;
            return 0;
        }
        if (takeOption(words, "--version")) {
            out << "corvane " << CORVANE_VERSION << '\n';
            return 0;
        }
        if (words.empty()) throw UsageError("no command given");
        std::string name = words.front();
        words.erase(words.begin());
        auto command = kCommands.find(name);
        if (command == kCommands.end())
            throw UsageError((name.starts_with("-") ? "unknown option " : "unknown command ") +
                             name);

        CommandContext context(std::move(settings), cancel, in, err);
        struct Finish {
            CommandContext& context;
            ~Finish() { context.finish(); }
        } finish{context};
        return command->second(context, words, in, out, err);
    } catch (const UsageError& error) {
        err << "corvane: " << error.what() << "\n"
            << "Usage: corvane [--password-stdin] COMMAND [ARGUMENTS]\n"
            << "Run 'corvane --help' to see the commands.\n";
        return 2;
    } catch (...) {
        err << failureMessage(std::current_exception()) << '\n';
        return 1;
    }
}

}  // namespace corvane::cli
