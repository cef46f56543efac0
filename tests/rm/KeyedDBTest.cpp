// The keyed-file database against a model of its file: random adds, reads by
// ID, name and position, sizes, counts, removes and renames, with the file
// closed and opened again in between; then the edge cases one by one.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "MemSys/Win32/Memsys.h"
#include "Rm/Common/Source/Ckeyeddb.h"
#include "Rm/Common/Source/Crezmap.h"
#include "engine/FaultFileIO.h"
#include "tests/rm/RmTestSupport.h"

namespace {

using kavotest::FileBytes;
using kavotest::HandleBytes;
using kavotest::NameString;
using kavotest::NewHandleWith;
using kavotest::TypeString;

constexpr std::uint32_t kCreator = 0x4B41564F;   // 'KAVO'
constexpr std::uint32_t kFileType = 0x4D444241;  // 'MDBA'

std::string PaddedType(const std::string& type) {
    std::string padded = type;
    padded.resize(4, '\0');
    return padded;
}

// The bytes of a file-info record holding these codes.
std::vector<std::uint8_t> FileInfoImage(std::uint32_t creator, std::uint32_t fileType) {
    std::vector<std::uint8_t> image;
    for (std::uint32_t value : {creator, fileType, 7u})
        for (int shift = 24; shift >= 0; shift -= 8)
            image.push_back(static_cast<std::uint8_t>(value >> shift));
    for (char c : std::string("windows")) image.push_back(static_cast<std::uint8_t>(c));
    return image;
}

// The records of one file.
class TFileModel {
public:
    struct TRecord {
        std::string fType;  // 4 bytes, NUL-padded
        std::int32_t fID;
        std::string fName;
        std::vector<std::uint8_t> fData;
    };

    bool HasID(const std::string& type, std::int32_t id) const {
        return fByID.count({PaddedType(type), id}) != 0;
    }
    const TRecord* ByName(const std::string& type, const std::string& name) const {
        for (const auto& entry : fByID)
            if (entry.second.fType == PaddedType(type) && entry.second.fName == name) return &entry.second;
        return nullptr;
    }
    const TRecord* ByID(const std::string& type, std::int32_t id) const {
        const auto it = fByID.find({PaddedType(type), id});
        return it == fByID.end() ? nullptr : &it->second;
    }
    void Add(const std::string& type, const std::string& name, std::int32_t id,
             std::vector<std::uint8_t> data) {
        fByID[{PaddedType(type), id}] = TRecord{PaddedType(type), id, name, std::move(data)};
    }
    void Remove(const std::string& type, std::int32_t id) { fByID.erase({PaddedType(type), id}); }

    // The records in the order of the name index: type bytes, then name bytes.
    std::vector<const TRecord*> NameOrder(const std::string* onlyType = nullptr) const {
        std::vector<const TRecord*> out;
        for (const auto& entry : fByID)
            if (onlyType == nullptr || entry.second.fType == PaddedType(*onlyType))
                out.push_back(&entry.second);
        std::sort(out.begin(), out.end(),
                  [](const TRecord* a, const TRecord* b) { return Key(*a) < Key(*b); });
        return out;
    }
    std::uint32_t CountOfType(const std::string& type) const {
        std::uint32_t count = 0;
        for (const auto& entry : fByID)
            if (entry.second.fType == PaddedType(type) && entry.second.fID != INT32_MIN) ++count;
        return count;
    }
    std::int32_t NextID(const std::string& type) const {
        const TRecord* highest = nullptr;
        for (const auto& entry : fByID)
            if (entry.second.fType == PaddedType(type)) highest = &entry.second;
        if (highest == nullptr) return 1;
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(highest->fID) + 1u);
    }
    std::size_t Size() const { return fByID.size(); }

private:
    static std::string Key(const TRecord& r) {
        std::string key = r.fType + r.fName;
        key.resize(36, '\0');
        return key;
    }

    std::map<std::pair<std::string, std::int32_t>, TRecord> fByID;
};

class KeyedDBTest : public kavotest::RmTest {
protected:
    std::unique_ptr<CKeyedDB> CreateAndOpen(const char* name,
                                            std::int16_t permission = kPermissionReadWrite) {
        {
            CKeyedDB maker;
            EXPECT_EQ(maker.Create(name, kCreator, kFileType), kNoError);
        }
        return OpenExisting(name, permission);
    }

    std::unique_ptr<CKeyedDB> OpenExisting(const char* name, std::int16_t permission = kPermissionReadWrite) {
        auto db = std::make_unique<CKeyedDB>();
        EXPECT_EQ(db->Open(name, permission), kNoError);
        return db;
    }

