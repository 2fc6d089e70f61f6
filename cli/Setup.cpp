// corvane setup: creates the one password that protects every locked item and keeps it in the
// desktop keyring. Nothing is saved until the user has chosen it twice and accepted that it
// cannot be recovered.
#include "Arguments.h"
#include "CommandFailure.h"
#include "Commands.h"
#include "Records/PasswordRules.h"
#include "UsageError.h"

namespace corvane::cli {

namespace {

const char* strengthName(PasswordRules::Strength strength) {
    switch (strength) {
        case PasswordRules::Strength::weak: return "weak";
        case PasswordRules::Strength::fair: return "fair";
        case PasswordRules::Strength::strong: return "strong";
    }
    return "weak";
}

std::optional<std::string> problemWith(const std::string& password) {
    if (auto problem = PasswordRules::inputProblem(password)) return problem;
    return PasswordRules::problem(password);
}

// Asks until a password passes the rules and is typed the same twice; nothing when input ends.
std::optional<SecretText> chooseOnTerminal(Prompter& prompter) {
    for (;;) {
        auto chosen = prompter.password("", "", "Password: ");
        if (!chosen) return std::nullopt;
        if (auto problem = problemWith(chosen->text())) {
            prompter.say(*problem);
            continue;
        }
        prompter.say(std::string("Strength: ") +
                     strengthName(PasswordRules::strength(chosen->text())));
        auto again = prompter.password("", "", "Confirm password: ");
        if (!again) return std::nullopt;
        if (*again == chosen->text()) return chosen;
        prompter.say("The passwords do not match.");
    }
}

}  // namespace

int runSetup(CommandContext& context, const Words& words, std::istream&, std::ostream& out,
             std::ostream&) {
    Arguments arguments = Arguments::parse(words, {});
    if (!arguments.operands.empty()) throw UsageError("setup takes no paths");
    if (context.passwords().record())
        throw CommandFailure("Corvane already has a password. Use corvane passwd to change it.");
    Prompter& prompter = context.prompter();

    std::optional<SecretText> chosen;
    if (prompter.fromInput()) {
        chosen = prompter.password("", "");
        if (!chosen) throw CommandFailure("Standard input ended before a password.");
        if (auto problem = problemWith(chosen->text())) throw CommandFailure(*problem);
    } else {
        prompter.say("Create your Corvane password");
        prompter.say(
            "One password protects everything you lock. With a fingerprint reader you "
            "will mostly use your fingerprint.");
        prompter.say(
            "Use at least 8 characters. Longer passwords, and ones that mix upper and "
            "lower case, digits and symbols, are stronger.");
        chosen = chooseOnTerminal(prompter);
        if (!chosen) return 1;
        if (!prompter.confirm("I understand there is no way to recover a forgotten password.",
                              false))
            return 1;
    }

    StoredSecret secret;
    secret.password = chosen->text();
    secret.generation = StoredSecret::firstGeneration;
    try {
        context.store().save(secret);
    } catch (const std::exception&) {
        throw CommandFailure("Could not save your password to the keyring.");
    }
    out << "Your password is kept in your desktop keyring, as \"Corvane password\".\n";
    if (context.fingerprintReader().available() && context.userSettings().touchIDEnabled())
        out << "Your fingerprint unlocks too; corvane config fingerprint off turns that off.\n";
    return 0;
}

}  // namespace corvane::cli
