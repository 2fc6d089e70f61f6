// The file of unfinished operations ("operations.json" beside the item index). Every call reads
// and writes the whole file atomically; nothing is cached. Not locked: callers run one request at a
// time under the support lock.
#pragma once

#include <string>
#include <vector>

#include "Records/JournalEntry.h"

namespace corvane {

class OperationJournal {
public:
    explicit OperationJournal(std::string fileURL) : fileURL_(std::move(fileURL)) {}

    const std::string& fileURL() const { return fileURL_; }

    struct Loaded {
        std::vector<JournalEntry> entries;
        bool damaged = false;  // the file was undecodable and has just been set aside
    };

    std::vector<JournalEntry> load() const { return loadReportingDamage().entries; }
    Loaded loadReportingDamage() const;

    // Records a new entry or replaces one with the same id; either way it ends up last.
    void add(const JournalEntry& entry) const;
    void remove(const Uuid& id) const;

private:
    void save(const std::vector<JournalEntry>& entries) const;

    std::string fileURL_;
};

}  // namespace corvane