    // The same record in the model and through the database's reads.
    void ExpectRecord(CKeyedDB& db, const TFileModel::TRecord& want) {
        MSHandle data = nullptr;
        ASSERT_EQ(db.ReadRecordByNumber(want.fID, want.fType.c_str(), &data), kNoError);
        EXPECT_EQ(HandleBytes(data), want.fData);
        char name[32];
        char type[4];
        std::int32_t id = 0;
        ASSERT_EQ(db.GetInfoOfRecord(data, name, type, &id), kNoError);
        EXPECT_EQ(NameString(name), want.fName);
        EXPECT_EQ(std::string(type, 4), want.fType);
        EXPECT_EQ(id, want.fID);
        EXPECT_EQ(db.ReleaseRecord(data), kNoError);
    }
};

TEST_F(KeyedDBTest, ANewFileHoldsOnlyItsFileInfo) {
    auto db = CreateAndOpen("new.db");
    std::uint32_t count = 99;
    EXPECT_EQ(db->CountRecords(&count), kNoError);
    EXPECT_EQ(count, 1u);
    std::uint32_t creator = 0;
    std::uint32_t fileType = 0;
    char platform[32];
    EXPECT_EQ(db->GetFileInfo(&creator, &fileType, platform), kNoError);
    EXPECT_EQ(creator, kCreator);
    EXPECT_EQ(fileType, kFileType);
    EXPECT_STREQ(platform, "windows");
    MSHandle info = nullptr;
    ASSERT_EQ(db->ReadRecordByNumber(-16001, "NFO!", &info), kNoError);
    EXPECT_EQ(HandleBytes(info), FileInfoImage(kCreator, kFileType));
    EXPECT_EQ(db->ReleaseRecord(info), kNoError);
    EXPECT_TRUE(db->IsOpen());
    EXPECT_EQ(db->Permission(), kPermissionReadWrite);
}

TEST_F(KeyedDBTest, CreateRefusesAnExistingFileAndOpenAMissingOrForeignOne) {
    { auto db = CreateAndOpen("exists.db"); }
    CKeyedDB db;
    EXPECT_EQ(db.Create("exists.db", kCreator, kFileType), kCannotOpenHostFile);
    EXPECT_EQ(db.Open("missing.db", kPermissionReadWrite), kCannotOpenFiles);
    {
        std::FILE* foreign = std::fopen("foreign.db", "wb");
        std::fputs("this is not a database file of any kind, only text that looks nothing like one", foreign);
        std::fclose(foreign);
    }
    EXPECT_EQ(db.Open("foreign.db", kPermissionReadOnly), kCannotOpenFiles);
    EXPECT_FALSE(db.IsOpen());
}

// Every database takes four of the engine's file numbers. A failed Open or
// Create must give back what it took: as many databases can be open after a
// run of failures as before it.
TEST_F(KeyedDBTest, FailedOpensAndCreatesLeaveNoFileNumberInUse) {
    constexpr int kFiles = 20;
    for (int i = 0; i < kFiles; ++i) {
        CKeyedDB maker;
        ASSERT_EQ(maker.Create(("many" + std::to_string(i) + ".db").c_str(), kCreator, kFileType), kNoError);
    }
    const auto openAsManyAsPossible = [&] {
        std::vector<std::unique_ptr<CKeyedDB>> open;
        for (int i = 0; i < kFiles; ++i) {
            auto db = std::make_unique<CKeyedDB>();
            if (db->Open(("many" + std::to_string(i) + ".db").c_str(), kPermissionReadWrite) != kNoError)
                break;
            open.push_back(std::move(db));
        }
        return open.size();
    };
    const std::size_t capacity = openAsManyAsPossible();
    EXPECT_GE(capacity, 10u);
    EXPECT_LT(capacity, static_cast<std::size_t>(kFiles)) << "the file numbers run out first";
    CKeyedDB probe;
    for (int i = 0; i < 40; ++i) {
        EXPECT_EQ(probe.Open("missing.db", kPermissionReadWrite), kCannotOpenFiles);
        EXPECT_EQ(probe.Create("many0.db", kCreator, kFileType), kCannotOpenHostFile);
    }
    EXPECT_EQ(openAsManyAsPossible(), capacity);
}

TEST_F(KeyedDBTest, BadFileNamesAndPermissionsAreReportedAndRefused) {
    CKeyedDB db;
    EXPECT_EQ(db.Create(nullptr, kCreator, kFileType), kCannotOpenHostFile);
    ExpectReported("theFileName != NULL");
    EXPECT_EQ(db.Create("", kCreator, kFileType), kCannotOpenHostFile);
    ExpectReported("strlen(theFileName) > 0");
    const std::string tooLong(256, 'n');
    EXPECT_EQ(db.Create(tooLong.c_str(), kCreator, kFileType), kCannotOpenHostFile);
    ExpectReported("strlen(theFileName) < kMaxFileNameLength");
    EXPECT_EQ(db.Open(tooLong.c_str(), kPermissionReadWrite), kCannotOpenHostFile);
    ExpectReported("strlen(theFileName) < kMaxFileNameLength");
    EXPECT_TRUE(std::filesystem::is_empty(fDirectory->Path()));
    { auto made = CreateAndOpen("good.db"); }
    EXPECT_EQ(db.Open("good.db", 2), kGeneralError);
    ExpectReported("permission == kPermissionReadOnly || permission == kPermissionReadWrite");
}

