// The engine's file I/O: the rules every file system keeps (the platform's,
// the fault-injecting one and the counting one over it alike), and what only
// the platform's does.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <ostream>
#include <random>
#include <regex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "engine/FaultFileIO.h"
#include "engine/FileIO.h"
#include "tests/engine/TempDirectory.h"
#include "tests/support/KavoTest.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <unistd.h>
#endif

namespace {

using engine::FileError;
using engine::OpenMode;
using engine::TFile;
using engine::TFileSystem;

std::string ReadAll(TFile& file) {
    std::uint64_t size = 0;
    if (!file.Size(&size)) return "<no size>";
    std::string bytes(static_cast<std::size_t>(size), '\0');
    std::size_t read = 0;
    if (!file.ReadAt(0, &bytes[0], bytes.size(), &read) || read != bytes.size()) return "<no read>";
    return bytes;
}

bool WriteText(TFile& file, std::uint64_t offset, const std::string& text) {
    return file.WriteAt(offset, text.data(), text.size());
}

using Names = std::vector<std::string>;

#if !defined(_WIN32)
// Whether the kernel and the file system of `directory` offer nameless files
// that /proc/self/fd can give a name to: where they do, the platform's
// CreateUnnamed puts nothing at all in the directory.
bool OffersNamelessFiles(const std::string& directory) {
#if defined(O_TMPFILE)
    const int fd = ::open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    const bool reached = ::access(("/proc/self/fd/" + std::to_string(fd)).c_str(), F_OK) == 0;
    ::close(fd);
    return reached;
#else
    (void)directory;
    return false;
#endif
}
#endif

// An entry's name as a listing shows it: a temporary of CreateUnnamed's for
// the name x (".x.<16 hex digits>.kdb-new" on POSIX, "x.<16 hex
// digits>.kdb-new" on Windows) as "(x)".
std::string Shown(const std::string& entry) {
#ifdef _WIN32
    static const std::regex temporary("(.+)\\.[0-9a-f]{16}\\.kdb-new");
#else
    static const std::regex temporary("\\.(.+)\\.[0-9a-f]{16}\\.kdb-new");
#endif
    std::smatch match;
    return std::regex_match(entry, match, temporary) ? "(" + match[1].str() + ")" : entry;
}

// ---------------------------------------------------------------------------
// Rules every file system keeps: the platform's (and on POSIX, the ways it
// takes where the system has no nameless files, or no hard links either),
// the fault-injecting one and the counting one over it.

enum class Kind { kPlatform, kFault, kCounting, kLinkedTemporary, kRenamedTemporary };
const char* const kKindNames[] = {"Platform", "Fault", "Counting", "LinkedTemporary", "RenamedTemporary"};

void PrintTo(Kind kind, std::ostream* out) {
    *out << kKindNames[static_cast<int>(kind)];
}

class FileSystemTest : public kavotest::KavoTest, public ::testing::WithParamInterface<Kind> {
protected:
    TFileSystem& FileSystem() {
        switch (GetParam()) {
            case Kind::kFault:
                return fFault;
            case Kind::kCounting:
                return fCounting;
#if !defined(_WIN32)
            case Kind::kLinkedTemporary:
                return *engine::PosixFileSystemWithoutNamelessFiles(true);
            case Kind::kRenamedTemporary:
                return *engine::PosixFileSystemWithoutNamelessFiles(false);
#endif
            default:
                return *engine::PlatformFileSystem();
        }
    }
    bool InMemory() const {
        return GetParam() == Kind::kFault || GetParam() == Kind::kCounting;
    }
    std::string PathOf(const std::string& name) const {
        return fDirectory.File(name);
    }

    std::unique_ptr<TFile> Open(const std::string& name, OpenMode mode, FileError* error = nullptr) {
        return FileSystem().Open(PathOf(name), mode, error);
    }
    // A file's content, read through a new open.
    std::string ContentOf(const std::string& name) {
        std::unique_ptr<TFile> file = Open(name, OpenMode::kReadOnly);
        return file == nullptr ? "<no file>" : ReadAll(*file);
    }

    void MakeFile(const std::string& name, const std::string& content) {
        std::unique_ptr<TFile> file = Open(name, OpenMode::kCreateNew);
        ASSERT_NE(file, nullptr);
        ASSERT_TRUE(WriteText(*file, 0, content));
        ASSERT_TRUE(file->Sync());
    }

