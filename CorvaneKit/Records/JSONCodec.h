// The file helpers every JSON record shares: the encoders, the private atomic write, reading, and
// setting a damaged file aside. Stateless; callable from any thread, but the records built on it
// assume one writer at a time (the engine's worker, under the support lock).
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/types.h>

#include <nlohmann/json.hpp>

#include "Records/JSONFields.h"

namespace corvane {

struct JSONCodec {
    // The engine records' encoding: pretty-printed with two spaces and " : ", keys sorted, slashes
    // escaped as \/, no trailing line break. Throws std::invalid_argument for text that is not
    // UTF-8, which no reader could take back.
    static std::string encode(const nlohmann::json& value);

    // The small records' encoding: compact, keys in the order given, slashes escaped.
    static std::string encodeCompact(const nlohmann::ordered_json& value);

    // Any malformed JSON throws DecodingError.
    static nlohmann::json decode(std::string_view text);

    // Creates the parent directories (new ones 0700), writes `data` to a temporary file beside
    // `path`, renames it over `path` and makes it 0600. A reader sees the old file or the new one.
    static void writePrivately(std::string_view data, const std::string& path);

    // The same atomic replace with default permissions for the file and new directories.
    static void writeAtomically(std::string_view data, const std::string& path);

    // The whole file, or nothing when no file is there. Other read failures throw
    // std::system_error naming the path.
    static std::optional<std::string> readIfPresent(const std::string& path);

    // Renames a damaged record to NAME.damaged-yyyyMMdd-HHmmss (then -2, -3 … when taken) in the
    // same folder and returns the new path. Never deletes; a failed rename throws and leaves the
    // file.
    static std::string setAside(const std::string& path, std::chrono::system_clock::time_point now =
                                                             std::chrono::system_clock::now());

    // Reads a record file holding a JSON array. An undecodable file is set aside and reads as
    // empty; `damaged` then says so.
    template <class Record>
    struct Loaded {
        std::vector<Record> records;
        bool damaged = false;
    };

    template <class Record, class Decode>
    static Loaded<Record> loadArray(const std::string& path, Decode decodeOne) {
        auto text = readIfPresent(path);
        if (!text) return {};
        Loaded<Record> loaded;
        try {
            auto array = decode(*text);
            if (!array.is_array()) throw DecodingError("not an array");
            for (const auto& element : array) loaded.records.push_back(decodeOne(element));
        } catch (const DecodingError&) {
            setAside(path);
            return {{}, true};
        } catch (const nlohmann::json::exception&) {
            setAside(path);
            return {{}, true};
        }
        return loaded;
    }

    static void createDirectories(const std::string& path, mode_t mode);
};

}  // namespace corvane