TEST_F(KeyedDBTest, NextRecordIDIsOneMoreThanTheHighestOfItsType) {
    auto db = CreateAndOpen("next.db");
    std::int32_t id = 0;
    EXPECT_EQ(db->NextRecordID("MDUM", &id), kNoError);
    EXPECT_EQ(id, 1);
    for (std::int32_t n : {5, 9}) {
        MSHandle data = NewHandleWith(std::string("x"));
        ASSERT_EQ(db->AddRecord("MDUM", ("m" + std::to_string(n)).c_str(), n, data), kNoError);
    }
    EXPECT_EQ(db->NextRecordID("MDUM", &id), kNoError);
    EXPECT_EQ(id, 10);
    EXPECT_EQ(db->NextRecordID("MDUN", &id), kNoError);
    EXPECT_EQ(id, 1) << "a type with no records";
    EXPECT_EQ(db->NextRecordID("MDUL", &id), kNoError);
    EXPECT_EQ(id, 1) << "the record found before belongs to another type";
    EXPECT_EQ(db->NextRecordID("NFO!", &id), kNoError);
    EXPECT_EQ(id, -16000);
}

TEST_F(KeyedDBTest, TheLowestIDIsStoredAndReadButNeverCountedByType) {
    auto db = CreateAndOpen("lowest.db");
    for (std::int32_t id : {INT32_MIN, INT32_MIN + 1, -1, 0, INT32_MAX}) {
        MSHandle data = NewHandleWith(std::to_string(id));
        ASSERT_EQ(db->AddRecord("EDGE", ("e" + std::to_string(id)).c_str(), id, data), kNoError);
    }
    db.reset();
    db = OpenExisting("lowest.db");
    std::uint32_t count = 0;
    EXPECT_EQ(db->CountRecordsOfType("EDGE", &count), kNoError);
    EXPECT_EQ(count, 4u);
    EXPECT_EQ(db->CountRecords(&count), kNoError);
    EXPECT_EQ(count, 6u);
    MSHandle data = nullptr;
    ASSERT_EQ(db->ReadRecordByNumber(INT32_MIN, "EDGE", &data), kNoError);
    const std::string lowest = std::to_string(INT32_MIN);
    EXPECT_EQ(HandleBytes(data), std::vector<std::uint8_t>(lowest.begin(), lowest.end()));
    std::int32_t next = 0;
    EXPECT_EQ(db->NextRecordID("EDGE", &next), kNoError);
    EXPECT_EQ(next, INT32_MIN) << "after the highest ID the next one wraps";
}

TEST_F(KeyedDBTest, DuplicatesAreRefusedAndLeaveTheFileUnchanged) {
    {
        auto db = CreateAndOpen("dup.db");
        ASSERT_EQ(db->AddRecord("MDUM", "clip", 1, NewHandleWith(std::string("one"))), kNoError);
    }
    const auto before = FileBytes("dup.db");
    {
        auto db = OpenExisting("dup.db");
        MSHandle data = NewHandleWith(std::string("two"));
        EXPECT_EQ(db->AddRecord("MDUM", "other", 1, data), kDuplicateRecord);
        EXPECT_EQ(db->AddRecord("MDUM", "clip", 2, data), kDuplicateRecord);
        EXPECT_EQ(db->LastError(), kDuplicateRecord);
        EXPECT_FALSE(db->OwnsRecord(data)) << "a refused record is not registered";
        MSDisposeHandle(data);
        std::uint32_t count = 0;
        db->CountRecords(&count);
        EXPECT_EQ(count, 2u);
    }
    EXPECT_EQ(FileBytes("dup.db"), before);
}

TEST_F(KeyedDBTest, AnIndexPastTheLastRecordIsNotFound) {
    auto db = CreateAndOpen("nth.db");
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(
            db->AddRecord("SEEN", ("s" + std::to_string(i)).c_str(), i, NewHandleWith(std::string("s"))),
            kNoError);
    std::uint32_t count = 0;
    db->CountRecords(&count);
    MSHandle data = nullptr;
    EXPECT_EQ(db->ReadNthRecord(count, &data), kRecordNotFound);
    EXPECT_EQ(db->ReadNthRecord(0xFFFFFFFFu, &data), kRecordNotFound);
    char type[4];
    char name[32];
    std::int32_t id = 0;
    EXPECT_EQ(db->GetInfoOfNthRecord(count - 1, type, name, &id), kNoError);
    EXPECT_EQ(db->GetInfoOfNthRecordOfType(3, "SEEN", name, &id), kRecordNotFound);
    EXPECT_EQ(db->GetInfoOfNthRecordOfType(0xFFFFFFFFu, "SEEN", name, &id), kRecordNotFound);
    EXPECT_EQ(db->GetInfoOfNthRecordOfType(0, "SEEM", name, &id), kRecordNotFound);
    EXPECT_EQ(db->GetInfoOfNthRecordOfType(0, "zzzz", name, &id), kRecordNotFound);
    EXPECT_EQ(db->GetInfoOfNthRecordOfType(2, "SEEN", name, &id), kNoError);
    EXPECT_EQ(NameString(name), "s2");
}

