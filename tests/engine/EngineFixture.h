// A database laid out as the record manager lays it out, driven through the
// engine's calls: a data file of records with a 40-byte fixed part (type,
// ID in the machine's order, name) and two unique indexes, "number_key"
// (type bytes, ID as a signed number) and "name_key" (type bytes, name as a
// NUL-padded string). Tests, campaigns and the engine benchmark share it.
#ifndef KAVO_TESTS_ENGINE_ENGINEFIXTURE_H
#define KAVO_TESTS_ENGINE_ENGINEFIXTURE_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "engine/Engine.h"

namespace kavotest {

constexpr std::uint16_t kFixedLength = 40;

inline std::vector<std::uint8_t> NumberKey(const char* type, std::int32_t id) {
    std::vector<std::uint8_t> key(8);
    std::memcpy(key.data(), type, 4);
    std::memcpy(key.data() + 4, &id, 4);
    return key;
}

inline std::vector<std::uint8_t> NameKey(const char* type, const std::string& name) {
    std::vector<std::uint8_t> key(36, 0);
    std::memcpy(key.data(), type, 4);
    std::memcpy(key.data() + 4, name.data(), std::min<std::size_t>(name.size(), 31));
    return key;
}

// The fixed part is the number key, then the name as the name key holds it.
inline std::vector<std::uint8_t> MakeRecord(const char* type, std::int32_t id, const std::string& name,
                                            const std::vector<std::uint8_t>& data) {
    std::vector<std::uint8_t> record = NumberKey(type, id);
    const std::vector<std::uint8_t> key = NameKey(type, name);
    record.insert(record.end(), key.begin() + 4, key.end());
    record.insert(record.end(), data.begin(), data.end());
    return record;
}

// The host file, its file definition and the file numbers it was given.
class TTestDatabase {
public:
    explicit TTestDatabase(std::string path) : fPath(std::move(path)), fDataName(fPath + "!data") {
        fDefinition = {fDataName.c_str(), -1,      kFixedLength, 16384, 68, 2, 4096, 64,
                       fIndexes,          nullptr, nullptr,      0};
    }

    // Creates the host file and its members and leaves them open.
    std::int16_t Create() {
        return Start(CreateHostFile(kHostNumber, fPath.c_str(), 0, 0, kHostCreateMode),
                     CreateFilesFromDefinition);
    }

    std::int16_t Open(bool readOnly = false) {
        const std::uint16_t mode = readOnly ? kHostOpenReadOnly : kHostOpenReadWrite;
        return Start(OpenHostFile(kHostNumber, fPath.c_str(), mode), OpenFilesFromDefinition);
    }

    std::int16_t Close() {
        CloseFilesFromDefinition(&fDefinition);
        return CloseHostFile(kHostNumber, 0);
    }

    std::int16_t Data() const { return fDefinition.fChosenDataFileNumber; }
    std::int16_t NumberIndex() const { return static_cast<std::int16_t>(Data() + 1); }
    std::int16_t NameIndex() const { return static_cast<std::int16_t>(Data() + 2); }
    const std::string& Path() const { return fPath; }

    static constexpr std::int16_t kHostNumber = 0;

private:
    // Opens or creates the members once the host file is open; closes it
    // again when they fail.
    std::int16_t Start(std::int16_t error, std::int16_t (*members)(FileDefinition*)) {
        if (error != kEngineNoError) return error;
        fDefinition.fDataFileNumber = -1;
        error = members(&fDefinition);
        if (error != kEngineNoError) CloseHostFile(kHostNumber, 0);
        return error;
    }

    std::string fPath;
    std::string fDataName;
    KeySegment fSegments[4] = {
        {0, 4, kSegmentBytes}, {4, 4, kSegmentSignedInt}, {0, 4, kSegmentBytes}, {8, 32, kSegmentString}};
    IndexDefinition fIndexes[2] = {
        {8, 0, 0, 1, 0, 2, &fSegments[0], "number_key", nullptr, nullptr, nullptr},
        {36, 12, 0, 1, 0, 2, &fSegments[2], "name_key", nullptr, nullptr, nullptr}};
    FileDefinition fDefinition;
};

}  // namespace kavotest

#endif  // KAVO_TESTS_ENGINE_ENGINEFIXTURE_H
