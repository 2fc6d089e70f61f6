#include "Records/OperationJournal.h"

#include "Records/JSONCodec.h"

namespace corvane {

OperationJournal::Loaded OperationJournal::loadReportingDamage() const {
    auto loaded = JSONCodec::loadArray<JournalEntry>(fileURL_, JournalEntry::fromJSON,
                                                     JSONCodec::engineRecordLimit);
    return {std::move(loaded.records), loaded.damaged};
}

void OperationJournal::add(const JournalEntry& entry) const {
    auto entries = load();
    std::erase_if(entries, [&](const JournalEntry& each) { return each.id == entry.id; });
    entries.push_back(entry);
    save(entries);
}

void OperationJournal::remove(const Uuid& id) const {
    auto entries = load();
    std::erase_if(entries, [&](const JournalEntry& each) { return each.id == id; });
    save(entries);
}

void OperationJournal::save(const std::vector<JournalEntry>& entries) const {
    nlohmann::json array = nlohmann::json::array();
    for (const auto& entry : entries) array.push_back(entry.toJSON());
    JSONCodec::writePrivately(JSONCodec::encode(array), fileURL_);
}

}  // namespace corvane
