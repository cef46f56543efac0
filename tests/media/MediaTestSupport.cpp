#include "tests/media/MediaTestSupport.h"

#include <cstring>

#include "LarkDB/Mdiawrap.h"
#include "Rm/Common/Source/Rmmgr.h"

namespace kavotest {

void MediaTest::SetUp() {
    RmTest::SetUp();
    ASSERT_EQ(InitRMRezManager(), kNoError);
    ASSERT_EQ(RMCreate(fFileName.c_str(), 0x4B41564F, 0x4D444941), kNoError);
    ASSERT_EQ(RMOpen(fFileName.c_str(), kPermissionReadWrite, &fRefNum), kNoError);
    ASSERT_EQ(RMSetCurrentDB(fRefNum), kNoError);
}

void MediaTest::TearDown() {
    if (gRezManager != nullptr) {
        std::uint16_t count = 0;
        while (RMCountFiles(&count) == kNoError && count > 0) {
            std::int16_t refNum = 0;
            if (RMGetNthRefNum(0, &refNum) != kNoError || RMClose(refNum) != kNoError) break;
        }
        KillRMRezManager();
    }
    RmTest::TearDown();
}

void MediaTest::StartAfresh(const std::string& fileName) {
    ASSERT_EQ(RMClose(fRefNum), kNoError);
    fFileName = fileName;
    ASSERT_EQ(RMCreate(fFileName.c_str(), 0x4B41564F, 0x4D444941), kNoError);
    ASSERT_EQ(RMOpen(fFileName.c_str(), kPermissionReadWrite, &fRefNum), kNoError);
    ASSERT_EQ(RMSetCurrentDB(fRefNum), kNoError);
}

void MediaTest::Reopen() {
    ASSERT_EQ(RMClose(fRefNum), kNoError);
    ASSERT_EQ(RMOpen(fFileName.c_str(), kPermissionReadWrite, &fRefNum), kNoError);
    ASSERT_EQ(RMSetCurrentDB(fRefNum), kNoError);
}

std::int16_t MediaTest::OpenAnother(const std::string& fileName) {
    std::int16_t refNum = 0;
    EXPECT_EQ(RMCreate(fileName.c_str(), 1, 2), kNoError);
    EXPECT_EQ(RMOpen(fileName.c_str(), kPermissionReadWrite, &refNum), kNoError);
    return refNum;
}

std::vector<std::uint8_t> MediaTest::Record(std::int16_t refNum, const char* type, const char* name) {
    MSHandle data = nullptr;
    if (RMReadRecordByName(refNum, name, type, &data) != kNoError) return {};
    std::vector<std::uint8_t> bytes = HandleBytes(data);
    EXPECT_EQ(RMReleaseRecord(data), kNoError);
    return bytes;
}

bool MediaTest::HasRecord(std::int16_t refNum, const char* type, const char* name) {
    std::uint32_t size = 0;
    return RMGetSizeOfNamedRecord(refNum, name, type, &size) == kNoError;
}

void MediaTest::PutRecord(std::int16_t refNum, const char* type, const char* name, std::int32_t id,
                          const std::vector<std::uint8_t>& bytes) {
    RMRemoveNamedRecord(refNum, name, type);
    MSHandle data = NewHandleWith(bytes);
    ASSERT_EQ(RMAddNewRecord(refNum, type, name, id, data), kNoError);
    ASSERT_EQ(RMReleaseRecord(data), kNoError);
}

std::uint32_t MediaTest::CountOfType(std::int16_t refNum, const char* type) {
    std::uint32_t count = 0;
    EXPECT_EQ(RMCountRecordsOfType(refNum, type, &count), kNoError);
    return count;
}

std::vector<std::uint8_t> PackedImage(TMedium& medium) {
    MSHandle stream = nullptr;
    if (MSNewHandle(&stream, 0) != kNoError) return {};
    std::uint32_t length = 0;
    stream = medium.PackGuts(stream, length);
    if (stream == nullptr) return {};
    std::vector<std::uint8_t> bytes = HandleBytes(stream);
    EXPECT_EQ(bytes.size(), length);
    MSDisposeHandle(stream);
    return bytes;
}

void AppendLong(std::vector<std::uint8_t>& bytes, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<std::uint8_t>(value >> shift));
}

void AppendString(std::vector<std::uint8_t>& bytes, const std::string& text) {
    AppendLong(bytes, static_cast<std::uint32_t>(text.size()));
    bytes.insert(bytes.end(), text.begin(), text.end());
}

std::vector<std::uint8_t> TapeImage(const char plug[4], std::uint32_t tapeID, std::uint32_t createDate,
                                    const std::string& name, const std::string& description,
                                    const std::string& enteredBy, const std::string& shooter) {
    std::vector<std::uint8_t> bytes;
    AppendLong(bytes, 1);
    bytes.insert(bytes.end(), plug, plug + 4);
    AppendLong(bytes, tapeID);
    AppendLong(bytes, createDate);
    for (const std::string* text : {&name, &description, &enteredBy, &shooter}) AppendString(bytes, *text);
    return bytes;
}

TMedium* MediumFromBytes(const std::vector<std::uint8_t>& bytes) {
    MSHandle handle = NewHandleWith(bytes);
    TMedium* medium = MediumFromPackedData(handle);
    MSUnlockHandle(handle);
    MSDisposeHandle(handle);
    return medium;
}

}  // namespace kavotest
