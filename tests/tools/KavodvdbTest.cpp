// kavodvdb, driven as a program: on databases that the tests make, and on
// files that are missing, foreign, empty or damaged.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "kavoDVDB.h"
#include "tests/support/KavoTest.h"
#include "tests/tools/ToolRunner.h"

namespace {

using kavotest::ReadFileBytes;
using kavotest::RunProgram;
using kavotest::SplitLines;
using kavotest::TRunResult;
using kavotest::WriteFileBytes;

constexpr std::uint32_t kCreator = 0x54455354;   // 'TEST'
constexpr std::uint32_t kFileType = 0x44564320;  // 'DVC '
constexpr std::size_t kPageBytes = 4096;

constexpr int kExitOK = 0;
constexpr int kExitDamaged = 1;
constexpr int kExitUsage = 2;
constexpr int kExitCannotOpen = 3;
constexpr int kExitNotFound = 4;
constexpr int kExitFailed = 5;

const std::vector<std::string> kCommands = {"info", "ls", "cat", "about", "verify", "put", "rm"};

std::string RandomBytes(std::size_t count, unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(count, '\0');
    for (char& byte : bytes) byte = static_cast<char>(generator() & 0xFF);
    return bytes;
}

// The arguments that make each command work on file, were it a database.
std::vector<std::string> ArgumentsFor(const std::string& command, const std::string& file) {
    if (command == "cat" || command == "rm") return {command, file, "MDUM", "1"};
    if (command == "put") return {command, file, "MDUM", "1", "Clip 1"};
    return {command, file};
}

// A database held open in this process, as another program would hold it.
class THeldDatabase {
public:
    THeldDatabase(const std::string& path, std::int16_t permission) {
        EXPECT_EQ(InitRMRezManager(), kNoError);
        EXPECT_EQ(RMOpen(path.c_str(), permission, &fRefNum), kNoError);
    }
    ~THeldDatabase() {
        RMClose(fRefNum);
        KillRMRezManager();
    }
    std::int16_t RefNum() const { return fRefNum; }

private:
    std::int16_t fRefNum = 0;
};

class KavodvdbTest : public kavotest::KavoTest {
protected:
    void SetUp() override {
        fDatabase = fDirectory.File("media.kdb");
        ASSERT_EQ(InitRMRezManager(), kNoError);
        ASSERT_EQ(RMCreate(fDatabase.c_str(), kCreator, kFileType), kNoError);
        ASSERT_EQ(KillRMRezManager(), kNoError);
    }

    TRunResult Run(const std::vector<std::string>& arguments, const std::string& input = "") {
        return RunProgram(KAVODVDB_PATH, arguments, fDirectory.Path(), input);
    }

    void Put(const std::string& type, const std::string& id, const std::string& name,
             const std::string& data) {
        const TRunResult result = Run({"put", fDatabase, type, id, name}, data);
        ASSERT_TRUE(result.fExited);
        ASSERT_EQ(result.fExitCode, kExitOK) << result.fErr;
        EXPECT_EQ(result.fOut, "");
    }

    void SetAboutText(const char* text) {
        THeldDatabase held(fDatabase, kPermissionReadWrite);
        ASSERT_EQ(RMChangeAboutFile(held.RefNum(), text), kNoError);
    }

    // Enough records of some size that the file has many pages.
    void FillDatabase(int records) {
        THeldDatabase held(fDatabase, kPermissionReadWrite);
        const std::string data = RandomBytes(300, 7);
        for (int id = 1; id <= records; ++id) {
            MSHandle handle = nullptr;
            ASSERT_EQ(MSNewHandle(&handle, 0), kNoError);
            ASSERT_EQ(MSCopyBlockToHandle(data.data(), &handle, static_cast<std::uint32_t>(data.size())),
                      kNoError);
            const std::string name = "Clip " + std::to_string(id);
            ASSERT_EQ(RMAddNewRecord(held.RefNum(), "MDUM", name.c_str(), id, handle), kNoError);
            ASSERT_EQ(RMReleaseRecord(handle), kNoError);
        }
    }

