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

class FaultFileSystemTest : public kavotest::KavoTest {
protected:
    std::unique_ptr<TFile> Create(const std::string& path) {
        return fFileSystem.Open(path, OpenMode::kCreateNew, nullptr);
    }
    std::string Current(const std::string& path) {
        std::string bytes;
        return fFileSystem.ReadWholeFile(path, &bytes) ? bytes : "<missing>";
    }
    std::string Durable(const std::string& path) {
        std::string bytes;
        return fFileSystem.ReadDurableFile(path, &bytes) ? bytes : "<missing>";
    }

    TFaultFileSystem fFileSystem;
};

TEST_F(FaultFileSystemTest, ASyncMakesTheCurrentBytesDurable) {
    std::unique_ptr<TFile> file = Create("a");
    ASSERT_NE(file, nullptr);
    EXPECT_TRUE(WriteText(*file, 0, "abc"));
    EXPECT_EQ(Current("a"), "abc");
    EXPECT_EQ(Durable("a"), "");
    EXPECT_TRUE(file->Sync());
    EXPECT_EQ(Durable("a"), "abc");
    EXPECT_TRUE(WriteText(*file, 3, "def"));
    EXPECT_TRUE(file->Truncate(5));
    EXPECT_EQ(Current("a"), "abcde");
    EXPECT_EQ(Durable("a"), "abc");
    EXPECT_TRUE(file->Sync());
    EXPECT_EQ(Durable("a"), "abcde");

    // A cut right after a sync loses nothing.
    fFileSystem.PowerCut(7);
    EXPECT_EQ(Current("a"), "abcde");
}

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
        }
    }
}

// Random writes (each of its own byte, never zero), truncations and syncs,
// a power cut, and the model's check; thousands of changes over the seeds.
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
                const std::uint64_t offset = random() % 6000;
                const std::string bytes(1 + random() % 3000, static_cast<char>(1 + fill++ % 255));
                ASSERT_TRUE(WriteText(*file, offset, bytes));
                changes.push_back({false, offset, bytes});
            } else if (choice < 8) {
                const std::uint64_t size = random() % 8000;
                ASSERT_TRUE(file->Truncate(size));
                changes.push_back({true, size, ""});
            } else {
                ASSERT_TRUE(file->Sync());
                ASSERT_TRUE(fileSystem.ReadDurableFile("f", &durable));
                changes.clear();
            }
        }
        fileSystem.PowerCut(seed * 7919);
        std::string after;
        ASSERT_TRUE(fileSystem.ReadWholeFile("f", &after));
        ExpectOnlyWrittenBytes(durable, changes, after, &fates);
        if (HasFatalFailure()) return;

        // What the cut left is what a new open reads, and it is durable.
        std::string durableAfter;
        ASSERT_TRUE(fileSystem.ReadDurableFile("f", &durableAfter));
        EXPECT_EQ(durableAfter, after);
    }
    EXPECT_TRUE(fates.fApplied);
    EXPECT_TRUE(fates.fDropped);
    EXPECT_TRUE(fates.fTorn);
}

TEST_F(FaultFileSystemTest, SyncedBytesAlwaysSurviveAsAPrefix) {
    std::set<std::size_t> sizesSeen;
    for (std::uint32_t seed = 0; seed < 200; ++seed) {
        SCOPED_TRACE(seed);
        TFaultFileSystem fileSystem;
        std::unique_ptr<TFile> log = fileSystem.Open("log", OpenMode::kCreateNew, nullptr);
        ASSERT_NE(log, nullptr);
        std::string synced;
        std::uint64_t end = 0;
        for (int record = 0; record < 12; ++record) {
            const std::string bytes(100 + 37 * record, static_cast<char>('A' + record));
            ASSERT_TRUE(WriteText(*log, end, bytes));
            end += bytes.size();
            if (record == 5) {
                ASSERT_TRUE(log->Sync());
                ASSERT_TRUE(fileSystem.ReadWholeFile("log", &synced));
            }
        }
        fileSystem.PowerCut(seed);
        std::string after;
        ASSERT_TRUE(fileSystem.ReadWholeFile("log", &after));
        ASSERT_GE(after.size(), synced.size());
        EXPECT_EQ(after.substr(0, synced.size()), synced);
        sizesSeen.insert(after.size());
    }
    EXPECT_GT(sizesSeen.size(), 3u);  // the unsynced tail comes back in many lengths
}

