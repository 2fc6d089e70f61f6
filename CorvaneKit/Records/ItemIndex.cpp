#include "Records/ItemIndex.h"

#include <sys/stat.h>

#include <algorithm>
#include <set>

#include "Records/JSONCodec.h"
#include "Records/Locator.h"
#include "Records/Paths.h"

namespace corvane {

namespace {

bool exists(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0;
}

}  // namespace

ItemIndex::Loaded ItemIndex::loadReportingDamage() const {
    std::optional<std::string> text;
    std::vector<LockedItem> items;
    try {
        text = JSONCodec::readRecord(fileURL_, JSONCodec::engineRecordLimit);
        if (!text) return {};
        items = JSONCodec::decodeArray<LockedItem>(*text, LockedItem::fromJSON);
    } catch (const DecodingError&) {
        JSONCodec::setAside(fileURL_);
        return {{}, true};
    }
    std::set<Uuid> seen;
    std::vector<LockedItem> firsts;
    for (auto& item : items)
        if (seen.insert(item.id).second) firsts.push_back(std::move(item));
    if (firsts.size() == items.size()) return {std::move(firsts), false};
    // The whole file is kept before the shorter list replaces it.
    JSONCodec::keepAside(fileURL_, *text);
    save(firsts);
    return {std::move(firsts), true};
}

void ItemIndex::save(const std::vector<LockedItem>& items) const {
    nlohmann::json array = nlohmann::json::array();
    for (const auto& item : items) array.push_back(item.toJSON());
    JSONCodec::writePrivately(JSONCodec::encode(array), fileURL_);
}

void ItemIndex::upsert(const LockedItem& item) const {
    auto items = load();
    auto known = std::find_if(items.begin(), items.end(),
                              [&](const LockedItem& each) { return each.id == item.id; });
    if (known != items.end())
        *known = item;
    else
        items.push_back(item);
    save(items);
}

void ItemIndex::remove(const Uuid& id) const {
    auto items = load();
    std::erase_if(items, [&](const LockedItem& each) { return each.id == id; });
    save(items);
}

std::optional<LockedItem> ItemIndex::item(const std::string& path) const {
    std::string asked = canonicalPath(path);
    for (const auto& candidate : load()) {
        auto located = locate(candidate);
        if (located && canonicalPath(*located) == asked) return candidate;
    }
    return std::nullopt;
}

std::optional<std::string> ItemIndex::locate(const LockedItem& item) {
    if (item.bookmark) {
        auto resolved = Locator::resolve(*item.bookmark);
        if (resolved && exists(*resolved)) return resolved;
    }
    if (exists(item.lastKnownPath)) return item.lastKnownPath;
    return std::nullopt;
}

LockedItem ItemIndex::refreshed(const LockedItem& item, const std::string& path) {
    LockedItem copy = item;
    copy.bookmark = Locator::make(path);
    copy.lastKnownPath = path;
    return copy;
}

}  // namespace corvane
