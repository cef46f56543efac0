/* A small host program: it creates a sample media database through the
   library's flat record functions - four clips with their path records, two
   scenes, the story board, the tape header and an about text - and says what
   it did. kavodvdb shows the result:

     sample_database sample.kdb
     kavodvdb info sample.kdb

   Record images are packed as the library packs its own: numbers big-endian,
   texts as a 32-bit count followed by the characters. */
#include <stdio.h>
#include <string.h>

#include "kavoDVDB.h"

/* A four-character code as the number whose big-endian bytes spell it. */
#define FOUR_CHAR_CODE(a, b, c, d) \
    (((uint32_t)(a) << 24) | ((uint32_t)(b) << 16) | ((uint32_t)(c) << 8) | (uint32_t)(d))

static const char kDefaultPath[] = "sample.kdb";
static const uint32_t kImageVersion = 1;
static const int32_t kStoryID = 1000;
static const int32_t kTapeHeaderID = 1;

/* ------------------------------------------------------------------------
   Packed images, built in a fixed buffer and then copied into a handle. */

typedef struct {
    unsigned char fBytes[512];
    uint32_t fLength;
    int fOverflow;
} TImage;

static void PutBytes(TImage* image, const void* bytes, uint32_t count) {
    if (image->fLength + count > sizeof image->fBytes) {
        image->fOverflow = 1;
        return;
    }
    memcpy(image->fBytes + image->fLength, bytes, count);
    image->fLength += count;
}

static void PutLong(TImage* image, uint32_t value) {
    unsigned char bytes[4];
    bytes[0] = (unsigned char)(value >> 24);
    bytes[1] = (unsigned char)(value >> 16);
    bytes[2] = (unsigned char)(value >> 8);
    bytes[3] = (unsigned char)value;
    PutBytes(image, bytes, 4);
}

static void PutShort(TImage* image, uint16_t value) {
    unsigned char bytes[2];
    bytes[0] = (unsigned char)(value >> 8);
    bytes[1] = (unsigned char)value;
    PutBytes(image, bytes, 2);
}

static void PutString(TImage* image, const char* text) {
    PutLong(image, (uint32_t)strlen(text));
    PutBytes(image, text, (uint32_t)strlen(text));
}

/* ------------------------------------------------------------------------
   The sample's content. */

typedef struct {
    int32_t fID;
    const char* fName;
    char fKind[5];
    const char* fPath;
    uint32_t fFrames;
    uint16_t fWidth;
    uint16_t fHeight;
    uint16_t fYear;
    unsigned char fMonth;
    unsigned char fDay;
} TClip;

static const TClip kClips[] = {
    {128, "Beach at dawn", "mMED", "C:\\Media\\Holiday\\beach.mov", 1500, 720, 576, 2026, 7, 14},
    {129, "Harbour", "mMED", "C:\\Media\\Holiday\\harbour.mov", 2250, 720, 576, 2026, 7, 14},
    {130, "Market square", "pMED", "C:\\Media\\Holiday\\market.bmp", 0, 1024, 768, 2026, 7, 15},
    {131, "Sunset", "mMED", "C:\\Media\\Holiday\\sunset.mov", 3000, 720, 576, 2026, 7, 15},
};

typedef struct {
    int32_t fID;
    const char* fName;
    int32_t fTakes[2];
} TSampleScene;

static const TSampleScene kScenes[] = {
    {200, "Morning", {128, 129}},
    {201, "Evening", {130, 131}},
};

static const char kAboutText[] =
    "Holiday 2026: four clips, two scenes and a story board, made by the "
    "sample_database example program.";

/* A medium: kind, version, title, frames, frame size, date recorded
   (year, month, day, hour, minute, second) and a time code (hours,
   minutes, seconds, frames) where it starts. */
static void PackClip(TImage* image, const TClip* clip) {
    const unsigned char timeCode[4] = {0, 0, 0, 0};
    const unsigned char when[5] = {clip->fMonth, clip->fDay, 10, 30, 0};
    PutBytes(image, clip->fKind, 4);
    PutLong(image, kImageVersion);
    PutString(image, clip->fName);
    PutLong(image, clip->fFrames);
    PutShort(image, clip->fWidth);
    PutShort(image, clip->fHeight);
    PutShort(image, clip->fYear);
    PutBytes(image, when, 5);
    PutBytes(image, timeCode, 4);
}

/* A scene or the story board: version, name, and the IDs it lists. */
static void PackIDList(TImage* image, const char* name, const int32_t* ids, uint32_t count) {
    uint32_t i;
    PutLong(image, kImageVersion);
    PutString(image, name);
    PutLong(image, count);
    for (i = 0; i < count; ++i) PutLong(image, (uint32_t)ids[i]);
}

/* The tape header: version, tape name, plug kind and the time code of the
   first frame on the tape. */