    // The program ended by itself with the code and said the message.
    static void ExpectFailure(const TRunResult& result, int exitCode, const std::string& message) {
        ASSERT_TRUE(result.fExited) << "the program crashed";
        EXPECT_EQ(result.fExitCode, exitCode) << result.fErr;
        EXPECT_NE(result.fErr.find("kavodvdb: "), std::string::npos) << result.fErr;
        EXPECT_NE(result.fErr.find(message), std::string::npos) << result.fErr;
    }

    kavotest::TScratchDirectory fDirectory;
    std::string fDatabase;
};

// ---------------------------------------------------------------------------
// A sound database

TEST_F(KavodvdbTest, ListShowsEveryRecordInTheFilesOrder) {
    Put("MDUM", "2", "Clip 2", "two");
    Put("path", "1", "Clip 1", "C:\\clip1.mov");
    Put("DVC", "1", "DVC Header Info", "tape");
    Put("MDUM", "1", "Clip 1", "one!");

    const TRunResult result = Run({"ls", fDatabase});
    ASSERT_EQ(result.fExitCode, kExitOK) << result.fErr;
    const std::vector<std::string> lines = SplitLines(result.fOut);
    ASSERT_EQ(lines.size(), 6u) << result.fOut;
    EXPECT_EQ(lines[0], "TYPE             ID        SIZE  NAME");
    EXPECT_EQ(lines[1], "'DVC '            1           4  DVC Header Info");
    EXPECT_EQ(lines[2], "'MDUM'            1           4  Clip 1");
    EXPECT_EQ(lines[3], "'MDUM'            2           3  Clip 2");
    EXPECT_EQ(lines[4], "'NFO!'       -16001          19  _File_Info_");
    EXPECT_EQ(lines[5], "'path'            1          12  Clip 1");
}

TEST_F(KavodvdbTest, ListOfOneTypeTakesItPaddedOrEscaped) {
    Put("DVC ", "1", "DVC Header Info", "tape");
    Put("DVC", "7", "Clip 7", "clip");
    Put("MDUM", "7", "Clip 7", "clip");

    const TRunResult padded = Run({"ls", fDatabase, "DVC"});
    ASSERT_EQ(padded.fExitCode, kExitOK) << padded.fErr;
    const std::vector<std::string> lines = SplitLines(padded.fOut);
    ASSERT_EQ(lines.size(), 3u) << padded.fOut;
    EXPECT_EQ(lines[1], "'DVC '            7           4  Clip 7");
    EXPECT_EQ(lines[2], "'DVC '            1           4  DVC Header Info");
    EXPECT_EQ(Run({"ls", fDatabase, "DVC\\x20"}).fOut, padded.fOut);
    EXPECT_EQ(Run({"ls", fDatabase, "DVC "}).fOut, padded.fOut);

    const TRunResult none = Run({"ls", fDatabase, "WHER"});
    EXPECT_EQ(none.fExitCode, kExitOK);
    EXPECT_EQ(SplitLines(none.fOut).size(), 1u);
}

TEST_F(KavodvdbTest, ListAsJsonEscapesTypesAndNames) {
    Put("DVC", "-3", "say \"hi\" \\ now\t!", "x");
    Put("\\x01AB", "9", "plain", "");

    const TRunResult result = Run({"ls", "--json", fDatabase});
    ASSERT_EQ(result.fExitCode, kExitOK) << result.fErr;
    EXPECT_EQ(result.fOut,
              "[\n"
              "  {\"type\": \"\\u0001AB \", \"id\": 9, \"name\": \"plain\", \"size\": 0},\n"
              "  {\"type\": \"DVC \", \"id\": -3, \"name\": \"say \\\"hi\\\" \\\\ now\\t!\", \"size\": 1},\n"
              "  {\"type\": \"NFO!\", \"id\": -16001, \"name\": \"_File_Info_\", \"size\": 19}\n"
              "]\n");
}

TEST_F(KavodvdbTest, ListedTypesPasteBackIntoCommands) {
    Put("a\\\\b", "1", "backslash", "1");
    Put("it's", "2", "quote", "22");
    Put("\\x7f\\xff", "3", "unprintable", "333");
    Put("DV", "4", "short", "4444");

    const TRunResult list = Run({"ls", fDatabase});
    ASSERT_EQ(list.fExitCode, kExitOK) << list.fErr;
    const std::vector<std::string> lines = SplitLines(list.fOut);
    ASSERT_EQ(lines.size(), 6u) << list.fOut;
    for (std::size_t i = 1; i < lines.size(); ++i) {
        // 'type' as the shell would hand it over: without its quotes.
        const std::size_t close = lines[i].find('\'', 1);
        ASSERT_NE(close, std::string::npos) << lines[i];
        const std::string type = lines[i].substr(1, close - 1);
        std::int32_t id = 0;
        std::istringstream(lines[i].substr(close + 1)) >> id;
        const std::string idText = std::to_string(id);
        const TRunResult cat = Run({"cat", "--raw", fDatabase, type, idText});
        EXPECT_EQ(cat.fExitCode, kExitOK) << lines[i] << "\n" << cat.fErr;
    }
    EXPECT_NE(list.fOut.find("'a\\x5cb '"), std::string::npos) << list.fOut;
    EXPECT_NE(list.fOut.find("'it\\x27s'"), std::string::npos) << list.fOut;
    EXPECT_NE(list.fOut.find("'\\x7f\\xff  '"), std::string::npos) << list.fOut;
    EXPECT_NE(list.fOut.find("'DV  '"), std::string::npos) << list.fOut;
}

TEST_F(KavodvdbTest, CatRawGivesBackTheBytesPut) {
    const std::string data = RandomBytes(200000, 11) + std::string("\r\n\0\x1a", 4);
    Put("MDUM", "1", "Clip 1", data);

    const TRunResult byID = Run({"cat", "--raw", fDatabase, "MDUM", "1"});
    ASSERT_EQ(byID.fExitCode, kExitOK) << byID.fErr;
    EXPECT_TRUE(byID.fOut == data);
    const TRunResult byName = Run({"cat", "--raw", fDatabase, "MDUM", "Clip 1"});
    ASSERT_EQ(byName.fExitCode, kExitOK) << byName.fErr;
    EXPECT_TRUE(byName.fOut == data);
}

TEST_F(KavodvdbTest, CatShowsAHexDump) {
    Put("MDUM", "1", "Clip 1", std::string("Hello, world!\n\0\xff", 16) + "tail");

    const TRunResult result = Run({"cat", fDatabase, "MDUM", "1"});
    ASSERT_EQ(result.fExitCode, kExitOK) << result.fErr;
    EXPECT_EQ(result.fOut,
              "00000000  48 65 6c 6c 6f 2c 20 77  6f 72 6c 64 21 0a 00 ff  |Hello, world!...|\n"
              "00000010  74 61 69 6c                                       |tail|\n"
              "00000014\n");
}

TEST_F(KavodvdbTest, ANumberIsAnIDUnlessNameIsAsked) {
    Put("MDUM", "7", "42", "by name");
    Put("MDUM", "-5", "minus five", "negative");

    ExpectFailure(Run({"cat", "--raw", fDatabase, "MDUM", "42"}), kExitNotFound, "has no record 'MDUM' 42");
    const TRunResult byName = Run({"cat", "--raw", "--name", fDatabase, "MDUM", "42"});
    EXPECT_EQ(byName.fExitCode, kExitOK) << byName.fErr;
    EXPECT_EQ(byName.fOut, "by name");
    const TRunResult negative = Run({"cat", "--raw", fDatabase, "MDUM", "-5"});
    EXPECT_EQ(negative.fExitCode, kExitOK) << negative.fErr;
    EXPECT_EQ(negative.fOut, "negative");
    const TRunResult afterDashes = Run({"cat", "--raw", "--", fDatabase, "MDUM", "-5"});
    EXPECT_EQ(afterDashes.fOut, "negative");
}

TEST_F(KavodvdbTest, PutRefusesATakenIDOrNameUnlessReplacing) {
    Put("MDUM", "1", "Clip 1", "first");

    ExpectFailure(Run({"put", fDatabase, "MDUM", "1", "Other"}, "x"), kExitFailed, "exists already");
    ExpectFailure(Run({"put", fDatabase, "MDUM", "2", "Clip 1"}, "x"), kExitFailed, "exists already");
    const TRunResult replaced = Run({"put", "--replace", fDatabase, "MDUM", "1", "Clip 1"}, "second");
    EXPECT_EQ(replaced.fExitCode, kExitOK) << replaced.fErr;
    EXPECT_EQ(Run({"cat", "--raw", fDatabase, "MDUM", "1"}).fOut, "second");
}

TEST_F(KavodvdbTest, RemoveTakesAnIDOrAName) {
    Put("MDUM", "1", "Clip 1", "one");
    Put("MDUM", "2", "Clip 2", "two");
    Put("MDUM", "3", "3", "three");

    EXPECT_EQ(Run({"rm", fDatabase, "MDUM", "1"}).fExitCode, kExitOK);
    EXPECT_EQ(Run({"rm", fDatabase, "MDUM", "Clip 2"}).fExitCode, kExitOK);
    EXPECT_EQ(Run({"rm", "--name", fDatabase, "MDUM", "3"}).fExitCode, kExitOK);
    ExpectFailure(Run({"rm", fDatabase, "MDUM", "1"}), kExitNotFound, "has no record 'MDUM' 1");
    ExpectFailure(Run({"rm", fDatabase, "MDUM", "Clip 2"}), kExitNotFound, "has no record 'MDUM' \"Clip 2\"");
    EXPECT_EQ(SplitLines(Run({"ls", fDatabase, "MDUM"}).fOut).size(), 1u);
}

TEST_F(KavodvdbTest, AboutPrintsTheAboutText) {
    ExpectFailure(Run({"about", fDatabase}), kExitNotFound, "has no about text");
    SetAboutText("Holiday clips, summer 2026.");

    const TRunResult result = Run({"about", fDatabase});
    EXPECT_EQ(result.fExitCode, kExitOK) << result.fErr;
    EXPECT_EQ(result.fOut, "Holiday clips, summer 2026.\n");
}

TEST_F(KavodvdbTest, InfoShowsCodesPlatformCountsAndSize) {
    Put("MDUM", "1", "Clip 1", "one");
    Put("MDUM", "2", "Clip 2", "two");
    Put("DVC", "1", "DVC Header Info", "tape");
    SetAboutText("About");

    const TRunResult result = Run({"info", fDatabase});
    ASSERT_EQ(result.fExitCode, kExitOK) << result.fErr;
    const std::string size = std::to_string(std::filesystem::file_size(fDatabase));
    EXPECT_EQ(result.fOut, "file        " + fDatabase +
                               "\n"
                               "creator     'TEST'\n"
                               "file type   'DVC '\n"
                               "platform    windows\n"
                               "records     5\n"
                               "  'BOUT'    1\n"
                               "  'DVC '    1\n"
                               "  'MDUM'    2\n"
                               "  'NFO!'    1\n"
                               "about text  6 bytes\n"
                               "file size   " +
                               size + " bytes\n");

    const TRunResult json = Run({"info", "--json", fDatabase});
    ASSERT_EQ(json.fExitCode, kExitOK) << json.fErr;
    EXPECT_EQ(json.fOut, "{\"file\": \"" + fDatabase +
                             "\", \"creator\": \"TEST\", \"fileType\": \"DVC \", \"platform\": \"windows\", "
                             "\"fileInfo\": true,\n"
                             " \"records\": 5, \"types\": [{\"type\": \"BOUT\", \"count\": 1}, "
                             "{\"type\": \"DVC \", \"count\": 1}, {\"type\": \"MDUM\", \"count\": 2}, "
                             "{\"type\": \"NFO!\", \"count\": 1}],\n"
                             " \"aboutSize\": 6, \"size\": " +
                             size + "}\n");
}

TEST_F(KavodvdbTest, InfoOfAFileWithoutFileInfoShowsUnknownCodes) {
    EXPECT_EQ(Run({"rm", fDatabase, "NFO!", "-16001"}).fExitCode, kExitOK);

    const TRunResult result = Run({"info", fDatabase});
    ASSERT_EQ(result.fExitCode, kExitOK) << result.fErr;
    EXPECT_NE(result.fOut.find("creator     '\?\?\?\?'  (no file-info record)\n"), std::string::npos)
        << result.fOut;
    EXPECT_NE(result.fOut.find("file type   '\?\?\?\?'  (no file-info record)\n"), std::string::npos);
    EXPECT_NE(result.fOut.find("platform    ?OS\n"), std::string::npos);
    EXPECT_NE(result.fOut.find("records     0\n"), std::string::npos);
    EXPECT_NE(result.fOut.find("about text  none\n"), std::string::npos);
}

TEST_F(KavodvdbTest, VerifyOfASoundFileSummarisesAndExitsZero) {
    FillDatabase(50);

    const TRunResult result = Run({"verify", fDatabase});
    EXPECT_EQ(result.fExitCode, kExitOK) << result.fErr;
    EXPECT_EQ(result.fErr, "");
    const std::string size = std::to_string(std::filesystem::file_size(fDatabase));
    EXPECT_NE(result.fOut.find("  file size    " + size + " bytes\n"), std::string::npos) << result.fOut;
    EXPECT_NE(result.fOut.find("  records      51\n"), std::string::npos) << result.fOut;
    EXPECT_NE(result.fOut.find("  keys         102\n"), std::string::npos) << result.fOut;
    EXPECT_NE(result.fOut.find("  pages        "), std::string::npos);
    EXPECT_NE(result.fOut.find("  free pages   "), std::string::npos);
    EXPECT_NE(result.fOut.find("is sound\n"), std::string::npos);
    // Not a terminal and not a large file: no progress line.
    EXPECT_EQ(result.fOut.find('\r'), std::string::npos);
}

TEST_F(KavodvdbTest, VerifyShowsAProgressLineWhenAsked) {
    FillDatabase(50);

    const TRunResult result = Run({"verify", "--progress", fDatabase});
    EXPECT_EQ(result.fExitCode, kExitOK) << result.fErr;
    EXPECT_NE(result.fOut.find("\rchecking page "), std::string::npos) << result.fOut;
    EXPECT_NE(result.fOut.find("is sound\n"), std::string::npos);
}

TEST_F(KavodvdbTest, ReadingCommandsOpenTheFileReadOnly) {
    Put("MDUM", "1", "Clip 1", "one");
    SetAboutText("About");
    const std::string before = ReadFileBytes(fDatabase);
    {
        // A reader beside us does not stop reading; it stops writing.
        THeldDatabase reader(fDatabase, kPermissionReadOnly);
        for (const char* command : {"info", "ls", "about", "verify"}) {
            const TRunResult result = Run({command, fDatabase});
            EXPECT_EQ(result.fExitCode, kExitOK) << command << ": " << result.fErr;
        }
        EXPECT_EQ(Run({"cat", fDatabase, "MDUM", "1"}).fExitCode, kExitOK);
        ExpectFailure(Run({"put", fDatabase, "MDUM", "2", "Clip 2"}, "two"), kExitDamaged, "in use");
        ExpectFailure(Run({"rm", fDatabase, "MDUM", "1"}), kExitDamaged, "in use");
    }
    EXPECT_TRUE(ReadFileBytes(fDatabase) == before);
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(fDirectory.Path())) files += entry.exists();
    EXPECT_EQ(files, 1u);
}

