// The fault-injecting file system against a model of current and durable
// bytes: losses of power that bring back exactly what the changes since the
// last sync may leave, refused writes and syncs, dead files after a cut or a
// crash, planted files, counters (the counting file system's too).
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

constexpr std::uint64_t kSector = TFaultFileSystem::kSectorSize;

bool WriteText(TFile& file, std::uint64_t offset, const std::string& text) {
    return file.WriteAt(offset, text.data(), text.size());
}

// A file's current bytes, or its durable ones.
std::string BytesOf(const TFaultFileSystem& fileSystem, const std::string& path, bool durable = false) {
    std::string bytes;
    const bool found =
        durable ? fileSystem.ReadDurableFile(path, &bytes) : fileSystem.ReadWholeFile(path, &bytes);
    return found ? bytes : "<missing>";
}

// One write or truncation (to fOffset) since the last sync.
struct Change {
    bool fTruncation;
    std::uint64_t fOffset;
    std::string fBytes;
};

// The content after a change, a write perhaps made only up to `end`; a
// write beyond the end fills the gap with zeros.
std::string Applied(std::string content, const Change& c, std::uint64_t end) {
    if (c.fTruncation || content.size() < end) content.resize(end, '\0');
    return content.replace(c.fOffset, end - c.fOffset, c.fBytes, 0, end - c.fOffset);
}

// Adds every content a loss of power may leave: the content with each change
// from the i-th on, in order, dropped or made, a write perhaps only up to one
// of the sector boundaries (counted from the file's start) inside it.
void AddOutcomes(const std::string& content, const std::vector<Change>& changes, std::size_t i,
                 std::set<std::string>* outcomes) {
    if (i == changes.size()) {
        outcomes->insert(content);
        return;
    }
    AddOutcomes(content, changes, i + 1, outcomes);
    const Change& c = changes[i];
    const std::uint64_t whole = c.fOffset + c.fBytes.size();
    for (std::uint64_t end = (c.fOffset / kSector + 1) * kSector; end < whole; end += kSector)
        AddOutcomes(Applied(content, c, end), changes, i + 1, outcomes);
    AddOutcomes(Applied(content, c, whole), changes, i + 1, outcomes);
}

class FaultFileSystemTest : public kavotest::KavoTest {
protected:
    TFaultFileSystem fFileSystem;
};

std::vector<std::uint64_t> Values(const engine::TFileCounters& c) {
    return {c.fWrites, c.fBytesWritten, c.fSyncs, c.fReads, c.fBytesRead};
}

