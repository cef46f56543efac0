// Packed images of every kind of medium and of the tape information, byte
// for byte; the factory that reads them back; and damaged images (cut short
// at every length, counts past the end, unknown kinds), which every reader
// refuses without reading past the record.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "LarkDB/MediumImage.h"
#include "LarkDB/Mdiawrap.h"
#include "tests/media/MediaTestSupport.h"

namespace {

using kavotest::AppendLong;
using kavotest::AppendString;
using kavotest::MediumFromBytes;
using kavotest::PackedImage;
using kavotest::TapeImage;
using Bytes = std::vector<std::uint8_t>;

void AppendShort(Bytes& bytes, std::uint16_t value) {
    bytes.push_back(static_cast<std::uint8_t>(value >> 8));
    bytes.push_back(static_cast<std::uint8_t>(value));
}

void AppendText(Bytes& bytes, const char* text) { bytes.insert(bytes.end(), text, text + std::strlen(text)); }

// The image of a medium named "A" with every other field as constructed.
Bytes PlainImageOfA(const char* kind, std::uint32_t flags) {
    Bytes bytes;
    AppendText(bytes, kind);
    AppendLong(bytes, 1);      // version
    AppendLong(bytes, flags);  // flags
    AppendLong(bytes, 0);      // ID
    AppendLong(bytes, 0);      // creator
    AppendString(bytes, "A");  // record name
    AppendString(bytes, "");   // description
    AppendString(bytes, "");   // author
    AppendString(bytes, "A");  // title
    bytes.insert(bytes.end(), 8 + 7 + 7 + 6 * 4, 0);
    return bytes;
}

// Every report a test provokes must be one it expects.
class MediumImage : public kavotest::KavoTest {};

TEST_F(MediumImage, ANewMediumOfEachKindPacksToItsKnownBytes) {
    TMedium plain("A", 0);
    const Bytes plainImage = PackedImage(plain);
    EXPECT_EQ(plainImage.size(), 84u);
    EXPECT_EQ(plainImage, PlainImageOfA("?MED", 0));

    TMooVMedium movie("A", 7);
    Bytes movieImage = PlainImageOfA("mMED", 7);
    AppendLong(movieImage, 1);
    EXPECT_EQ(PackedImage(movie), movieImage);
    EXPECT_EQ(movieImage.size(), 88u);

    TPictureMedium picture("A", 0);
    Bytes pictureImage = PlainImageOfA("pMED", 0);
    AppendLong(pictureImage, 1);
    EXPECT_EQ(PackedImage(picture), pictureImage);

    // Whatever flags were asked for, a clip from tape has the one that
    // forbids proxies.
    TAnalogMedium analog("T", 0x12345678);
    PlugKind plug;
    std::memcpy(plug.code, "DVC ", 4);
    ASSERT_EQ(analog.ChangePlugType(&plug), kNoError);
    const Bytes analogImage = PackedImage(analog);
    ASSERT_EQ(analogImage.size(), 92u);
    EXPECT_EQ(Bytes(analogImage.begin() + 84, analogImage.end()),
              (Bytes{0, 0, 0, 1, 'D', 'V', 'C', ' '}));
    EXPECT_EQ(Bytes(analogImage.begin() + 8, analogImage.begin() + 12), (Bytes{0, 1, 0, 0}));
    EXPECT_FALSE(analog.CanProxy());
}

TEST_F(MediumImage, EveryFieldHasItsPlaceInTheImage) {
    TMedium medium("Clip", 0x00020001);
    ASSERT_EQ(medium.ChangeRezID(0x01020304), kNoError);
    ASSERT_EQ(medium.ChangeCreator(0x41424344), kNoError);
    ASSERT_EQ(medium.ChangeDescription("desc"), kNoError);
    const CString author("me");
    ASSERT_EQ(medium.ChangeAuthor(&author), kNoError);
    ASSERT_EQ(medium.ChangeTitle("The title"), kNoError);
    DateTimeRecord created = {2026, 11, 25, 6, 30, 59};
    EXPECT_EQ(medium.ChangeCreateDate(&created), kGeneralError);  // stored all the same
    TimeCodeRecord codes[6];
    TimeCodeRecord* const order[6] = {&codes[0], &codes[1], &codes[2], &codes[3], &codes[4], &codes[5]};
    for (int i = 0; i < 6; ++i) *order[i] = {static_cast<std::uint8_t>(i), 2, 3, static_cast<std::uint8_t>(10 + i)};
    medium.ChangeClipStart(&codes[0]);
    medium.ChangeClipEnd(&codes[1]);
    medium.ChangeClipDuration(&codes[2]);
    medium.ChangeTrimStart(&codes[3]);
    medium.ChangeTrimEnd(&codes[4]);
    medium.ChangeTrimDuration(&codes[5]);

    Bytes expected;
    AppendText(expected, "?MED");
    AppendLong(expected, 1);
    AppendLong(expected, 0x00020001);
    AppendLong(expected, 0x01020304);
    AppendLong(expected, 0x41424344);
    AppendString(expected, "Clip");
    AppendString(expected, "desc");
    AppendString(expected, "me");
    AppendString(expected, "The title");
    expected.insert(expected.end(), 8, 0);  // the rectangle: nothing changes it
    AppendShort(expected, 2026);
    expected.insert(expected.end(), {11, 25, 6, 30, 59});
    expected.insert(expected.end(), 7, 0);  // the modified date is never stored
    for (const TimeCodeRecord& code : codes)
        expected.insert(expected.end(), {code.hours, code.minutes, code.seconds, code.frames});
    EXPECT_EQ(PackedImage(medium), expected);
}

// One medium of each kind with every text set, so that each has bytes to
// cut through.
std::vector<std::unique_ptr<TMedium>> OneOfEachKind() {
    std::vector<std::unique_ptr<TMedium>> media;
    media.emplace_back(new TMedium("plain", 0));
    media.emplace_back(new TMooVMedium("movie", 0));
    media.emplace_back(new TPictureMedium("picture", 0));
    media.emplace_back(new TAnalogMedium("tape clip", 0));
    PlugKind plug;
    std::memcpy(plug.code, "DVC ", 4);
    static_cast<TAnalogMedium&>(*media.back()).ChangePlugType(&plug);
    for (auto& medium : media) {
        medium->ChangeDescription("a description");
        medium->ChangeTitle("a title");
        const CString author("an author");
        medium->ChangeAuthor(&author);
        medium->ChangeRezID(42);
        TimeCodeRecord start = {0, 1, 2, 3};
        medium->ChangeTrimStart(&start);
    }
    return media;
}

TEST_F(MediumImage, TheFactoryMakesEachKindBackWithItsFieldsAndTheDirtyWordLessThirtyTwoPerClass) {
    for (auto& original : OneOfEachKind()) {
        const Bytes image = PackedImage(*original);
        std::unique_ptr<TMedium> loaded(MediumFromBytes(image));
        ASSERT_NE(loaded, nullptr);
        EXPECT_EQ(typeid(*loaded), typeid(*original));
        EXPECT_EQ(PackedImage(*loaded), image);
        EXPECT_STREQ(loaded->GetRezName(), original->GetRezName());
        EXPECT_STREQ(loaded->GetTitle(), "a title");
        // A new object's word is 0; each class's unpacking subtracts 32.
        const std::uint32_t expected = typeid(*loaded) == typeid(TMedium) ? 0u - 32 : 0u - 64;
        std::uint32_t dirty = 0;
        loaded->GetDirtyFlags(&dirty);
        EXPECT_EQ(dirty, expected) << typeid(*loaded).name();
        EXPECT_TRUE(TMedium::IsLive(loaded.get()));
    }
}

TEST_F(MediumImage, AnImageCutShortAtAnyLengthIsRefusedWithoutAReport) {
    for (auto& original : OneOfEachKind()) {
        const Bytes image = PackedImage(*original);
        ASSERT_EQ(MediumImageLength(image.data(), static_cast<std::uint32_t>(image.size())), image.size());
        for (std::size_t length = 0; length < image.size(); ++length) {
            // Exactly the bytes of the record, so that ASan sees any read past it.
            auto cut = std::make_unique<std::uint8_t[]>(length + 1);
            std::memcpy(cut.get(), image.data(), length);
            EXPECT_EQ(MediumImageLength(cut.get(), static_cast<std::uint32_t>(length)), 0u) << length;
            EXPECT_EQ(MediumFromBytes(Bytes(image.begin(), image.begin() + length)), nullptr) << length;
        }
        // Bytes after a whole image are not read: the image is still whole.
        Bytes longer = image;
        longer.push_back(0xEE);
        std::unique_ptr<TMedium> loaded(MediumFromBytes(longer));
        EXPECT_NE(loaded, nullptr);
    }
}

TEST_F(MediumImage, ACountPastTheEndOrAnUnknownKindIsRefused) {
    const Bytes image = PlainImageOfA("?MED", 0);
    constexpr std::size_t kNameCount = 20, kDescriptionCount = 25, kTitleCount = 33;
    for (std::size_t at : {kNameCount, kDescriptionCount, kTitleCount}) {
        for (std::uint32_t count : {0xFFFFFFFFu, 0x80000000u, 0x7FFFFFFFu, 85u, 60u}) {
            Bytes damaged = image;
            for (int i = 0; i < 4; ++i) damaged[at + i] = static_cast<std::uint8_t>(count >> (24 - 8 * i));
            EXPECT_EQ(MediumFromBytes(damaged), nullptr) << at << " " << count;
        }
    }
    // A record name longer than its 32-byte field is damage too.
    Bytes longName;
    AppendText(longName, "?MED");
    for (int i = 0; i < 4; ++i) AppendLong(longName, 0);
    AppendString(longName, std::string(33, 'n'));
    const Bytes rest(image.begin() + 25, image.end());
    longName.insert(longName.end(), rest.begin(), rest.end());
    EXPECT_EQ(MediumFromBytes(longName), nullptr);

    for (const char* kind : {"xMED", "?med", "MDUM", "\0\0\0\0"}) {
        Bytes unknown = image;
        std::memcpy(unknown.data(), kind, 4);
        EXPECT_EQ(MediumFromBytes(unknown), nullptr);
        ExpectReportedTimes("false", 1);
    }
    EXPECT_EQ(MediumFromPackedData(nullptr), nullptr);
    ExpectReported("packedData != 0");
}

// The tape header and a clip's locator read the same image; both refuse a
// damaged one with a failure code, and the size functions answer 0.
class TapeImageDamage : public kavotest::MediaTest {};

TEST_F(TapeImageDamage, AHeaderCutShortAtAnyLengthOrWithACountPastItsEndIsRefusedByBothReaders) {
    const Bytes whole = TapeImage("DVC ", 7, 9, "Tape 1", "desc", "entered", "shot");
    std::vector<Bytes> damaged;
    for (std::size_t length = 0; length < whole.size(); ++length)
        damaged.emplace_back(whole.begin(), whole.begin() + length);
    for (std::size_t at : {16u, 26u, 34u, 45u}) {
        Bytes bad = whole;
        bad[at] = 0x7F;
        damaged.push_back(bad);
    }
    for (const Bytes& bytes : damaged) {
        PutRecord(fRefNum, "DVC ", "DVC Header Info", 1, bytes);
        LocatorRecord record{};
        EXPECT_EQ(sUnpackTapeInfo(&record), kGeneralError) << bytes.size();
        EXPECT_EQ(TapeNameSize(0), 0);
        char buffer[64] = {};
        EXPECT_EQ(TapeGetShooter(buffer), kGeneralError);

        TAnalogMedium clip("clip", 0);
        EXPECT_EQ(clip.LocatorUnpack(&record), kGeneralError);
        EXPECT_EQ(clip.LocatorShooterSize(), 0);
        EXPECT_TRUE(clip.HasLocatorLoaded());
    }
    // The whole image reads.
    PutRecord(fRefNum, "DVC ", "DVC Header Info", 1, whole);
    EXPECT_EQ(TapeNameSize(0), 7);
    TAnalogMedium clip("clip", 0);
    EXPECT_EQ(clip.LocatorShooterSize(), 5);
}

}  // namespace