TEST_F(KavodvdbTest, AFileHeldForWritingCannotBeOpened) {
    THeldDatabase writer(fDatabase, kPermissionReadWrite);

    ExpectFailure(Run({"info", fDatabase}), kExitDamaged, "in use by another program");
    ExpectFailure(Run({"put", fDatabase, "MDUM", "2", "Clip 2"}, "two"), kExitDamaged,
                  "in use by another program");
}

// ---------------------------------------------------------------------------
// The command line

TEST_F(KavodvdbTest, EveryCommandHasHelp) {
    for (const std::string& command : kCommands) {
        const TRunResult result = Run({command, "--help"});
        EXPECT_EQ(result.fExitCode, kExitOK) << command;
        EXPECT_EQ(result.fOut.rfind("usage: kavodvdb " + command + " ", 0), 0u) << result.fOut;
        EXPECT_EQ(Run({"help", command}).fOut, result.fOut);
    }
    const TRunResult general = Run({"--help"});
    EXPECT_EQ(general.fExitCode, kExitOK);
    EXPECT_NE(general.fOut.find("DVC means 'DVC '"), std::string::npos);
    EXPECT_NE(general.fOut.find("exit status:"), std::string::npos);
}

TEST_F(KavodvdbTest, AWrongCommandLineIsAUsageError) {
    ExpectFailure(Run({}), kExitUsage, "no command given");
    ExpectFailure(Run({"frobnicate", fDatabase}), kExitUsage, "no command frobnicate");
    ExpectFailure(Run({"ls"}), kExitUsage, "too few arguments for ls");
    ExpectFailure(Run({"info", fDatabase, "extra"}), kExitUsage, "too many arguments for info");
    ExpectFailure(Run({"ls", "--raw", fDatabase}), kExitUsage, "unknown option --raw for ls");
    ExpectFailure(Run({"ls", "-x", fDatabase}), kExitUsage, "unknown option -x for ls");
    ExpectFailure(Run({"cat", fDatabase, "TOOLONG", "1"}), kExitUsage, "bad type \"TOOLONG\"");
    ExpectFailure(Run({"cat", fDatabase, "", "1"}), kExitUsage, "it is empty");
    ExpectFailure(Run({"cat", fDatabase, "A\\q", "1"}), kExitUsage, "unknown escape \\q");
    ExpectFailure(Run({"cat", fDatabase, "A\\x4", "1"}), kExitUsage, "\\x needs two hexadecimal digits");
    ExpectFailure(Run({"cat", fDatabase, "MDUM", std::string(32, 'n')}), kExitUsage, "at most 31 characters");
    ExpectFailure(Run({"put", fDatabase, "MDUM", "one", "Clip 1"}), kExitUsage, "bad ID \"one\"");
    ExpectFailure(Run({"put", fDatabase, "MDUM", "2147483648", "Clip 1"}), kExitUsage, "bad ID");
    EXPECT_EQ(Run({"put", fDatabase, "MDUM", "-2147483648", "lowest"}).fExitCode, kExitOK);
}

