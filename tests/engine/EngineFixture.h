// A database laid out as the record manager lays it out, driven through the
// engine's calls: a data file of records with a 40-byte fixed part (type,
// ID in the machine's order, name) and two unique indexes, "number_key"
// (type bytes, ID as a signed number) and "name_key" (type bytes, name as a
// NUL-padded string). Tests, campaigns and the engine benchmark share it.
#ifndef KAVO_TESTS_ENGINE_ENGINEFIXTURE_H
#define KAVO_TESTS_ENGINE_ENGINEFIXTURE_H

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "engine/Engine.h"

namespace kavotest {

constexpr std::uint16_t kFixedLength = 40;

struct TRecordKey {
    char fType[4];
    std::int32_t fID;
    std::string fName;
};

inline std::vector<std::uint8_t> MakeRecord(const char* type, std::int32_t id, const std::string& name,
                                            const std::vector<std::uint8_t>& data) {
    std::vector<std::uint8_t> record(kFixedLength, 0);
    std::memcpy(record.data(), type, 4);
    std::memcpy(record.data() + 4, &id, 4);
    std::memcpy(record.data() + 8, name.data(), std::min<std::size_t>(name.size(), 31));
    record.insert(record.end(), data.begin(), data.end());
    return record;
}

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

// The host file, its file definition and the file numbers it was given.
class TTestDatabase {
public:
    explicit TTestDatabase(std::string path) : fPath(std::move(path)) {
        fDataName = fPath + "!data";
        fSegments[0] = {0, 4, kSegmentBytes};
        fSegments[1] = {4, 4, kSegmentSignedInt};
        fSegments[2] = {0, 4, kSegmentBytes};
        fSegments[3] = {8, 32, kSegmentString};
        fIndexes[0] = IndexDefinition{8, 0, 0, 1, 0, 2, &fSegments[0], "number_key", nullptr, nullptr, nullptr};
        fIndexes[1] = IndexDefinition{36, 12, 0, 1, 0, 2, &fSegments[2], "name_key", nullptr, nullptr, nullptr};
        fDefinition = FileDefinition{fDataName.c_str(), -1, kFixedLength, 16384, 68, 2, 4096, 64,
                                     fIndexes, nullptr, nullptr, 0};
    }

    // Creates the host file and its members and leaves them open.
    std::int16_t Create() {
        std::int16_t error = CreateHostFile(kHostNumber, fPath.c_str(), 0, 0, kHostCreateMode);
        if (error != kEngineNoError) return error;
        fDefinition.fDataFileNumber = -1;
        error = CreateFilesFromDefinition(&fDefinition);
        if (error != kEngineNoError) CloseHostFile(kHostNumber, 0);
        return error;
    }

    std::int16_t Open(bool readOnly = false) {
        std::int16_t error =
            OpenHostFile(kHostNumber, fPath.c_str(), readOnly ? kHostOpenReadOnly : kHostOpenReadWrite);
        if (error != kEngineNoError) return error;
        fDefinition.fDataFileNumber = -1;
        error = OpenFilesFromDefinition(&fDefinition);
        if (error != kEngineNoError) CloseHostFile(kHostNumber, 0);
        return error;
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
    std::string fPath;
    std::string fDataName;
    KeySegment fSegments[4];
    IndexDefinition fIndexes[2];
    FileDefinition fDefinition;
};

}  // namespace kavotest

#endif  // KAVO_TESTS_ENGINE_ENGINEFIXTURE_H
