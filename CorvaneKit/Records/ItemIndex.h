// The list of locked items, kept as one JSON file ("items.json" in the support directory). Every
// call reads and writes the whole file; nothing is cached. Not locked: callers run one request at
// a time under the support lock.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Records/LockedItem.h"
#include "Records/Uuid.h"

namespace corvane {

class ItemIndex {
public:
    explicit ItemIndex(std::string fileURL) : fileURL_(std::move(fileURL)) {}

    const std::string& fileURL() const { return fileURL_; }

    struct Loaded {
        std::vector<LockedItem> items;
        // The file was undecodable, or held records under an id an earlier record has, and has
        // just been set aside.
        bool damaged = false;
    };

    // Empty when there is no file. An undecodable file is set aside and reads as empty. A record
    // whose id an earlier one has would let a command on one item act on the other: a copy of the
    // file is set aside, and the index keeps the first record of each id, so that the other item
    // is adopted afresh when it is next unlocked.
    std::vector<LockedItem> load() const { return loadReportingDamage().items; }
    Loaded loadReportingDamage() const;

    void save(const std::vector<LockedItem>& items) const;

    // Replaces the record with the same id in its place, or appends a new one.
    void upsert(const LockedItem& item) const;
    void remove(const Uuid& id) const;

    // The record of the locked item at `path`, compared after resolving links and "..".
    std::optional<LockedItem> item(const std::string& path) const;

    // Where the item is now: through its locator, else its last known path, else nowhere.
    static std::optional<std::string> locate(const LockedItem& item);

    // A copy pointing at `path`, with a fresh locator. Writes nothing.
    static LockedItem refreshed(const LockedItem& item, const std::string& path);

private:
    std::string fileURL_;
};

}  // namespace corvane