// ---------------------------------------------------------------------------
// Files that are not sound databases

TEST_F(KavodvdbTest, AMissingFileIsReportedByEveryCommand) {
    for (const std::string& command : kCommands) {
        const TRunResult result = Run(ArgumentsFor(command, "missing.kdb"), "data");
        ExpectFailure(result, kExitCannotOpen, "cannot open missing.kdb: no such file");
        EXPECT_EQ(result.fOut, "") << command;
    }
    EXPECT_FALSE(std::filesystem::exists(fDirectory.File("missing.kdb")));
    ExpectFailure(Run({"info", fDirectory.Path()}), kExitCannotOpen, "it is a directory");
}

TEST_F(KavodvdbTest, ForeignFilesAreRefusedAndLeftAsTheyWere) {
    const std::string randomFile = fDirectory.File("random.bin");
    const std::string textFile = fDirectory.File("notes.txt");
    WriteFileBytes(randomFile, RandomBytes(3 * kPageBytes + 100, 3));
    WriteFileBytes(textFile, "Shopping list\nmilk\nbread\n");

    for (const std::string& file : {randomFile, textFile}) {
        const std::string before = ReadFileBytes(file);
        for (const std::string& command : kCommands) {
            const TRunResult result = Run(ArgumentsFor(command, file), "data");
            ExpectFailure(result, kExitDamaged,
                          "cannot " + std::string(command == "verify" ? "check " : "open ") + file +
                              ": not a database file");
        }
        EXPECT_TRUE(ReadFileBytes(file) == before) << file;
    }
}

