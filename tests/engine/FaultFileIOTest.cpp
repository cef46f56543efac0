// The fault-injecting file system: durable and current bytes, losses of
// power that only ever bring back bytes that were written, torn sectors,
// refused writes and syncs, dead files after a cut or a crash, counters; and
// the counting file system.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "engine/FaultFileIO.h"
#include "tests/support/KavoTest.h"

namespace {

using engine::FileError;
using engine::OpenMode;
using engine::TFaultFileSystem;
using engine::TFile;

constexpr std::size_t kSector = TFaultFileSystem::kSectorSize;

bool WriteText(TFile& file, std::uint64_t offset, const std::string& text) {
    return file.WriteAt(offset, text.data(), text.size());
}

std::string CurrentOf(const TFaultFileSystem& fileSystem, const std::string& path) {
    std::string bytes;
    return fileSystem.ReadWholeFile(path, &bytes) ? bytes : "<missing>";
}

std::string DurableOf(const TFaultFileSystem& fileSystem, const std::string& path) {
    std::string bytes;
    return fileSystem.ReadDurableFile(path, &bytes) ? bytes : "<missing>";
}

class FaultFileSystemTest : public kavotest::KavoTest {
protected:
    std::string Current(const std::string& path) { return CurrentOf(fFileSystem, path); }
    std::string Durable(const std::string& path) { return DurableOf(fFileSystem, path); }