// Random writes (a third of them whole pages), truncations, syncs and reads
// of a file opened through a counting file system, with armed write and sync
// failures, a full disk, crashes and losses of power between them. A refused
// write writes nothing and a refused sync makes nothing durable; an armed
// failure strikes once, after the calls it lets through; a full disk refuses
// every write yet lets a file shrink; a file open for reading refuses writes
// and syncs nothing. A crash loses nothing; a loss of power leaves one of the
// outcomes of the changes since the last sync, those before a crash
// included. Both kill every file opened before and free its lock. An open
// file can be neither removed nor renamed, under either name, as on Windows;
// a planted file is durable at once; names are listed in byte order. Only
// calls that succeeded are counted, by both file systems alike.
TEST_F(FaultFileSystemTest, RandomOperationsMatchAModelOfCurrentAndDurableBytes) {
    engine::TCountingFileSystem counting(&fFileSystem);
    std::unique_ptr<TFile> file = counting.Open("f", OpenMode::kCreateNew, nullptr);
    ASSERT_NE(file, nullptr);
    const std::string planted("damaged\0page", 12);
    fFileSystem.WriteWholeFile("a", planted);
    const std::uint64_t limit = TFaultFileSystem::kMaxFaultFileSize;
    EXPECT_FALSE(WriteText(*file, limit, "x") || WriteText(*file, ~std::uint64_t{0} - 1, "xyz") ||
                 file->Truncate(limit + 1));
    std::mt19937 random(7);
    std::string current;
    std::string durable;
    std::vector<Change> pending;
    bool readOnly = false;
    bool fullDisk = false;
    int writesLeft = -1;  // calls an armed failure lets through, or -1
    int syncsLeft = -1;
    const auto strikes = [](int& left) { return left >= 0 && left-- == 0; };
    std::vector<std::uint64_t> counted(5, 0);  // as Values orders them

    for (int step = 0; step < 5000; ++step) {
        SCOPED_TRACE(step);
        // A few changes between syncs at most, or the outcomes are too many.
        const unsigned choice = pending.size() >= 4 && !readOnly ? 40 : random() % 100;
        if (choice < 40) {  // a write (of a byte of its own) or a truncation
            const bool page = random() % 3 == 0;
            Change c{choice >= 30, page ? random() % 3 * 4096 : random() % 9000, ""};
            if (!c.fTruncation)
                c.fBytes.assign(page ? 4096 : 1 + random() % 3000, static_cast<char>(1 + step % 255));
            const bool made = !readOnly && (c.fTruncation || (!fullDisk && !strikes(writesLeft)));
            ASSERT_EQ(c.fTruncation ? file->Truncate(c.fOffset) : WriteText(*file, c.fOffset, c.fBytes),
                      made);
            if (made) {
                pending.push_back(c);
                current = Applied(current, c, c.fOffset + c.fBytes.size());
                counted[0] += c.fTruncation ? 0 : 1;
                counted[1] += c.fBytes.size();
            }
        } else if (choice < 55) {  // a sync
            const bool synced = readOnly || !strikes(syncsLeft);
            ASSERT_EQ(file->Sync(), synced);
            if (synced && !readOnly) {
                durable = current;
                pending.clear();
                ++counted[2];
            }
        } else if (choice < 75) {  // a read
            const std::uint64_t offset = random() % 12000;
            char buffer[100];
            std::size_t read = 0;
            ASSERT_TRUE(file->ReadAt(offset, buffer, sizeof buffer, &read));
            ASSERT_EQ(std::string(buffer, read), offset < current.size() ? current.substr(offset, 100) : "");
            counted[3] += 1;
            counted[4] += read;
        } else if (choice < 85) {  // a failure armed or disarmed
            const int calls = static_cast<int>(random() % 5) - 1;
            if (random() % 2 == 0) {
                fFileSystem.FailWriteAfter(calls);
                writesLeft = calls;
            } else {
                fFileSystem.FailSyncAfter(calls);
                syncsLeft = calls;
            }
        } else if (choice < 90) {  // the disk full, or not any more
            fullDisk = !fullDisk;
            fFileSystem.SetFailWrites(fullDisk);
        } else {  // a crash or a loss of power, and an open after it
            if (random() % 2 == 0) {
                std::set<std::string> outcomes;
                AddOutcomes(durable, pending, 0, &outcomes);
                fFileSystem.PowerCut(step);
                current = durable = BytesOf(fFileSystem, "f");
                ASSERT_EQ(outcomes.count(current), 1u) << "the cut left " << current.size() << " bytes";
                pending.clear();
            } else {
                fFileSystem.Crash();
            }
            char byte = 0;
            std::size_t read = 0;
            std::uint64_t size = 0;
            EXPECT_FALSE(file->ReadAt(0, &byte, 1, &read) || WriteText(*file, 0, "z") || file->Sync() ||
                         file->Size(&size) || file->Truncate(0));
            std::unique_ptr<TFile> dead = std::move(file);
            readOnly = random() % 3 == 0;
            file = counting.Open("f", readOnly ? OpenMode::kReadOnly : OpenMode::kReadWrite, nullptr);
            ASSERT_NE(file, nullptr);
            EXPECT_FALSE(fFileSystem.Remove("f") || fFileSystem.Rename("f", "g") ||
                         fFileSystem.Rename("a", "f"));
            dead.reset();  // a dead file must not release the new lock
            FileError error = FileError::kNone;
            EXPECT_EQ(fFileSystem.Open("f", OpenMode::kReadWrite, &error), nullptr);
            EXPECT_EQ(error, FileError::kLocked);
        }
        ASSERT_EQ(BytesOf(fFileSystem, "f"), current);
        ASSERT_EQ(BytesOf(fFileSystem, "f", true), durable);
    }
    EXPECT_EQ(BytesOf(fFileSystem, "a", true), planted);
    EXPECT_EQ(BytesOf(fFileSystem, "none") + BytesOf(fFileSystem, "none", true), "<missing><missing>");
    EXPECT_EQ(fFileSystem.FileNames(), (std::vector<std::string>{"a", "f"}));
    EXPECT_EQ(Values(counting.Counters()), counted);
    EXPECT_EQ(Values(fFileSystem.Counters()), counted);
    counting.ResetCounters();
    fFileSystem.ResetCounters();
    EXPECT_EQ(Values(counting.Counters()), std::vector<std::uint64_t>(5, 0));
    EXPECT_EQ(Values(fFileSystem.Counters()), std::vector<std::uint64_t>(5, 0));
}

