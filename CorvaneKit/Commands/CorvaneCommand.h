// A request that reaches the application from outside, as a corvane:// URL: what to do, and to
// which paths. A plain value, compared by value; every function is pure and callable from any
// thread.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

struct CorvaneCommand {
    // The order is the URL hosts' order in `hosts`.
    enum class Kind { lock, unlock, lockNow, removeLock, reveal };

    static constexpr std::string_view scheme = "corvane";
    static constexpr std::array<std::string_view, 5> hosts = {"lock", "unlock", "lock-now",
                                                              "remove-lock", "reveal"};
    // Senders that may ask for a lock without the user confirming it.
    static constexpr std::array<std::string_view, 2> trustedSenders = {
        "com.pellmoor.corvane", "com.pellmoor.corvane.finder"};
    // Trusted as well, but only while the end-to-end tests switch it on.
    static constexpr std::string_view testSender = "com.pellmoor.corvane.e2e";
    // Longer URLs are refused unread: no file manager selection needs more.
    static constexpr std::size_t maximumURLSize = 64 * 1024;

    Kind kind = Kind::lock;
    // Several for lock and lockNow, exactly one for the others.
    std::vector<std::string> paths;

    bool operator==(const CorvaneCommand&) const = default;

    // corvane://HOST?path=P1&path=P2…, each path's bytes percent-encoded.
    std::string url() const;

    // Nothing for a URL that is malformed, of another scheme, names no known action or carries
    // no usable absolute path (or more than one where one is expected).
    static std::optional<CorvaneCommand> parse(std::string_view url);

    // The bytes the %XX escapes in `text` stand for; nothing when an escape is broken.
    static std::optional<std::string> percentDecoded(std::string_view text);

    // Whether the user must agree first: a lock needs no password, so an unknown sender could
    // otherwise start one unseen; the other actions ask for the password or only show files.
    bool needsConfirmation(const std::optional<std::string>& sender, bool testOverride) const;

    // "Another app asked Corvane to lock A and B. Lock them?"
    std::string confirmationQuestion() const;
};

}  // namespace corvane
