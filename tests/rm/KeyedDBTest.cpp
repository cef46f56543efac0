// The keyed-file database against a model of its file: random adds, reads by
// ID, name and position, sizes, counts, removes, renames and file-info
// changes, with the file closed and opened again in between; then failed
// opens, refusals that must leave the file as it was, and refused writes.
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
#include "engine/EngineErrors.h"
#include "engine/FaultFileIO.h"
#include "tests/rm/RmTestSupport.h"

namespace {

using kavotest::Answer;
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

// A record's key in the number index, and in the test's books.
std::pair<std::string, std::int32_t> Key(const std::string& type, std::int32_t id) {
    return {PaddedType(type), id};
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

// The records of one file, in the order of the number index (type, ID).
class TFileModel {
public:
    struct TRecord {
        std::string fType;  // 4 bytes, NUL-padded
        std::int32_t fID;
        std::string fName;
        std::vector<std::uint8_t> fData;
    };

    const TRecord* ByID(const std::string& type, std::int32_t id) const {
        const auto it = fByID.find(Key(type, id));
        return it == fByID.end() ? nullptr : &it->second;
    }
    const TRecord* ByName(const std::string& type, const std::string& name) const {
        for (const auto& [key, record] : fByID)
            if (record.fType == PaddedType(type) && record.fName == name) return &record;
        return nullptr;
    }
    void Add(const std::string& type, const std::string& name, std::int32_t id,
             std::vector<std::uint8_t> data) {
        fByID[Key(type, id)] = TRecord{PaddedType(type), id, name, std::move(data)};
    }
    void Remove(const std::string& type, std::int32_t id) { fByID.erase(Key(type, id)); }
    std::size_t Size() const { return fByID.size(); }

    // The records, of one type or all, in the order of the name index: type
    // bytes, then name bytes.
    std::vector<const TRecord*> NameOrder(const std::string* type = nullptr) const {
        std::vector<const TRecord*> out;
        for (const auto& entry : fByID)
            if (type == nullptr || entry.second.fType == PaddedType(*type)) out.push_back(&entry.second);
        std::sort(out.begin(), out.end(),
                  [](auto* a, auto* b) { return a->fType + a->fName < b->fType + b->fName; });
        return out;
    }

private:
    std::map<std::pair<std::string, std::int32_t>, TRecord> fByID;
};

class KeyedDBTest : public kavotest::RmTest {
protected:
    // Creates the file holding these records (type and name), with the IDs
    // 7, 8, ... in turn and each name as its data.
    void CreateWith(const std::string& name,
                    const std::vector<std::pair<const char*, const char*>>& records = {}) {
        CKeyedDB maker;
        ASSERT_EQ(maker.Create(name.c_str(), kCreator, kFileType), kNoError);
        ASSERT_EQ(maker.Open(name.c_str(), kPermissionReadWrite), kNoError);
        std::int32_t id = 7;
        for (const auto& [type, recordName] : records)
            EXPECT_EQ(maker.AddRecord(type, recordName, id++, NewHandleWith(std::string(recordName))),
                      kNoError);
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
        EXPECT_EQ(Answer(db.GetFileInfo(&outCreator, &outFileType, outPlatform), outCreator), creator);
        EXPECT_EQ(outFileType, fileType);
        EXPECT_EQ(std::string(outPlatform), platform);
    }
};

// A file without its file-info record reads as unknown (the randomised test
// below changes the file info and checks its record).
TEST_F(KeyedDBTest, AFileWithoutItsFileInfoRecordReadsAsUnknown) {
    CreateWith("info.db");
    EXPECT_EQ(OpenExisting("info.db")->RemoveNamedRecord("_File_Info_", "NFO!"), kNoError);
    ExpectFileInfo(*OpenExisting("info.db"), kUnknownCode, kUnknownCode, "?OS");
}

// Every database takes four of the engine's file numbers. A failed Open or
// Create (a missing, foreign or existing file, a bad name or permission, the
// bad ones reported) must give back what it took and make no file: as many
// databases can be open after a run of failures as before it.
TEST_F(KeyedDBTest, FailedOpensAndCreatesAreRefusedAndLeaveNoFileNumberInUse) {
    constexpr int kFiles = 20;
    const auto many = [](int i) { return "many" + std::to_string(i) + ".db"; };
    for (int i = 0; i < kFiles; ++i) CreateWith(many(i));
    std::FILE* foreign = std::fopen("foreign.db", "wb");
    std::fputs("this is not a database file of any kind, only text that looks nothing like one", foreign);
    std::fclose(foreign);
    const auto openAsManyAsPossible = [&] {
        std::vector<std::unique_ptr<CKeyedDB>> open;
        for (int i = 0; i < kFiles; ++i) {
            auto db = std::make_unique<CKeyedDB>();
            if (db->Open(many(i).c_str(), kPermissionReadWrite) != kNoError) break;
            open.push_back(std::move(db));
        }
        return open.size();
    };
    const std::size_t capacity = openAsManyAsPossible();
    EXPECT_GE(capacity, 10u);
    EXPECT_LT(capacity, static_cast<std::size_t>(kFiles)) << "the file numbers run out first";
    const auto files = std::distance(std::filesystem::directory_iterator("."), {});
    const std::string tooLong(256, 'n');
    CKeyedDB probe;
    for (int i = 0; i < 40; ++i) {
        EXPECT_EQ(probe.Open("missing.db", kPermissionReadWrite), kCannotOpenFiles);
        EXPECT_EQ(probe.Open("foreign.db", kPermissionReadOnly), kCannotOpenFiles);
        EXPECT_EQ(probe.Open(tooLong.c_str(), kPermissionReadWrite), kCannotOpenHostFile);
        EXPECT_EQ(probe.Open("many0.db", 2), kGeneralError);
        EXPECT_EQ(probe.Create("many0.db", kCreator, kFileType), kCannotOpenHostFile);
        EXPECT_EQ(probe.Create(tooLong.c_str(), kCreator, kFileType), kCannotOpenHostFile);
        EXPECT_EQ(probe.Create("", kCreator, kFileType), kCannotOpenHostFile);
        EXPECT_EQ(probe.Create(nullptr, kCreator, kFileType), kCannotOpenHostFile);
    }
    ExpectReportedTimes("strlen(theFileName) < kMaxFileNameLength", 80);
    ExpectReportedTimes("permission == kPermissionReadOnly || permission == kPermissionReadWrite", 40);
    ExpectReportedTimes("strlen(theFileName) > 0", 40);
    ExpectReportedTimes("theFileName != NULL", 40);
    EXPECT_FALSE(probe.IsOpen());
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator("."), {}), files);
    EXPECT_EQ(openAsManyAsPossible(), capacity);
}