// Over enough seeds every outcome comes back: a page write dropped, made, or
// torn after each of its sectors, a truncation kept or dropped, and a write
// within the file torn after a sector.
TEST_F(FaultFileSystemTest, EveryOutcomeOfAPowerCutHappens) {
    const std::string planted(9000, 'd');
    const std::vector<Change> changes = {
        {false, 4096, std::string(4096, 'p')}, {true, 7000, ""}, {false, 700, std::string(1000, 'w')}};
    std::set<std::string> outcomes;
    AddOutcomes(planted, changes, 0, &outcomes);
    std::set<std::string> seen;
    for (std::uint32_t seed = 0; seed < 5000; ++seed) {
        TFaultFileSystem fileSystem;
        fileSystem.WriteWholeFile("f", planted);
        std::unique_ptr<TFile> file = fileSystem.Open("f", OpenMode::kReadWrite, nullptr);
        for (const Change& c : changes) {
            ASSERT_TRUE(c.fTruncation ? file->Truncate(c.fOffset) : WriteText(*file, c.fOffset, c.fBytes));
        }
        fileSystem.PowerCut(seed);
        seen.insert(BytesOf(fileSystem, "f"));
    }
    EXPECT_TRUE(seen == outcomes) << seen.size() << " contents seen of " << outcomes.size();
}

// A nameless file, synced or not, is lost whole to a crash or a loss of
// power before Publish: its TFile dies, and nothing has or gets its name.
// Refused writes and syncs strike it as any other file, and its calls are
// counted. Published, it is a file like any other: what was synced, before
// Publish or after, survives a loss of power whole.
TEST_F(FaultFileSystemTest, ANamelessFileIsLostWholeToACutBeforePublishAndKeptWholeAfter) {
    const std::string first(2 * kSector, 'a');
    const std::string second(3 * kSector, 'b');
    for (const bool powerCut : {false, true}) {
        SCOPED_TRACE(powerCut ? "power cut" : "crash");
        std::unique_ptr<TFile> file = fFileSystem.CreateUnnamed("db", nullptr);
        ASSERT_NE(file, nullptr);
        ASSERT_TRUE(WriteText(*file, 0, first) && file->Sync() && WriteText(*file, first.size(), second));
        if (powerCut)
            fFileSystem.PowerCut(1);
        else
            fFileSystem.Crash();
        EXPECT_FALSE(WriteText(*file, 0, "z") || file->Sync());
        EXPECT_NE(fFileSystem.Publish(file.get(), "db"), FileError::kNone);
        EXPECT_TRUE(fFileSystem.FileNames().empty());
        FileError error = FileError::kNone;
        EXPECT_EQ(fFileSystem.Open("db", OpenMode::kReadOnly, &error), nullptr);
        EXPECT_EQ(error, FileError::kNotFound);
    }

    engine::TCountingFileSystem counting(&fFileSystem);
    fFileSystem.ResetCounters();
    std::unique_ptr<TFile> file = counting.CreateUnnamed("db", nullptr);
    ASSERT_NE(file, nullptr);
    fFileSystem.FailWriteAfter(1);
    EXPECT_TRUE(WriteText(*file, 0, first));
    EXPECT_FALSE(WriteText(*file, 0, second));
    fFileSystem.SetFailWrites(true);
    EXPECT_FALSE(WriteText(*file, 0, second));
    fFileSystem.SetFailWrites(false);
    fFileSystem.FailSyncAfter(0);
    EXPECT_FALSE(file->Sync());
    ASSERT_TRUE(file->Sync());
    ASSERT_EQ(counting.Publish(file.get(), "db"), FileError::kNone);
    ASSERT_TRUE(WriteText(*file, first.size(), second) && file->Sync());
    fFileSystem.PowerCut(2);
    EXPECT_EQ(BytesOf(fFileSystem, "db"), first + second);
    EXPECT_EQ(fFileSystem.FileNames(), std::vector<std::string>{"db"});
    const std::vector<std::uint64_t> counted = {2, first.size() + second.size(), 2, 0, 0};
    EXPECT_EQ(Values(counting.Counters()), counted);
    EXPECT_EQ(Values(fFileSystem.Counters()), counted);
}

// A file may outlive its file system; a counting file system over nothing
// fails every call.
TEST_F(FaultFileSystemTest, FilesMayOutliveTheirFileSystemAndACountingOneOverNothingFails) {
    auto fileSystem = std::make_unique<TFaultFileSystem>();
    std::unique_ptr<TFile> file = fileSystem->Open("a", OpenMode::kCreateNew, nullptr);
    fileSystem.reset();
    EXPECT_TRUE(WriteText(*file, 0, "still here"));
    std::uint64_t size = 0;
    EXPECT_TRUE(file->Size(&size) && size == 10);

    engine::TCountingFileSystem nothing(nullptr);
    FileError error = FileError::kNone;
    EXPECT_EQ(nothing.Open("a", OpenMode::kCreateNew, &error), nullptr);
    EXPECT_EQ(error, FileError::kIO);
    error = FileError::kNone;
    EXPECT_EQ(nothing.CreateUnnamed("a", &error), nullptr);
    EXPECT_EQ(error, FileError::kIO);
    EXPECT_EQ(nothing.Publish(file.get(), "b"), FileError::kIO);
    EXPECT_FALSE(nothing.Exists("a") || nothing.Remove("a") || nothing.Rename("a", "b"));
}

}  // namespace