TEST_F(KeyedDBTest, ReadNthRecordOfTypeReadsOnlyIDsWithinAHundredThousand) {
    auto db = CreateAndOpen("range.db");
    ASSERT_EQ(db->AddRecord("WIDE", "a", 100000, NewHandleWith(std::string("a"))), kNoError);
    ASSERT_EQ(db->AddRecord("WIDE", "b", 100001, NewHandleWith(std::string("b"))), kNoError);
    MSHandle data = nullptr;
    EXPECT_EQ(db->ReadNthRecordOfType(0, "WIDE", &data), kNoError);
    EXPECT_EQ(HandleBytes(data), std::vector<std::uint8_t>{'a'});
    EXPECT_EQ(db->ReadNthRecordOfType(1, "WIDE", &data), kGeneralError);
    ExpectReported("0");
    EXPECT_EQ(data, nullptr);
    std::uint32_t size = 0;
    EXPECT_EQ(db->GetSizeOfNthRecordOfType(1, "WIDE", &size), kNoError) << "the size has no range";
    EXPECT_EQ(size, 1u);
}

TEST_F(KeyedDBTest, RemovingFromAReadOnlyFileDropsTheRecordFromMemoryAndIsRefused) {
    {
        auto db = CreateAndOpen("ro.db");
        ASSERT_EQ(db->AddRecord("MDUM", "clip", 7, NewHandleWith(std::string("clip"))), kNoError);
    }
    auto db = OpenExisting("ro.db", kPermissionReadOnly);
    MSHandle data = nullptr;
    ASSERT_EQ(db->ReadRecordByNumber(7, "MDUM", &data), kNoError);
    ASSERT_TRUE(db->OwnsRecord(data));
    EXPECT_EQ(db->LastError(), kNoError);
    EXPECT_EQ(db->RemoveNumberedRecord(7, "MDUM"), kNoPermission);
    EXPECT_EQ(db->LastError(), kNoError) << "the refusal is not stored";
    EXPECT_FALSE(db->OwnsRecord(data)) << "the record already left the map";
    EXPECT_TRUE(MSValidHandle(data));
    MSDisposeHandle(data);
    std::uint32_t size = 0;
    EXPECT_EQ(db->GetSizeOfNumberedRecord(7, "MDUM", &size), kNoError) << "the file still holds it";
    EXPECT_EQ(size, 4u);
}

TEST_F(KeyedDBTest, AReadOnlyFileRefusesEveryChangeAndStaysByteForByte) {
    {
        auto db = CreateAndOpen("frozen.db");
        ASSERT_EQ(db->AddRecord("MDUM", "clip", 7, NewHandleWith(std::string("clip"))), kNoError);
        ASSERT_EQ(db->AddRecord("SEEN", "scene", 8, NewHandleWith(std::string("scene"))), kNoError);
    }
    const auto before = FileBytes("frozen.db");
    {
        auto db = OpenExisting("frozen.db", kPermissionReadOnly);
        MSHandle data = NewHandleWith(std::string("new"));
        EXPECT_EQ(db->AddRecord("MDUM", "new", 99, data), kNoPermission);
        MSDisposeHandle(data);
        EXPECT_EQ(db->RemoveNamedRecord("scene", "SEEN"), kNoPermission);
        EXPECT_EQ(db->RemoveNumberedRecord(7, "MDUM"), kNoPermission);
        MSHandle clip = nullptr;
        ASSERT_EQ(db->ReadRecordByName("clip", "MDUM", &clip), kNoError);
        EXPECT_EQ(db->RemoveRecord(clip), kNoPermission);
        MSDisposeHandle(clip);
        ASSERT_EQ(db->ReadRecordByName("clip", "MDUM", &clip), kNoError);
        EXPECT_NE(db->ChangeRecordInfo(clip, "MDUM", "renamed", 70), kNoError);
        DropReports("index != 0");
        if (!db->OwnsRecord(clip)) MSDisposeHandle(clip);
        EXPECT_EQ(db->SetFileInfo(1, 2, "other"), kNoError);
        std::uint32_t creator = 0;
        std::uint32_t fileType = 0;
        char platform[32];
        db->GetFileInfo(&creator, &fileType, platform);
        EXPECT_EQ(creator, 1u) << "the codes change in memory";
        EXPECT_STREQ(platform, "other");
        std::uint32_t count = 0;
        db->CountRecords(&count);
        EXPECT_EQ(count, 3u);
    }
    EXPECT_EQ(FileBytes("frozen.db"), before);
    auto db = OpenExisting("frozen.db", kPermissionReadOnly);
    std::uint32_t creator = 0;
    std::uint32_t fileType = 0;
    char platform[32];
    db->GetFileInfo(&creator, &fileType, platform);
    EXPECT_EQ(creator, kCreator);
    EXPECT_EQ(fileType, kFileType);
}

