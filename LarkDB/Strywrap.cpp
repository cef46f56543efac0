#include <initializer_list>
#include <new>

#include "Common/Kavoassert.h"
#include "LarkDB/TStoryBoard.h"
#include "Rm/Common/Source/Rmmgr.h"

// The caller's story board pointer is checked against the boards alive
// (TStoryBoard::IsLive): a null, wild or destroyed pointer gets the report
// "storyRefNum != 0" and the failure result, never a call through it.

namespace {

constexpr int16_t kRefused = kGeneralError;

bool Known(const TStoryBoard* story) { return KAVO_CHECK_TEXT(TStoryBoard::IsLive(story), "storyRefNum != 0"); }

}  // namespace

TStoryBoard* KAVO_CALL StoryCreateNew(int16_t refNum) {
    TStoryBoard* story = new (std::nothrow) TStoryBoard(0);
    if (!KAVO_CHECK_TEXT(story != 0, "aStoryBoard != 0")) return nullptr;
    if (!TStoryBoard::IsLive(story)) {  // could not register: every other function would refuse it
        delete story;
        return nullptr;
    }
    const int16_t error = story->ChangeDBRefNum(refNum);
    KAVO_ASSERT(error == kNoError);
    return story;
}

// A failure of Open (a database error, or a damaged "STRY" record) is only
// reported: the board comes back all the same, with its defaults.
TStoryBoard* KAVO_CALL StoryOpen(int16_t refNum) {
    if (!KAVO_CHECK(gRezManager != 0)) return nullptr;
    int16_t current = 0;
    int16_t error = gRezManager->GetCurrentDB(&current);
    KAVO_ASSERT(error == kNoError);
    error = gRezManager->SetCurrentDB(refNum);
    KAVO_ASSERT(error == kNoError);
    TStoryBoard* story = new (std::nothrow) TStoryBoard(0);
    if (story != nullptr && !TStoryBoard::IsLive(story)) {
        delete story;
        story = nullptr;
    }
    if (!KAVO_CHECK_TEXT(story != 0, "aStory != 0")) return nullptr;
    error = story->ChangeDBRefNum(refNum);
    KAVO_ASSERT(error == kNoError);
    error = story->Open();
    KAVO_ASSERT(error == kNoError);
    error = gRezManager->SetCurrentDB(current);
    KAVO_ASSERT(error == kNoError);
    return story;
}

int16_t KAVO_CALL StorySave(TStoryBoard* story, int16_t refNum) {
    KAVO_ASSERT_TEXT(refNum != 0, "dbRefNum != 0");
    if (!Known(story)) return kRefused;
    const int16_t error = story->ChangeDBRefNum(refNum);
    KAVO_ASSERT(error == kNoError);
    return story->SaveAllToDB();
}

int16_t KAVO_CALL StoryDestroy(TStoryBoard* story) {
    if (story == nullptr) {
        KAVO_ASSERT_TEXT(false, "storyRefNum != 0");
        return kNoError;
    }
    if (!Known(story)) return kRefused;
    delete story;
    return kNoError;
}

uint16_t KAVO_CALL StoryNumScenes(TStoryBoard* story) { return Known(story) ? story->NumScenes() : 0; }

int16_t KAVO_CALL StoryGetNthSceneID(TStoryBoard* story, uint16_t index, int32_t* id) {
    return Known(story) ? story->GetNthSceneID(index, id) : kRefused;
}

int16_t KAVO_CALL StoryFindIndexOfScene(TStoryBoard* story, int32_t id, uint16_t* index) {
    return Known(story) ? story->FindIndexOfScene(id, index) : kRefused;
}

int16_t KAVO_CALL StoryAppendScene(TStoryBoard* story, int32_t id) {
    return Known(story) ? story->AppendScene(id) : kRefused;
}

int16_t KAVO_CALL StoryInsertSceneAt(TStoryBoard* story, int32_t id, uint16_t index) {
    return Known(story) ? story->InsertSceneAt(id, index) : kRefused;
}

int16_t KAVO_CALL StoryChangeSceneAt(TStoryBoard* story, int32_t id, uint16_t index) {
    return Known(story) ? story->ChangeSceneAt(id, index) : kRefused;
}

int16_t KAVO_CALL StoryDeleteSceneFromList(TStoryBoard* story, int32_t id) {
    return Known(story) ? story->DeleteSceneFromList(id) : kRefused;
}

int16_t KAVO_CALL StoryDeleteFromListSceneAt(TStoryBoard* story, uint16_t index) {
    return Known(story) ? story->DeleteEntryFromList(index) : kRefused;
}

int16_t KAVO_CALL StorySwapScenes(TStoryBoard* story, uint16_t a, uint16_t b) {
    return Known(story) ? story->SwapScenes(a, b) : kRefused;
}

int16_t KAVO_CALL StoryMoveSceneWithinList(TStoryBoard* story, uint16_t fromIndex, uint16_t toIndex) {
    return Known(story) ? story->MoveSceneWithinList(fromIndex, toIndex) : kRefused;
}

// Every entry from the last to the first; a failure is reported and the
// loop goes on, and the result is 0 in every case.
int16_t KAVO_CALL StoryDeleteAllScenesFromList(TStoryBoard* story) {
    if (!Known(story)) return kRefused;
    for (uint16_t i = story->NumScenes(); i > 0; --i) {
        const int16_t error = story->DeleteEntryFromList(static_cast<uint16_t>(i - 1));
        KAVO_ASSERT(error == kNoError);
    }
    return kNoError;
}