static void PackTapeHeader(TImage* image) {
    const unsigned char firstFrame[4] = {0, 0, 0, 1};
    PutLong(image, kImageVersion);
    PutString(image, "Holiday tape 1");
    PutBytes(image, "DVC ", 4);
    PutBytes(image, firstFrame, 4);
}

/* ------------------------------------------------------------------------ */

static int gFailures = 0;

static void Report(const char* what, int16_t result) {
    printf("  %-58s -> %d%s\n", what, result, result == kNoError ? "" : "  FAILED");
    if (result != kNoError) ++gFailures;
}

/* Adds a record whose data is the image; the database owns the handle once
   it is added, and releasing it afterwards frees the memory only. */
static void AddImage(int16_t refNum, const char* type, int32_t id, const char* name, const TImage* image) {
    char what[96];
    MSHandle data = 0;
    int16_t result = image->fOverflow ? kGeneralError : MSNewHandle(&data, 0);
    if (result == kNoError) result = MSCopyBlockToHandle(image->fBytes, &data, image->fLength);
    if (result == kNoError) result = RMAddNewRecord(refNum, type, name, id, data);
    snprintf(what, sizeof what, "add '%.4s' %5ld \"%s\" (%lu bytes)", type, (long)id, name,
             (unsigned long)image->fLength);
    Report(what, result);
    if (result == kNoError) {
        RMReleaseRecord(data);
    } else if (data != 0) {
        MSDisposeHandle(data);
    }
}

static void AddSampleRecords(int16_t refNum) {
    size_t i;
    int32_t sceneIDs[sizeof kScenes / sizeof kScenes[0]];
    TImage image;

    for (i = 0; i < sizeof kClips / sizeof kClips[0]; ++i) {
        memset(&image, 0, sizeof image);
        PackClip(&image, &kClips[i]);
        AddImage(refNum, "MDUM", kClips[i].fID, kClips[i].fName, &image);
        memset(&image, 0, sizeof image);
        PutString(&image, kClips[i].fPath);
        AddImage(refNum, "path", kClips[i].fID, kClips[i].fName, &image);
    }
    for (i = 0; i < sizeof kScenes / sizeof kScenes[0]; ++i) {
        memset(&image, 0, sizeof image);
        PackIDList(&image, kScenes[i].fName, kScenes[i].fTakes, 2);
        AddImage(refNum, "SEEN", kScenes[i].fID, kScenes[i].fName, &image);
        sceneIDs[i] = kScenes[i].fID;
    }
    memset(&image, 0, sizeof image);
    PackIDList(&image, "Story", sceneIDs, (uint32_t)(sizeof sceneIDs / sizeof sceneIDs[0]));
    AddImage(refNum, "STRY", kStoryID, "Story", &image);
    memset(&image, 0, sizeof image);
    PackTapeHeader(&image);
    AddImage(refNum, "DVC ", kTapeHeaderID, "DVC Header Info", &image);
}

int main(int argc, char** argv) {
    const char* path = argc > 1 ? argv[1] : kDefaultPath;
    int16_t refNum = 0;
    int16_t result;
    uint32_t count = 0;
    char what[320];

    if (argc > 2 || (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0))) {
        fprintf(stderr, "usage: sample_database [FILE]   (FILE is %s unless given; it must not exist)\n",
                kDefaultPath);
        return 2;
    }
    printf("kavoDVDB sample database: %s\n", path);
    Report("InitRMRezManager()", InitRMRezManager());
    snprintf(what, sizeof what, "RMCreate(\"%.200s\", 'KAVO', 'MEDB')", path);
    result = RMCreate(path, FOUR_CHAR_CODE('K', 'A', 'V', 'O'), FOUR_CHAR_CODE('M', 'E', 'D', 'B'));
    Report(what, result);
    if (result != kNoError) {
        fprintf(stderr, "sample_database: cannot create %s (it must not exist yet)\n", path);
        KillRMRezManager();
        return 1;
    }
    result = RMOpen(path, kPermissionReadWrite, &refNum);
    Report("RMOpen(path, read/write, &refNum)", result);
    if (result != kNoError) {
        KillRMRezManager();
        return 1;
    }

    AddSampleRecords(refNum);
    Report("RMChangeAboutFile(refNum, text)", RMChangeAboutFile(refNum, kAboutText));
    Report("RMCountRecords(refNum, &count)", RMCountRecords(refNum, &count));
    printf("  the database holds %lu records, its file-info record and about text included\n",
           (unsigned long)count);
    Report("RMClose(refNum)", RMClose(refNum));
    Report("KillRMRezManager()", KillRMRezManager());
    if (gFailures != 0) {
        fprintf(stderr, "sample_database: %d steps failed\n", gFailures);
        return 1;
    }
    return 0;
}