TEST_F(KeyedDBTest, ChangeRecordInfoOfARecordInTheFileWritesNothingAndDropsItFromMemory) {
    {
        auto db = CreateAndOpen("rename.db");
        ASSERT_EQ(db->AddRecord("MDUM", "clip", 7, NewHandleWith(std::string("clip"))), kNoError);
        ASSERT_EQ(db->AddRecord("MDUM", "taken", 8, NewHandleWith(std::string("taken"))), kNoError);
    }
    const auto before = FileBytes("rename.db");
    {
        auto db = OpenExisting("rename.db");
        MSHandle clip = nullptr;
        ASSERT_EQ(db->ReadRecordByNumber(7, "MDUM", &clip), kNoError);
        // A new type and ID, or type and name, that exists: refused, the
        // record stays loaded.
        EXPECT_EQ(db->ChangeRecordInfo(clip, "MDUM", "new", 8), kDuplicateRecord);
        EXPECT_TRUE(db->OwnsRecord(clip));
        EXPECT_EQ(db->ChangeRecordInfo(clip, "MDUM", "taken", 70), kDuplicateRecord);
        EXPECT_TRUE(db->OwnsRecord(clip));
        // Free keys: the old key is found in the file, so the answer is the
        // same, nothing is written and the record has left the map.
        EXPECT_EQ(db->ChangeRecordInfo(clip, "SEEN", "renamed", 70), kDuplicateRecord);
        DropReports("index != 0");
        EXPECT_FALSE(db->OwnsRecord(clip));
        EXPECT_EQ(HandleBytes(clip), std::vector<std::uint8_t>({'c', 'l', 'i', 'p'}));
        MSDisposeHandle(clip);
        MSHandle again = nullptr;
        EXPECT_EQ(db->ReadRecordByNumber(70, "SEEN", &again), kRecordNotFound);
        EXPECT_EQ(db->ReadRecordByNumber(7, "MDUM", &again), kNoError);
    }
    EXPECT_EQ(FileBytes("rename.db"), before);
}

TEST_F(KeyedDBTest, FileInfoKeepsOneRecordAndWritesWindowsWhateverThePlatform) {
    {
        auto db = CreateAndOpen("info.db");
        EXPECT_EQ(db->SetFileInfo(11, 22, "macos"), kNoError);
        EXPECT_EQ(db->SetFileInfo(33, 44, "a platform name that is far longer than thirty-one"), kNoError);
        std::uint32_t creator = 0;
        std::uint32_t fileType = 0;
        char platform[32];
        EXPECT_EQ(db->GetFileInfo(&creator, &fileType, platform), kNoError);
        EXPECT_EQ(creator, 33u);
        EXPECT_EQ(fileType, 44u);
        EXPECT_EQ(std::string(platform),
                  std::string("a platform name that is far longer than thirty-one", 31));
        std::uint32_t count = 0;
        EXPECT_EQ(db->CountRecordsOfType("NFO!", &count), kNoError);
        EXPECT_EQ(count, 1u);
        char name[32];
        std::int32_t id = 0;
        EXPECT_EQ(db->GetInfoOfNthRecordOfType(0, "NFO!", name, &id), kNoError);
        EXPECT_EQ(id, -16001);
        EXPECT_STREQ(name, "_File_Info_");
    }
    auto db = OpenExisting("info.db");
    std::uint32_t creator = 0;
    std::uint32_t fileType = 0;
    char platform[32];
    EXPECT_EQ(db->GetFileInfo(&creator, &fileType, platform), kNoError);
    EXPECT_EQ(creator, 33u);
    EXPECT_EQ(fileType, 44u);
    EXPECT_STREQ(platform, "windows");
}

TEST_F(KeyedDBTest, AFileWithoutFileInfoOpensAsUnknown) {
    {
        auto db = CreateAndOpen("bare.db");
        EXPECT_EQ(db->RemoveNamedRecord("_File_Info_", "NFO!"), kNoError);
    }
    auto db = OpenExisting("bare.db");
    std::uint32_t creator = 0;
    std::uint32_t fileType = 0;
    char platform[32];
    EXPECT_EQ(db->GetFileInfo(&creator, &fileType, platform), kNoError);
    EXPECT_EQ(std::memcmp(&creator, "????", 4), 0);
    EXPECT_EQ(std::memcmp(&fileType, "????", 4), 0);
    EXPECT_STREQ(platform, "?OS");
}