TEST_F(FaultFileSystemTest, APageIsTornOnlyAtSectorBoundaries) {
    std::set<std::size_t> tears;
    for (std::uint32_t seed = 0; seed < 400; ++seed) {
        TFaultFileSystem fileSystem;
        fileSystem.WriteWholeFile("pages", std::string(3 * 4096, 'o'));
        std::unique_ptr<TFile> file = fileSystem.Open("pages", OpenMode::kReadWrite, nullptr);
        ASSERT_NE(file, nullptr);
        const std::uint64_t offset = seed % 2 == 0 ? 4096 : 4096 + 300;  // aligned and not
        ASSERT_TRUE(WriteText(*file, offset, std::string(4096, 'N')));
        fileSystem.PowerCut(seed);

        std::string after;
        ASSERT_TRUE(fileSystem.ReadWholeFile("pages", &after));
        ASSERT_EQ(after.size(), 3u * 4096);
        const std::size_t kept = after.find_first_not_of('N', offset) - offset;
        EXPECT_EQ(after.substr(0, offset), std::string(offset, 'o'));
        EXPECT_EQ(after.substr(offset + kept), std::string(after.size() - offset - kept, 'o'));
        if (kept != 0 && kept != 4096) {
            EXPECT_EQ((offset + kept) % kSector, 0u) << "seed " << seed;
            tears.insert(kept);
        }
    }
    EXPECT_GT(tears.size(), 4u);
    EXPECT_TRUE(tears.count(2048) != 0);  // half a page
}

TEST_F(FaultFileSystemTest, TheNthWriteFromNowFailsAndWritesNothing) {
    std::unique_ptr<TFile> file = Create("a");
    ASSERT_NE(file, nullptr);
    fFileSystem.FailWriteAfter(3);
    EXPECT_TRUE(WriteText(*file, 0, "1"));
    EXPECT_TRUE(WriteText(*file, 1, "2"));
    EXPECT_TRUE(WriteText(*file, 2, "3"));
    EXPECT_FALSE(WriteText(*file, 3, "4444"));
    EXPECT_EQ(Current("a"), "123");
    EXPECT_TRUE(WriteText(*file, 3, "5"));  // one failure only
    EXPECT_EQ(Current("a"), "1235");
    EXPECT_EQ(fFileSystem.Counters().fWrites, 4u);

    fFileSystem.FailWriteAfter(0);
    fFileSystem.FailWriteAfter(-1);  // disarmed again
    EXPECT_TRUE(WriteText(*file, 4, "6"));

    // The count runs over every file.
    std::unique_ptr<TFile> other = Create("b");
    fFileSystem.FailWriteAfter(1);
    EXPECT_TRUE(WriteText(*file, 0, "x"));
    EXPECT_FALSE(WriteText(*other, 0, "y"));
    EXPECT_EQ(Current("b"), "");
}

TEST_F(FaultFileSystemTest, AFullDiskRefusesEveryWrite) {
    std::unique_ptr<TFile> file = Create("a");
    ASSERT_TRUE(WriteText(*file, 0, "abc"));
    fFileSystem.SetFailWrites(true);
    for (int i = 0; i < 5; ++i) EXPECT_FALSE(WriteText(*file, i, "z"));
    EXPECT_TRUE(file->Truncate(2));  // freeing space still works
    EXPECT_TRUE(file->Sync());
    EXPECT_EQ(Durable("a"), "ab");
    fFileSystem.SetFailWrites(false);
    EXPECT_TRUE(WriteText(*file, 2, "c"));
    EXPECT_EQ(Current("a"), "abc");
}

TEST_F(FaultFileSystemTest, TheNthSyncFromNowFailsAndMakesNothingDurable) {
    std::unique_ptr<TFile> file = Create("a");
    ASSERT_NE(file, nullptr);
    fFileSystem.FailSyncAfter(1);
    ASSERT_TRUE(WriteText(*file, 0, "one"));
    EXPECT_TRUE(file->Sync());
    ASSERT_TRUE(WriteText(*file, 3, "two"));
    EXPECT_FALSE(file->Sync());
    EXPECT_EQ(Durable("a"), "one");
    EXPECT_EQ(Current("a"), "onetwo");
    EXPECT_TRUE(file->Sync());
    EXPECT_EQ(Durable("a"), "onetwo");
    EXPECT_EQ(fFileSystem.Counters().fSyncs, 2u);

    // Syncing a file open for reading does nothing and is not counted.
    file.reset();
    std::unique_ptr<TFile> reader = fFileSystem.Open("a", OpenMode::kReadOnly, nullptr);
    fFileSystem.FailSyncAfter(0);
    EXPECT_TRUE(reader->Sync());
    EXPECT_EQ(fFileSystem.Counters().fSyncs, 2u);
}

