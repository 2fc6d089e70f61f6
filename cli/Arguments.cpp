#include "Arguments.h"

#include <algorithm>

#include "UsageError.h"

namespace corvane::cli {

Arguments Arguments::parse(const std::vector<std::string>& words,
                           std::initializer_list<std::string_view> accepted) {
    Arguments arguments;
    bool optionsEnded = false;
    for (const auto& word : words) {
        if (optionsEnded || word == "-" || !word.starts_with("-")) {
            arguments.operands.push_back(word);
        } else if (word == "--") {
            optionsEnded = true;
        } else if (std::find(accepted.begin(), accepted.end(), word) != accepted.end()) {
            arguments.options.insert(word);
        } else {
            throw UsageError("unknown option " + word);
        }
    }
    return arguments;
}

}  // namespace corvane::cli