TEST_F(KeyedDBTest, BadRecordArgumentsAreReportedBeforeTheFileIsTouched) {
    { auto db = CreateAndOpen("args.db"); }
    const auto before = FileBytes("args.db");
    {
        auto db = OpenExisting("args.db");
        MSHandle data = NewHandleWith(std::string("d"));
        const std::string name32(32, 'x');
        EXPECT_EQ(db->AddRecord("MDUM", name32.c_str(), 1, data), kGeneralError);
        ExpectReported("strlen(name) < kNameLength");
        EXPECT_EQ(db->AddRecord(nullptr, "n", 1, data), kGeneralError);
        ExpectReported("theType != NULL");
        EXPECT_EQ(db->AddRecord("MDUM", nullptr, 1, data), kGeneralError);
        ExpectReported("theName != NULL");
        MSDisposeHandle(data);
        EXPECT_EQ(db->AddRecord("MDUM", "n", 1, data), kInvalidHandle);
        ExpectReported("MSValidHandle(theData)");
        MSHandle out = nullptr;
        EXPECT_EQ(db->ReadRecordByName(name32.c_str(), "MDUM", &out), kGeneralError);
        ExpectReported("strlen(name) < kNameLength");
        EXPECT_EQ(db->RemoveNamedRecord(name32.c_str(), "MDUM"), kGeneralError);
        ExpectReported("strlen(name) < kNameLength");
        EXPECT_EQ(db->ReadRecordByNumber(1, "MDUM", nullptr), kGeneralError);
        ExpectReported("theData != NULL");
        std::uint32_t count = 0;
        db->CountRecords(&count);
        EXPECT_EQ(count, 1u);
    }
    EXPECT_EQ(FileBytes("args.db"), before);
}

