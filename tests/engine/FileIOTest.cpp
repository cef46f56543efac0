// The engine's file I/O: the rules every file system keeps (the platform's
// and the fault-injecting one alike), and what only the platform's does.
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <ostream>
#include <random>
#include <string>

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

TEST_P(FileSystemTest, AFileIsCreatedWrittenAndReadBack) {
    FileError error = FileError::kNone;
    EXPECT_FALSE(FileSystem().Exists(PathOf("a")));
    EXPECT_EQ(Open("a", OpenMode::kReadOnly, &error), nullptr);
    EXPECT_EQ(error, FileError::kNotFound);
    EXPECT_EQ(Open("a", OpenMode::kReadWrite, &error), nullptr);
    EXPECT_EQ(error, FileError::kNotFound);

    std::unique_ptr<TFile> file = Open("a", OpenMode::kCreateNew, &error);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(error, FileError::kNone);
    EXPECT_TRUE(FileSystem().Exists(PathOf("a")));
    EXPECT_EQ(ReadAll(*file), "");

    EXPECT_TRUE(WriteText(*file, 0, "hello"));
    EXPECT_TRUE(WriteText(*file, 5, " world"));
    EXPECT_TRUE(WriteText(*file, 0, "J"));
    EXPECT_TRUE(file->WriteAt(3, nullptr, 0));
    EXPECT_TRUE(file->Sync());
    EXPECT_EQ(ReadAll(*file), "Jello world");

    char buffer[8] = {};
    std::size_t read = 99;
    EXPECT_TRUE(file->ReadAt(6, buffer, sizeof buffer, &read));  // short only at the end
    EXPECT_EQ(read, 5u);
    EXPECT_EQ(std::string(buffer, read), "world");
    EXPECT_TRUE(file->ReadAt(100, buffer, sizeof buffer, &read));
    EXPECT_EQ(read, 0u);

    EXPECT_TRUE(file->Truncate(4));
    EXPECT_EQ(ReadAll(*file), "Jell");
    EXPECT_TRUE(file->Truncate(6));
    EXPECT_EQ(ReadAll(*file), std::string("Jell\0\0", 6));
    EXPECT_TRUE(WriteText(*file, 8, "!"));  // a gap reads as zeros
    EXPECT_EQ(ReadAll(*file), std::string("Jell\0\0\0\0!", 9));
    file.reset();

    std::unique_ptr<TFile> reader = Open("a", OpenMode::kReadOnly);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(ReadAll(*reader), std::string("Jell\0\0\0\0!", 9));
    EXPECT_FALSE(WriteText(*reader, 0, "x"));
    EXPECT_FALSE(reader->Truncate(0));
    EXPECT_TRUE(reader->Sync());
    EXPECT_EQ(ReadAll(*reader), std::string("Jell\0\0\0\0!", 9));
}

TEST_P(FileSystemTest, CreatingAFileThatExistsFails) {
    MakeFile("a", "kept");
    FileError error = FileError::kNone;
    EXPECT_EQ(Open("a", OpenMode::kCreateNew, &error), nullptr);
    EXPECT_EQ(error, FileError::kExists);
    EXPECT_EQ(Open("a", OpenMode::kCreateNew), nullptr);  // the reason may be left out
    EXPECT_EQ(Content("a"), "kept");
}

TEST_P(FileSystemTest, OnlyReadersShareAFile) {
    struct Case {
        OpenMode fFirst;
        OpenMode fSecond;
        bool fShared;
    };
    const Case cases[] = {
        {OpenMode::kReadWrite, OpenMode::kReadWrite, false},
        {OpenMode::kReadWrite, OpenMode::kReadOnly, false},
        {OpenMode::kReadOnly, OpenMode::kReadWrite, false},
        {OpenMode::kReadOnly, OpenMode::kReadOnly, true},
    };
    MakeFile("a", "data");
    for (const Case& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.fFirst) * 10 + static_cast<int>(c.fSecond));
        std::unique_ptr<TFile> first = Open("a", c.fFirst);
        ASSERT_NE(first, nullptr);
        FileError error = FileError::kNone;
        std::unique_ptr<TFile> second = Open("a", c.fSecond, &error);
        if (c.fShared) {
            ASSERT_NE(second, nullptr);
            EXPECT_EQ(ReadAll(*second), "data");
        } else {
            EXPECT_EQ(second, nullptr);
            EXPECT_EQ(error, FileError::kLocked);
        }
        first.reset();
        second.reset();
        // Every lock went with its file.
        EXPECT_NE(Open("a", OpenMode::kReadWrite), nullptr);
    }

    // A file being created is held as exclusively as one opened for writing.
    std::unique_ptr<TFile> created = Open("b", OpenMode::kCreateNew);
    ASSERT_NE(created, nullptr);
    FileError error = FileError::kNone;
    EXPECT_EQ(Open("b", OpenMode::kReadOnly, &error), nullptr);
    EXPECT_EQ(error, FileError::kLocked);
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

