// The keyed-file database against a model of its file: random adds, reads by
// ID, name and position, sizes, counts, removes and renames, with the file
// closed and opened again in between; then the file info, failed opens,
// refusals that must leave the file as it was, and refused writes.
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

constexpr std::uint32_t kCreator = 0x4B41564F;      // 'KAVO'
constexpr std::uint32_t kFileType = 0x4D444241;     // 'MDBA'
constexpr std::uint32_t kUnknownCode = 0x3F3F3F3F;  // '????'

std::string PaddedType(const std::string& type) {
    std::string padded = type;
    padded.resize(4, '\0');
    return padded;
}

std::vector<std::uint8_t> Bytes(const std::string& text) {
    return std::vector<std::uint8_t>(text.begin(), text.end());
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

    const TRecord* ByID(const std::string& type, std::int32_t id) const {
        const auto it = fByID.find({PaddedType(type), id});
        return it == fByID.end() ? nullptr : &it->second;
    }
    const TRecord* ByName(const std::string& type, const std::string& name) const {
        for (const TRecord* record : Records(&type))
            if (record->fName == name) return record;
        return nullptr;
    }
    void Add(const std::string& type, const std::string& name, std::int32_t id,
             std::vector<std::uint8_t> data) {
        fByID[{PaddedType(type), id}] = TRecord{PaddedType(type), id, name, std::move(data)};
    }
    void Remove(const std::string& type, std::int32_t id) { fByID.erase({PaddedType(type), id}); }

    // The records, of one type or all, in the order of the number index.
    std::vector<const TRecord*> Records(const std::string* type = nullptr) const {
        std::vector<const TRecord*> out;
        for (const auto& entry : fByID)
            if (type == nullptr || entry.second.fType == PaddedType(*type)) out.push_back(&entry.second);
        return out;
    }
    // The same in the order of the name index: type bytes, then name bytes.
    std::vector<const TRecord*> NameOrder(const std::string* type = nullptr) const {
        auto out = Records(type);
        std::sort(out.begin(), out.end(),
                  [](const TRecord* a, const TRecord* b) { return Key(*a) < Key(*b); });
        return out;
    }
    // The lowest ID is stored but never counted by type.
    std::size_t CountOfType(const std::string& type) const {
        const auto records = Records(&type);
        return records.size() - (!records.empty() && records.front()->fID == INT32_MIN ? 1 : 0);
    }
    // One more than the highest ID of the type, wrapping after the highest.
    std::int32_t NextID(const std::string& type) const {
        const auto records = Records(&type);
        if (records.empty()) return 1;
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(records.back()->fID) + 1u);
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
    // Creates the file holding these records (type and name), with the IDs
    // 7, 8, ... in turn and each name as its data.
    void CreateWith(const char* name, const std::vector<std::pair<const char*, const char*>>& records = {}) {
        CKeyedDB maker;
        ASSERT_EQ(maker.Create(name, kCreator, kFileType), kNoError);
        ASSERT_EQ(maker.Open(name, kPermissionReadWrite), kNoError);
        std::int32_t id = 7;
        for (const auto& [type, recordName] : records)
            EXPECT_EQ(maker.AddRecord(type, recordName, id++, NewHandleWith(std::string(recordName))),
                      kNoError);
    }

    std::unique_ptr<CKeyedDB> CreateAndOpen(const char* name) {
        CreateWith(name);
        return OpenExisting(name);
    }

    std::unique_ptr<CKeyedDB> OpenExisting(const char* name, std::int16_t permission = kPermissionReadWrite) {
        auto db = std::make_unique<CKeyedDB>();
        EXPECT_EQ(db->Open(name, permission), kNoError);
        return db;
    }

    void ExpectFileInfo(CKeyedDB& db, std::uint32_t creator, std::uint32_t fileType,
                        const std::string& platform) {
        std::uint32_t outCreator = 0;
        std::uint32_t outFileType = 0;
        char outPlatform[32];
        ASSERT_EQ(db.GetFileInfo(&outCreator, &outFileType, outPlatform), kNoError);
        EXPECT_EQ(outCreator, creator);
        EXPECT_EQ(outFileType, fileType);
        EXPECT_EQ(std::string(outPlatform), platform);
    }

    std::uint32_t CountRecords(CKeyedDB& db) {
        std::uint32_t count = 0;
        EXPECT_EQ(db.CountRecords(&count), kNoError);
        return count;
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

// A new file holds only its file-info record (the randomised test below
// checks its bytes and the counts).
TEST_F(KeyedDBTest, FileInfoIsOneRecordWrittenAsWindowsAndItsAbsenceReadsAsUnknown) {
    {
        auto db = CreateAndOpen("info.db");
        ExpectFileInfo(*db, kCreator, kFileType, "windows");
        std::int32_t next = 0;
        EXPECT_EQ(db->NextRecordID("NFO!", &next), kNoError);
        EXPECT_EQ(next, -16000);
        EXPECT_EQ(db->SetFileInfo(11, 22, "macos"), kNoError);
        const char* longPlatform = "a platform name that is far longer than thirty-one";
        EXPECT_EQ(db->SetFileInfo(33, 44, longPlatform), kNoError);
        ExpectFileInfo(*db, 33, 44, std::string(longPlatform, 31));
        std::uint32_t count = 0;
        EXPECT_EQ(db->CountRecordsOfType("NFO!", &count), kNoError);
        EXPECT_EQ(count, 1u);
    }
    {
        auto db = OpenExisting("info.db");
        ExpectFileInfo(*db, 33, 44, "windows");
        EXPECT_EQ(db->RemoveNamedRecord("_File_Info_", "NFO!"), kNoError);
    }
    auto db = OpenExisting("info.db");
    ExpectFileInfo(*db, kUnknownCode, kUnknownCode, "?OS");
}

// Every database takes four of the engine's file numbers. A failed Open or
// Create must give back what it took: as many databases can be open after a
// run of failures as before it.
TEST_F(KeyedDBTest, FailedOpensAndCreatesAreRefusedAndLeaveNoFileNumberInUse) {
    constexpr int kFiles = 20;
    for (int i = 0; i < kFiles; ++i) {
        CKeyedDB maker;
        ASSERT_EQ(maker.Create(("many" + std::to_string(i) + ".db").c_str(), kCreator, kFileType), kNoError);
    }
    std::FILE* foreign = std::fopen("foreign.db", "wb");
    std::fputs("this is not a database file of any kind, only text that looks nothing like one", foreign);
    std::fclose(foreign);
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
        EXPECT_EQ(probe.Open("foreign.db", kPermissionReadOnly), kCannotOpenFiles);
        EXPECT_EQ(probe.Create("many0.db", kCreator, kFileType), kCannotOpenHostFile);
    }
    EXPECT_FALSE(probe.IsOpen());
    EXPECT_EQ(openAsManyAsPossible(), capacity);
}

TEST_F(KeyedDBTest, BadFileNamesAndPermissionsAreReportedAndRefused) {
    CKeyedDB db;
    ExpectRefused(db.Create(nullptr, kCreator, kFileType), kCannotOpenHostFile, "theFileName != NULL");
    ExpectRefused(db.Create("", kCreator, kFileType), kCannotOpenHostFile, "strlen(theFileName) > 0");
    const std::string tooLong(256, 'n');
    EXPECT_EQ(db.Create(tooLong.c_str(), kCreator, kFileType), kCannotOpenHostFile);
    EXPECT_EQ(db.Open(tooLong.c_str(), kPermissionReadWrite), kCannotOpenHostFile);
    ExpectReportedTimes("strlen(theFileName) < kMaxFileNameLength", 2);
    EXPECT_TRUE(std::filesystem::is_empty(fDirectory->Path()));
    CreateWith("good.db");
    ExpectRefused(db.Open("good.db", 2), kGeneralError,
                  "permission == kPermissionReadOnly || permission == kPermissionReadWrite");
}

// Duplicates, bad arguments (reported before the file is touched) and
// renames: a rename to a taken key is refused with the record still loaded;
// one to free keys finds the old key in the file, so the answer is the same,
// nothing is written and the record has left the map.
TEST_F(KeyedDBTest, RefusedChangesLeaveAWritableFileByteForByte) {
    CreateWith("refused.db", {{"MDUM", "clip"}, {"MDUM", "taken"}});  // IDs 7 and 8
    const auto before = FileBytes("refused.db");
    {
        auto db = OpenExisting("refused.db");
        MSHandle data = NewHandleWith(std::string("two"));
        EXPECT_EQ(db->AddRecord("MDUM", "other", 7, data), kDuplicateRecord);
        EXPECT_EQ(db->AddRecord("MDUM", "clip", 9, data), kDuplicateRecord);
        EXPECT_EQ(db->LastError(), kDuplicateRecord);
        EXPECT_FALSE(db->OwnsRecord(data)) << "a refused record is not registered";

        const std::string name32(32, 'x');
        MSHandle out = nullptr;
        EXPECT_EQ(db->AddRecord("MDUM", name32.c_str(), 1, data), kGeneralError);
        EXPECT_EQ(db->ReadRecordByName(name32.c_str(), "MDUM", &out), kGeneralError);
        EXPECT_EQ(db->RemoveNamedRecord(name32.c_str(), "MDUM"), kGeneralError);
        ExpectReportedTimes("strlen(name) < kNameLength", 3);
        ExpectRefused(db->AddRecord(nullptr, "n", 1, data), kGeneralError, "theType != NULL");
        ExpectRefused(db->AddRecord("MDUM", nullptr, 1, data), kGeneralError, "theName != NULL");
        ExpectRefused(db->ReadRecordByNumber(1, "MDUM", nullptr), kGeneralError, "theData != NULL");
        MSDisposeHandle(data);
        ExpectRefused(db->AddRecord("MDUM", "n", 1, data), kInvalidHandle, "MSValidHandle(theData)");

        MSHandle clip = nullptr;
        ASSERT_EQ(db->ReadRecordByNumber(7, "MDUM", &clip), kNoError);
        EXPECT_EQ(db->ChangeRecordInfo(clip, "MDUM", "new", 8), kDuplicateRecord);
        EXPECT_EQ(db->ChangeRecordInfo(clip, "MDUM", "taken", 70), kDuplicateRecord);
        EXPECT_TRUE(db->OwnsRecord(clip));
        EXPECT_EQ(db->ChangeRecordInfo(clip, "SEEN", "renamed", 70), kDuplicateRecord);
        DropReports("index != 0");
        EXPECT_FALSE(db->OwnsRecord(clip));
        EXPECT_EQ(HandleBytes(clip), Bytes("clip"));
        MSDisposeHandle(clip);
        EXPECT_EQ(CountRecords(*db), 3u);
    }
    EXPECT_EQ(FileBytes("refused.db"), before);
}

// A remove drops the record from memory before the permission is tested,
// and the refusal is not stored; the file info changes in memory only.
TEST_F(KeyedDBTest, AReadOnlyFileRefusesEveryChangeAndStaysByteForByte) {
    CreateWith("frozen.db", {{"MDUM", "clip"}, {"SEEN", "scene"}});  // IDs 7 and 8
    const auto before = FileBytes("frozen.db");
    {
        auto db = OpenExisting("frozen.db", kPermissionReadOnly);
        MSHandle data = NewHandleWith(std::string("new"));
        EXPECT_EQ(db->AddRecord("MDUM", "new", 99, data), kNoPermission);
        MSDisposeHandle(data);
        EXPECT_EQ(db->RemoveNamedRecord("scene", "SEEN"), kNoPermission);
        MSHandle clip = nullptr;
        ASSERT_EQ(db->ReadRecordByNumber(7, "MDUM", &clip), kNoError);
        EXPECT_EQ(db->RemoveNumberedRecord(7, "MDUM"), kNoPermission);
        EXPECT_EQ(db->LastError(), kNoError) << "the refusal is not stored";
        EXPECT_FALSE(db->OwnsRecord(clip)) << "the record already left the map";
        EXPECT_TRUE(MSValidHandle(clip));
        MSDisposeHandle(clip);
        ASSERT_EQ(db->ReadRecordByName("clip", "MDUM", &clip), kNoError) << "the file still holds it";
        EXPECT_EQ(db->RemoveRecord(clip), kNoPermission);
        MSDisposeHandle(clip);
        ASSERT_EQ(db->ReadRecordByName("clip", "MDUM", &clip), kNoError);
        EXPECT_NE(db->ChangeRecordInfo(clip, "MDUM", "renamed", 70), kNoError);
        DropReports("index != 0");
        if (!db->OwnsRecord(clip)) MSDisposeHandle(clip);
        EXPECT_EQ(db->SetFileInfo(1, 2, "other"), kNoError);
        ExpectFileInfo(*db, 1, 2, "other");
        EXPECT_EQ(CountRecords(*db), 3u);
    }
    EXPECT_EQ(FileBytes("frozen.db"), before);
    ExpectFileInfo(*OpenExisting("frozen.db", kPermissionReadOnly), kCreator, kFileType, "windows");
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
    // A record read is loaded, and is answered from memory from then on.
    const auto remember = [&](const TFileModel::TRecord& record, MSHandle data) {
        MSHandle& known = loaded[loadedKey(record.fType, record.fID)];
        if (known != nullptr) {
            EXPECT_EQ(known, data) << "a loaded record is answered from memory";
        }
        known = data;
    };
    // A loaded record, or none.
    const auto anyLoaded = [&] {
        auto it = loaded.begin();
        if (!loaded.empty()) std::advance(it, pick(static_cast<std::uint32_t>(loaded.size())));
        return it;
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
        const std::uint32_t op = pick(12);
        switch (op) {
            case 0:
            case 1:
            case 2: {  // add
                std::vector<std::uint8_t> bytes(pick(64));
                for (auto& b : bytes) b = static_cast<std::uint8_t>(random());
                MSHandle data = NewHandleWith(bytes);
                const bool duplicate = model.ByID(type, id) != nullptr || model.ByName(type, name) != nullptr;
                ASSERT_EQ(db->AddRecord(type.c_str(), name.c_str(), id, data),
                          duplicate ? kDuplicateRecord : kNoError);
                EXPECT_EQ(db->LastError(), duplicate ? kDuplicateRecord : kNoError);
                EXPECT_EQ(db->OwnsRecord(data), !duplicate);
                if (duplicate) {
                    MSDisposeHandle(data);
                } else {
                    model.Add(type, name, id, bytes);
                    loaded[loadedKey(type, id)] = data;
                }
                break;
            }
            case 3:
            case 4: {  // the size, then the record, by ID or by name
                const bool byName = op == 4;
                const TFileModel::TRecord* want = byName ? model.ByName(type, name) : model.ByID(type, id);
                std::uint32_t size = 0;
                EXPECT_EQ(byName ? db->GetSizeOfNamedRecord(name.c_str(), type.c_str(), &size)
                                 : db->GetSizeOfNumberedRecord(id, type.c_str(), &size),
                          want ? kNoError : kKeyNotFound);
                MSHandle data = reinterpret_cast<MSHandle>(1);
                ASSERT_EQ(byName ? db->ReadRecordByName(name.c_str(), type.c_str(), &data)
                                 : db->ReadRecordByNumber(id, type.c_str(), &data),
                          want ? kNoError : kRecordNotFound);
                if (want == nullptr) {
                    EXPECT_EQ(data, nullptr);
                    break;
                }
                EXPECT_EQ(size, want->fData.size());
                EXPECT_EQ(HandleBytes(data), want->fData);
                remember(*want, data);
                break;
            }
            case 5: {  // counts and the next ID
                std::uint32_t count = 0;
                EXPECT_EQ(CountRecords(*db), model.Size());
                EXPECT_EQ(db->CountRecordsOfType(type.c_str(), &count), kNoError);
                EXPECT_EQ(count, model.CountOfType(type));
                std::int32_t next = 0;
                EXPECT_EQ(db->NextRecordID(type.c_str(), &next), kNoError);
                EXPECT_EQ(next, model.NextID(type));
                break;
            }
            case 6:
            case 7: {  // remove by ID or by name; a loaded handle is then the test's
                const TFileModel::TRecord* want = op == 6 ? model.ByID(type, id) : model.ByName(type, name);
                ASSERT_EQ(op == 6 ? db->RemoveNumberedRecord(id, type.c_str())
                                  : db->RemoveNamedRecord(name.c_str(), type.c_str()),
                          want ? kNoError : kKeyNotFound);
                if (want == nullptr) break;
                const auto it = loaded.find(loadedKey(type, want->fID));
                model.Remove(type, want->fID);
                if (it == loaded.end()) break;
                EXPECT_FALSE(db->OwnsRecord(it->second));
                MSDisposeHandle(it->second);
                loaded.erase(it);
                break;
            }
            case 8:
            case 9: {  // the Nth record overall, or of a type (read only with an ID within 100000)
                const bool ofType = op == 9;
                const auto order = model.NameOrder(ofType ? &type : nullptr);
                const std::uint32_t index =
                    pick(8) == 0 ? 0xFFFFFFFFu : pick(static_cast<std::uint32_t>(order.size()) + 2);
                const bool inside = index < order.size();
                char outType[4];
                char outName[32];
                std::int32_t outID = 0;
                std::uint32_t size = 0;
                ASSERT_EQ(ofType ? db->GetInfoOfNthRecordOfType(index, type.c_str(), outName, &outID)
                                 : db->GetInfoOfNthRecord(index, outType, outName, &outID),
                          inside ? kNoError : kRecordNotFound);
                EXPECT_EQ(ofType ? db->GetSizeOfNthRecordOfType(index, type.c_str(), &size)
                                 : db->GetSizeOfNthRecord(index, &size),
                          inside ? kNoError : kRecordNotFound);
                if (!inside) break;
                const TFileModel::TRecord& want = *order[index];
                if (!ofType) {
                    EXPECT_EQ(std::string(outType, 4), want.fType);
                }
                EXPECT_EQ(NameString(outName), want.fName);
                EXPECT_EQ(outID, want.fID);
                EXPECT_EQ(size, want.fData.size()) << "the size has no range";
                MSHandle data = reinterpret_cast<MSHandle>(1);
                const bool readable = !ofType || (outID >= -100000 && outID <= 100000);
                ASSERT_EQ(ofType ? db->ReadNthRecordOfType(index, type.c_str(), &data)
                                 : db->ReadNthRecord(index, &data),
                          readable ? kNoError : kGeneralError);
                if (!readable) {
                    ExpectReported("0");
                    EXPECT_EQ(data, nullptr);
                    break;
                }
                EXPECT_EQ(HandleBytes(data), want.fData);
                remember(want, data);
                break;
            }
            case 10: {  // release, detach or purge a loaded record
                const auto it = anyLoaded();
                if (it == loaded.end()) break;
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
                const auto it = anyLoaded();
                if (it == loaded.end()) break;
                const bool clash = model.ByID(type, id) != nullptr || model.ByName(type, name) != nullptr;
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
    auto db = CreateAndOpen("fault.db");
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
        EXPECT_EQ(HandleBytes(data), Bytes(text));
    }
    std::uint32_t count = 0;
    EXPECT_EQ(db->CountRecordsOfType("FALT", &count), kNoError);
    EXPECT_EQ(count, acknowledged.size());
    EXPECT_GT(acknowledged.size(), 0u);
    EXPECT_LT(acknowledged.size(), 60u);
}

}  // namespace