// Thousands of random operations against the model, with the file closed
// and opened again every few hundred; loaded handles are tracked so that a
// second read must give the same handle back.
TEST_F(KeyedDBTest, RandomOperationsMatchAModelOfTheFile) {
    std::mt19937 random(77);
    const auto pick = [&](std::uint32_t n) { return static_cast<std::uint32_t>(random() % n); };
    const std::vector<std::string> types = {"MDUM", "SEEN", "ab", "MDUN", "path"};
    const std::vector<std::int32_t> edgeIDs = {INT32_MIN, INT32_MIN + 1, -100001, -100000,  -1, 0,
                                               1,         100000,        100001,  INT32_MAX};
    std::vector<std::string> names = {"",      std::string(31, 'z'), "\xC3\xA9t\xC3\xA9", "Clip", "clip",
                                      "clip 2"};
    for (int i = 0; i < 60; ++i) names.push_back("n" + std::to_string(i));

    auto db = CreateAndOpen("random.db");
    TFileModel model;
    model.Add("NFO!", "_File_Info_", -16001, FileInfoImage(kCreator, kFileType));
    std::map<std::pair<std::string, std::int32_t>, MSHandle> loaded;
    const auto loadedKey = [](const std::string& type, std::int32_t id) {
        return std::make_pair(PaddedType(type), id);
    };
    // A handle that left the map is the test's to dispose of.
    const auto unload = [&](const std::string& type, std::int32_t id) {
        const auto it = loaded.find(loadedKey(type, id));
        if (it == loaded.end()) return;
        EXPECT_FALSE(db->OwnsRecord(it->second));
        MSDisposeHandle(it->second);
        loaded.erase(it);
    };

    for (int step = 0; step < 4000; ++step) {
        if (step % 400 == 399) {
            db.reset();  // closing disposes of every loaded handle
            loaded.clear();
            db = OpenExisting("random.db");
        }
        const std::string type = types[pick(static_cast<std::uint32_t>(types.size()))];
        const std::string name = names[pick(static_cast<std::uint32_t>(names.size()))];
        const std::int32_t id = pick(4) == 0 ? edgeIDs[pick(static_cast<std::uint32_t>(edgeIDs.size()))]
                                             : static_cast<std::int32_t>(pick(80)) - 10;
        switch (pick(12)) {
            case 0:
            case 1: {  // add
                std::vector<std::uint8_t> bytes(pick(64));
                for (auto& b : bytes) b = static_cast<std::uint8_t>(random());
                MSHandle data = NewHandleWith(bytes);
                const bool duplicate = model.HasID(type, id) || model.ByName(type, name) != nullptr;
                ASSERT_EQ(db->AddRecord(type.c_str(), name.c_str(), id, data),
                          duplicate ? kDuplicateRecord : kNoError);
                if (duplicate) {
                    MSDisposeHandle(data);
                } else {
                    model.Add(type, name, id, bytes);
                    loaded[loadedKey(type, id)] = data;
                }
                break;
            }
            case 2: {  // read by ID
                MSHandle data = nullptr;
                const TFileModel::TRecord* want = model.ByID(type, id);
                ASSERT_EQ(db->ReadRecordByNumber(id, type.c_str(), &data), want ? kNoError : kRecordNotFound);
                if (want == nullptr) {
                    EXPECT_EQ(data, nullptr);
                    break;
                }
                EXPECT_EQ(HandleBytes(data), want->fData);
                const auto it = loaded.find(loadedKey(type, id));
                if (it != loaded.end()) {
                    EXPECT_EQ(it->second, data) << "a loaded record is answered from memory";
                }
                loaded[loadedKey(type, id)] = data;
                break;
            }
            case 3: {  // read by name
                MSHandle data = nullptr;
                const TFileModel::TRecord* want = model.ByName(type, name);
                ASSERT_EQ(db->ReadRecordByName(name.c_str(), type.c_str(), &data),
                          want ? kNoError : kRecordNotFound);
                if (want == nullptr) break;
                EXPECT_EQ(HandleBytes(data), want->fData);
                loaded[loadedKey(type, want->fID)] = data;
                break;
            }
            case 4: {  // sizes
                std::uint32_t size = 0;
                const TFileModel::TRecord* byID = model.ByID(type, id);
                EXPECT_EQ(db->GetSizeOfNumberedRecord(id, type.c_str(), &size),
                          byID ? kNoError : kKeyNotFound);
                if (byID) {
                    EXPECT_EQ(size, byID->fData.size());
                }
                const TFileModel::TRecord* byName = model.ByName(type, name);
                EXPECT_EQ(db->GetSizeOfNamedRecord(name.c_str(), type.c_str(), &size),
                          byName ? kNoError : kKeyNotFound);
                if (byName) {
                    EXPECT_EQ(size, byName->fData.size());
                }
                break;
            }
            case 5: {  // counts and the next ID
                std::uint32_t count = 0;
                EXPECT_EQ(db->CountRecords(&count), kNoError);
                EXPECT_EQ(count, model.Size());
                EXPECT_EQ(db->CountRecordsOfType(type.c_str(), &count), kNoError);
                EXPECT_EQ(count, model.CountOfType(type));
                std::int32_t next = 0;
                EXPECT_EQ(db->NextRecordID(type.c_str(), &next), kNoError);
                EXPECT_EQ(next, model.NextID(type));
                break;
            }
            case 6: {  // remove by ID
                const bool present = model.HasID(type, id);
                ASSERT_EQ(db->RemoveNumberedRecord(id, type.c_str()), present ? kNoError : kKeyNotFound);
                if (present) {
                    model.Remove(type, id);
                    unload(type, id);
                }
                break;
            }
            case 7: {  // remove by name
                const TFileModel::TRecord* want = model.ByName(type, name);
                ASSERT_EQ(db->RemoveNamedRecord(name.c_str(), type.c_str()), want ? kNoError : kKeyNotFound);
                if (want) {
                    const std::int32_t removed = want->fID;
                    model.Remove(type, removed);
                    unload(type, removed);
                }
                break;
            }
            case 8: {  // the Nth record overall
                const auto order = model.NameOrder();
                const std::uint32_t index = pick(static_cast<std::uint32_t>(order.size()) + 2);
                char outType[4];
                char outName[32];
                std::int32_t outID = 0;
                const bool inside = index < order.size();
                ASSERT_EQ(db->GetInfoOfNthRecord(index, outType, outName, &outID),
                          inside ? kNoError : kRecordNotFound);
                std::uint32_t size = 0;
                EXPECT_EQ(db->GetSizeOfNthRecord(index, &size), inside ? kNoError : kRecordNotFound);
                if (!inside) break;
                EXPECT_EQ(std::string(outType, 4), order[index]->fType);
                EXPECT_EQ(NameString(outName), order[index]->fName);
                EXPECT_EQ(outID, order[index]->fID);
                EXPECT_EQ(size, order[index]->fData.size());
                MSHandle data = nullptr;
                ASSERT_EQ(db->ReadNthRecord(index, &data), kNoError);
                EXPECT_EQ(HandleBytes(data), order[index]->fData);
                loaded[loadedKey(order[index]->fType, order[index]->fID)] = data;
                break;
            }
            case 9: {  // the Nth record of a type
                const auto order = model.NameOrder(&type);
                const std::uint32_t index = pick(static_cast<std::uint32_t>(order.size()) + 2);
                char outName[32];
                std::int32_t outID = 0;
                const bool inside = index < order.size();
                ASSERT_EQ(db->GetInfoOfNthRecordOfType(index, type.c_str(), outName, &outID),
                          inside ? kNoError : kRecordNotFound);
                if (!inside) break;
                EXPECT_EQ(NameString(outName), order[index]->fName);
                EXPECT_EQ(outID, order[index]->fID);
                MSHandle data = nullptr;
                const bool readable = outID >= -100000 && outID <= 100000;
                ASSERT_EQ(db->ReadNthRecordOfType(index, type.c_str(), &data),
                          readable ? kNoError : kGeneralError);
                if (!readable) {
                    ExpectReported("0");
                    break;
                }
                EXPECT_EQ(HandleBytes(data), order[index]->fData);
                loaded[loadedKey(type, outID)] = data;
                break;
            }
            case 10: {  // release, detach or purge a loaded record
                if (loaded.empty()) break;
                auto it = loaded.begin();
                std::advance(it, pick(static_cast<std::uint32_t>(loaded.size())));
                MSHandle data = it->second;
                ASSERT_TRUE(db->OwnsRecord(data));
                EXPECT_EQ(db->ChangedRecordData(data), kNoError);
                switch (pick(3)) {
                    case 0:
                        EXPECT_EQ(db->ReleaseRecord(data), kNoError);
                        EXPECT_FALSE(MSValidHandle(data));
                        loaded.erase(it);
                        break;
                    case 1:
                        EXPECT_EQ(db->DetachRecord(data), kNoError);
                        EXPECT_EQ(db->ChangedRecordData(data), kRecordNotFound);
                        MSDisposeHandle(data);
                        loaded.erase(it);
                        break;
                    default:
                        EXPECT_EQ(db->PurgeRecord(data), kNoError);
                        EXPECT_EQ(db->DoNotPurgeRecord(data), kNoError);
                        DropReports("index != 0");
                        break;
                }
                break;
            }
            default: {  // rename a loaded record: refused one way or the other
                if (loaded.empty()) break;
                auto it = loaded.begin();
                std::advance(it, pick(static_cast<std::uint32_t>(loaded.size())));
                const bool clash = model.HasID(type, id) || model.ByName(type, name) != nullptr;
                ASSERT_EQ(db->ChangeRecordInfo(it->second, type.c_str(), name.c_str(), id), kDuplicateRecord);
                DropReports("index != 0");
                EXPECT_EQ(db->OwnsRecord(it->second), clash);
                if (!clash) {
                    MSDisposeHandle(it->second);
                    loaded.erase(it);
                }
                break;
            }
        }
        if (HasFatalFailure()) return;
    }
    db.reset();
    db = OpenExisting("random.db");
    EXPECT_GT(model.Size(), 100u);
    for (const TFileModel::TRecord* record : model.NameOrder()) ExpectRecord(*db, *record);
}

}  // namespace

