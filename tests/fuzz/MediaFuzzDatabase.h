// The database that the media fuzz target and its seeds program work in: one
// database in the fault-injecting file system (in memory, nothing on disk),
// made once per process, open read-write and current, and the input of the
// media fuzz target in one byte string.
//
//   byte 0      what to do with the bytes (kMedia... below)
//   then        the bytes: a packed "MDUM" image, or tape information
#ifndef KAVO_TESTS_FUZZ_MEDIAFUZZDATABASE_H
#define KAVO_TESTS_FUZZ_MEDIAFUZZDATABASE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kavoDVDB.h"

namespace kavofuzz {

using Bytes = std::vector<std::uint8_t>;

// Bit 0 picks the reader: clear, the medium factory; set, the tape readers.
constexpr std::uint8_t kMediaTapeInfo = 0x01;
// With the factory: the image is also stored as an "MDUM" record and loaded
// by ID, by name and by position. With the tape readers: the bytes are a
// clip's own "DVC " record (named as the clip) and there is no tape header,
// so that a clip's locator falls back to it.
constexpr std::uint8_t kMediaThroughDatabase = 0x02;
// With the tape readers and a header: one of its texts is changed
// (TapeChange...) and read back.
constexpr std::uint8_t kMediaChangeTape = 0x04;

struct TMediaFuzzInput {
    std::uint8_t fFlags = 0;
    Bytes fBytes;
};

std::string EncodeMediaFuzzInput(const TMediaFuzzInput& input);
// An empty input is no bytes for the factory.
TMediaFuzzInput DecodeMediaFuzzInput(const std::uint8_t* data, std::size_t size);

// The database's reference number; made at the first call, with the record
// manager, and kept until the process ends. 0 when it could not be made.
std::int16_t MediaFuzzDatabase();

// A new handle holding the bytes (null when there is no memory).
MSHandle NewHandleWith(const Bytes& bytes);
// The bytes a handle holds.
Bytes HandleBytes(MSHandle handle);

// Replaces the record of that type and name with one holding the bytes
// (adds it when there was none); the record manager's code.
std::int16_t PutRecord(std::int16_t refNum, const char* type, const char* name, std::int32_t id,
                       const Bytes& bytes);
// The bytes of a record, or nothing when it cannot be read.
Bytes RecordBytes(std::int16_t refNum, const char* type, const char* name);

}  // namespace kavofuzz

#endif  // KAVO_TESTS_FUZZ_MEDIAFUZZDATABASE_H
