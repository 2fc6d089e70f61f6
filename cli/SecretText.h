// A password while the command holds it: one buffer, large enough for the longest password
// accepted, so that it never moves, kept out of swap where the system allows it, and wiped when it
// goes away. Copies are made only on purpose.
#pragma once

#include <string.h>
#include <sys/mman.h>

#include <string>
#include <string_view>

#include "Records/PasswordRules.h"

namespace corvane::cli {

class SecretText {
public:
    SecretText() {
        text_.reserve(PasswordRules::maximumBytes + 1);
        // Never unlocked: its pages may hold another secret's buffer, and locks do not nest. The
        // command is short-lived, and a refusal (over the limit) leaves the wipe to do the work.
        mlock(text_.data(), text_.capacity() + 1);
    }
    explicit SecretText(std::string_view text) : SecretText() { text_.append(text); }
    SecretText(SecretText&& other) : SecretText(std::string_view(other.text_)) { other.wipe(); }
    SecretText& operator=(SecretText&& other) {
        if (this != &other) {
            wipe();
            text_.append(other.text_);
            other.wipe();
        }
        return *this;
    }
    SecretText(const SecretText&) = delete;
    SecretText& operator=(const SecretText&) = delete;
    ~SecretText() { wipe(); }

    const std::string& text() const { return text_; }
    bool operator==(std::string_view other) const { return text_ == other; }

    // Keeps at most one byte more than any password may have, enough to tell that it is too long.
    void push(char byte) {
        if (text_.size() <= PasswordRules::maximumBytes) text_.push_back(byte);
    }
    void pop() {
        if (!text_.empty()) text_.pop_back();
    }

    void wipe() {
        explicit_bzero(text_.data(), text_.capacity());
        text_.clear();
    }

private:
    std::string text_;
};

}  // namespace corvane::cli
