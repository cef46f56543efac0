// The engine's file I/O: the rules every file system keeps (the platform's
// and the fault-injecting one alike), and what only the platform's does.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <utility>

#include "engine/FaultFileIO.h"
#include "engine/FileIO.h"
#include "tests/engine/TempDirectory.h"
#include "tests/support/KavoTest.h"

#ifdef _WIN32
#include <windows.h>
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

// ---------------------------------------------------------------------------
// Rules every file system keeps

enum class Kind { kPlatform, kFault };

void PrintTo(Kind kind, std::ostream* out) {
    *out << (kind == Kind::kPlatform ? "Platform" : "Fault");
}

class FileSystemTest : public kavotest::KavoTest, public ::testing::WithParamInterface<Kind> {
protected:
    FileSystemTest() : fDirectory("fileio") {}

    TFileSystem& FileSystem() {
        if (GetParam() == Kind::kFault) return fFault;
        return *engine::PlatformFileSystem();
    }
    std::string PathOf(const std::string& name) const { return fDirectory.File(name); }

    std::unique_ptr<TFile> Open(const std::string& name, OpenMode mode, FileError* error = nullptr) {
        return FileSystem().Open(PathOf(name), mode, error);
    }

    void MakeFile(const std::string& name, const std::string& content) {
        std::unique_ptr<TFile> file = Open(name, OpenMode::kCreateNew);
        ASSERT_NE(file, nullptr);
        ASSERT_TRUE(WriteText(*file, 0, content));
        ASSERT_TRUE(file->Sync());
    }

    std::string Content(const std::string& name) {
        std::unique_ptr<TFile> file = Open(name, OpenMode::kReadOnly);
        return file == nullptr ? "<not opened>" : ReadAll(*file);
    }

    kavotest::TTempDirectory fDirectory;
    engine::TFaultFileSystem fFault;
};

// An open that cannot succeed says why (or need not, when not asked), and
// leaves no file behind.
TEST_P(FileSystemTest, AnOpenThatFailsSaysWhy) {
    MakeFile("kept", "kept");
    struct Case {
        std::string fPath;
        OpenMode fMode;
        FileError fError;
    };
    const Case cases[] = {
        {PathOf("a"), OpenMode::kReadOnly, FileError::kNotFound},
        {PathOf("a"), OpenMode::kReadWrite, FileError::kNotFound},
        {PathOf("kept"), OpenMode::kCreateNew, FileError::kExists},
        {"", OpenMode::kCreateNew, FileError::kNotFound},
        {PathOf("a") + std::string(1, '\0') + "b", OpenMode::kCreateNew, FileError::kNotFound},
    };
    for (const Case& c : cases) {
        FileError error = FileError::kNone;
        EXPECT_EQ(FileSystem().Open(c.fPath, c.fMode, &error), nullptr);
        EXPECT_EQ(error, c.fError) << static_cast<int>(c.fMode);
        EXPECT_EQ(FileSystem().Open(c.fPath, c.fMode, nullptr), nullptr);
    }
    EXPECT_EQ(Content("kept"), "kept");
    EXPECT_FALSE(FileSystem().Exists(PathOf("a")));
    EXPECT_FALSE(FileSystem().Exists(""));
    EXPECT_FALSE(FileSystem().Remove(""));
}

// A file being created is held as exclusively as one opened for writing;
// every lock goes with its file.
TEST_P(FileSystemTest, OnlyReadersShareAFile) {
    const std::pair<OpenMode, OpenMode> cases[] = {
        {OpenMode::kReadWrite, OpenMode::kReadWrite}, {OpenMode::kReadWrite, OpenMode::kReadOnly},
        {OpenMode::kReadOnly, OpenMode::kReadWrite},  {OpenMode::kReadOnly, OpenMode::kReadOnly},
        {OpenMode::kCreateNew, OpenMode::kReadOnly},
    };
    for (const auto& [firstMode, secondMode] : cases) {
        const std::string name =
            "f" + std::to_string(static_cast<int>(firstMode) * 10 + static_cast<int>(secondMode));
        SCOPED_TRACE(name);
        if (firstMode != OpenMode::kCreateNew) MakeFile(name, "data");
        std::unique_ptr<TFile> first = Open(name, firstMode);
        ASSERT_NE(first, nullptr);
        FileError error = FileError::kNone;
        std::unique_ptr<TFile> second = Open(name, secondMode, &error);
        if (firstMode == OpenMode::kReadOnly && secondMode == OpenMode::kReadOnly) {
            ASSERT_NE(second, nullptr);
            EXPECT_EQ(ReadAll(*second), "data");
        } else {
            EXPECT_EQ(second, nullptr);
            EXPECT_EQ(error, FileError::kLocked);
        }
        first.reset();
        second.reset();
        EXPECT_NE(Open(name, OpenMode::kReadWrite), nullptr);
    }
}

