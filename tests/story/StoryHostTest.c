/* A plain C host that binds the library by name and drives the Story
   functions (with a few Medium and RM ones) through the addresses found.

     story_host LIBRARY                 makes a database and checks it
     story_host LIBRARY make FILE       makes FILE
     story_host LIBRARY check FILE      checks FILE, changes its board and
                                        checks it again after reopening

   make and check may run on different platforms: CI makes the file with the
   Linux build and checks it with the Windows one, and the other way round.
   On 32-bit Windows the functions are stdcall, bound as _Name@N. Exits 0
   when all is well. */
#include <stdio.h>
#include <string.h>

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include "kavoDVDB.h"

#if defined(_WIN32) && !defined(_WIN64)
#define STDCALL_NAME(name, bytes) "_" #name "@" #bytes
#else
#define STDCALL_NAME(name, bytes) #name
#endif

static void* gLibrary = 0;
static int gFailures = 0;

static void* Find(const char* name) {
    void* result = 0;
#if defined(_WIN32)
    FARPROC address = GetProcAddress((HMODULE)gLibrary, name);
    memcpy(&result, &address, sizeof result);
#else
    result = dlsym(gLibrary, name);
#endif
    if (result == 0) {
        fprintf(stderr, "%s is not exported\n", name);
        ++gFailures;
    }
    return result;
}