    TFaultFileSystem fFileSystem;
};

// One write or truncation since the last sync, for the reference model.
struct Change {
    bool fTruncation;
    std::uint64_t fOffset;
    std::string fBytes;
};

// Checks a file after a power cut against its durable bytes and the changes
// since: every byte is the durable byte, a byte some change wrote there, or a
// zero of a gap; without truncations every durable byte no write covered is
// still there. Says which fates it saw.
struct Fates {
    bool fApplied = false;
    bool fDropped = false;
    bool fTorn = false;
    std::set<std::size_t> fPageTears;  // how much of a torn page-aligned page came back
};

void ExpectOnlyWrittenBytes(const std::string& durable, const std::vector<Change>& changes,
                            const std::string& after, Fates* fates) {
    std::uint64_t largest = durable.size();
    bool truncated = false;
    for (const Change& c : changes) {
        largest = std::max<std::uint64_t>(largest, c.fTruncation ? c.fOffset : c.fOffset + c.fBytes.size());
        truncated = truncated || c.fTruncation;
    }
    ASSERT_LE(after.size(), largest);
    if (!truncated) {
        ASSERT_GE(after.size(), durable.size());
    }

    for (std::size_t p = 0; p < after.size(); ++p) {
        std::set<char> allowed = {'\0'};
        bool written = false;
        if (p < durable.size()) allowed.insert(durable[p]);
        for (const Change& c : changes) {
            if (c.fTruncation || p < c.fOffset || p >= c.fOffset + c.fBytes.size()) continue;
            allowed.insert(c.fBytes[p - c.fOffset]);
            written = true;
        }
        ASSERT_TRUE(allowed.count(after[p]) != 0) << "byte " << p << " was never written";
        if (!truncated && !written && p < durable.size()) {
            ASSERT_EQ(after[p], durable[p]) << "byte " << p;
        }
    }

    // The fate of each write that no later change touched: how much of it came back.
    for (std::size_t i = 0; i < changes.size(); ++i) {
        const Change& c = changes[i];
        if (c.fTruncation) continue;
        bool overlapped = false;
        for (std::size_t j = 0; j < changes.size(); ++j) {
            if (j == i) continue;
            const Change& d = changes[j];
            // A truncation touches everything from its new size on.
            const std::uint64_t dEnd = d.fTruncation ? ~std::uint64_t{0} : d.fOffset + d.fBytes.size();
            if (d.fOffset < c.fOffset + c.fBytes.size() && c.fOffset < dEnd) overlapped = true;
        }
        if (overlapped) continue;
        std::size_t kept = 0;
        while (kept < c.fBytes.size() && c.fOffset + kept < after.size() &&
               after[c.fOffset + kept] == c.fBytes[kept])
            ++kept;
        const std::size_t end = static_cast<std::size_t>(c.fOffset + kept);
        if (kept == c.fBytes.size()) {
            fates->fApplied = true;
        } else if (kept == 0) {
            fates->fDropped = true;
        } else {
            // A torn write ends on a sector boundary, and nothing of it follows.
            ASSERT_EQ(end % kSector, 0u) << "a write torn inside a sector";
            for (std::size_t p = end; p < c.fOffset + c.fBytes.size() && p < after.size(); ++p)
                ASSERT_NE(after[p], c.fBytes[p - c.fOffset]) << "byte " << p << " after the tear";
            fates->fTorn = true;
            if (c.fBytes.size() == 4096 && c.fOffset % 4096 == 0) fates->fPageTears.insert(kept);
        }
    }
}

// Random writes (each of its own byte, never zero; a third of them whole
// pages), truncations and syncs, a power cut, and the model's check;
// thousands of changes over the seeds. A sync makes the current bytes
// durable, so a cut right after one loses nothing.
TEST_F(FaultFileSystemTest, APowerCutBringsBackOnlyBytesThatWereWritten) {
    Fates fates;
    for (std::uint32_t seed = 1; seed <= 300; ++seed) {
        SCOPED_TRACE(seed);
        TFaultFileSystem fileSystem;
        std::mt19937 random(seed);
        std::unique_ptr<TFile> file = fileSystem.Open("f", OpenMode::kCreateNew, nullptr);
        ASSERT_NE(file, nullptr);
        std::string durable;
        std::vector<Change> changes;
        int fill = 0;
        const int steps = 1 + random() % 20;
        for (int step = 0; step < steps; ++step) {
            const unsigned choice = random() % 10;
            if (choice < 7) {
                const bool page = random() % 3 == 0;  // a whole page, as the engine writes them
                const std::uint64_t offset = page ? random() % 3 * 4096 : random() % 6000;
                const std::size_t size = page ? 4096 : 1 + random() % 3000;
                const std::string bytes(size, static_cast<char>(1 + fill++ % 255));
                ASSERT_TRUE(WriteText(*file, offset, bytes));
                changes.push_back({false, offset, bytes});
            } else if (choice < 8) {
                const std::uint64_t size = random() % 8000;
                ASSERT_TRUE(file->Truncate(size));
                changes.push_back({true, size, ""});
            } else {
                ASSERT_TRUE(file->Sync());
                durable = DurableOf(fileSystem, "f");
                ASSERT_EQ(durable, CurrentOf(fileSystem, "f"));
                changes.clear();
            }
        }
        fileSystem.PowerCut(seed * 7919);
        const std::string after = CurrentOf(fileSystem, "f");
        ExpectOnlyWrittenBytes(durable, changes, after, &fates);
        if (HasFatalFailure()) return;
        // What the cut left is what a new open reads, and it is durable.
        EXPECT_EQ(DurableOf(fileSystem, "f"), after);
    }
    EXPECT_TRUE(fates.fApplied);
    EXPECT_TRUE(fates.fDropped);
    EXPECT_TRUE(fates.fTorn);
    EXPECT_GT(fates.fPageTears.size(), 4u);
    EXPECT_TRUE(fates.fPageTears.count(2048) != 0);  // half a page
}

std::vector<std::uint64_t> Values(const engine::TFileCounters& c) {
    return {c.fWrites, c.fBytesWritten, c.fSyncs, c.fReads, c.fBytesRead};
}

// A refused write writes nothing and a refused sync makes nothing durable;
// armed failures count the calls over every file and strike once. A full
// disk refuses every write, yet lets a file shrink; so does the size limit.
// Syncing a file open for reading does nothing. Only calls that succeeded
// are counted, with the bytes they moved, by the fault-injecting file system
// and by a counting one over it alike.
TEST_F(FaultFileSystemTest, RefusedWritesAndSyncsChangeNothingAndAreNotCounted) {
    engine::TCountingFileSystem counting(&fFileSystem);
    std::unique_ptr<TFile> file = counting.Open("a", OpenMode::kCreateNew, nullptr);
    std::unique_ptr<TFile> other = counting.Open("b", OpenMode::kCreateNew, nullptr);
    ASSERT_NE(other, nullptr);
    fFileSystem.FailWriteAfter(2);
    EXPECT_TRUE(WriteText(*file, 0, "1"));
    EXPECT_TRUE(WriteText(*other, 0, "2"));
    EXPECT_FALSE(WriteText(*file, 1, "3333"));
    EXPECT_TRUE(WriteText(*file, 1, "4"));
    fFileSystem.FailWriteAfter(0);
    fFileSystem.FailWriteAfter(-1);  // disarmed again
    EXPECT_TRUE(WriteText(*file, 2, "5"));
    EXPECT_EQ(Current("a") + Current("b"), "1452");

    fFileSystem.FailSyncAfter(1);
    EXPECT_TRUE(other->Sync());
    EXPECT_FALSE(file->Sync());
    EXPECT_EQ(Durable("a"), "");
    EXPECT_TRUE(file->Sync());
    EXPECT_EQ(Durable("a"), "145");

    fFileSystem.SetFailWrites(true);
    for (int i = 0; i < 5; ++i) EXPECT_FALSE(WriteText(*file, i, "z"));
    EXPECT_TRUE(file->Truncate(2));
    EXPECT_TRUE(file->Sync());
    EXPECT_EQ(Durable("a"), "14");
    fFileSystem.SetFailWrites(false);
    EXPECT_TRUE(WriteText(*file, 2, "c"));
    const std::uint64_t limit = TFaultFileSystem::kMaxFaultFileSize;
    EXPECT_FALSE(WriteText(*file, limit, "x"));
    EXPECT_FALSE(WriteText(*file, ~std::uint64_t{0} - 1, "xyz"));
    EXPECT_FALSE(file->Truncate(limit + 1));
    EXPECT_EQ(Current("a"), "14c");

    other.reset();
    std::unique_ptr<TFile> reader = counting.Open("b", OpenMode::kReadOnly, nullptr);
    fFileSystem.FailSyncAfter(0);
    EXPECT_TRUE(reader->Sync());
    EXPECT_FALSE(file->Sync());
    char buffer[8];
    std::size_t read = 0;
    EXPECT_TRUE(file->ReadAt(1, buffer, sizeof buffer, &read));
    EXPECT_EQ(std::string(buffer, read), "4c");

    const std::vector<std::uint64_t> expected = {5, 5, 3, 1, 2};
    EXPECT_EQ(Values(counting.Counters()), expected);
    EXPECT_EQ(Values(fFileSystem.Counters()), expected);
    counting.ResetCounters();
    fFileSystem.ResetCounters();
    EXPECT_EQ(Values(counting.Counters()), std::vector<std::uint64_t>(5, 0));
    EXPECT_EQ(Values(fFileSystem.Counters()), std::vector<std::uint64_t>(5, 0));
}

void ExpectDead(TFile& file) {
    char buffer[4];
    std::size_t read = 0;
    std::uint64_t size = 0;
    EXPECT_FALSE(file.ReadAt(0, buffer, sizeof buffer, &read));
    EXPECT_FALSE(WriteText(file, 0, "z"));
    EXPECT_FALSE(file.Sync());
    EXPECT_FALSE(file.Size(&size));
    EXPECT_FALSE(file.Truncate(0));
}

// After a loss of power or the end of the process every file opened before
// is dead and holds no lock. The end of the process loses nothing, but what
// it left unsynced a loss of power after it may still lose.
TEST_F(FaultFileSystemTest, FilesOpenedBeforeACutOrACrashAreDeadAndHoldNoLock) {
    bool lostAfterCrash = false;
    for (std::uint32_t seed = 0; seed < 40; ++seed) {
        const bool crash = seed % 2 == 0;
        SCOPED_TRACE(crash ? "crash" : "power cut");
        TFaultFileSystem fileSystem;
        std::unique_ptr<TFile> writer = fileSystem.Open("a", OpenMode::kCreateNew, nullptr);
        ASSERT_TRUE(WriteText(*writer, 0, "synced") && writer->Sync() && WriteText(*writer, 6, "+unsynced"));
        fileSystem.WriteWholeFile("b", "bbb");
        std::unique_ptr<TFile> reader = fileSystem.Open("b", OpenMode::kReadOnly, nullptr);
        ASSERT_NE(reader, nullptr);
        if (crash) {
            fileSystem.Crash();
        } else {
            fileSystem.PowerCut(seed);
        }
        ExpectDead(*writer);
        ExpectDead(*reader);

        std::unique_ptr<TFile> again = fileSystem.Open("a", OpenMode::kReadWrite, nullptr);
        ASSERT_NE(again, nullptr);
        writer.reset();  // the dead file must not release the new lock
        FileError error = FileError::kNone;
        EXPECT_EQ(fileSystem.Open("a", OpenMode::kReadOnly, &error), nullptr);
        EXPECT_EQ(error, FileError::kLocked);
        EXPECT_NE(fileSystem.Open("b", OpenMode::kReadWrite, nullptr), nullptr);
        char buffer[16] = {};
        std::size_t read = 0;
        EXPECT_TRUE(again->ReadAt(0, buffer, sizeof buffer, &read));
        const std::string seen(buffer, read);
        EXPECT_EQ(seen.substr(0, 6), "synced");
        if (!crash) continue;
        EXPECT_EQ(seen, "synced+unsynced");
        fileSystem.PowerCut(seed);
        lostAfterCrash = lostAfterCrash || CurrentOf(fileSystem, "a") != seen;
    }
    EXPECT_TRUE(lostAfterCrash);
}

// Planted files are durable at once and listed in byte order. An open file
// can be neither removed nor renamed, under either name, as on Windows.
TEST_F(FaultFileSystemTest, PlantedFilesAreDurableAndOpenOnesStayPut) {
    fFileSystem.WriteWholeFile("b", "b");
    fFileSystem.WriteWholeFile("a", std::string("damaged\0page", 12));
    EXPECT_EQ(fFileSystem.FileNames(), (std::vector<std::string>{"a", "b"}));
    fFileSystem.PowerCut(3);
    EXPECT_EQ(Durable("a") + Current("b"), std::string("damaged\0pageb", 13));
    std::string ignored;
    EXPECT_FALSE(fFileSystem.ReadWholeFile("none", &ignored) ||
                 fFileSystem.ReadDurableFile("none", &ignored));

    std::unique_ptr<TFile> file = fFileSystem.Open("a", OpenMode::kReadOnly, nullptr);
    EXPECT_FALSE(fFileSystem.Remove("a"));
    EXPECT_FALSE(fFileSystem.Rename("a", "c"));
    EXPECT_FALSE(fFileSystem.Rename("b", "a"));
    file.reset();
    EXPECT_TRUE(fFileSystem.Rename("b", "a"));
    EXPECT_EQ(Current("a"), "b");
    EXPECT_EQ(fFileSystem.FileNames(), std::vector<std::string>{"a"});
}

// The counting file system passes every call on; without a file system
// under it, every call fails.
TEST_F(FaultFileSystemTest, TheCountingFileSystemPassesCallsOnAndFilesMayOutliveTheirFileSystem) {
    auto fileSystem = std::make_unique<TFaultFileSystem>();
    engine::TCountingFileSystem counting(fileSystem.get());
    FileError error = FileError::kNone;
    EXPECT_EQ(counting.Open("a", OpenMode::kReadOnly, &error), nullptr);
    EXPECT_EQ(error, FileError::kNotFound);
    EXPECT_NE(counting.Open("a", OpenMode::kCreateNew, &error), nullptr);
    EXPECT_TRUE(counting.Exists("a"));
    EXPECT_TRUE(counting.Rename("a", "b"));
    EXPECT_TRUE(counting.Remove("b"));
    EXPECT_FALSE(counting.Exists("b"));
    engine::TCountingFileSystem nothing(nullptr);
    EXPECT_EQ(nothing.Open("a", OpenMode::kCreateNew, &error), nullptr);
    EXPECT_EQ(error, FileError::kIO);
    EXPECT_FALSE(nothing.Exists("a"));

    std::unique_ptr<TFile> file = fileSystem->Open("a", OpenMode::kCreateNew, nullptr);
    fileSystem.reset();
    EXPECT_TRUE(WriteText(*file, 0, "still here"));
    std::uint64_t size = 0;
    EXPECT_TRUE(file->Size(&size));
    EXPECT_EQ(size, 10u);
}

}  // namespace
