#include "Commands/CorvaneCommand.h"

#include <algorithm>

#include "Engine/ItemName.h"
#include "Records/CorvaneError.h"

namespace corvane {

namespace {

using Allowed = bool (*)(char);

bool isUnreserved(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

bool isSubDelimiter(char c) {
    return std::string_view("!$&'()*+,;=").find(c) != std::string_view::npos;
}

bool isPathCharacter(char c) {
    return isUnreserved(c) || isSubDelimiter(c) || c == ':' || c == '@';
}

bool isQueryCharacter(char c) {
    return isPathCharacter(c) || c == '/' || c == '?';
}

bool isPathSegmentsCharacter(char c) {
    return isPathCharacter(c) || c == '/';
}

bool isUserCharacter(char c) {
    return isUnreserved(c) || isSubDelimiter(c) || c == ':';
}

bool isHostCharacter(char c) {
    return isUnreserved(c) || isSubDelimiter(c);
}

// What a query value may hold unencoded: the query's characters less the ones that separate
// items, names and values ("&", "=", "#", "?"), "+" (often read as a space) and "/".
bool staysUnencoded(char c) {
    return isQueryCharacter(c) && std::string_view("&=+#?/").find(c) == std::string_view::npos;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// Decoded, but nothing as well when a character is not `allowed` in the component.
std::optional<std::string> decoded(std::string_view text, Allowed allowed) {
    if (!std::all_of(text.begin(), text.end(), [&](char c) { return c == '%' || allowed(c); }))
        return std::nullopt;
    return CorvaneCommand::percentDecoded(text);
}

std::string encoded(std::string_view bytes) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(bytes.size() * 3);
    for (char c : bytes) {
        if (staysUnencoded(c)) {
            text += c;
        } else {
            auto byte = static_cast<unsigned char>(c);
            text += {'%', digits[byte >> 4], digits[byte & 15]};
        }
    }
    return text;
}

// The host of an authority (userinfo@host:port), decoded; nothing when it is malformed.
std::optional<std::string> hostOf(std::string_view authority) {
    if (auto at = authority.rfind('@'); at != std::string_view::npos) {
        if (!decoded(authority.substr(0, at), isUserCharacter)) return std::nullopt;
        authority.remove_prefix(at + 1);
    }
    if (auto colon = authority.rfind(':'); colon != std::string_view::npos) {
        auto port = authority.substr(colon + 1);
        if (!std::all_of(port.begin(), port.end(), [](char c) { return c >= '0' && c <= '9'; }))
            return std::nullopt;
        authority = authority.substr(0, colon);
    }
    return decoded(authority, isHostCharacter);
}

// The decoded values of the query's "path" items, in order; nothing when the query is malformed.
std::optional<std::vector<std::string>> pathValues(std::string_view query) {
    std::vector<std::string> values;
    for (std::size_t start = 0; start <= query.size();) {
        auto end = std::min(query.find('&', start), query.size());
        auto item = query.substr(start, end - start);
        start = end + 1;
        auto equals = item.find('=');
        auto name = decoded(item.substr(0, equals), isQueryCharacter);
        if (!name) return std::nullopt;
        if (equals == std::string_view::npos) continue;
        auto value = decoded(item.substr(equals + 1), isQueryCharacter);
        if (!value) return std::nullopt;
        if (*name == "path" && value->starts_with('/') && value->find('\0') == std::string::npos)
            values.push_back(std::move(*value));
    }
    return values;
}

}  // namespace

std::optional<std::string> CorvaneCommand::percentDecoded(std::string_view text) {
    std::string bytes;
    bytes.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            bytes += text[i];
            continue;
        }
        int high = i + 2 < text.size() ? hexValue(text[i + 1]) : -1;
        int low = high >= 0 ? hexValue(text[i + 2]) : -1;
        if (low < 0) return std::nullopt;
        bytes += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return bytes;
}

std::string CorvaneCommand::url() const {
    std::string text = std::string(scheme) + "://" + std::string(hosts[std::size_t(kind)]) + "?";
    for (std::size_t i = 0; i < paths.size(); ++i)
        text += (i > 0 ? "&path=" : "path=") + encoded(paths[i]);
    return text;
}

std::optional<CorvaneCommand> CorvaneCommand::parse(std::string_view url) {
    if (url.size() > maximumURLSize) return std::nullopt;
    auto colon = url.find(':');
    if (colon == std::string_view::npos || url.substr(0, colon) != scheme) return std::nullopt;
    auto rest = url.substr(colon + 1);

    // A URL splits at its first "#" (fragment), then its first "?" (query).
    if (auto hash = rest.find('#'); hash != std::string_view::npos) {
        if (!decoded(rest.substr(hash + 1), isQueryCharacter)) return std::nullopt;
        rest = rest.substr(0, hash);
    }
    std::string_view query;
    if (auto question = rest.find('?'); question != std::string_view::npos) {
        query = rest.substr(question + 1);
        rest = rest.substr(0, question);
    }
    if (!rest.starts_with("//")) return std::nullopt;  // no authority, so no host
    rest.remove_prefix(2);
    auto slash = std::min(rest.find('/'), rest.size());
    auto host = hostOf(rest.substr(0, slash));
    if (!host || host->empty() || !decoded(rest.substr(slash), isPathSegmentsCharacter))
        return std::nullopt;

    auto found = std::find(hosts.begin(), hosts.end(), *host);
    if (found == hosts.end()) return std::nullopt;
    auto paths = pathValues(query);
    if (!paths || paths->empty()) return std::nullopt;
    auto kind = static_cast<Kind>(found - hosts.begin());
    if (kind != Kind::lock && kind != Kind::lockNow && paths->size() != 1) return std::nullopt;
    return CorvaneCommand{kind, std::move(*paths)};
}

bool CorvaneCommand::needsConfirmation(const std::optional<std::string>& sender,
                                       bool testOverride) const {
    if (kind != Kind::lock && kind != Kind::lockNow) return false;
    if (!sender) return true;
    if (std::find(trustedSenders.begin(), trustedSenders.end(), *sender) != trustedSenders.end())
        return false;
    return !(testOverride && *sender == testSender);
}

std::string CorvaneCommand::confirmationQuestion() const {
    std::vector<std::string> names;
    for (const auto& path : paths) names.push_back(itemName(path));
    return "Another app asked Corvane to lock " + CorvaneError::list(names) + ". Lock " +
           (paths.size() == 1 ? "it" : "them") + "?";
}

}  // namespace corvane
