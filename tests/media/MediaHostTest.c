/* A plain C host that binds the library by name, as a host written in C or
   Basic does, and drives the Medium, VBMedium and Tape functions through the
   addresses found: it writes a tape header and media of every kind, closes
   the database, opens it again and reads everything back. On 32-bit Windows
   the functions are stdcall: a wrong argument count in an export's name
   would leave the stack unbalanced and the checks below would fail or the
   program crash. The time-code setters are also called the way Basic calls
   them, with 32-bit values of which they keep the low 8 bits. Exits 0 when
   all is well. */
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

/* Declares a pointer named after the function, of its own type, and binds
   it by its exported name. */
#define BIND(name, bytes)                              \
    do {                                               \
        void* address = Find(STDCALL_NAME(name, bytes)); \
        memcpy(&p##name, &address, sizeof address);    \
    } while (0)

#define CHECK(condition)                                                   \
    do {                                                                   \
        if (!(condition)) {                                                \
            fprintf(stderr, "line %d: %s does not hold\n", __LINE__, #condition); \
            ++gFailures;                                                   \
        }                                                                  \
    } while (0)

static int16_t(KAVO_CALL* pInitRMRezManager)(void);
static int16_t(KAVO_CALL* pKillRMRezManager)(void);
static int16_t(KAVO_CALL* pRMCreate)(const char*, uint32_t, uint32_t);
static int16_t(KAVO_CALL* pRMOpen)(const char*, int16_t, int16_t*);
static int16_t(KAVO_CALL* pRMClose)(int16_t);
static int16_t(KAVO_CALL* pRMSetCurrentDB)(int16_t);
static int16_t(KAVO_CALL* pRMCountRecordsOfType)(int16_t, const char*, uint32_t*);
static TMedium*(KAVO_CALL* pMediumCreateNew)(uint32_t, const char*, const char*, int32_t);
static TMedium*(KAVO_CALL* pMediumLoadByName)(int16_t, const char*);
static TMedium*(KAVO_CALL* pMediumLoadByID)(int16_t, int32_t);
static TMedium*(KAVO_CALL* pMediumLoadNthOne)(int16_t, uint32_t);
static int16_t(KAVO_CALL* pMediumDestroy)(TMedium*);
static int16_t(KAVO_CALL* pMediumSaveToDB)(TMedium*, int16_t);
static int16_t(KAVO_CALL* pMediumRemoveFromDB)(TMedium*, int16_t);
static int16_t(KAVO_CALL* pMediumChangeTitle)(TMedium*, const char*);
static int16_t(KAVO_CALL* pMediumGetTitle)(TMedium*, char*);
static int16_t(KAVO_CALL* pMediumChangeDescription)(TMedium*, const char*);
static int32_t(KAVO_CALL* pMediumDescriptionSize)(TMedium*);
static int16_t(KAVO_CALL* pMediumGetDescription)(TMedium*, char*);
static int16_t(KAVO_CALL* pMediumChangePathName)(TMedium*, const char*);
static int16_t(KAVO_CALL* pMediumLoadPathName)(TMedium*);
static int16_t(KAVO_CALL* pMediumGetPathName)(TMedium*, char*);
static int16_t(KAVO_CALL* pMediumGetKind)(TMedium*, MediumKind*);
static int32_t(KAVO_CALL* pMediumGetRezID)(TMedium*);
static int16_t(KAVO_CALL* pMediumGetDuration)(TMedium*, TimeCodeRecord*);
static int16_t(KAVO_CALL* pMediumCopyAllToNewDB)(TMedium*, int16_t, int16_t, int32_t*);
static int32_t(KAVO_CALL* pMediumLocatorTapeNameSize)(TMedium*);
static int16_t(KAVO_CALL* pMediumLocatorGetPlugType)(TMedium*, PlugKind*);
/* As Basic calls them: every value a 32-bit slot. */
static int16_t(KAVO_CALL* pVBMediumChangeTrimStart)(TMedium*, uint32_t, uint32_t, uint32_t, uint32_t);
static int16_t(KAVO_CALL* pVBMediumGetTrimStart)(TMedium*, uint16_t*, uint16_t*, uint16_t*, uint16_t*);
static int16_t(KAVO_CALL* pVBMediumChangeCreateDate)(TMedium*, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
                                                     uint32_t);
static int16_t(KAVO_CALL* pVBMediumGetCreateDate)(TMedium*, uint16_t*, uint8_t*, uint8_t*, uint8_t*, uint8_t*,
                                                  uint8_t*);
static int16_t(KAVO_CALL* pVBMediumGetSample)(TMedium*, uint8_t*, uint8_t*, uint8_t*, uint8_t*, void**);
static int16_t(KAVO_CALL* pTapeSaveInfo)(int16_t, const char*, uint32_t, uint32_t, const char*, const char*,
                                         const char*, const PlugKind*);
static int32_t(KAVO_CALL* pTapeNameSize)(int32_t);
static int16_t(KAVO_CALL* pTapeGetName)(char*);
static int16_t(KAVO_CALL* pTapeGetShooter)(char*);
static int16_t(KAVO_CALL* pTapeGetPlugType)(PlugKind*);
static int16_t(KAVO_CALL* pTapeGetTapeID)(uint32_t*);
static int16_t(KAVO_CALL* pTapeChangeName)(int16_t, const char*);

static void BindAll(void) {
    BIND(InitRMRezManager, 0);
    BIND(KillRMRezManager, 0);
    BIND(RMCreate, 12);
    BIND(RMOpen, 12);
    BIND(RMClose, 4);
    BIND(RMSetCurrentDB, 4);
    BIND(RMCountRecordsOfType, 12);
    BIND(MediumCreateNew, 16);
    BIND(MediumLoadByName, 8);
    BIND(MediumLoadByID, 8);
    BIND(MediumLoadNthOne, 8);
    BIND(MediumDestroy, 4);
    BIND(MediumSaveToDB, 8);
    BIND(MediumRemoveFromDB, 8);
    BIND(MediumChangeTitle, 8);
    BIND(MediumGetTitle, 8);
    BIND(MediumChangeDescription, 8);
    BIND(MediumDescriptionSize, 4);
    BIND(MediumGetDescription, 8);
    BIND(MediumChangePathName, 8);
    BIND(MediumLoadPathName, 4);
    BIND(MediumGetPathName, 8);
    BIND(MediumGetKind, 8);
    BIND(MediumGetRezID, 4);
    BIND(MediumGetDuration, 8);
    BIND(MediumCopyAllToNewDB, 16);
    BIND(MediumLocatorTapeNameSize, 4);
    BIND(MediumLocatorGetPlugType, 8);
    BIND(VBMediumChangeTrimStart, 20);
    BIND(VBMediumGetTrimStart, 20);
    BIND(VBMediumChangeCreateDate, 28);
    BIND(VBMediumGetCreateDate, 28);
    BIND(VBMediumGetSample, 24);
    BIND(TapeSaveInfo, 32);
    BIND(TapeNameSize, 4);
    BIND(TapeGetName, 4);
    BIND(TapeGetShooter, 4);
    BIND(TapeGetPlugType, 4);
    BIND(TapeGetTapeID, 4);
    BIND(TapeChangeName, 8);
}

static const char* const kKinds[] = {"mMED", "pMED", "DVC ", "?MED"};
static const char* const kStoredKinds[] = {"mMED", "pMED", "aMED", "?MED"};
static const char* const kNames[] = {"Movie", "Picture", "Tape clip", "Plain"};

static void WriteMedia(int16_t refNum) {
    PlugKind dvc;
    int i;
    memcpy(dvc.code, "DVC ", 4);
    CHECK(pTapeSaveInfo(refNum, "Tape 1", 0x0A0B0C0D, 99, "first tape", "me", "you", &dvc) == kNoError);
    for (i = 0; i < 4; ++i) {
        char path[64];
        TMedium* medium = pMediumCreateNew(0, kKinds[i], kNames[i], 10 + i);
        CHECK(medium != 0);
        if (medium == 0) continue;
        CHECK(pMediumChangeTitle(medium, kNames[i]) == kNoError);
        CHECK(pMediumChangeDescription(medium, "A clip of the host test") == kNoError);
        sprintf(path, "/media/%s.mov", kNames[i]);
        CHECK(pMediumChangePathName(medium, path) == kNoError);
        /* Values above 255 keep their low 8 bits. */
        CHECK(pVBMediumChangeTrimStart(medium, 0x101, 0x202, 3, 0xFFFFFF04) == kNoError);
        CHECK(pVBMediumChangeCreateDate(medium, 2026, 11, 25, 0x10A, 30, 59) == kGeneralError);
        CHECK(pMediumSaveToDB(medium, refNum) == kNoError);
        CHECK(pMediumDestroy(medium) == kNoError);
    }
}

static void ReadMedia(int16_t refNum) {
    char text[300];
    PlugKind plug;
    uint32_t count = 0, id = 0;
    int i;
    CHECK(pTapeNameSize(0) == 7);
    memset(text, 0, sizeof text);
    CHECK(pTapeGetName(text) == kNoError && strcmp(text, "Tape 1") == 0);
    CHECK(pTapeGetShooter(text) == kNoError && strcmp(text, "you") == 0);
    CHECK(pTapeGetTapeID(&id) == kNoError && id == 0x0A0B0C0D);
    CHECK(pTapeGetPlugType(&plug) == kNoError && memcmp(plug.code, "\0\0\0\1", 4) == 0);
    CHECK(pTapeChangeName(refNum, "Tape 2") == kNoError);
    CHECK(pTapeGetName(text) == kNoError && strcmp(text, "Tape 2") == 0);

    CHECK(pRMCountRecordsOfType(refNum, "MDUM", &count) == kNoError && count == 4);
    for (i = 0; i < 4; ++i) {
        MediumKind kind;
        TimeCodeRecord duration;
        uint16_t a = 0, b = 0, c = 0, d = 0, year = 0;
        uint8_t month = 0, day = 0, hour = 0, minute = 0, second = 0;
        char expected[64];
        TMedium* medium = pMediumLoadByName(refNum, kNames[i]);
        CHECK(medium != 0);
        if (medium == 0) continue;
        CHECK(pMediumGetRezID(medium) == 10 + i);
        CHECK(pMediumGetKind(medium, &kind) == kNoError && memcmp(kind.code, kStoredKinds[i], 4) == 0);
        memset(text, 0, sizeof text);
        CHECK(pMediumGetTitle(medium, text) == kNoError && strcmp(text, kNames[i]) == 0);
        memset(text, 0, sizeof text);
        CHECK(pMediumDescriptionSize(medium) == 23);
        CHECK(pMediumGetDescription(medium, text) == kNoError && strcmp(text, "A clip of the host test") == 0);
        memset(text, 0, sizeof text);
        sprintf(expected, "/media/%s.mov", kNames[i]);
        CHECK(pMediumLoadPathName(medium) == kNoError);
        CHECK(pMediumGetPathName(medium, text) == kNoError && strcmp(text, expected) == 0);
        /* Movies and pictures do not take time codes. */
        pVBMediumGetTrimStart(medium, &a, &b, &c, &d);
        if (i < 2) {
            CHECK(a == 0 && b == 0 && c == 0 && d == 0);
        } else {
            CHECK(a == 1 && b == 2 && c == 3 && d == 4);
        }
        CHECK(pVBMediumGetCreateDate(medium, &year, &month, &day, &hour, &minute, &second) == kNoError);
        CHECK(year == 2026 && month == 11 && day == 25 && hour == 10 && minute == 30 && second == 59);
        if (i < 3) {
            CHECK(pMediumGetDuration(medium, &duration) == kNoError && duration.frames == 1 && duration.hours == 0);
        }
        /* The locator functions refuse a clip from tape (-1) and answer
           any other medium that it has no locator. */
        CHECK(pMediumLocatorTapeNameSize(medium) == (i == 2 ? kGeneralError : kNotOffered));
        CHECK(pMediumLocatorGetPlugType(medium, &plug) == (i == 2 ? kGeneralError : kNotOffered));
        {
            uint8_t h = 0, m = 0, s = 0, f = 0;
            void* sample = 0;
            CHECK(pVBMediumGetSample(medium, &h, &m, &s, &f, &sample) == kNotOffered);
        }
        CHECK(pMediumDestroy(medium) == kNoError);
    }
    CHECK(pMediumLoadNthOne(refNum, 4) == 0);
    CHECK(pMediumLoadByID(refNum, 99) == 0);
    {
        TMedium* plain = pMediumLoadByID(refNum, 13);
        int32_t newID = 0;
        CHECK(plain != 0);
        CHECK(pMediumCopyAllToNewDB(plain, 0, refNum, &newID) == kGeneralError);
        CHECK(pMediumRemoveFromDB(plain, refNum) == kNoError);
        CHECK(pMediumDestroy(plain) == kNoError);
    }
    CHECK(pRMCountRecordsOfType(refNum, "MDUM", &count) == kNoError && count == 3);
    CHECK(pRMCountRecordsOfType(refNum, "path", &count) == kNoError && count == 3);
}

int main(int argc, char** argv) {
    const char* const file = "media-host.kdb";
    int16_t refNum = 0;
    if (argc < 2) {
        fprintf(stderr, "usage: %s library\n", argv[0]);
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

    remove(file);
    CHECK(pInitRMRezManager() == kNoError);
    CHECK(pRMCreate(file, 1, 2) == kNoError);
    CHECK(pRMOpen(file, kPermissionReadWrite, &refNum) == kNoError);
    CHECK(pRMSetCurrentDB(refNum) == kNoError);
    WriteMedia(refNum);
    CHECK(pRMClose(refNum) == kNoError);
    CHECK(pRMOpen(file, kPermissionReadWrite, &refNum) == kNoError);
    CHECK(pRMSetCurrentDB(refNum) == kNoError);
    ReadMedia(refNum);
    CHECK(pRMClose(refNum) == kNoError);
    CHECK(pKillRMRezManager() == kNoError);
    remove(file);
    if (gFailures == 0) printf("the C host drove the media and tape functions by their exported names\n");
    return gFailures == 0 ? 0 : 1;
}