TEST_F(KavodvdbTest, AnEmptyFileIsRefused) {
    const std::string empty = fDirectory.File("empty.kdb");
    WriteFileBytes(empty, "");

    for (const std::string& command : kCommands)
        ExpectFailure(Run(ArgumentsFor(command, empty), "data"), kExitDamaged, "the file is empty");
    EXPECT_EQ(std::filesystem::file_size(empty), 0u);
}

TEST_F(KavodvdbTest, BitFlipsInEveryPageAreFoundAndNeverCrash) {
    FillDatabase(200);
    std::string bytes = ReadFileBytes(fDatabase);
    ASSERT_GT(bytes.size(), 4 * kPageBytes);
    // Page 0 is the file's header; every other page gets one flipped bit.
    for (std::size_t page = kPageBytes; page < bytes.size(); page += kPageBytes) bytes[page + 2000] ^= 0x20;
    WriteFileBytes(fDatabase, bytes);

    // The damage is found when the file opens (its free list is read then)
    // or by the check; either way it is reported as damage.
    const TRunResult verify = Run({"verify", fDatabase});
    ASSERT_TRUE(verify.fExited);
    EXPECT_EQ(verify.fExitCode, kExitDamaged);
    EXPECT_NE(verify.fErr.find("damaged"), std::string::npos) << verify.fErr;

    for (const char* command : {"info", "ls", "cat", "about", "put", "rm"}) {
        const TRunResult result = Run(ArgumentsFor(command, fDatabase), "data");
        ASSERT_TRUE(result.fExited) << command << " crashed";
        EXPECT_TRUE(result.fExitCode == kExitDamaged || result.fExitCode == kExitFailed)
            << command << ": " << result.fExitCode;
        EXPECT_NE(result.fErr.find("damaged"), std::string::npos) << command << ": " << result.fErr;
    }
}