    // What the directory holds, in byte order, as a listing shows it.
    Names Entries() const {
        Names names;
        if (InMemory()) {
            for (const std::string& path : fFault.FileNames())
                names.push_back(std::filesystem::path(path).filename().string());
            return names;
        }
        for (const auto& entry : std::filesystem::directory_iterator(fDirectory.Path())) {
            names.push_back(Shown(entry.path().filename().string()));
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    // Whether a file made by CreateUnnamed shows in its directory, under a
    // temporary name, until it is published or let go.
    bool ShowsATemporary() const {
        if (InMemory()) return false;
#ifdef _WIN32
        return true;
#else
        return GetParam() != Kind::kPlatform || !OffersNamelessFiles(fDirectory.Path().string());
#endif
    }

    kavotest::TTempDirectory fDirectory{"fileio"};
    engine::TFaultFileSystem fFault;
    engine::TCountingFileSystem fCounting{&fFault};
};

// An open that cannot succeed says why (or need not, when not asked) and
// leaves no file behind, nor changes the one there; a rename takes a new
// name or replaces the file of that name; a missing file can be neither
// renamed nor removed.
TEST_P(FileSystemTest, FailedOpensSayWhyAndOnlyFilesThereAreRenamedOrRemoved) {
    MakeFile("kept", "kept");
    const std::tuple<std::string, OpenMode, FileError> cases[] = {
        {PathOf("a"), OpenMode::kReadOnly, FileError::kNotFound},
        {PathOf("a"), OpenMode::kReadWrite, FileError::kNotFound},
        {PathOf("kept"), OpenMode::kCreateNew, FileError::kExists},
        {"", OpenMode::kCreateNew, FileError::kNotFound},
        {PathOf("a") + std::string(1, '\0') + "b", OpenMode::kCreateNew, FileError::kNotFound},
    };
    for (const auto& [path, mode, expected] : cases) {
        FileError error = FileError::kNone;
        EXPECT_EQ(FileSystem().Open(path, mode, &error), nullptr);
        EXPECT_EQ(error, expected) << static_cast<int>(mode);
        EXPECT_EQ(FileSystem().Open(path, mode, nullptr), nullptr);
    }
    EXPECT_FALSE(FileSystem().Exists(PathOf("a")) || FileSystem().Exists("") || FileSystem().Remove(""));

    MakeFile("b", "second");
    EXPECT_TRUE(FileSystem().Rename(PathOf("kept"), PathOf("c")));
    EXPECT_TRUE(FileSystem().Rename(PathOf("c"), PathOf("b")));
    EXPECT_FALSE(FileSystem().Exists(PathOf("kept")) || FileSystem().Exists(PathOf("c")));
    std::unique_ptr<TFile> file = Open("b", OpenMode::kReadOnly);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(ReadAll(*file), "kept");
    file.reset();
    EXPECT_FALSE(FileSystem().Rename(PathOf("missing"), PathOf("d")) || FileSystem().Exists(PathOf("d")));
    EXPECT_TRUE(FileSystem().Remove(PathOf("b")));
    EXPECT_FALSE(FileSystem().Exists(PathOf("b")) || FileSystem().Remove(PathOf("b")));
}

// A nameless file is reached by no name until Publish gives it one, in one
// step, with what was written; it stays open and locked, and is not
// published again. A name that exists is never replaced, and both files stay
// as they were. A nameless file let go leaves nothing. Until then the
// directory holds nothing of it where the system has nameless files, and
// otherwise a temporary named for it, which publishing or letting go takes
// away (what a killed process would leave).
TEST_P(FileSystemTest, ANamelessFileGetsItsNameInOneStepAndNeverReplacesOne) {
    MakeFile("taken", "taken");
    const Names whileNameless = ShowsATemporary() ? Names{"(new)", "taken"} : Names{"taken"};
    std::unique_ptr<TFile> fresh = FileSystem().CreateUnnamed(PathOf("new"), nullptr);
    ASSERT_NE(fresh, nullptr);
    ASSERT_TRUE(WriteText(*fresh, 0, "made"));
    ASSERT_TRUE(fresh->Sync());
    FileError error = FileError::kNone;
    EXPECT_EQ(Open("new", OpenMode::kReadOnly, &error), nullptr);
    EXPECT_EQ(error, FileError::kNotFound);
    EXPECT_FALSE(FileSystem().Exists(PathOf("new")));
    EXPECT_EQ(Entries(), whileNameless);

    EXPECT_EQ(FileSystem().Publish(fresh.get(), PathOf("taken")), FileError::kExists);
    EXPECT_EQ(ContentOf("taken"), "taken");
    EXPECT_EQ(ReadAll(*fresh), "made");
    EXPECT_EQ(Entries(), whileNameless);

    ASSERT_EQ(FileSystem().Publish(fresh.get(), PathOf("new")), FileError::kNone);
    EXPECT_EQ(Entries(), (Names{"new", "taken"}));
    for (const OpenMode mode : {OpenMode::kReadOnly, OpenMode::kReadWrite}) {
        EXPECT_EQ(Open("new", mode, &error), nullptr);
        EXPECT_EQ(error, FileError::kLocked);
    }
    EXPECT_NE(FileSystem().Publish(fresh.get(), PathOf("again")), FileError::kNone);
    EXPECT_TRUE(WriteText(*fresh, 4, "!") && fresh->Sync());
    fresh.reset();
    EXPECT_EQ(ContentOf("new"), "made!");

    std::unique_ptr<TFile> dropped = FileSystem().CreateUnnamed(PathOf("dropped"), &error);
    ASSERT_NE(dropped, nullptr);
    EXPECT_TRUE(WriteText(*dropped, 0, "never named") && dropped->Sync());
    EXPECT_EQ(Entries(), (ShowsATemporary() ? Names{"(dropped)", "new", "taken"} : Names{"new", "taken"}));
    dropped.reset();
    EXPECT_EQ(Entries(), (Names{"new", "taken"}));
}

// Random writes (some empty, of no bytes at all), reads and truncations
// against a plain string, with the file closed and opened again now and
// then, read-only or not. Reads are short only at the end; gaps read as
// zeros; a file open for reading refuses writes and truncations. Only
// readers share a file: a second open joins a reader to a reader and is
// refused otherwise, a file being created included; every lock goes with
// its file.
TEST_P(FileSystemTest, RandomOperationsMatchAModel) {
    std::mt19937 random(20240611);
    std::string model;
    std::unique_ptr<TFile> file = Open("model", OpenMode::kCreateNew);
    ASSERT_NE(file, nullptr);
    ASSERT_TRUE(FileSystem().Exists(PathOf("model")));
    bool readOnly = false;

    for (int step = 0; step < 3000; ++step) {
        SCOPED_TRACE(step);
        const unsigned choice = random() % 100;
        if (choice < 45) {
            const std::uint64_t offset = random() % 70000;
            std::string bytes(random() % 10 == 0 ? 0 : random() % 5000, '\0');
            for (char& c : bytes) c = static_cast<char>(random());
            ASSERT_EQ(file->WriteAt(offset, bytes.empty() ? nullptr : bytes.data(), bytes.size()), !readOnly);
            if (readOnly || bytes.empty()) continue;
            if (model.size() < offset + bytes.size()) model.resize(offset + bytes.size(), '\0');
            model.replace(offset, bytes.size(), bytes);
        } else if (choice < 85) {
            const std::uint64_t offset = random() % 80000;
            std::string buffer(random() % 6000, '\0');
            std::size_t read = 0;
            ASSERT_TRUE(file->ReadAt(offset, &buffer[0], buffer.size(), &read));
            const std::string expected = offset < model.size() ? model.substr(offset, buffer.size()) : "";
            ASSERT_EQ(read, expected.size());
            ASSERT_EQ(buffer.substr(0, read), expected);
        } else if (choice < 92) {
            const std::uint64_t size = random() % 70000;
            ASSERT_EQ(file->Truncate(size), !readOnly);
            if (!readOnly) model.resize(size, '\0');
        } else if (choice < 96) {
            ASSERT_TRUE(file->Sync());
        } else {
            const OpenMode second = random() % 2 == 0 ? OpenMode::kReadOnly : OpenMode::kReadWrite;
            FileError error = FileError::kNone;
            std::unique_ptr<TFile> other = Open("model", second, &error);
            const bool shared = readOnly && second == OpenMode::kReadOnly;
            ASSERT_EQ(other != nullptr, shared);
            ASSERT_TRUE(shared || error == FileError::kLocked) << static_cast<int>(error);
            other.reset();
            file.reset();
            readOnly = random() % 3 == 0;
            file = Open("model", readOnly ? OpenMode::kReadOnly : OpenMode::kReadWrite);
            ASSERT_NE(file, nullptr);
        }
        ASSERT_EQ(ReadAll(*file), model);
    }
}

std::string KindName(const ::testing::TestParamInfo<Kind>& info) {
    return kKindNames[static_cast<int>(info.param)];
}

#if defined(__linux__)
INSTANTIATE_TEST_SUITE_P(, FileSystemTest,
                         ::testing::Values(Kind::kPlatform, Kind::kFault, Kind::kCounting,
                                           Kind::kLinkedTemporary, Kind::kRenamedTemporary),
                         KindName);
#elif !defined(_WIN32)  // renameat2 is Linux's alone
INSTANTIATE_TEST_SUITE_P(, FileSystemTest,
                         ::testing::Values(Kind::kPlatform, Kind::kFault, Kind::kCounting,
                                           Kind::kLinkedTemporary),
                         KindName);
#else
INSTANTIATE_TEST_SUITE_P(, FileSystemTest, ::testing::Values(Kind::kPlatform, Kind::kFault, Kind::kCounting),
                         KindName);
#endif

// ---------------------------------------------------------------------------
// The platform's file system only

using PlatformFileSystemTest = FileSystemTest;

INSTANTIATE_TEST_SUITE_P(, PlatformFileSystemTest, ::testing::Values(Kind::kPlatform), KindName);

// On Windows a write far beyond the end fills the gap on the disk; only Wine
// (over a POSIX file system) leaves it sparse.
bool SparseFilesAreCheap() {
#ifdef _WIN32
    const HMODULE ntdll = GetModuleHandleA("ntdll.dll");
    return ntdll != nullptr && GetProcAddress(ntdll, "wine_get_version") != nullptr;
#else
    return true;
#endif
}

// Writes, reads, sizes and truncations reach past 4 GiB without being cut
// to 32 bits.
TEST_P(PlatformFileSystemTest, OffsetsBeyondFourGiBAreKeptWhole) {
    if (!SparseFilesAreCheap()) GTEST_SKIP() << "the gap would be written out on this system";
    const std::uint64_t kFourGiB = std::uint64_t{1} << 32;
    std::unique_ptr<TFile> file = Open("large", OpenMode::kCreateNew);
    ASSERT_NE(file, nullptr);
    ASSERT_TRUE(WriteText(*file, 0, "head"));
    if (!WriteText(*file, kFourGiB, "high")) {  // would land on "head" if cut to 32 bits
        file->Truncate(0);
        GTEST_SKIP() << "the file system refuses a sparse file this large";
    }
    std::uint64_t size = 0;
    EXPECT_TRUE(file->Size(&size));
    EXPECT_EQ(size, kFourGiB + 4);
    char buffer[8] = {};
    std::size_t read = 0;
    EXPECT_TRUE(file->ReadAt(0, buffer, sizeof buffer, &read));
    EXPECT_EQ(std::string(buffer, read), std::string("head\0\0\0\0", 8));
    EXPECT_TRUE(file->ReadAt(kFourGiB - 4, buffer, sizeof buffer, &read));
    EXPECT_EQ(std::string(buffer, read), std::string("\0\0\0\0high", 8));
    EXPECT_TRUE(file->Truncate(kFourGiB + 2));
    EXPECT_TRUE(file->Size(&size));
    EXPECT_EQ(size, kFourGiB + 2);
    EXPECT_TRUE(file->Truncate(0));
}

// A directory exists but opens as no file, in any mode, and cannot be
// removed as one; a file in a missing directory is not found, nor made
// nameless there.
TEST_P(PlatformFileSystemTest, ADirectoryIsNotAFileAndAMissingOneMeansNotFound) {
    const std::string path = PathOf("folder");
    std::filesystem::create_directory(path);
    const std::pair<OpenMode, FileError> cases[] = {{OpenMode::kReadOnly, FileError::kDenied},
                                                    {OpenMode::kReadWrite, FileError::kDenied},
                                                    {OpenMode::kCreateNew, FileError::kExists}};
    for (const auto& [mode, expected] : cases) {
        FileError error = FileError::kNone;
        EXPECT_EQ(FileSystem().Open(path, mode, &error), nullptr);
        EXPECT_EQ(error, expected);
    }
    EXPECT_TRUE(FileSystem().Exists(path));
    EXPECT_FALSE(FileSystem().Remove(path));
    FileError error = FileError::kNone;
    EXPECT_EQ(Open("none/a", OpenMode::kCreateNew, &error), nullptr);
    EXPECT_EQ(error, FileError::kNotFound);
    error = FileError::kNone;
    EXPECT_EQ(FileSystem().CreateUnnamed(PathOf("none/a"), &error), nullptr);
    EXPECT_EQ(error, FileError::kNotFound);
}

}  // namespace