TEST_P(FileSystemTest, NamesThatCannotNameAFileAreRefused) {
    FileError error = FileError::kNone;
    EXPECT_EQ(FileSystem().Open("", OpenMode::kCreateNew, &error), nullptr);
    EXPECT_EQ(error, FileError::kNotFound);
    const std::string withNul = PathOf("a") + std::string(1, '\0') + "b";
    EXPECT_EQ(FileSystem().Open(withNul, OpenMode::kCreateNew, &error), nullptr);
    EXPECT_EQ(error, FileError::kNotFound);
    EXPECT_FALSE(FileSystem().Exists(PathOf("a")));
    EXPECT_FALSE(FileSystem().Exists(""));
    EXPECT_FALSE(FileSystem().Remove(""));
}

// Random writes, reads and truncations against a plain string, with the file
// closed and opened again now and then.
TEST_P(FileSystemTest, RandomOperationsMatchAModel) {
    std::mt19937 random(20240611);
    std::string model;
    std::unique_ptr<TFile> file = Open("model", OpenMode::kCreateNew);
    ASSERT_NE(file, nullptr);

    for (int step = 0; step < 3000; ++step) {
        const unsigned choice = random() % 100;
        if (choice < 45) {
            const std::uint64_t offset = random() % 70000;
            std::string bytes(random() % 5000, '\0');
            for (char& c : bytes) c = static_cast<char>(random());
            ASSERT_TRUE(WriteText(*file, offset, bytes)) << "step " << step;
            if (model.size() < offset + bytes.size()) model.resize(offset + bytes.size(), '\0');
            model.replace(offset, bytes.size(), bytes);
        } else if (choice < 85) {
            const std::uint64_t offset = random() % 80000;
            std::string buffer(random() % 6000, '\0');
            std::size_t read = 0;
            ASSERT_TRUE(file->ReadAt(offset, &buffer[0], buffer.size(), &read)) << "step " << step;
            const std::string expected = offset < model.size() ? model.substr(offset, buffer.size()) : "";
            ASSERT_EQ(read, expected.size()) << "step " << step;
            ASSERT_EQ(buffer.substr(0, read), expected) << "step " << step;
        } else if (choice < 92) {
            const std::uint64_t size = random() % 70000;
            ASSERT_TRUE(file->Truncate(size)) << "step " << step;
            model.resize(size, '\0');
        } else if (choice < 96) {
            ASSERT_TRUE(file->Sync()) << "step " << step;
        } else {
            file.reset();
            file = Open("model", random() % 2 ? OpenMode::kReadWrite : OpenMode::kReadOnly);
            ASSERT_NE(file, nullptr) << "step " << step;
            ASSERT_EQ(ReadAll(*file), model) << "step " << step;
            file.reset();
            file = Open("model", OpenMode::kReadWrite);
            ASSERT_NE(file, nullptr) << "step " << step;
        }
        std::uint64_t size = 0;
        ASSERT_TRUE(file->Size(&size));
        ASSERT_EQ(size, model.size()) << "step " << step;
    }
    EXPECT_EQ(ReadAll(*file), model);
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
    char buffer[8] = {};
    std::size_t read = 0;
    EXPECT_TRUE(file->ReadAt(0, buffer, 4, &read));
    EXPECT_EQ(std::string(buffer, read), "head");
    EXPECT_TRUE(file->ReadAt(kFourGiB, buffer, 4, &read));
    EXPECT_EQ(std::string(buffer, read), "high");
    EXPECT_TRUE(file->ReadAt(kFourGiB + kFourGiB / 4 + 3, buffer, sizeof buffer, &read));
    EXPECT_EQ(std::string(buffer, read), "tail");
    EXPECT_TRUE(file->ReadAt(kFourGiB - 4, buffer, 4, &read));
    EXPECT_EQ(std::string(buffer, read), std::string(4, '\0'));

    EXPECT_TRUE(file->Truncate(kFourGiB + 2));
    EXPECT_TRUE(file->Size(&size));
    EXPECT_EQ(size, kFourGiB + 2);
    EXPECT_TRUE(file->Truncate(0));
}

TEST_F(PlatformFileSystemTest, ADirectoryIsNotAFile) {
    const std::string path = fDirectory.File("folder");
    std::filesystem::create_directory(path);
    for (OpenMode mode : {OpenMode::kReadOnly, OpenMode::kReadWrite}) {
        FileError error = FileError::kNone;
        EXPECT_EQ(FileSystem().Open(path, mode, &error), nullptr);
        EXPECT_EQ(error, FileError::kDenied);
    }
    FileError error = FileError::kNone;
    EXPECT_EQ(FileSystem().Open(path, OpenMode::kCreateNew, &error), nullptr);
    EXPECT_EQ(error, FileError::kExists);
    EXPECT_TRUE(FileSystem().Exists(path));
    EXPECT_FALSE(FileSystem().Remove(path));
}

TEST_F(PlatformFileSystemTest, AMissingDirectoryMeansNotFound) {
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