TEST_P(FileSystemTest, FilesAreRemovedAndRenamed) {
    MakeFile("a", "first");
    MakeFile("b", "second");

    EXPECT_TRUE(FileSystem().Rename(PathOf("a"), PathOf("c")));
    EXPECT_FALSE(FileSystem().Exists(PathOf("a")));
    EXPECT_EQ(Content("c"), "first");

    EXPECT_TRUE(FileSystem().Rename(PathOf("c"), PathOf("b")));  // replaces b
    EXPECT_FALSE(FileSystem().Exists(PathOf("c")));
    EXPECT_EQ(Content("b"), "first");

    EXPECT_FALSE(FileSystem().Rename(PathOf("missing"), PathOf("d")));
    EXPECT_FALSE(FileSystem().Exists(PathOf("d")));

    EXPECT_TRUE(FileSystem().Remove(PathOf("b")));
    EXPECT_FALSE(FileSystem().Exists(PathOf("b")));
    EXPECT_FALSE(FileSystem().Remove(PathOf("b")));
    EXPECT_EQ(Open("b", OpenMode::kReadOnly), nullptr);
}

// Random writes (some empty, of no bytes at all), reads and truncations
// against a plain string, with the file closed and opened again now and
// then, read-only or not. Reads are short only at the end; gaps read as
// zeros; a file open for reading refuses writes and truncations.
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
            file.reset();
            readOnly = random() % 3 == 0;
            file = Open("model", readOnly ? OpenMode::kReadOnly : OpenMode::kReadWrite);
            ASSERT_NE(file, nullptr);
        }
        ASSERT_EQ(ReadAll(*file), model);
    }
}

INSTANTIATE_TEST_SUITE_P(, FileSystemTest, ::testing::Values(Kind::kPlatform, Kind::kFault),
                         [](const ::testing::TestParamInfo<Kind>& info) {
                             return info.param == Kind::kPlatform ? "Platform" : "Fault";
                         });

// ---------------------------------------------------------------------------
// The platform's file system only

class PlatformFileSystemTest : public kavotest::KavoTest {
protected:
    PlatformFileSystemTest() : fDirectory("platformio") {}
    TFileSystem& FileSystem() { return *engine::PlatformFileSystem(); }

    kavotest::TTempDirectory fDirectory;
};

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

TEST_F(PlatformFileSystemTest, OffsetsBeyondFourGiBAreKeptWhole) {
    if (!SparseFilesAreCheap()) GTEST_SKIP() << "the gap would be written out on this system";
    const std::uint64_t kFourGiB = std::uint64_t{1} << 32;
    const std::string path = fDirectory.File("large");
    std::unique_ptr<TFile> file = FileSystem().Open(path, OpenMode::kCreateNew, nullptr);
    ASSERT_NE(file, nullptr);
    ASSERT_TRUE(WriteText(*file, 0, "head"));
    if (!WriteText(*file, kFourGiB + kFourGiB / 4 + 3, "tail")) {
        file->Truncate(0);
        GTEST_SKIP() << "the file system refuses a sparse file this large";
    }
    ASSERT_TRUE(WriteText(*file, kFourGiB, "high"));  // would land on "head" if cut to 32 bits

    std::uint64_t size = 0;
    EXPECT_TRUE(file->Size(&size));
    EXPECT_EQ(size, kFourGiB + kFourGiB / 4 + 7);
    const auto readAt = [&](std::uint64_t offset) {
        char buffer[8] = {};
        std::size_t read = 0;
        return file->ReadAt(offset, buffer, sizeof buffer, &read) ? std::string(buffer, read) : "<no read>";
    };
    EXPECT_EQ(readAt(0), std::string("head\0\0\0\0", 8));
    EXPECT_EQ(readAt(kFourGiB - 4), std::string("\0\0\0\0high", 8));
    EXPECT_EQ(readAt(kFourGiB + kFourGiB / 4 + 3), "tail");
    EXPECT_TRUE(file->Truncate(kFourGiB + 2));
    EXPECT_TRUE(file->Size(&size));
    EXPECT_EQ(size, kFourGiB + 2);
    EXPECT_TRUE(file->Truncate(0));
}

TEST_F(PlatformFileSystemTest, ADirectoryIsNotAFileAndAMissingOneMeansNotFound) {
    const std::string path = fDirectory.File("folder");
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
    EXPECT_EQ(FileSystem().Open(fDirectory.File("none") + "/a", OpenMode::kCreateNew, &error), nullptr);
    EXPECT_EQ(error, FileError::kNotFound);
}

TEST_F(PlatformFileSystemTest, TheEngineUsesThePlatformsUnlessATestInstallsAnother) {
    EXPECT_EQ(engine::CurrentFileSystem(), engine::PlatformFileSystem());
    engine::TFaultFileSystem fault;
    engine::InstallFileSystem(&fault);
    EXPECT_EQ(engine::CurrentFileSystem(), &fault);
    engine::InstallFileSystem(nullptr);
    EXPECT_EQ(engine::CurrentFileSystem(), engine::PlatformFileSystem());
}

}  // namespace
