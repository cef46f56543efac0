// libFuzzer target: the bytes of a medium's "MDUM" record, or of a database's
// tape information, read by the readers that meet them in a file.
//
// A medium image goes to the medium factory in a handle (and, when asked,
// into the database as an "MDUM" record that the three loads read back).
// Whatever the bytes, the factory makes a medium exactly when the whole
// image checks out, of the class its kind names; the medium packs again into
// an image that checks out whole, and that image is a fixed point: unpacked
// and packed once more it comes back byte for byte.
//
// Tape information goes into the database as its tape header (or as a
// clip's own "DVC " record, with no header) and is read by sUnpackTapeInfo,
// the Tape functions, a clip's locator and the MediumLocator functions, with
// each buffer sized exactly from its size function. They agree with one
// another and with the bytes, refuse damaged information with a code, and
// when asked a text of the header is changed and read back.
//
// Nothing may read or write out of bounds (ASan, UBSan), and the library may
// make no assertion report but those that damaged bytes call for (the
// factory's "false" for an unknown kind, and PackGuts' report of a medium
// that carries the invalid version): any other is a finding.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "Common/Kavoassert.h"
#include "LarkDB/Mdiawrap.h"
#include "LarkDB/MediumImage.h"
#include "LarkDB/TAnalogMedium.h"
#include "LarkDB/TMooVMedium.h"
#include "LarkDB/TPictureMedium.h"
#include "LarkDB/Tmedium.h"
#include "Pack/Pack.h"
#include "tests/fuzz/MediaFuzzDatabase.h"

