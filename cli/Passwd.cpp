// corvane passwd: changes the application password, then moves every locked item to it one image
// at a time. Items that cannot be moved now keep opening with the old password and are moved by a
// later command.
#include "Arguments.h"
#include "CommandFailure.h"
#include "Commands.h"
#include "Records/PasswordRules.h"
#include "UsageError.h"

namespace corvane::cli {

int runPasswd(CommandContext& context, const Words& words, std::istream&, std::ostream& out,
              std::ostream& err) {
    Arguments arguments = Arguments::parse(words, {});
    if (!arguments.operands.empty()) throw UsageError("passwd takes no paths");
    PasswordGate& gate = context.passwords();
    Prompter& prompter = context.prompter();
    StoredSecret secret = gate.requireRecord();

    auto current = prompter.password("Change your Corvane password", "", "Current password: ");
    if (!current) return 1;
    auto chosen = prompter.password("", "", "New password: ");
    if (!chosen) return 1;
    if (auto problem = PasswordRules::inputProblem(chosen->text())) throw CommandFailure(*problem);
    if (auto problem = PasswordRules::problem(chosen->text())) throw CommandFailure(*problem);
    if (prompter.onTerminal()) {
        auto again = prompter.password("", "", "Confirm new password: ");
        if (!again) return 1;
        if (!(*again == chosen->text())) throw CommandFailure("The passwords do not match.");
    }
    if (!(*current == secret.password))
        throw CommandFailure("Your current password is not correct.");

    Locker& locker = context.locker();
    // The record may have moved on while the prompts waited, and a change must start from it.
    secret = gate.requireRecord();
    if (!(*current == secret.password))
        throw CommandFailure("Your current password is not correct.");
    if (auto behind = locker.itemsStillMigrating(secret.generation); !behind.empty())
        throw CommandFailure(PasswordRules::stillMigratingMessage(behind));
    // Refused before the new password is saved, so that nothing is left half changed.
    if (!locker.openItems().empty()) throw CorvaneError::needsAllLocked();

    StoredSecret changed = secret.changing(chosen->text());
    try {
        context.store().save(changed);
    } catch (const std::exception&) {
        throw CommandFailure("Could not save the new password to your keyring.");
    }
    auto failures = locker.changePassword(
        secret.password, changed.password, changed.generation, [&](const LockedItem& item) {
            err << "Updating " << context.forError(item.displayName) << "…\n";
        });
    if (failures.empty()) {
        try {
            context.store().save(changed.migrated());
        } catch (const std::exception&) {
            // The previous password stays in the record until a later command drops it.
        }
        out << "Your password was changed.\n";
        return 0;
    }
    std::vector<std::string> names;
    for (const auto& item : locker.index.load())
        if (failures.contains(item.id)) names.push_back(context.forError(item.displayName));
    out << "Your password was changed.\n";
    err << PasswordRules::migrationFailureMessage(names, failures.size()) << '\n';
    return 1;
}

}  // namespace corvane::cli