namespace {

// Writes refused by the file system (a failing disk, a full one) come back
// as refusals. The engine then refuses every change to that file until it is
// opened again; every record acknowledged before is there after reopening,
// and a refused one is not.
TEST_F(KeyedDBTest, RefusedWritesAreRefusalsAndLoseNothingAcknowledged) {
    engine::TFaultFileSystem files;
    struct TInstalled {
        explicit TInstalled(engine::TFileSystem* installed) { engine::InstallFileSystem(installed); }
        ~TInstalled() { engine::InstallFileSystem(nullptr); }
    } installed(&files);
    std::map<std::int32_t, std::string> acknowledged;
    { auto made = CreateAndOpen("fault.db"); }
    auto db = OpenExisting("fault.db");
    for (std::int32_t id = 0; id < 60; ++id) {
        const std::string text = "record " + std::to_string(id);
        MSHandle data = NewHandleWith(text);
        files.FailWriteAfter(id % 9);
        const std::int16_t error = db->AddRecord("FALT", ("f" + std::to_string(id)).c_str(), id, data);
        files.FailWriteAfter(-1);
        if (error == kNoError) {
            acknowledged[id] = text;
            continue;
        }
        EXPECT_EQ(error, kAddRefused);
        EXPECT_FALSE(db->OwnsRecord(data));
        MSDisposeHandle(data);
        db.reset();
        IgnoreReports();  // the close of a refused file may report
        db = OpenExisting("fault.db");
    }
    files.SetFailWrites(true);
    MSHandle full = NewHandleWith(std::string("full"));
    EXPECT_EQ(db->AddRecord("FALT", "full", 1000, full), kAddRefused);
    MSDisposeHandle(full);
    db.reset();
    files.SetFailWrites(false);
    IgnoreReports();

    db = OpenExisting("fault.db");
    for (const auto& [id, text] : acknowledged) {
        MSHandle data = nullptr;
        ASSERT_EQ(db->ReadRecordByNumber(id, "FALT", &data), kNoError) << "record " << id;
        EXPECT_EQ(HandleBytes(data), std::vector<std::uint8_t>(text.begin(), text.end()));
    }
    std::uint32_t count = 0;
    EXPECT_EQ(db->CountRecordsOfType("FALT", &count), kNoError);
    EXPECT_EQ(count, acknowledged.size());
    EXPECT_GT(acknowledged.size(), 0u);
    EXPECT_LT(acknowledged.size(), 60u);
    db.reset();
}

}  // namespace