namespace {

using kavofuzz::Bytes;

constexpr const char kMediumName[] = "Fuzz medium";
constexpr std::int32_t kMediumID = 1000;
constexpr const char kClipName[] = "Fuzz clip";
constexpr std::int32_t kClipID = 2;

[[noreturn]] void Broken(const char* what) {
    std::fprintf(stderr, "media_image_fuzz: %s\n", what);
    std::abort();
}

void Expect(bool ok, const char* what) {
    if (!ok) Broken(what);
}

// Set while the medium in hand carries the version that no packed image
// carries (kInvalidMediumVersion): the factory unpacks it as it is, and
// PackGuts reports it, by contract.
bool gInvalidVersion = false;

void OnReport(const char* expression, const char* file, int line) {
    if (std::strcmp(expression, "false") == 0 && std::strcmp(file, "LarkDB/Mdiawrap.cpp") == 0) return;
    if (gInvalidVersion && std::strcmp(expression, "fMediumVersion != kInvalidMediumVersion") == 0 &&
        std::strcmp(file, "LarkDB/Tmedium.cpp") == 0)
        return;
    std::fprintf(stderr, "Assertion failed: %s, file %s, line %d\n", expression, file, line);
    Broken("an assertion report that damaged bytes do not call for");
}

// ---------------------------------------------------------------------------
// Medium images

// The medium's image, packed with its class's PackGuts from length 0.
Bytes Packed(TMedium* medium) {
    MSHandle stream = nullptr;
    Expect(MSNewHandle(&stream, 0) == kNoError, "no handle to pack into");
    std::uint32_t length = 0;
    stream = medium->PackGuts(stream, length);
    Expect(stream != nullptr, "PackGuts failed");
    Bytes bytes = kavofuzz::HandleBytes(stream);
    Expect(bytes.size() == length, "PackGuts: the length differs from the handle's size");
    MSDisposeHandle(stream);
    return bytes;
}

// The factory's medium for the bytes; the handle is disposed of.
TMedium* FromBytes(const Bytes& bytes) {
    MSHandle handle = kavofuzz::NewHandleWith(bytes);
    Expect(handle != nullptr, "no handle for the bytes");
    TMedium* medium = MediumFromPackedData(handle);
    if (MSHandleIsLocked(handle)) MSUnlockHandle(handle);
    MSDisposeHandle(handle);
    return medium;
}

bool ClassMatchesKind(TMedium* medium, const MediumKind& kind) {
    const bool picture = dynamic_cast<TPictureMedium*>(medium) != nullptr;
    const bool movie = dynamic_cast<TMooVMedium*>(medium) != nullptr;
    const bool analog = dynamic_cast<TAnalogMedium*>(medium) != nullptr;
    if (std::memcmp(kind.code, kPictureMediumKind, 4) == 0) return picture;
    if (std::memcmp(kind.code, kMooVMediumKind, 4) == 0) return movie;
    if (std::memcmp(kind.code, kAnalogMediumKind, 4) == 0) return analog;
    return std::memcmp(kind.code, kPlainMediumKind, 4) == 0 && !picture && !movie && !analog;
}

// Reads the medium as a host does, through the flat functions, with the
// buffers they ask for.
void ReadAsHost(TMedium* medium) {
    MediumKind kind{};
    Expect(MediumGetKind(medium, &kind) == kNoError, "MediumGetKind");
    Expect(std::strlen(MediumGetRezName(medium)) < kNameLength, "a record name of 32 characters or more");
    if (std::strlen(medium->GetTitle()) < kNameLength) {
        char title[kNameLength] = {};
        Expect(MediumGetTitle(medium, title) == kNoError, "MediumGetTitle");
    }
    const std::int32_t descriptionSize = MediumDescriptionSize(medium);
    Expect(descriptionSize >= 0, "MediumDescriptionSize");
    std::unique_ptr<char[]> description(new char[static_cast<std::size_t>(descriptionSize) + 1]);
    Expect(MediumGetDescription(medium, description.get()) == kNoError, "MediumGetDescription");
    TimeCodeRecord timeCode{};
    MediumGetTrimStart(medium, &timeCode);
    MediumGetTrimDuration(medium, &timeCode);
    MediumGetDuration(medium, &timeCode);
    Rect rect{};
    MediumGetMediumRect(medium, &rect);
    DateTimeRecord date{};
    MediumGetCreateDate(medium, &date);
    float rate = 0;
    MediumGetFrameRate(medium, &rate);
    // No tape information is stored while medium images are read.
    if (auto* clip = dynamic_cast<TAnalogMedium*>(medium)) {
        Expect(clip->LocatorTapeNameSize() == 0, "a clip found tape information where there is none");
        Expect(MediumLocatorTapeNameSize(medium) == kRecordNotFound,
               "MediumLocatorTapeNameSize without a locator");
    }
}

// The image of the medium that a load made, or nothing when it made none.
Bytes LoadedImage(TMedium* loaded) {
    if (loaded == nullptr) return {};
    Expect(MediumLoadPathName(loaded) == kRecordNotFound, "a path record where there is none");
    Bytes image = Packed(loaded);
    MediumDestroy(loaded);
    return image;
}

void FuzzMediumImage(std::int16_t refNum, const Bytes& bytes, bool throughDatabase) {
    const auto size = static_cast<std::uint32_t>(bytes.size());
    std::uint32_t version = 0;
    if (size >= 8) UnpackLong(bytes.data() + 4, &version);
    gInvalidVersion = version == kInvalidMediumVersion;
    MediumKind kind{};
    const std::uint32_t imageLength = MediumImageLength(bytes.data(), size, &kind);
    TMedium* medium = FromBytes(bytes);
    Expect((medium != nullptr) == (imageLength != 0), "the factory and MediumImageLength disagree");
    Bytes repacked;
    if (medium != nullptr) {
        Expect(imageLength <= size, "MediumImageLength past the end");
        Expect(ClassMatchesKind(medium, kind), "the medium's class is not the one its kind names");
        repacked = Packed(medium);
        Expect(MediumImageLength(repacked.data(), static_cast<std::uint32_t>(repacked.size())) ==
                   repacked.size(),
               "a repacked image does not check out whole");
        Expect(repacked.size() <= imageLength, "a repacked image is longer than the image it came from");
        TMedium* again = FromBytes(repacked);
        Expect(again != nullptr, "the factory refused a repacked image");
        Expect(Packed(again) == repacked, "a repacked image is not a fixed point");
        delete again;
        ReadAsHost(medium);
        delete medium;
    }
    if (!throughDatabase) return;

    Expect(kavofuzz::PutRecord(refNum, kMediumRecordType, kMediumName, kMediumID, bytes) == kNoError,
           "the image could not be stored");
    Expect(LoadedImage(MediumLoadByID(refNum, kMediumID)) == repacked, "MediumLoadByID");
    Expect(LoadedImage(MediumLoadByName(refNum, kMediumName)) == repacked, "MediumLoadByName");
    Expect(LoadedImage(MediumLoadNthOne(refNum, 0)) == repacked, "MediumLoadNthOne");
    Expect(RMRemoveNamedRecord(refNum, kMediumName, kMediumRecordType) == kNoError, "the image stays stored");
}

// ---------------------------------------------------------------------------
// Tape information

// A clip from tape whose kind code is not "aMED": the only clip that the
// MediumLocator functions hand on to the clip's own accessors.
class TRekindedClip : public TAnalogMedium {
public:
    TRekindedClip() : TAnalogMedium(kClipName, 0) { std::memcpy(fKind.code, kPlainMediumKind, 4); }
};

struct TTapeText {
    CString LocatorRecord::*fField;
    std::int32_t(KAVO_CALL* fTapeSize)(std::int32_t);
    std::int16_t(KAVO_CALL* fTapeGet)(char*);
    std::int32_t (TAnalogMedium::*fClipSize)();
    std::int16_t (TAnalogMedium::*fClipGet)(char*);
    std::int32_t(KAVO_CALL* fMediumSize)(TMedium*);
    std::int16_t(KAVO_CALL* fMediumGet)(TMedium*, char*);
    std::int16_t(KAVO_CALL* fTapeChange)(std::int16_t, const char*);
};

const TTapeText kTapeTexts[] = {
    {&LocatorRecord::fTapeName, TapeNameSize, TapeGetName, &TAnalogMedium::LocatorTapeNameSize,
     &TAnalogMedium::LocatorGetTapeName, MediumLocatorTapeNameSize, MediumLocatorGetTapeName, TapeChangeName},
    {&LocatorRecord::fDescription, TapeDescriptionSize, TapeGetDescription,
     &TAnalogMedium::LocatorDescriptionSize, &TAnalogMedium::LocatorGetDescription,
     MediumLocatorDescriptionSize, MediumLocatorGetDescription, TapeChangeDescription},
    {&LocatorRecord::fEnteredBy, TapeEnteredBySize, TapeGetEnteredBy, &TAnalogMedium::LocatorEnteredBySize,
     &TAnalogMedium::LocatorGetEnteredBy, MediumLocatorEnteredBySize, MediumLocatorGetEnteredBy,
     TapeChangeEnteredBy},
    {&LocatorRecord::fShooter, TapeShooterSize, TapeGetShooter, &TAnalogMedium::LocatorShooterSize,
     &TAnalogMedium::LocatorGetShooter, MediumLocatorShooterSize, MediumLocatorGetShooter, TapeChangeShooter},
};

// The text that a getter writes into a buffer of exactly size bytes (so
// that ASan sees any byte past it), checked against the expected text and
// its NUL.
template <typename Get>
void ExpectText(std::int32_t size, const CString& expected, Get get, const char* what) {
    Expect(size == static_cast<std::int32_t>(expected.Length() + 1), what);
    std::unique_ptr<char[]> buffer(new char[static_cast<std::size_t>(size)]);
    Expect(get(buffer.get()) == kNoError, what);
    Expect(std::memcmp(buffer.get(), expected.Text(), static_cast<std::size_t>(size)) == 0, what);
}

bool SameRest(const LocatorRecord& a, const LocatorRecord& b) {
    auto same = [](const CString& x, const CString& y) {
        return x.Length() == y.Length() && std::memcmp(x.Text(), y.Text(), x.Length()) == 0;
    };
    return std::memcmp(a.fTapeID, b.fTapeID, 4) == 0 && a.fCreateDate == b.fCreateDate &&
           same(a.fTapeName, b.fTapeName) && same(a.fDescription, b.fDescription) &&
           same(a.fEnteredBy, b.fEnteredBy) && same(a.fShooter, b.fShooter);
}

// The header through the Tape functions: refused with a code when damaged,
// else the same texts and numbers that sUnpackTapeInfo gives. header is
// whether the database holds a tape header.
void ReadTapeHeader(const Bytes& bytes, bool header, bool whole, LocatorRecord* record) {
    const std::int16_t unpacked = sUnpackTapeInfo(record);
    if (!header) {
        Expect(unpacked == kRecordNotFound, "sUnpackTapeInfo without a header");
    } else {
        Expect(unpacked == (whole ? kNoError : kGeneralError),
               "sUnpackTapeInfo on whole or damaged information");
    }
    if (unpacked == kNoError)
        Expect(std::memcmp(record->fPlugType.code, bytes.data(), 4) == 0,
               "sUnpackTapeInfo: the plug kind is not the image's first four bytes");
    for (const TTapeText& text : kTapeTexts) {
        const std::int32_t size = text.fTapeSize(0);
        if (unpacked != kNoError) {
            Expect(size == 0, "a tape size without tape information");
            char untouched = 'x';
            Expect(text.fTapeGet(&untouched) == unpacked && untouched == 'x',
                   "a tape getter without information");
            continue;
        }
        ExpectText(size, record->*text.fField, text.fTapeGet, "a tape text");
    }
    std::uint32_t tapeID = 0;
    PlugKind plug{};
    Expect(TapeGetTapeID(&tapeID) == unpacked && TapeGetPlugType(&plug) == unpacked,
           "TapeGetTapeID, TapeGetPlugType");
    if (unpacked == kNoError)
        Expect(
            std::memcmp(&tapeID, record->fTapeID, 4) == 0 && std::memcmp(&plug, &record->fPlugType, 4) == 0,
            "TapeGetTapeID, TapeGetPlugType");
}

// The same information through a clip's locator, and through the
// MediumLocator functions on that clip (refused: it is an "aMED" medium)
// and on a clip of another kind code (handed on).
void ReadLocator(const Bytes& bytes, bool whole, const LocatorRecord* header) {
    TMedium* made = MediumCreateNew(0, kTapeRecordType, kClipName, kClipID);
    auto* clip = dynamic_cast<TAnalogMedium*>(made);
    Expect(clip != nullptr, "MediumCreateNew made no clip for \"DVC \"");
    LocatorRecord record{};
    const std::int16_t unpacked = clip->LocatorUnpack(&record);
    Expect(unpacked == (whole ? kNoError : kGeneralError), "LocatorUnpack on whole or damaged information");
    if (unpacked == kNoError) {
        std::uint32_t version = 0;
        UnpackLong(bytes.data(), &version);
        Expect(std::memcmp(record.fPlugType.code, &version, 4) == 0,
               "LocatorUnpack: the plug kind is not the image's first number");
        if (header != nullptr) Expect(SameRest(record, *header), "the locator and sUnpackTapeInfo disagree");
    }
    auto rekinded = std::make_unique<TRekindedClip>();
    for (const TTapeText& text : kTapeTexts) {
        const std::int32_t size = (clip->*text.fClipSize)();
        Expect(text.fMediumSize(clip) == kGeneralError, "MediumLocator... on an \"aMED\" clip");
        const std::int32_t handedOn = text.fMediumSize(rekinded.get());
        Expect(handedOn == size, "MediumLocator... and the clip's accessor disagree");
        if (unpacked != kNoError) {
            Expect(size == 0, "a locator size without tape information");
            char untouched = 'x';
            Expect((clip->*text.fClipGet)(&untouched) == unpacked && untouched == 'x',
                   "a locator getter without information");
            continue;
        }
        ExpectText(
            size, record.*text.fField, [&](char* buffer) { return (clip->*text.fClipGet)(buffer); },
            "a locator text");
        ExpectText(
            handedOn, record.*text.fField,
            [&](char* buffer) { return text.fMediumGet(rekinded.get(), buffer); }, "a MediumLocator text");
    }
    std::uint32_t tapeID = 0;
    std::uint32_t createDate = 0;
    PlugKind plug{};
    Expect(clip->LocatorGetTapeID(&tapeID) == unpacked &&
               clip->LocatorGetCreateDate(&createDate) == unpacked &&
               clip->LocatorGetPlugType(&plug) == unpacked,
           "the locator's numbers");
    Expect(MediumLocatorGetTapeID(rekinded.get(), &tapeID) == unpacked &&
               MediumLocatorGetCreateDate(rekinded.get(), &createDate) == unpacked &&
               MediumLocatorGetPlugType(rekinded.get(), &plug) == unpacked,
           "the MediumLocator numbers");
    if (unpacked == kNoError)
        Expect(std::memcmp(&tapeID, record.fTapeID, 4) == 0 && createDate == record.fCreateDate &&
                   std::memcmp(&plug, &record.fPlugType, 4) == 0,
               "the locator's numbers");
    MediumDestroy(made);
}

// Changes one text of a whole header and reads the header back: that text
// is new, the others and the numbers as they were (up to a NUL inside a
// text, where packing ends it), the plug kind is the version's bytes, and
// the current database is the same.
void ChangeTapeText(std::int16_t refNum, const Bytes& bytes, const LocatorRecord& before) {
    const TTapeText& text = kTapeTexts[bytes.size() % 4];
    const char kNewText[] = "changed by the fuzz target";
    Expect(text.fTapeChange(refNum, kNewText) == kNoError, "a TapeChange... on a whole header");
    std::int16_t current = 0;
    Expect(RMGetCurrentDB(&current) == kNoError && current == refNum,
           "TapeChange... moved the current database");
    LocatorRecord after{};
    Expect(sUnpackTapeInfo(&after) == kNoError, "the changed header cannot be read");
    static const std::uint8_t kVersionBytes[4] = {0, 0, 0, 1};
    Expect(std::memcmp(after.fPlugType.code, kVersionBytes, 4) == 0, "the changed header's first four bytes");
    Expect(std::memcmp(after.fTapeID, before.fTapeID, 4) == 0 && after.fCreateDate == before.fCreateDate,
           "the changed header's numbers");
    for (const TTapeText& other : kTapeTexts) {
        const char* expected = &other == &text ? kNewText : (before.*other.fField).Text();
        Expect(std::strcmp((after.*other.fField).Text(), expected) == 0, "the changed header's texts");
    }
}

void FuzzTapeInfo(std::int16_t refNum, const Bytes& bytes, bool clipRecord, bool change) {
    const bool whole = TapeInfoImageLength(bytes.data(), static_cast<std::uint32_t>(bytes.size())) != 0;
    const char* const name = clipRecord ? kClipName : kTapeHeaderName;
    const std::int32_t id = clipRecord ? kClipID : kTapeHeaderID;
    Expect(kavofuzz::PutRecord(refNum, kTapeRecordType, name, id, bytes) == kNoError,
           "the tape information could not be stored");
    LocatorRecord header{};
    ReadTapeHeader(bytes, !clipRecord, whole, &header);
    ReadLocator(bytes, whole, clipRecord || !whole ? nullptr : &header);
    if (change && !clipRecord && whole) ChangeTapeText(refNum, bytes, header);
    Expect(RMRemoveNamedRecord(refNum, name, kTapeRecordType) == kNoError,
           "the tape information stays stored");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kavo::SetAssertionHook(OnReport);
    if (kavofuzz::MediaFuzzDatabase() == 0) Broken("the database could not be made");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const kavofuzz::TMediaFuzzInput input = kavofuzz::DecodeMediaFuzzInput(data, size);
    const std::int16_t refNum = kavofuzz::MediaFuzzDatabase();
    const bool throughDatabase = (input.fFlags & kavofuzz::kMediaThroughDatabase) != 0;
    if ((input.fFlags & kavofuzz::kMediaTapeInfo) != 0) {
        FuzzTapeInfo(refNum, input.fBytes, throughDatabase, (input.fFlags & kavofuzz::kMediaChangeTape) != 0);
    } else {
        FuzzMediumImage(refNum, input.fBytes, throughDatabase);
    }
    return 0;
}
