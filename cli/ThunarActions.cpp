#include "ThunarActions.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "Records/UTF8.h"

namespace corvane::cli {

namespace {

// Where Corvane's actions are, and where new ones go: before "</actions>", or at the "/>" of an
// empty root written as "<actions/>".
struct Layout {
    std::vector<std::pair<std::size_t, std::size_t>> ours;  // each with its line break
    std::size_t insertAt = 0;
    bool emptyRoot = false;
};

constexpr std::string_view kSpace = " \t\r\n";

bool isNameCharacter(char c, bool first) {
    unsigned char u = static_cast<unsigned char>(c);
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c == ':' || u >= 0x80)
        return true;
    return !first && ((c >= '0' && c <= '9') || c == '-' || c == '.');
}

// Text or an attribute value: every '&' starts one of XML's own references, since there is no
// document type to define others.
bool hasValidReferences(std::string_view text) {
    for (auto at = text.find('&'); at != std::string_view::npos; at = text.find('&', at + 1)) {
        auto end = text.find(';', at);
        if (end == std::string_view::npos) return false;
        std::string_view name = text.substr(at + 1, end - at - 1);
        bool known =
            name == "amp" || name == "lt" || name == "gt" || name == "quot" || name == "apos";
        bool numeric =
            name.size() > 1 && name[0] == '#' &&
            (name[1] == 'x' ? name.size() > 2 && name.find_first_not_of("0123456789abcdefABCDEF",
                                                                        2) == std::string_view::npos
                            : name.find_first_not_of("0123456789", 1) == std::string_view::npos);
        if (!known && !numeric) return false;
    }
    return true;
}

class Scanner {
public:
    explicit Scanner(std::string_view text) : text_(text) {}

    std::optional<Layout> scan() {
        if (!UTF8::isValid(text_)) return std::nullopt;
        while (at_ < text_.size()) {
            bool fine = text_[at_] != '<'         ? characters()
                        : startsWith("<!--")      ? skipPast("-->")
                        : startsWith("<?")        ? skipPast("?>")
                        : startsWith("<![CDATA[") ? !open_.empty() && cdata()
                        : startsWith("<!")        ? false
                        : startsWith("</")        ? endTag()
                                                  : startTag();
            if (!fine) return std::nullopt;
        }
        if (!rootSeen_ || !open_.empty()) return std::nullopt;
        return layout_;
    }

private:
    bool startsWith(std::string_view prefix) const { return text_.substr(at_).starts_with(prefix); }

    bool skipPast(std::string_view end) {
        auto found = text_.find(end, at_ + 2);
        if (found == std::string_view::npos) return false;
        at_ = found + end.size();
        return true;
    }

    void skipSpace() {
        while (at_ < text_.size() && kSpace.find(text_[at_]) != std::string_view::npos) ++at_;
    }

    std::string_view name() {
        std::size_t start = at_;
        while (at_ < text_.size() && isNameCharacter(text_[at_], at_ == start)) ++at_;
        return text_.substr(start, at_ - start);
    }

    bool characters() {
        auto end = std::min(text_.find('<', at_), text_.size());
        std::string_view chunk = text_.substr(at_, end - at_);
        at_ = end;
        if (open_.empty()) return chunk.find_first_not_of(kSpace) == std::string_view::npos;
        if (inUniqueId_) uniqueId_ += chunk;
        return hasValidReferences(chunk);
    }

    bool cdata() {
        auto end = text_.find("]]>", at_);
        if (end == std::string_view::npos) return false;
        if (inUniqueId_) uniqueId_ += text_.substr(at_ + 9, end - at_ - 9);
        at_ = end + 3;
        return true;
    }

    bool startTag() {
        std::size_t tagStart = at_++;
        std::string_view element = name();
        if (element.empty()) return false;
        for (;;) {
            std::size_t before = at_;
            skipSpace();
            if (at_ >= text_.size()) return false;
            if (text_[at_] == '>' || startsWith("/>")) break;
            if (at_ == before || name().empty()) return false;
            skipSpace();
            if (at_ >= text_.size() || text_[at_++] != '=') return false;
            skipSpace();
            if (at_ >= text_.size() || (text_[at_] != '"' && text_[at_] != '\'')) return false;
            auto close = text_.find(text_[at_], at_ + 1);
            if (close == std::string_view::npos) return false;
            std::string_view value = text_.substr(at_ + 1, close - at_ - 1);
            if (value.find('<') != std::string_view::npos || !hasValidReferences(value))
                return false;
            at_ = close + 1;
        }
        bool empty = text_[at_] == '/';
        std::size_t end = at_;
        at_ += empty ? 2 : 1;
        if (!opened(element, tagStart)) return false;
        if (empty) {
            if (open_.size() == 1) {
                layout_.insertAt = end;
                layout_.emptyRoot = true;
            }
            return closed(tagStart);
        }
        return true;
    }

    bool endTag() {
        std::size_t tagStart = at_;
        at_ += 2;
        std::string_view element = name();
        skipSpace();
        if (at_ >= text_.size() || text_[at_] != '>' || open_.empty() || open_.back() != element)
            return false;
        ++at_;
        return closed(tagStart);
    }

    bool opened(std::string_view element, std::size_t tagStart) {
        if (open_.empty()) {
            if (rootSeen_ || element != "actions") return false;
            rootSeen_ = true;
        } else if (open_.size() == 1 && element == "action") {
            actionStart_ = tagStart;
            uniqueId_.clear();
        } else if (open_.size() == 2 && open_[1] == "action" && element == "unique-id") {
            inUniqueId_ = true;
        }
        open_.push_back(element);
        return true;
    }

    bool closed(std::size_t tagStart) {
        std::string_view element = open_.back();
        open_.pop_back();
        if (open_.empty()) {
            if (!layout_.emptyRoot) layout_.insertAt = tagStart;
        } else if (open_.size() == 1 && element == "action") {
            std::size_t end = at_ < text_.size() && text_[at_] == '\n' ? at_ + 1 : at_;
            auto first = uniqueId_.find_first_not_of(kSpace);
            if (first != std::string::npos &&
                std::string_view(uniqueId_).substr(first).starts_with(ThunarActions::idPrefix))
                layout_.ours.emplace_back(actionStart_, end);
        } else if (element == "unique-id") {
            inUniqueId_ = false;
        }
        return true;
    }

    std::string_view text_;
    std::size_t at_ = 0;
    std::vector<std::string_view> open_;
    bool rootSeen_ = false;
    std::size_t actionStart_ = 0;
    std::string uniqueId_;
    bool inUniqueId_ = false;
    Layout layout_;
};

}  // namespace

std::optional<std::string> ThunarActions::withoutOurs(std::string_view text) {
    auto layout = Scanner(text).scan();
    if (!layout) return std::nullopt;
    std::string kept(text);
    for (auto range = layout->ours.rbegin(); range != layout->ours.rend(); ++range)
        kept.erase(range->first, range->second - range->first);
    return kept;
}

std::optional<std::string> ThunarActions::withOurs(std::string_view text,
                                                   std::string_view elements) {
    auto kept = withoutOurs(text);
    if (!kept) return std::nullopt;
    auto layout = Scanner(*kept).scan();
    if (!layout) return std::nullopt;
    if (layout->emptyRoot)
        kept->replace(layout->insertAt, 2, ">\n" + std::string(elements) + "</actions>");
    else
        kept->insert(layout->insertAt, elements);
    return kept;
}

}  // namespace corvane::cli
