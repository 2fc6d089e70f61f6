// corvane config [idle-minutes N | fingerprint on|off]: reads or changes the two settings the
// application shares with the command.
#include "Arguments.h"
#include "Commands.h"
#include "Records/IdlePolicy.h"
#include "UsageError.h"

namespace corvane::cli {

int runConfig(CommandContext& context, const Words& words, std::istream&, std::ostream& out,
              std::ostream&) {
    Arguments arguments = Arguments::parse(words, {});
    const auto& operands = arguments.operands;
    const UserSettings& settings = context.userSettings();
    if (operands.empty()) {
        out << "idle-minutes " << settings.idleMinutes() << '\n'
            << "fingerprint " << (settings.touchIDEnabled() ? "on" : "off") << '\n';
        return 0;
    }
    if (operands.size() != 2) throw UsageError("config takes a setting and its value");
    const std::string& value = operands[1];
    if (operands[0] == "idle-minutes") {
        int minutes = -1;
        if (value.size() <= 2 && !value.empty() &&
            value.find_first_not_of("0123456789") == std::string::npos)
            minutes = std::stoi(value);
        if (!IdlePolicy::isChoice(minutes))
            throw UsageError("idle-minutes must be 5, 15, 30, 60, or 0 for never");
        settings.setIdleMinutes(minutes);
    } else if (operands[0] == "fingerprint") {
        if (value != "on" && value != "off") throw UsageError("fingerprint must be on or off");
        settings.setTouchIDEnabled(value == "on");
    } else {
        throw UsageError("unknown setting " + operands[0]);
    }
    return 0;
}

}  // namespace corvane::cli