#define BIND(name, bytes)                                \
    do {                                                 \
        void* address = Find(STDCALL_NAME(name, bytes)); \
        memcpy(&p##name, &address, sizeof address);      \
    } while (0)

#define CHECK(condition)                                                          \
    do {                                                                          \
        if (!(condition)) {                                                       \
            fprintf(stderr, "line %d: %s does not hold\n", __LINE__, #condition); \
            ++gFailures;                                                          \
        }                                                                         \
    } while (0)

static int16_t(KAVO_CALL* pInitRMRezManager)(void);
static int16_t(KAVO_CALL* pKillRMRezManager)(void);
static int16_t(KAVO_CALL* pRMCreate)(const char*, uint32_t, uint32_t);
static int16_t(KAVO_CALL* pRMOpen)(const char*, int16_t, int16_t*);
static int16_t(KAVO_CALL* pRMClose)(int16_t);
static int16_t(KAVO_CALL* pRMSetCurrentDB)(int16_t);
static int16_t(KAVO_CALL* pRMGetCurrentDB)(int16_t*);
static TMedium*(KAVO_CALL* pMediumCreateNew)(uint32_t, const char*, const char*, int32_t);
static TMedium*(KAVO_CALL* pMediumLoadByID)(int16_t, int32_t);
static int16_t(KAVO_CALL* pMediumSaveToDB)(TMedium*, int16_t);
static int16_t(KAVO_CALL* pMediumDestroy)(TMedium*);
static int16_t(KAVO_CALL* pMediumGetTitle)(TMedium*, char*);
static TStoryBoard*(KAVO_CALL* pStoryCreateNew)(int16_t);
static TStoryBoard*(KAVO_CALL* pStoryOpen)(int16_t);
static int16_t(KAVO_CALL* pStorySave)(TStoryBoard*, int16_t);
static int16_t(KAVO_CALL* pStoryDestroy)(TStoryBoard*);
static uint16_t(KAVO_CALL* pStoryNumScenes)(TStoryBoard*);
static int16_t(KAVO_CALL* pStoryGetNthSceneID)(TStoryBoard*, uint16_t, int32_t*);
static int16_t(KAVO_CALL* pStoryFindIndexOfScene)(TStoryBoard*, int32_t, uint16_t*);
static int16_t(KAVO_CALL* pStoryAppendScene)(TStoryBoard*, int32_t);
static int16_t(KAVO_CALL* pStoryInsertSceneAt)(TStoryBoard*, int32_t, uint16_t);
static int16_t(KAVO_CALL* pStoryChangeSceneAt)(TStoryBoard*, int32_t, uint16_t);
static int16_t(KAVO_CALL* pStoryDeleteSceneFromList)(TStoryBoard*, int32_t);
static int16_t(KAVO_CALL* pStoryDeleteFromListSceneAt)(TStoryBoard*, uint16_t);
static int16_t(KAVO_CALL* pStorySwapScenes)(TStoryBoard*, uint16_t, uint16_t);
static int16_t(KAVO_CALL* pStoryMoveSceneWithinList)(TStoryBoard*, uint16_t, uint16_t);
static int16_t(KAVO_CALL* pStoryDeleteAllScenesFromList)(TStoryBoard*);

static void BindAll(void) {
    BIND(InitRMRezManager, 0);
    BIND(KillRMRezManager, 0);
    BIND(RMCreate, 12);
    BIND(RMOpen, 12);
    BIND(RMClose, 4);
    BIND(RMSetCurrentDB, 4);
    BIND(RMGetCurrentDB, 4);
    BIND(MediumCreateNew, 16);
    BIND(MediumLoadByID, 8);
    BIND(MediumSaveToDB, 8);
    BIND(MediumDestroy, 4);
    BIND(MediumGetTitle, 8);
    BIND(StoryCreateNew, 4);
    BIND(StoryOpen, 4);
    BIND(StorySave, 8);
    BIND(StoryDestroy, 4);
    BIND(StoryNumScenes, 4);
    BIND(StoryGetNthSceneID, 12);
    BIND(StoryFindIndexOfScene, 12);
    BIND(StoryAppendScene, 8);
    BIND(StoryInsertSceneAt, 12);
    BIND(StoryChangeSceneAt, 12);
    BIND(StoryDeleteSceneFromList, 8);
    BIND(StoryDeleteFromListSceneAt, 8);
    BIND(StorySwapScenes, 12);
    BIND(StoryMoveSceneWithinList, 12);
    BIND(StoryDeleteAllScenesFromList, 4);
}

/* The board's scene IDs equal the expected ones. */
static void CheckScenes(TStoryBoard* story, const int32_t* expected, uint16_t count, int line) {
    uint16_t i;
    if (pStoryNumScenes(story) != count) {
        fprintf(stderr, "line %d: %u scenes, not %u\n", line, (unsigned)pStoryNumScenes(story), (unsigned)count);
        ++gFailures;
        return;
    }
    for (i = 0; i < count; ++i) {
        int32_t id = 0;
        if (pStoryGetNthSceneID(story, i, &id) != kNoError || id != expected[i]) {
            fprintf(stderr, "line %d: scene %u is %ld, not %ld\n", line, (unsigned)i, (long)id, (long)expected[i]);
            ++gFailures;
        }
    }
}

static int16_t OpenDatabase(const char* file) {
    int16_t refNum = 0;
    CHECK(pRMOpen(file, kPermissionReadWrite, &refNum) == kNoError);
    CHECK(pRMSetCurrentDB(refNum) == kNoError);
    return refNum;
}

static void Make(const char* file) {
    static const char* const kinds[] = {"mMED", "pMED", "DVC "};
    static const char* const titles[] = {"Sunrise", "Title card", "Interview"};
    const int32_t expected[] = {30, 10, 20, 40};
    TStoryBoard* story;
    int16_t refNum;
    int i;
    remove(file);
    CHECK(pRMCreate(file, 1, 2) == kNoError);
    refNum = OpenDatabase(file);
    for (i = 0; i < 3; ++i) {
        TMedium* medium = pMediumCreateNew(0, kinds[i], titles[i], i + 1);
        CHECK(medium != 0 && pMediumSaveToDB(medium, refNum) == kNoError);
        pMediumDestroy(medium);
    }
    story = pStoryCreateNew(refNum);
    CHECK(story != 0);
    CHECK(pStoryAppendScene(story, 10) == kNoError);
    CHECK(pStoryAppendScene(story, 20) == kNoError);
    CHECK(pStoryInsertSceneAt(story, 30, 0) == kNoError);
    CHECK(pStoryAppendScene(story, 99) == kNoError);
    CHECK(pStoryChangeSceneAt(story, 40, 3) == kNoError);
    CHECK(pStorySave(story, refNum) == kNoError);
    CheckScenes(story, expected, 4, __LINE__);
    CHECK(pStoryDestroy(story) == kNoError);
    CHECK(pRMClose(refNum) == kNoError);
}

static void Check(const char* file) {
    const int32_t made[] = {30, 10, 20, 40};
    const int32_t changed[] = {10, 30, 40, 50};
    TStoryBoard* story;
    TMedium* medium;
    char title[32];
    uint16_t index = 0;
    int16_t current = 0;
    int16_t refNum = OpenDatabase(file);

    medium = pMediumLoadByID(refNum, 3);
    CHECK(medium != 0);
    memset(title, 0, sizeof title);
    CHECK(pMediumGetTitle(medium, title) == kNoError && strcmp(title, "Interview") == 0);
    pMediumDestroy(medium);

    story = pStoryOpen(refNum);
    CHECK(story != 0);
    CheckScenes(story, made, 4, __LINE__);
    CHECK(pStoryFindIndexOfScene(story, 20, &index) == kNoError && index == 2);
    CHECK(pStoryMoveSceneWithinList(story, 0, 2) == kNoError); /* 10 30 20 40 */
    CHECK(pStorySwapScenes(story, 2, 3) == kNoError);          /* 10 30 40 20 */
    CHECK(pStoryDeleteSceneFromList(story, 20) == kNoError);   /* 10 30 40 */
    CHECK(pStoryAppendScene(story, 50) == kNoError);
    CheckScenes(story, changed, 4, __LINE__);
    CHECK(pStorySave(story, refNum) == kNoError);
    CHECK(pStoryDestroy(story) == kNoError);
    CHECK(pRMClose(refNum) == kNoError);

    refNum = OpenDatabase(file);
    story = pStoryOpen(refNum);
    CheckScenes(story, changed, 4, __LINE__);
    CHECK(pRMGetCurrentDB(&current) == kNoError && current == refNum);
    /* An unsaved emptying is lost with the board. */
    CHECK(pStoryDeleteFromListSceneAt(story, 0) == kNoError);
    CHECK(pStoryDeleteAllScenesFromList(story) == kNoError && pStoryNumScenes(story) == 0);
    CHECK(pStoryDestroy(story) == kNoError);
    story = pStoryOpen(refNum);
    CheckScenes(story, changed, 4, __LINE__);
    CHECK(pStoryDestroy(story) == kNoError);
    CHECK(pRMClose(refNum) == kNoError);
}

int main(int argc, char** argv) {
    const char* mode = argc >= 3 ? argv[2] : "both";
    const char* file = argc >= 4 ? argv[3] : "story-host.kdb";
    if (argc < 2 || (argc >= 3 && argc != 4)) {
        fprintf(stderr, "usage: %s library [make|check file]\n", argv[0]);
        return 2;
    }
#if defined(_WIN32)
    gLibrary = (void*)LoadLibraryA(argv[1]);
#else
    gLibrary = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
#endif
    if (gLibrary == 0) {
        fprintf(stderr, "%s could not be loaded\n", argv[1]);
        return 1;
    }
    BindAll();
    if (gFailures != 0) return 1;
    CHECK(pInitRMRezManager() == kNoError);
    if (strcmp(mode, "make") == 0 || strcmp(mode, "both") == 0) Make(file);
    if (strcmp(mode, "check") == 0 || strcmp(mode, "both") == 0) Check(file);
    CHECK(pKillRMRezManager() == kNoError);
    if (strcmp(mode, "both") == 0) remove(file);
    if (gFailures == 0) printf("the C host drove the Story functions by their exported names (%s)\n", mode);
    return gFailures == 0 ? 0 : 1;
}
