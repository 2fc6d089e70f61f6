// Base64 as the records store bytes: any bytes encode to padded standard text that decodes back to
// them; any text either decodes to the bytes its length promises or, unless it is canonical
// padded base64, gives nothing. Unused low bits in the last group may be refused or ignored.
#include "FuzzSupport.h"
#include "Records/Base64.h"

using namespace corvane;

namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::size_t paddingOf(std::string_view text) {
    return text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
}

// Padded standard base64 whose unused low bits are zero: exactly what encode writes.
bool isCanonical(std::string_view text) {
    if (text.size() % 4 != 0) return false;
    std::size_t padding = paddingOf(text);
    std::string_view digits = text.substr(0, text.size() - padding);
    if (digits.find_first_not_of(kAlphabet) != std::string_view::npos) return false;
    if (padding == 0) return true;
    auto last = kAlphabet.find(digits.back());
    return (last & (padding == 1 ? 0x3 : 0xF)) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> bytes(data, data + size);
    std::string encoded = Base64::encode(bytes);
    CORVANE_FUZZ_CHECK(encoded.size() == (size + 2) / 3 * 4 && isCanonical(encoded));
    CORVANE_FUZZ_CHECK(Base64::decode(encoded) == bytes);

    std::string_view text = fuzzing::text(data, size);
    auto decoded = Base64::decode(text);
    if (!decoded) {
        CORVANE_FUZZ_CHECK(!isCanonical(text));
        return 0;
    }
    CORVANE_FUZZ_CHECK(text.size() % 4 == 0);
    std::size_t padding = paddingOf(text);
    CORVANE_FUZZ_CHECK(text.substr(0, text.size() - padding).find_first_not_of(kAlphabet) ==
                       std::string_view::npos);
    CORVANE_FUZZ_CHECK(decoded->size() == text.size() / 4 * 3 - padding);
    if (text.empty()) return 0;
    // Encoding again gives the same text but for the ignored low bits of the last digit.
    std::string again = Base64::encode(*decoded);
    std::size_t lastDigit = text.size() - padding - 1;
    CORVANE_FUZZ_CHECK(again.substr(0, lastDigit) == text.substr(0, lastDigit) &&
                       again.substr(lastDigit + 1) == text.substr(lastDigit + 1));
    return 0;
}
