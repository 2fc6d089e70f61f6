// The file helpers every JSON record shares: the encoders, the private atomic write, reading, and
// setting a damaged file aside. Stateless; callable from any thread, but the records built on it
// assume one writer at a time (the engine's worker, under the support lock).
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <sys/types.h>

#include <nlohmann/json.hpp>

#include "Records/JSONFields.h"

namespace corvane {

struct JSONCodec {
    // The most a record may hold before it counts as damaged: the engine's own records (the item
    // index, the journal), and the small ones (marker, shared state, password record).
    static constexpr std::size_t engineRecordLimit = std::size_t(64) << 20;
    static constexpr std::size_t smallRecordLimit = std::size_t(64) << 10;

    // The engine records' encoding: pretty-printed with two spaces and " : ", keys sorted, slashes
    // escaped as \/, no trailing line break. Throws std::invalid_argument for text that is not
    // UTF-8, which no reader could take back.
    static std::string encode(const nlohmann::json& value);

    // The small records' encoding: compact, keys in the order given, slashes escaped.
    static std::string encodeCompact(const nlohmann::ordered_json& value);

    // Any malformed JSON throws DecodingError.
    static nlohmann::json decode(std::string_view text);

    // Creates the parent directories (new ones 0700), writes `data` to a temporary file beside
    // `path`, makes it 0600 and renames it over `path`. A reader sees the old file or the new one.
    static void writePrivately(std::string_view data, const std::string& path);

    // The same atomic replace with default permissions for the file and new directories: the
    // system applies the umask as it creates them, which is never changed here, since other
    // threads create files meanwhile.
    static void writeAtomically(std::string_view data, const std::string& path);
    // The same, with the file made exactly `mode`.
    static void writeAtomically(std::string_view data, const std::string& path, mode_t mode);

    // The whole file, or nothing when no file is there. Only a regular file is read: a link
    // throws std::system_error ELOOP, a folder EISDIR, a FIFO, device or socket EINVAL (never
    // waiting for a writer); other read failures throw the file system's error, all naming the
    // path. A file larger than `maximumSize` throws DecodingError: it is damage, not a failure.
    // `status`, when given, receives the file's status as it was opened.
    static std::optional<std::string> readIfPresent(const std::string& path,
                                                    std::size_t maximumSize = engineRecordLimit,
                                                    struct stat* status = nullptr);

    // One of our own records: as readIfPresent, but anything other than a regular file at the
    // path (a link, a folder, a FIFO, a device) is damage, as malformed contents are, and throws
    // DecodingError, so that it is set aside as they are.
    static std::optional<std::string> readRecord(const std::string& path,
                                                 std::size_t maximumSize);

    // Renames a damaged record to NAME.damaged-yyyyMMdd-HHmmss (then -2, -3 … when taken) in the
    // same folder and returns the new path. Never deletes; a failed rename throws and leaves the
    // file.
    static std::string setAside(const std::string& path, std::chrono::system_clock::time_point now =
                                                             std::chrono::system_clock::now());
    // Keeps `contents` (the record as it was read) under the next free set-aside name beside
    // `path`, privately, and returns that name; `path` itself stays.
    static std::string keepAside(
        const std::string& path, std::string_view contents,
        std::chrono::system_clock::time_point now = std::chrono::system_clock::now());

    // The records of a JSON array of them. Anything else throws DecodingError, as does an element
    // that `decodeOne` refuses with DecodingError or a JSON exception. Touches no file.
    template <class Record, class Decode>
    static std::vector<Record> decodeArray(std::string_view text, Decode decodeOne) {
        try {
            auto array = decode(text);
            if (!array.is_array()) throw DecodingError("not an array");
            std::vector<Record> records;
            for (const auto& element : array) records.push_back(decodeOne(element));
            return records;
        } catch (const nlohmann::json::exception& error) {
            throw DecodingError(error.what());
        }
    }

    // Reads a record file holding a JSON array. An undecodable or oversized file is set aside and
    // reads as empty; `damaged` then says so.
    template <class Record>
    struct Loaded {
        std::vector<Record> records;
        bool damaged = false;
    };

    template <class Record, class Decode>
    static Loaded<Record> loadArray(const std::string& path, Decode decodeOne,
                                    std::size_t maximumSize = engineRecordLimit) {
        std::optional<std::vector<Record>> records;
        try {
            auto text = readRecord(path, maximumSize);
            if (!text) return {};
            records = decodeArray<Record>(*text, decodeOne);
        } catch (const DecodingError&) {
            setAside(path);
            return {{}, true};
        }
        return {std::move(*records), false};
    }

    static void createDirectories(const std::string& path, mode_t mode);
};

}  // namespace corvane
