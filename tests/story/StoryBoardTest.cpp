// The story board: defaults, its two refusal rules, its record (written on
// first open, damaged ones refused), the scene list and its moves, loading
// and unloading scenes with the board owning them, removal of scenes with
// their records; and the Story functions' own rules.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "LarkDB/MediumImage.h"
#include "tests/media/MediaTestSupport.h"

namespace {

using kavotest::HandleBytes;
using Bytes = std::vector<std::uint8_t>;

class TLockedBoard : public TStoryBoard {
public:
    TLockedBoard() : TStoryBoard(0) { fEditable = 0; }
};

std::vector<std::int32_t> Scenes(TStoryBoard* board) {
    std::vector<std::int32_t> ids;
    for (std::uint16_t i = 0; i < board->NumScenes(); ++i) {
        std::int32_t id = 0;
        EXPECT_EQ(board->GetNthSceneID(i, &id), kNoError);
        ids.push_back(id);
    }
    return ids;
}

std::uint32_t Dirty(const TStoryBoard& board) {
    std::uint32_t dirty = 0;
    board.GetDirtyFlags(&dirty);
    return dirty;
}

class StoryBoardTest : public kavotest::MediaTest {
protected:
    // A scene record of the ID whose takes are saved media.
    void SaveScene(std::int32_t id, const std::vector<std::int32_t>& takes) {
        TScene scene;
        scene.ChangeRezID(id);
        scene.ChangeRezName(("scene " + std::to_string(id)).c_str());
        for (std::int32_t take : takes) {
            const std::string name = "take " + std::to_string(take);
            TMedium* medium = MediumCreateNew(0, "mMED", name.c_str(), take);
            ASSERT_EQ(MediumSaveToDB(medium, fRefNum), kNoError);
            MediumDestroy(medium);
            scene.AppendTake(take);
        }
        ASSERT_EQ(scene.SaveAllToDB(fRefNum), kNoError);
    }
};

TEST_F(StoryBoardTest, ANewBoardHasItsDefaultsAndTwoRefusalRules) {
    TStoryBoard board(7);
    EXPECT_STREQ(board.GetTitle(), "Blank Story Board");
    EXPECT_STREQ(board.GetDescription(), "Blank Story Description");
    EXPECT_STREQ(board.GetAuthor(), "kavo Computer Products");
    std::uint32_t value = 0;
    board.GetCreator(&value);
    EXPECT_EQ(value, 0x4C41524Bu);  // "LARK"
    board.GetFlags(&value);
    EXPECT_EQ(value, 7u);
    std::int16_t refNum = 0;
    board.GetDBRefNum(&refNum);
    EXPECT_EQ(refNum, -1);
    EXPECT_EQ(board.NumScenes(), 0);
    EXPECT_FALSE(board.IsDirty());
    EXPECT_EQ(board.GetScratch(&value), kNothingHeld);
    board.ChangeScratch(3);
    EXPECT_EQ(board.GetScratch(&value), kNoError);
    EXPECT_EQ(board.GetScratch(nullptr), kGeneralError);
    ExpectReported("retrievedScratch != 0");

    // Rule S ORs bit 2 in; rule L sets the word to exactly 2.
    board.ChangeDirtyFlags(0x100);
    EXPECT_EQ(board.ChangeTitle("T"), kNoError);
    EXPECT_EQ(Dirty(board), 0x102u);
    EXPECT_EQ(board.ChangeCreator(1), kNoError);
    EXPECT_EQ(Dirty(board), 2u);
    board.ChangeDirtyFlags(0);
    EXPECT_EQ(board.MakeProxy(nullptr), kGeneralError);  // a placeholder that still marks the board
    EXPECT_EQ(Dirty(board), 2u);
    EXPECT_EQ(board.ChangeDBRefNum(fRefNum), kNoError);
    EXPECT_EQ(Dirty(board), 0xFFFFFFFFu);
    for (std::int16_t placeholder : {board.Edit(), board.Play(), board.InitCreateDate(),
                                     board.TurnProxyOff(nullptr), board.FreeMemory(0, 0, nullptr)})
        EXPECT_EQ(placeholder, kGeneralError);
    EXPECT_EQ(board.HasProxy(), 1);
    EXPECT_EQ(board.NumberOfProxies(), 0);

    TLockedBoard locked;
    EXPECT_EQ(locked.ChangeTitle("x"), kNotEditable);
    EXPECT_EQ(locked.ChangeDirtyFlags(1), kNotEditable);
    EXPECT_EQ(locked.ChangeFlags(1), kGeneralError);
    EXPECT_EQ(locked.AppendScene(1), kGeneralError);
    Rect rect = {1, 2, 3, 4};
    EXPECT_EQ(locked.ChangeTargetStoryRect(&rect), kGeneralError);
    EXPECT_FALSE(locked.IsDirty());
    EXPECT_EQ(locked.ChangeDBRefNum(fRefNum), kNoError);  // no editable check
}

TEST_F(StoryBoardTest, OpenWritesTheDefaultRecordOnceAndReadsItBack) {
    TStoryBoard board(0);
    board.ChangeDBRefNum(fRefNum);
    ASSERT_EQ(board.Open(), kNoError);
    EXPECT_TRUE(HasRecord(fRefNum, "STRY", "Story"));
    std::uint32_t size = 0;
    EXPECT_EQ(RMGetSizeOfNumberedRecord(fRefNum, 1000, "STRY", &size), kNoError);
    EXPECT_EQ(Dirty(board), 0xFFFFFFFEu);  // 0 less 2 after the read
    Rect rect = {10, 20, 30, 40};
    DateTimeRecord date = {2026, 11, 25, 7, 30, 0};
    for (std::int32_t id : {5, 6, 7}) board.AppendScene(id);
    board.ChangeTargetStoryRect(&rect);
    board.ChangeCreateDate(&date);
    board.ChangeTitle("My story");
    ASSERT_EQ(board.SaveAllToDB(), kNoError);
    EXPECT_EQ(Dirty(board), 0u);

    Reopen();
    TStoryBoard back(0);
    back.ChangeDBRefNum(fRefNum);
    ASSERT_EQ(back.Open(), kNoError);
    EXPECT_STREQ(back.GetTitle(), "My story");
    EXPECT_EQ(Scenes(&back), (std::vector<std::int32_t>{5, 6, 7}));
    Rect got{};
    back.GetTargetStoryRect(&got);
    EXPECT_EQ(std::memcmp(&got, &rect, sizeof got), 0);
    DateTimeRecord gotDate{};
    back.GetCreateDate(&gotDate);
    EXPECT_EQ(gotDate.year, 2026);
    EXPECT_EQ(gotDate.second, 0);

    // The whole image, and every cut of it, through Open.
    const Bytes whole = Record(fRefNum, "STRY", "Story");
    EXPECT_EQ(StoryImageLength(whole.data(), static_cast<std::uint32_t>(whole.size())), whole.size());
    Bytes promising = whole;
    promising[promising.size() - 13] = 4;
    std::vector<Bytes> damaged = {promising};
    for (std::size_t length = 0; length < whole.size(); ++length)
        damaged.emplace_back(whole.begin(), whole.begin() + length);
    for (const Bytes& bytes : damaged) {
        PutRecord(fRefNum, "STRY", "Story", 1000, bytes);
        TStoryBoard reader(0);
        reader.ChangeDBRefNum(fRefNum);
        reader.AppendScene(99);
        EXPECT_EQ(reader.Open(), kGeneralError) << bytes.size();
        EXPECT_EQ(Scenes(&reader), (std::vector<std::int32_t>{99}));
        EXPECT_EQ(Record(fRefNum, "STRY", "Story"), bytes);  // left as it was
    }
}

TEST_F(StoryBoardTest, ScenesMoveLoadOnceBelongToTheBoardAndAreRemovedWithTheirRecords) {
    SaveScene(1, {101, 102});
    SaveScene(2, {201});
    SaveScene(3, {});
    TStoryBoard* board = new TStoryBoard(0);
    board->ChangeDBRefNum(fRefNum);
    for (std::int32_t id : {1, 2, 3}) board->AppendScene(id);
    EXPECT_EQ(board->MoveSceneWithinList(0, 2), kNoError);
    EXPECT_EQ(Scenes(board), (std::vector<std::int32_t>{2, 1, 3}));
    EXPECT_EQ(board->MoveSceneWithinList(2, 0), kNoError);
    EXPECT_EQ(Scenes(board), (std::vector<std::int32_t>{3, 2, 1}));
    EXPECT_EQ(board->MoveSceneWithinList(0, 3), kGeneralError);
    ExpectReported("toIndex < NumScenes()");

    TScene* scene = nullptr;
    EXPECT_EQ(board->LoadScene(9, &scene), kGeneralError);  // not in the list
    EXPECT_EQ(scene, nullptr);
    ASSERT_EQ(board->LoadScene(1, &scene), kNoError);
    TScene* again = nullptr;
    ASSERT_EQ(board->LoadSceneAt(2, &again), kNoError);
    EXPECT_EQ(again, scene);
    EXPECT_TRUE(scene->IsLoaded());
    TMedium* take = nullptr;
    scene->GetCurrentMedium(&take);
    EXPECT_STREQ(take->GetRezName(), "take 101");
    // A scene without takes cannot load its current take: not kept.
    EXPECT_EQ(board->LoadScene(3, &scene), kGeneralError);
    EXPECT_EQ(board->NumLoadedScenes(), 1);
    ASSERT_EQ(board->LoadScene(2, &scene), kNoError);
    EXPECT_EQ(board->UnloadScene(2), kNoError);
    EXPECT_EQ(board->UnloadScene(2), kGeneralError);
    EXPECT_EQ(board->NumLoadedScenes(), 1);

    // Removing a scene takes its record and its takes' records.
    EXPECT_EQ(board->RemoveScene(1), kNoError);
    EXPECT_FALSE(HasRecord(fRefNum, "SEEN", "scene 1"));
    EXPECT_FALSE(HasRecord(fRefNum, "MDUM", "take 101"));
    EXPECT_FALSE(HasRecord(fRefNum, "MDUM", "take 102"));
    EXPECT_EQ(Scenes(board), (std::vector<std::int32_t>{3, 2}));
    EXPECT_EQ(board->NumLoadedScenes(), 1);  // its loaded copy is not touched
    EXPECT_EQ(board->RemoveAllScenes(), kNoError);
    EXPECT_EQ(CountOfType(fRefNum, "SEEN"), 0u);
    EXPECT_EQ(CountOfType(fRefNum, "MDUM"), 0u);
    // The destructor deletes the loaded scene, unsaved (ASan checks it).
    delete board;
}

TEST_F(StoryBoardTest, ShallowCopiesShareTheListsAndMayBothBeDestroyed) {
    SaveScene(1, {11});
    auto board = std::make_unique<TStoryBoard>(0);
    board->ChangeDBRefNum(fRefNum);
    board->AppendScene(1);
    TScene* scene = nullptr;
    ASSERT_EQ(board->LoadScene(1, &scene), kNoError);
    auto copy = std::make_unique<TStoryBoard>(*board);
    copy->AppendScene(2);
    EXPECT_EQ(board->NumScenes(), 2);
    EXPECT_EQ(copy->NumLoadedScenes(), 1);
    board.reset();  // unloads the scenes the two share
    EXPECT_EQ(copy->NumLoadedScenes(), 0);
    EXPECT_EQ(Scenes(copy.get()), (std::vector<std::int32_t>{1, 2}));
}

TEST_F(StoryBoardTest, TheStoryFunctionsSaveAlwaysOpenOrCreateAndRestoreTheCurrentDatabase) {
    const std::int16_t other = OpenAnother("other.kdb");
    TStoryBoard* story = StoryCreateNew(other);
    ASSERT_NE(story, nullptr);
    EXPECT_FALSE(HasRecord(other, "STRY", "Story"));
    ASSERT_EQ(StorySave(story, other), kNoError);
    const Bytes defaults = Record(other, "STRY", "Story");
    TStoryBoard reference(0);
    Bytes expected;
    {
        MSHandle stream = nullptr;
        MSNewHandle(&stream, 0);
        std::uint32_t length = 0;
        stream = reference.PackGuts(stream, length);
        expected = HandleBytes(stream);
        MSDisposeHandle(stream);
    }
    EXPECT_EQ(defaults, expected);
    RMRemoveNamedRecord(other, "Story", "STRY");
    ASSERT_EQ(StorySave(story, other), kNoError);  // unchanged, written all the same
    EXPECT_TRUE(HasRecord(other, "STRY", "Story"));

    EXPECT_EQ(StoryAppendScene(story, 4), kNoError);
    EXPECT_EQ(StoryInsertSceneAt(story, 3, 0), kNoError);
    EXPECT_EQ(StoryAppendScene(story, 5), kNoError);
    EXPECT_EQ(StoryMoveSceneWithinList(story, 0, 2), kNoError);
    EXPECT_EQ(StorySwapScenes(story, 0, 2), kNoError);
    EXPECT_EQ(StoryChangeSceneAt(story, 6, 1), kNoError);
    std::int32_t id = 0;
    std::uint16_t index = 0;
    EXPECT_EQ(StoryGetNthSceneID(story, 0, &id), kNoError);
    EXPECT_EQ(id, 5);
    EXPECT_EQ(StoryFindIndexOfScene(story, 4, &index), kNoError);
    EXPECT_EQ(index, 2);
    EXPECT_EQ(StoryDeleteSceneFromList(story, 6), kNoError);
    EXPECT_EQ(StoryNumScenes(story), 2);
    ASSERT_EQ(StorySave(story, other), kNoError);
    EXPECT_EQ(StoryDeleteFromListSceneAt(story, 0), kNoError);
    EXPECT_EQ(StoryDeleteAllScenesFromList(story), kNoError);
    EXPECT_EQ(StoryNumScenes(story), 0);
    EXPECT_EQ(StoryDestroy(story), kNoError);
    // A destroyed board is refused (until its address is used again).
    EXPECT_EQ(StoryDestroy(story), kGeneralError);
    EXPECT_EQ(StoryMoveSceneWithinList(story, 0, 1), kGeneralError);
    ExpectReportedTimes("storyRefNum != 0", 2);

    // Open: the saved board; the current database is left as it was.
    TStoryBoard* opened = StoryOpen(other);
    ASSERT_NE(opened, nullptr);
    EXPECT_EQ(StoryNumScenes(opened), 2);
    std::int16_t current = 0;
    RMGetCurrentDB(&current);
    EXPECT_EQ(current, fRefNum);
    // A database without a board is given the default one.
    EXPECT_FALSE(HasRecord(fRefNum, "STRY", "Story"));
    TStoryBoard* created = StoryOpen(fRefNum);
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(Record(fRefNum, "STRY", "Story"), expected);
    EXPECT_EQ(StoryNumScenes(created), 0);
    // A damaged record: reported, and the board comes back with its defaults.
    PutRecord(other, "STRY", "Story", 1000, {0, 0, 0, 1, 0});
    TStoryBoard* damaged = StoryOpen(other);
    ASSERT_NE(damaged, nullptr);
    ExpectReported("error == kNoError");
    EXPECT_EQ(StoryNumScenes(damaged), 0);

    // Null, destroyed and wild boards are refused.
    EXPECT_EQ(StoryNumScenes(nullptr), 0);
    EXPECT_EQ(StoryAppendScene(nullptr, 5), kGeneralError);
    EXPECT_EQ(StoryDestroy(nullptr), kNoError);
    EXPECT_EQ(StorySave(nullptr, fRefNum), kGeneralError);
    int notABoard[64] = {};
    EXPECT_EQ(StoryNumScenes(reinterpret_cast<TStoryBoard*>(notABoard)), 0);
    ExpectReportedTimes("storyRefNum != 0", 5);
    for (TStoryBoard* each : {opened, created, damaged}) EXPECT_EQ(StoryDestroy(each), kNoError);
}

}  // namespace
