// Scenes: defaults, the image and its reading back (damaged ones refused),
// the take list's rules, loading the current take through the medium
// factory, removal with the takes' records, and shallow copies.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "LarkDB/MediumImage.h"
#include "tests/media/MediaTestSupport.h"

namespace {

using kavotest::HandleBytes;
using kavotest::NewHandleWith;
using Bytes = std::vector<std::uint8_t>;

// A scene whose changes are refused.
class TLockedScene : public TScene {
public:
    TLockedScene() { fEditable = 0; }
};

std::vector<std::int32_t> Takes(TScene& scene) {
    std::vector<std::int32_t> ids;
    for (std::uint16_t i = 0; i < scene.NumTakes(); ++i) {
        std::int32_t id = 0;
        EXPECT_EQ(scene.GetNthTakeID(i, &id), kNoError);
        ids.push_back(id);
    }
    return ids;
}

Bytes PackedScene(TScene& scene) {
    MSHandle stream = nullptr;
    EXPECT_EQ(MSNewHandle(&stream, 0), kNoError);
    std::uint32_t length = 0;
    stream = scene.PackGuts(stream, length);
    Bytes bytes = HandleBytes(stream);
    MSDisposeHandle(stream);
    return bytes;
}

std::string Name(const TScene& scene) {
    char name[kNameLength];
    scene.GetRezName(name);
    return std::string(name, strnlen(name, kNameLength));
}

class SceneTest : public kavotest::MediaTest {
protected:
    // A saved medium of the kind, named and numbered, with a path record.
    void SaveMedium(const char* kind, const char* name, std::int32_t id) {
        TMedium* medium = MediumCreateNew(0, kind, name, id);
        ASSERT_NE(medium, nullptr);
        ASSERT_EQ(MediumChangePathName(medium, "/clips/x.mov"), kNoError);
        ASSERT_EQ(MediumSaveToDB(medium, fRefNum), kNoError);
        MediumDestroy(medium);
    }
};

TEST_F(SceneTest, ANewSceneHasItsDefaultsAndItsImageComesBackWithTheDirtyWordLessTwo) {
    TScene scene;
    CString title;
    scene.GetTitle(&title);
    EXPECT_STREQ(title.Text(), "Blank Scene");
    EXPECT_STREQ(scene.GetAuthor(), "");
    EXPECT_EQ(Name(scene), "No Scene Name");
    EXPECT_EQ(scene.GetRezID(), 0);
    EXPECT_EQ(scene.NumTakes(), 0);
    EXPECT_TRUE(scene.Editable());
    EXPECT_FALSE(scene.IsLoaded());
    EXPECT_FALSE(scene.IsDirty());

    scene.ChangeRezID(0x01020304);
    scene.ChangeRezName(std::string(40, 'n').c_str());  // cut to 31
    const CString author("An author");
    scene.ChangeAuthor(&author);
    scene.ChangeFlags(0xA5A5A5A5);
    for (std::int32_t id : {7, 8, 9}) scene.AppendTake(id);
    const Bytes image = PackedScene(scene);
    Bytes expected;
    kavotest::AppendLong(expected, 1);
    kavotest::AppendLong(expected, 0xA5A5A5A5);
    kavotest::AppendLong(expected, 0x01020304);
    kavotest::AppendString(expected, std::string(31, 'n'));
    kavotest::AppendString(expected, "Blank Description");
    kavotest::AppendString(expected, "An author");
    kavotest::AppendString(expected, "Blank Scene");
    expected.insert(expected.end(), {0, 0, 0, 3});
    for (std::uint32_t id : {7u, 8u, 9u}) kavotest::AppendLong(expected, id);
    EXPECT_EQ(image, expected);
    EXPECT_EQ(SceneImageLength(image.data(), static_cast<std::uint32_t>(image.size())), image.size());

    TScene back;
    EXPECT_EQ(back.UnpackGuts(image.data()), image.size());
    EXPECT_EQ(PackedScene(back), image);
    EXPECT_EQ(Takes(back), (std::vector<std::int32_t>{7, 8, 9}));
    std::uint32_t dirty = 0;
    back.GetDirtyFlags(&dirty);
    EXPECT_EQ(dirty, 0xFFFFFFFEu);
}

TEST_F(SceneTest, TheTakeListFollowsTheListAndMovesForwardLandBeforeTheTarget) {
    const auto moved = [](std::uint16_t from, std::uint16_t to, std::int16_t result) {
        TScene scene;
        for (std::int32_t id : {1, 2, 3}) scene.AppendTake(id);
        EXPECT_EQ(scene.MoveTakeWithinList(from, to), result);
        return Takes(scene);
    };
    EXPECT_EQ(moved(0, 2, kNoError), (std::vector<std::int32_t>{2, 1, 3}));
    EXPECT_EQ(moved(2, 0, kNoError), (std::vector<std::int32_t>{3, 1, 2}));
    EXPECT_EQ(moved(1, 1, kNoError), (std::vector<std::int32_t>{1, 2, 3}));
    EXPECT_EQ(moved(0, 1, kNoError), (std::vector<std::int32_t>{1, 2, 3}));
    EXPECT_EQ(moved(0, 3, kGeneralError), (std::vector<std::int32_t>{1, 2, 3}));
    ExpectReported("toIndex < NumTakes()");

    // The list operations check nothing and mark nothing.
    TLockedScene locked;
    EXPECT_EQ(locked.AppendTake(5), kNoError);
    EXPECT_EQ(locked.PrependTake(4), kNoError);
    EXPECT_EQ(locked.InsertTakeAt(6, 2), kNoError);
    EXPECT_EQ(locked.SwapTakes(0, 2), kNoError);
    EXPECT_EQ(locked.BringTakeFront(5), kNoError);
    EXPECT_EQ(Takes(locked), (std::vector<std::int32_t>{5, 6, 4}));
    EXPECT_FALSE(locked.IsDirty());
    EXPECT_EQ(locked.DeleteTakeFromList(99), kGeneralError);
    // Changers refuse: -1 for the flags, kNotEditable for the others.
    EXPECT_EQ(locked.ChangeFlags(1), kGeneralError);
    EXPECT_EQ(locked.ChangeRezID(1), kNotEditable);
    EXPECT_EQ(locked.ChangeRezName("x"), kNotEditable);
    EXPECT_EQ(locked.ChangeDirtyFlags(1), kNotEditable);
    EXPECT_EQ(locked.ChangeMedium(nullptr), kNotEditable);
    TScene open;
    EXPECT_EQ(open.ChangeFlags(1), kNoError);
    EXPECT_FALSE(open.IsDirty());
    EXPECT_EQ(open.ChangeRezName(nullptr), kGeneralError);
    ExpectReported("newRezName != 0");
}

TEST_F(SceneTest, ASceneIsSavedAsItsRecordAndLoadsItsCurrentTakeThroughTheFactory) {
    SaveMedium("mMED", "movie", 1);
    SaveMedium("DVC ", "tape clip", 2);
    SaveMedium("pMED", "picture", 3);
    TScene scene;
    scene.ChangeRezID(10);
    scene.ChangeRezName("Opening");
    for (std::int32_t id : {2, 1, 3}) scene.AppendTake(id);
    EXPECT_EQ(scene.Load(fRefNum), kNoError);
    TMedium* take = nullptr;
    scene.GetCurrentMedium(&take);
    ASSERT_NE(take, nullptr);
    EXPECT_NE(dynamic_cast<TAnalogMedium*>(take), nullptr);
    EXPECT_EQ(scene.Load(fRefNum), kNoError);  // loaded already
    EXPECT_EQ(scene.Unload(), kNoError);
    EXPECT_EQ(scene.Unload(), kGeneralError);
    ASSERT_EQ(scene.ChangeCurrentTakeIndex(1), kNoError);
    EXPECT_EQ(scene.ChangeCurrentTakeIndex(3), kGeneralError);

    ASSERT_EQ(scene.SaveAllToDB(fRefNum), kNoError);
    EXPECT_FALSE(scene.IsDirty());
    const Bytes record = Record(fRefNum, "SEEN", "Opening");
    EXPECT_EQ(record, PackedScene(scene));
    // Clean: nothing is written.
    RMRemoveNamedRecord(fRefNum, "Opening", "SEEN");
    ASSERT_EQ(scene.SaveAllToDB(fRefNum), kNoError);
    EXPECT_FALSE(HasRecord(fRefNum, "SEEN", "Opening"));
    scene.ChangeDirtyFlags(kDirtyContents);
    ASSERT_EQ(scene.SaveAllToDB(fRefNum), kNoError);

    Reopen();
    TScene back;
    back.ChangeRezID(10);
    ASSERT_EQ(back.UnpackFromDB(fRefNum), kNoError);
    EXPECT_FALSE(back.IsLoaded());
    EXPECT_EQ(Takes(back), (std::vector<std::int32_t>{2, 1, 3}));
    ASSERT_EQ(back.Load(fRefNum), kNoError);
    back.GetCurrentMedium(&take);
    ASSERT_NE(take, nullptr);
    EXPECT_STREQ(take->GetRezName(), "movie");

    // A take whose medium is missing, or whose record is not a medium.
    TScene empty;
    EXPECT_EQ(empty.Load(fRefNum), kGeneralError);
    EXPECT_EQ(empty.RemoveAllTakes(fRefNum), kNoError);
    TScene missing;
    missing.AppendTake(77);
    EXPECT_EQ(missing.Load(fRefNum), kRecordNotFound);
    PutRecord(fRefNum, "MDUM", "garbage", 78, {'x', 'M', 'E', 'D', 0, 0});
    TScene garbage;
    garbage.AppendTake(78);
    EXPECT_EQ(garbage.Load(fRefNum), kGeneralError);
    EXPECT_FALSE(garbage.IsLoaded());
    EXPECT_EQ(garbage.RemoveTakeAt(0, fRefNum), kGeneralError);
    ExpectReported("false");
    EXPECT_EQ(garbage.NumTakes(), 1);
}

TEST_F(SceneTest, RemovingTakesRemovesTheirMediaRecordsAndRemovingTheSceneItsRecord) {
    SaveMedium("mMED", "one", 1);
    SaveMedium("?MED", "two", 2);
    SaveMedium("pMED", "three", 3);
    TScene scene;
    scene.ChangeRezID(5);
    scene.ChangeRezName("S");
    for (std::int32_t id : {1, 2, 3}) scene.AppendTake(id);
    ASSERT_EQ(scene.SaveAllToDB(fRefNum), kNoError);
    EXPECT_EQ(scene.RemoveTake(2, fRefNum), kNoError);
    EXPECT_FALSE(HasRecord(fRefNum, "MDUM", "two"));
    EXPECT_FALSE(HasRecord(fRefNum, "path", "two"));
    EXPECT_EQ(Takes(scene), (std::vector<std::int32_t>{1, 3}));
    EXPECT_EQ(scene.RemoveTake(2, fRefNum), kGeneralError);
    EXPECT_EQ(scene.RemoveAllFromDB(fRefNum), kNoError);
    EXPECT_EQ(CountOfType(fRefNum, "MDUM"), 0u);
    EXPECT_EQ(CountOfType(fRefNum, "SEEN"), 0u);
    EXPECT_EQ(scene.NumTakes(), 0);
}

TEST_F(SceneTest, ShallowCopiesShareTheListAndTheTakeAndMayBothBeDestroyed) {
    SaveMedium("mMED", "movie", 1);
    for (int order = 0; order < 2; ++order) {
        auto source = std::make_unique<TScene>();
        source->AppendTake(1);
        ASSERT_EQ(source->Load(fRefNum), kNoError);
        auto copy = std::make_unique<TScene>(*source);
        TScene assigned;
        assigned.AppendTake(9);
        assigned = *copy;
        TMedium* a = nullptr;
        TMedium* b = nullptr;
        source->GetCurrentMedium(&a);
        assigned.GetCurrentMedium(&b);
        EXPECT_EQ(a, b);
        copy->AppendTake(2);  // one list
        EXPECT_EQ(source->NumTakes(), 2);
        EXPECT_EQ(assigned.NumTakes(), 2);
        if (order == 0) source.reset(); else copy.reset();
        TScene* left = order == 0 ? copy.get() : source.get();
        EXPECT_EQ(Takes(*left), (std::vector<std::int32_t>{1, 2}));
        left->GetCurrentMedium(&b);
        EXPECT_STREQ(b->GetRezName(), "movie");
        EXPECT_EQ(left->Unload(), kNoError);
        assigned.GetCurrentMedium(&b);
        EXPECT_STREQ(b->GetRezName(), "movie");  // still held by the assigned copy
    }
}

TEST_F(SceneTest, ASceneRecordCutShortOrPromisingMoreTakesIsRefusedAndTheSceneKept) {
    TScene scene;
    scene.ChangeRezID(3);
    scene.ChangeRezName("S");
    for (std::int32_t id : {4, 5}) scene.AppendTake(id);
    const Bytes whole = PackedScene(scene);
    std::vector<Bytes> damaged;
    for (std::size_t length = 0; length < whole.size(); ++length)
        damaged.emplace_back(whole.begin(), whole.begin() + length);
    Bytes more = whole;
    more[more.size() - 9] = 3;  // three takes promised, two held
    damaged.push_back(more);
    Bytes huge = whole;
    huge[12] = 0x80;  // the name's count
    damaged.push_back(huge);
    for (const Bytes& bytes : damaged) {
        PutRecord(fRefNum, "SEEN", "S", 3, bytes);
        TScene reader;
        reader.ChangeRezID(3);
        reader.AppendTake(42);
        EXPECT_EQ(reader.UnpackFromDB(fRefNum), kGeneralError) << bytes.size();
        EXPECT_EQ(Takes(reader), (std::vector<std::int32_t>{42}));
        EXPECT_EQ(Name(reader), "No Scene Name");
    }
    PutRecord(fRefNum, "SEEN", "S", 3, whole);
    TScene reader;
    reader.ChangeRezID(3);
    EXPECT_EQ(reader.UnpackFromDB(fRefNum), kNoError);
    EXPECT_EQ(Takes(reader), (std::vector<std::int32_t>{4, 5}));
}

}  // namespace