TEST_F(FaultFileSystemTest, FilesOpenedBeforeAPowerCutAreDeadAndHoldNoLock) {
    std::unique_ptr<TFile> writer = Create("a");
    ASSERT_TRUE(WriteText(*writer, 0, "abc"));
    ASSERT_TRUE(writer->Sync());
    fFileSystem.WriteWholeFile("b", "bbb");
    std::unique_ptr<TFile> reader = fFileSystem.Open("b", OpenMode::kReadOnly, nullptr);
    ASSERT_NE(reader, nullptr);

    fFileSystem.PowerCut(1);
    for (TFile* dead : {writer.get(), reader.get()}) {
        char buffer[4];
        std::size_t read = 0;
        std::uint64_t size = 0;
        EXPECT_FALSE(dead->ReadAt(0, buffer, sizeof buffer, &read));
        EXPECT_FALSE(WriteText(*dead, 0, "z"));
        EXPECT_FALSE(dead->Sync());
        EXPECT_FALSE(dead->Size(&size));
        EXPECT_FALSE(dead->Truncate(0));
    }
    EXPECT_EQ(Current("a"), "abc");

    std::unique_ptr<TFile> again = fFileSystem.Open("a", OpenMode::kReadWrite, nullptr);
    ASSERT_NE(again, nullptr);
    writer.reset();  // the dead file must not release the new lock
    FileError error = FileError::kNone;
    EXPECT_EQ(fFileSystem.Open("a", OpenMode::kReadOnly, &error), nullptr);
    EXPECT_EQ(error, FileError::kLocked);
    EXPECT_NE(fFileSystem.Open("b", OpenMode::kReadWrite, nullptr), nullptr);
}

TEST_F(FaultFileSystemTest, ACrashLosesNothingButAPowerCutAfterItMay) {
    bool lostAfterCrash = false;
    for (std::uint32_t seed = 0; seed < 20; ++seed) {
        TFaultFileSystem fileSystem;
        std::unique_ptr<TFile> file = fileSystem.Open("a", OpenMode::kCreateNew, nullptr);
        ASSERT_TRUE(WriteText(*file, 0, "unsynced"));
        fileSystem.Crash();
        EXPECT_FALSE(WriteText(*file, 0, "z"));

        std::unique_ptr<TFile> reopened = fileSystem.Open("a", OpenMode::kReadWrite, nullptr);
        ASSERT_NE(reopened, nullptr);
        char buffer[16] = {};
        std::size_t read = 0;
        EXPECT_TRUE(reopened->ReadAt(0, buffer, sizeof buffer, &read));
        EXPECT_EQ(std::string(buffer, read), "unsynced");

        // The system still held the bytes without having synced them.
        fileSystem.PowerCut(seed);
        std::string after;
        ASSERT_TRUE(fileSystem.ReadWholeFile("a", &after));
        lostAfterCrash = lostAfterCrash || after != "unsynced";
    }
    EXPECT_TRUE(lostAfterCrash);
}

TEST_F(FaultFileSystemTest, OpenFilesCannotBeRemovedOrRenamed) {
    fFileSystem.WriteWholeFile("a", "a");
    fFileSystem.WriteWholeFile("b", "b");
    std::unique_ptr<TFile> file = fFileSystem.Open("a", OpenMode::kReadOnly, nullptr);
    EXPECT_FALSE(fFileSystem.Remove("a"));
    EXPECT_FALSE(fFileSystem.Rename("a", "c"));
    EXPECT_FALSE(fFileSystem.Rename("b", "a"));
    file.reset();
    EXPECT_TRUE(fFileSystem.Rename("b", "a"));
    EXPECT_EQ(Current("a"), "b");
    EXPECT_EQ(fFileSystem.FileNames(), std::vector<std::string>{"a"});
}

TEST_F(FaultFileSystemTest, PlantedBytesAreDurableAndListed) {
    fFileSystem.WriteWholeFile("z", "zz");
    fFileSystem.WriteWholeFile("m", std::string("damaged\0page", 12));
    EXPECT_EQ(fFileSystem.FileNames(), (std::vector<std::string>{"m", "z"}));
    EXPECT_EQ(Durable("m"), std::string("damaged\0page", 12));
    fFileSystem.PowerCut(3);
    EXPECT_EQ(Current("z"), "zz");
    std::string ignored;
    EXPECT_FALSE(fFileSystem.ReadWholeFile("none", &ignored));
    EXPECT_FALSE(fFileSystem.ReadDurableFile("none", &ignored));
}

