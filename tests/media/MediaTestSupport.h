// Shared by the media tests: a record manager with one open database that is
// also the current one, reopened on request, and helpers over packed images.
#ifndef KAVO_TESTS_MEDIA_MEDIATESTSUPPORT_H
#define KAVO_TESTS_MEDIA_MEDIATESTSUPPORT_H

#include <cstdint>
#include <string>
#include <vector>

#include "include/kavoDVDBClasses.h"
#include "tests/rm/RmTestSupport.h"

namespace kavotest {

class MediaTest : public RmTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // Closes the database and makes a new one of that name, open and current.
    void StartAfresh(const std::string& fileName);
    // Closes and opens the database again (it stays current).
    void Reopen();
    // A second database, opened read-write (not current).
    std::int16_t OpenAnother(const std::string& fileName);

    // The record's bytes, or nothing when it is missing.
    std::vector<std::uint8_t> Record(std::int16_t refNum, const char* type, const char* name);
    bool HasRecord(std::int16_t refNum, const char* type, const char* name);
    // Adds (or replaces) a record holding the bytes.
    void PutRecord(std::int16_t refNum, const char* type, const char* name, std::int32_t id,
                   const std::vector<std::uint8_t>& bytes);
    std::uint32_t CountOfType(std::int16_t refNum, const char* type);

    std::int16_t fRefNum = 0;
    std::string fFileName = "media.kdb";
};

// The medium's packed image.
std::vector<std::uint8_t> PackedImage(TMedium& medium);
// A tape information image as the header and locator records hold it.
std::vector<std::uint8_t> TapeImage(const char plug[4], std::uint32_t tapeID, std::uint32_t createDate,
                                    const std::string& name, const std::string& description,
                                    const std::string& enteredBy, const std::string& shooter);
// The bytes as a big-endian count and the characters.
void AppendString(std::vector<std::uint8_t>& bytes, const std::string& text);
void AppendLong(std::vector<std::uint8_t>& bytes, std::uint32_t value);

// A medium made by the factory from the bytes (null when refused); the
// handle is disposed of.
TMedium* MediumFromBytes(const std::vector<std::uint8_t>& bytes);

}  // namespace kavotest

#endif  // KAVO_TESTS_MEDIA_MEDIATESTSUPPORT_H
