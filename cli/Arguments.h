// The words that follow a command's name, split into the options the command accepts and its
// operands (paths). "--" ends the options, so that a path may begin with a dash.
#pragma once

#include <initializer_list>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::cli {

struct Arguments {
    std::set<std::string, std::less<>> options;
    std::vector<std::string> operands;

    bool has(std::string_view option) const { return options.contains(option); }

    // Throws UsageError for an option that is not in `accepted`.
    static Arguments parse(const std::vector<std::string>& words,
                           std::initializer_list<std::string_view> accepted);
};

}  // namespace corvane::cli