TEST_F(KavodvdbTest, BitFlipsInTheMiddleAreFoundByVerify) {
    FillDatabase(200);
    std::string bytes = ReadFileBytes(fDatabase);
    for (std::size_t at = bytes.size() / 2; at < bytes.size() / 2 + 64; at += 8) bytes[at] ^= 0x01;
    WriteFileBytes(fDatabase, bytes);

    const TRunResult verify = Run({"verify", fDatabase});
    ASSERT_TRUE(verify.fExited);
    EXPECT_EQ(verify.fExitCode, kExitDamaged) << verify.fOut;
    for (const std::string& command : kCommands) {
        const TRunResult result = Run(ArgumentsFor(command, fDatabase), "data");
        ASSERT_TRUE(result.fExited) << command << " crashed";
        EXPECT_TRUE(result.fExitCode == kExitOK || result.fExitCode == kExitDamaged ||
                    result.fExitCode == kExitNotFound || result.fExitCode == kExitFailed)
            << command << ": " << result.fExitCode;
        if (result.fExitCode != kExitOK) {
            EXPECT_NE(result.fErr.find("kavodvdb: "), std::string::npos) << command;
        }
    }
}

TEST_F(KavodvdbTest, ATruncatedFileIsRefused) {
    FillDatabase(200);
    const std::string bytes = ReadFileBytes(fDatabase);
    const std::string halfPages = fDirectory.File("half.kdb");
    const std::string ragged = fDirectory.File("ragged.kdb");
    WriteFileBytes(halfPages, bytes.substr(0, bytes.size() / kPageBytes / 2 * kPageBytes));
    WriteFileBytes(ragged, bytes.substr(0, bytes.size() - 1000));

    for (const std::string& file : {halfPages, ragged}) {
        for (const std::string& command : kCommands)
            ExpectFailure(Run(ArgumentsFor(command, file), "data"), kExitDamaged,
                          "not a database file, or damaged");
    }
}

}  // namespace
