#include "Records/Uuid.h"

#include <sys/random.h>

#include <cerrno>
#include <system_error>

namespace corvane {

namespace {

constexpr std::array<int, 4> kHyphenPositions = {8, 13, 18, 23};

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

Uuid Uuid::random() {
    Uuid uuid;
    std::size_t filled = 0;
    while (filled < uuid.bytes_.size()) {
        ssize_t got = getrandom(uuid.bytes_.data() + filled, uuid.bytes_.size() - filled, 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            throw std::system_error(errno, std::generic_category(), "getrandom");
        }
        filled += static_cast<std::size_t>(got);
    }
    uuid.bytes_[6] = static_cast<std::uint8_t>((uuid.bytes_[6] & 0x0F) | 0x40);
    uuid.bytes_[8] = static_cast<std::uint8_t>((uuid.bytes_[8] & 0x3F) | 0x80);
    return uuid;
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    Uuid uuid;
    std::size_t byte = 0;
    for (std::size_t i = 0; i < text.size();) {
        bool hyphenHere = false;
        for (int position : kHyphenPositions) hyphenHere |= (static_cast<int>(i) == position);
        if (hyphenHere) {
            if (text[i] != '-') return std::nullopt;
            ++i;
            continue;
        }
        int high = hexValue(text[i]);
        int low = i + 1 < text.size() ? hexValue(text[i + 1]) : -1;
        if (high < 0 || low < 0) return std::nullopt;
        uuid.bytes_[byte++] = static_cast<std::uint8_t>(high * 16 + low);
        i += 2;
    }
    return uuid;
}

std::string Uuid::string() const {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes_.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += kDigits[bytes_[i] >> 4];
        text += kDigits[bytes_[i] & 0x0F];
    }
    return text;
}

}  // namespace corvane