// Bad arguments are reported and refused before the file is touched, and a
// read-only file refuses every change: either way the file stays byte for
// byte. A read-only remove takes the record out of memory before the
// permission is tested, and that refusal is not stored; the file info
// changes in memory only.
TEST_F(KeyedDBTest, RefusedChangesLeaveTheFileByteForByte) {
    CreateWith("refused.db", {{"MDUM", "clip"}, {"SEEN", "scene"}});  // IDs 7 and 8
    const auto before = FileBytes("refused.db");
    {
        auto db = OpenExisting("refused.db");
        MSHandle data = NewHandleWith(std::string("two"));
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
    }
    EXPECT_EQ(FileBytes("refused.db"), before);
    {
        auto db = OpenExisting("refused.db", kPermissionReadOnly);
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
        std::uint32_t count = 0;
        EXPECT_EQ(Answer(db->CountRecords(&count), count), 3u);
    }
    EXPECT_EQ(FileBytes("refused.db"), before);
    ExpectFileInfo(*OpenExisting("refused.db", kPermissionReadOnly), kCreator, kFileType, "windows");
}

// Thousands of random operations against the model, with the file closed
// and opened again every few hundred; loaded handles are tracked so that a
// second read must give the same handle back. Duplicate adds and renames
// (refused one way or the other) are part of the run.
TEST_F(KeyedDBTest, RandomOperationsMatchAModelOfTheFile) {
    std::mt19937 random(77);
    const auto pick = [&](std::uint32_t n) { return static_cast<std::uint32_t>(random() % n); };
    const std::vector<std::string> types = {"MDUM", "SEEN", "ab", "MDUN", "path", "NFO!"};
    const std::vector<std::int32_t> edgeIDs = {INT32_MIN, INT32_MIN + 1, -100001, -100000,  -1, 0,
                                               1,         100000,        100001,  INT32_MAX};
    std::vector<std::string> names = {"",      std::string(31, 'z'), "\xC3\xA9t\xC3\xA9", "Clip", "clip",
                                      "clip 2"};
    for (int i = 0; i < 60; ++i) names.push_back("n" + std::to_string(i));

    CreateWith("random.db");
    auto db = OpenExisting("random.db");
    TFileModel model;
    std::uint32_t info[2] = {kCreator, kFileType};
    model.Add("NFO!", "_File_Info_", -16001, FileInfoImage(kCreator, kFileType));
    std::map<std::pair<std::string, std::int32_t>, MSHandle> loaded;
    // A record read is loaded, and is answered from memory from then on.
    const auto remember = [&](const TFileModel::TRecord& record, MSHandle data) {
        MSHandle& known = loaded[Key(record.fType, record.fID)];
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
            ExpectFileInfo(*db, info[0], info[1], "windows");
        }
        const std::string type = types[pick(static_cast<std::uint32_t>(types.size()))];
        const std::string name = names[pick(static_cast<std::uint32_t>(names.size()))];
        const std::int32_t id = pick(4) == 0 ? edgeIDs[pick(static_cast<std::uint32_t>(edgeIDs.size()))]
                                             : static_cast<std::int32_t>(pick(80)) - 10;
        const std::uint32_t op = pick(13);
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
                    loaded[Key(type, id)] = data;
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
            case 5: {  // counts and the next ID: the lowest ID is stored but never counted by type
                const auto ofType = model.NameOrder(&type);
                std::int32_t highest = INT32_MIN;
                for (const auto* record : ofType) highest = std::max(highest, record->fID);
                std::uint32_t count = 0;
                EXPECT_EQ(Answer(db->CountRecords(&count), count), model.Size());
                EXPECT_EQ(Answer(db->CountRecordsOfType(type.c_str(), &count), count),
                          ofType.size() - (model.ByID(type, INT32_MIN) ? 1 : 0));
                std::int32_t next = 0;
                // One more than the highest ID, wrapping after the highest.
                EXPECT_EQ(
                    Answer(db->NextRecordID(type.c_str(), &next), next),
                    ofType.empty() ? 1 : static_cast<std::int32_t>(static_cast<std::uint32_t>(highest) + 1u));
                break;
            }
            case 6:
            case 7: {  // remove by ID or by name; a loaded handle is then the test's
                const TFileModel::TRecord* want = op == 6 ? model.ByID(type, id) : model.ByName(type, name);
                ASSERT_EQ(op == 6 ? db->RemoveNumberedRecord(id, type.c_str())
                                  : db->RemoveNamedRecord(name.c_str(), type.c_str()),
                          want ? kNoError : kKeyNotFound);
                if (want == nullptr) break;
                const auto it = loaded.find(Key(type, want->fID));
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
            case 10: {  // release, detach or purge a loaded record, after its info
                const auto it = anyLoaded();
                if (it == loaded.end()) break;
                MSHandle data = it->second;
                const TFileModel::TRecord& want = *model.ByID(it->first.first, it->first.second);
                char outType[4];
                char outName[32];
                std::int32_t outID = 0;
                EXPECT_EQ(Answer(db->GetInfoOfRecord(data, outName, outType, &outID), outID), want.fID);
                EXPECT_EQ(std::string(outType, 4) + NameString(outName), want.fType + want.fName);
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
            case 11: {  // the file info: "windows" in the file, the caller's platform in memory
                const std::string platform = name + name;
                info[0] = random();
                info[1] = random();
                ASSERT_EQ(db->SetFileInfo(info[0], info[1], platform.c_str()), kNoError);
                ExpectFileInfo(*db, info[0], info[1], platform.substr(0, 31));
                model.Add("NFO!", "_File_Info_", -16001, FileInfoImage(info[0], info[1]));
                const auto it = loaded.find(Key("NFO!", -16001));
                if (it != loaded.end()) loaded.erase(it);  // the old record's handle is disposed of
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
    for (const TFileModel::TRecord* want : model.NameOrder()) {
        MSHandle data = nullptr;
        ASSERT_EQ(db->ReadRecordByNumber(want->fID, want->fType.c_str(), &data), kNoError);
        EXPECT_EQ(HandleBytes(data), want->fData);
    }
}

// Writes refused by the file system (a failing disk, a full one) come back
// as refusals that change nothing: the database goes on, counts see only the
// records stored, and once the disk takes writes again adds succeed. After
// reopening every acknowledged record is there and no refused one is.
TEST_F(KeyedDBTest, RefusedWritesAreRefusalsAndTheDatabaseGoesOn) {
    engine::TFaultFileSystem files;
    struct TInstalled {
        explicit TInstalled(engine::TFileSystem* installed) { engine::InstallFileSystem(installed); }
        ~TInstalled() { engine::InstallFileSystem(nullptr); }
    } installed(&files);
    std::map<std::int32_t, std::string> acknowledged;
    CreateWith("fault.db");
    auto db = OpenExisting("fault.db");
    const auto expectStored = [&]() {
        std::uint32_t count = 0;
        EXPECT_EQ(Answer(db->CountRecordsOfType("FALT", &count), count), acknowledged.size());
        for (const auto& [id, text] : acknowledged) {
            std::uint32_t size = 0;
            ASSERT_EQ(db->GetSizeOfNumberedRecord(id, "FALT", &size), kNoError) << "record " << id;
            EXPECT_EQ(size, text.size());
        }
    };
    const auto add = [&](std::int32_t id) {
        const std::string text = "record " + std::to_string(id);
        MSHandle data = NewHandleWith(text);
        const std::int16_t error = db->AddRecord("FALT", ("f" + std::to_string(id)).c_str(), id, data);
        if (error == kNoError) {
            acknowledged[id] = text;
        } else {
            EXPECT_EQ(error, kAddRefused);
            EXPECT_FALSE(db->OwnsRecord(data));
            MSDisposeHandle(data);
        }
        return error;
    };
    for (std::int32_t id = 0; id < 60; ++id) {
        files.FailWriteAfter(id % 3);
        add(id);
        files.FailWriteAfter(-1);
        expectStored();
    }
    EXPECT_GT(acknowledged.size(), 0u);
    EXPECT_LT(acknowledged.size(), 60u);

    files.SetFailWrites(true);
    EXPECT_EQ(add(1000), kAddRefused);
    EXPECT_EQ(db->RemoveNumberedRecord(acknowledged.begin()->first, "FALT"), kWriteFailed);
    expectStored();
    files.SetFailWrites(false);
    EXPECT_EQ(add(1001), kNoError);
    expectStored();

    db.reset();
    db = OpenExisting("fault.db");
    expectStored();
    for (const auto& [id, text] : acknowledged) {
        MSHandle data = nullptr;
        ASSERT_EQ(db->ReadRecordByNumber(id, "FALT", &data), kNoError) << "record " << id;
        EXPECT_EQ(HandleBytes(data), Bytes(text));
    }
}

}  // namespace