TEST_F(FaultFileSystemTest, CountersCountWhatSucceeded) {
    std::unique_ptr<TFile> file = Create("a");
    ASSERT_TRUE(WriteText(*file, 0, "12345"));
    ASSERT_TRUE(WriteText(*file, 5, "678"));
    ASSERT_TRUE(file->Sync());
    char buffer[4];
    std::size_t read = 0;
    ASSERT_TRUE(file->ReadAt(6, buffer, sizeof buffer, &read));
    fFileSystem.SetFailWrites(true);
    EXPECT_FALSE(WriteText(*file, 0, "x"));

    engine::TFileCounters counters = fFileSystem.Counters();
    EXPECT_EQ(counters.fWrites, 2u);
    EXPECT_EQ(counters.fBytesWritten, 8u);
    EXPECT_EQ(counters.fSyncs, 1u);
    EXPECT_EQ(counters.fReads, 1u);
    EXPECT_EQ(counters.fBytesRead, 2u);
    fFileSystem.ResetCounters();
    counters = fFileSystem.Counters();
    EXPECT_EQ(counters.fWrites + counters.fBytesWritten + counters.fSyncs + counters.fReads, 0u);
}

TEST_F(FaultFileSystemTest, FilesBeyondTheSizeLimitAreRefused) {
    std::unique_ptr<TFile> file = Create("a");
    const std::uint64_t limit = TFaultFileSystem::kMaxFaultFileSize;
    EXPECT_FALSE(WriteText(*file, limit, "x"));
    EXPECT_FALSE(WriteText(*file, ~std::uint64_t{0} - 1, "xyz"));
    EXPECT_FALSE(file->Truncate(limit + 1));
    EXPECT_EQ(Current("a"), "");
}

TEST_F(FaultFileSystemTest, FilesMayOutliveTheirFileSystem) {
    auto fileSystem = std::make_unique<TFaultFileSystem>();
    std::unique_ptr<TFile> file = fileSystem->Open("a", OpenMode::kCreateNew, nullptr);
    fileSystem.reset();
    EXPECT_TRUE(WriteText(*file, 0, "still here"));
    std::uint64_t size = 0;
    EXPECT_TRUE(file->Size(&size));
    EXPECT_EQ(size, 10u);
}

TEST_F(FaultFileSystemTest, TheCountingFileSystemCountsAnotherOnesTraffic) {
    engine::TCountingFileSystem counting(&fFileSystem);
    FileError error = FileError::kNone;
    EXPECT_EQ(counting.Open("a", OpenMode::kReadOnly, &error), nullptr);
    EXPECT_EQ(error, FileError::kNotFound);

    std::unique_ptr<TFile> file = counting.Open("a", OpenMode::kCreateNew, &error);
    ASSERT_NE(file, nullptr);
    ASSERT_TRUE(WriteText(*file, 0, std::string(4096, 'p')));
    ASSERT_TRUE(WriteText(*file, 4096, std::string(4096, 'q')));
    ASSERT_TRUE(file->Sync());
    std::string buffer(5000, '\0');
    std::size_t read = 0;
    ASSERT_TRUE(file->ReadAt(4000, &buffer[0], buffer.size(), &read));
    EXPECT_EQ(read, 4192u);
    fFileSystem.SetFailWrites(true);
    EXPECT_FALSE(WriteText(*file, 0, "x"));

    engine::TFileCounters counters = counting.Counters();
    EXPECT_EQ(counters.fWrites, 2u);
    EXPECT_EQ(counters.fBytesWritten, 8192u);
    EXPECT_EQ(counters.fSyncs, 1u);
    EXPECT_EQ(counters.fReads, 1u);
    EXPECT_EQ(counters.fBytesRead, 4192u);
    EXPECT_EQ(Durable("a").size(), 8192u);

    file.reset();
    EXPECT_TRUE(counting.Exists("a"));
    EXPECT_TRUE(counting.Rename("a", "b"));
    EXPECT_TRUE(counting.Remove("b"));
    EXPECT_FALSE(counting.Exists("b"));
    counting.ResetCounters();
    EXPECT_EQ(counting.Counters().fBytesWritten, 0u);

    engine::TCountingFileSystem nothing(nullptr);
    EXPECT_EQ(nothing.Open("a", OpenMode::kCreateNew, &error), nullptr);
    EXPECT_EQ(error, FileError::kIO);
    EXPECT_FALSE(nothing.Exists("a"));
}

}  // namespace
