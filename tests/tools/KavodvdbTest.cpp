// kavodvdb, driven as a program: on databases that the tests make, and on
// files that are missing, foreign, empty or damaged.
#include <cstdint>
#include <filesystem>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "kavoDVDB.h"
#include "tests/support/KavoTest.h"
#include "tests/tools/ToolRunner.h"

namespace {

using kavotest::ReadFileBytes;
using kavotest::RunProgram;
using kavotest::TRunResult;
using kavotest::WriteFileBytes;

constexpr std::uint32_t kCreator = 0x54455354;   // 'TEST'
constexpr std::uint32_t kFileType = 0x44564320;  // 'DVC '
constexpr std::size_t kPageBytes = 4096;

// The exit codes, 0 to 5.
enum { kExitOK, kExitDamaged, kExitUsage, kExitCannotOpen, kExitNotFound, kExitFailed };

const std::vector<std::string> kCommands = {"info", "ls", "cat", "about", "verify", "put", "rm"};
const std::string kListHeader = "TYPE             ID        SIZE  NAME\n";

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

    // What a command that must succeed writes.
    std::string Output(const std::vector<std::string>& arguments, const std::string& input = "") {
        const TRunResult result = Run(arguments, input);
        EXPECT_TRUE(result.fExited && result.fExitCode == kExitOK)
            << arguments[0] << " ended with " << result.fExitCode << ": " << result.fErr;
        return result.fOut;
    }

    void Put(const std::string& type, const std::string& id, const std::string& name,
             const std::string& data) {
        EXPECT_EQ(Output({"put", fDatabase, type, id, name}, data), "");
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

TEST_F(KavodvdbTest, ListShowsEveryRecordInTheFilesOrderOrThoseOfOneType) {
    Put("MDUM", "2", "Clip 2", "two");
    Put("path", "1", "Clip 1", "C:\\clip1.mov");
    Put("DVC", "1", "DVC Header Info", "tape");
    Put("DVC ", "7", "Clip 7", "clip");
    Put("MDUM", "1", "Clip 1", "one!");

    const std::string dvc =
        "'DVC '            7           4  Clip 7\n"
        "'DVC '            1           4  DVC Header Info\n";
    EXPECT_EQ(Output({"ls", fDatabase}), kListHeader + dvc +
                                             "'MDUM'            1           4  Clip 1\n"
                                             "'MDUM'            2           3  Clip 2\n"
                                             "'NFO!'       -16001          19  _File_Info_\n"
                                             "'path'            1          12  Clip 1\n");
    // A type is taken short, padded or escaped.
    for (const char* type : {"DVC", "DVC ", "DVC\\x20"})
        EXPECT_EQ(Output({"ls", fDatabase, type}), kListHeader + dvc);
    EXPECT_EQ(Output({"ls", fDatabase, "WHER"}), kListHeader);
}

TEST_F(KavodvdbTest, ListAsJsonEscapesTypesAndNames) {
    Put("DVC", "-3", "say \"hi\" \\ now\t!", "x");
    Put("\\x01AB", "9", "plain", "");

    EXPECT_EQ(Output({"ls", "--json", fDatabase}),
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

    const std::string list = Output({"ls", fDatabase});
    for (const char* type : {"'a\\x5cb '", "'it\\x27s'", "'\\x7f\\xff  '", "'DV  '"})
        EXPECT_NE(list.find(type), std::string::npos) << type << " in\n" << list;
    std::istringstream lines(list);
    std::string line;
    int records = 0;
    for (std::getline(lines, line); std::getline(lines, line); ++records) {
        // 'type' as the shell would hand it over: without its quotes.
        const std::size_t close = line.find('\'', 1);
        ASSERT_NE(close, std::string::npos) << line;
        std::int32_t id = 0;
        std::size_t size = 0;
        std::istringstream(line.substr(close + 1)) >> id >> size;
        EXPECT_EQ(Output({"cat", "--raw", fDatabase, line.substr(1, close - 1), std::to_string(id)}).size(),
                  size)
            << line;
    }
    EXPECT_EQ(records, 5) << list;
}

TEST_F(KavodvdbTest, CatGivesARecordByIDOrNameRawOrAsAHexDump) {
    const std::string data = RandomBytes(200000, 11) + std::string("\r\n\0\x1a", 4);
    Put("MDUM", "1", "Clip 1", data);
    Put("MDUM", "2", "Clip 2", std::string("Hello, world!\n\0\xff", 16) + "tail");
    Put("MDUM", "7", "42", "by name");
    Put("MDUM", "-5", "minus five", "negative");

    EXPECT_TRUE(Output({"cat", "--raw", fDatabase, "MDUM", "1"}) == data);
    EXPECT_TRUE(Output({"cat", "--raw", fDatabase, "MDUM", "Clip 1"}) == data);
    EXPECT_EQ(Output({"cat", fDatabase, "MDUM", "2"}),
              "00000000  48 65 6c 6c 6f 2c 20 77  6f 72 6c 64 21 0a 00 ff  |Hello, world!...|\n"
              "00000010  74 61 69 6c                                       |tail|\n"
              "00000014\n");
    // A number is an ID unless a name is asked for, and a negative one is no option.
    ExpectFailure(Run({"cat", "--raw", fDatabase, "MDUM", "42"}), kExitNotFound, "has no record 'MDUM' 42");
    EXPECT_EQ(Output({"cat", "--raw", "--name", fDatabase, "MDUM", "42"}), "by name");
    EXPECT_EQ(Output({"cat", "--raw", fDatabase, "MDUM", "-5"}), "negative");
    EXPECT_EQ(Output({"cat", "--raw", "--", fDatabase, "MDUM", "-5"}), "negative");
}

TEST_F(KavodvdbTest, PutRefusesATakenIDOrNameUnlessReplacingAndRemoveTakesEither) {
    Put("MDUM", "1", "Clip 1", "first");
    Put("MDUM", "2", "Clip 2", "two");
    Put("MDUM", "3", "3", "three");

    ExpectFailure(Run({"put", fDatabase, "MDUM", "1", "Other"}, "x"), kExitFailed, "exists already");
    ExpectFailure(Run({"put", fDatabase, "MDUM", "4", "Clip 1"}, "x"), kExitFailed, "exists already");
    EXPECT_EQ(Output({"put", "--replace", fDatabase, "MDUM", "1", "Clip 1"}, "second"), "");
    EXPECT_EQ(Output({"cat", "--raw", fDatabase, "MDUM", "1"}), "second");

    EXPECT_EQ(Output({"rm", fDatabase, "MDUM", "1"}), "");
    EXPECT_EQ(Output({"rm", fDatabase, "MDUM", "Clip 2"}), "");
    EXPECT_EQ(Output({"rm", "--name", fDatabase, "MDUM", "3"}), "");
    ExpectFailure(Run({"rm", fDatabase, "MDUM", "1"}), kExitNotFound, "has no record 'MDUM' 1");
    ExpectFailure(Run({"rm", fDatabase, "MDUM", "Clip 2"}), kExitNotFound, "has no record 'MDUM' \"Clip 2\"");
    EXPECT_EQ(Output({"ls", fDatabase, "MDUM"}), kListHeader);
}

TEST_F(KavodvdbTest, InfoAndAboutShowCodesPlatformCountsSizeAndTheAboutText) {
    ExpectFailure(Run({"about", fDatabase}), kExitNotFound, "has no about text");
    EXPECT_NE(Output({"info", fDatabase}).find("about text  none\n"), std::string::npos);
    Put("MDUM", "1", "Clip 1", "one");
    Put("MDUM", "2", "Clip 2", "two");
    Put("DVC", "1", "DVC Header Info", "tape");
    SetAboutText("Holiday clips, summer 2026.");
    EXPECT_EQ(Output({"about", fDatabase}), "Holiday clips, summer 2026.\n");

    const std::string size = std::to_string(std::filesystem::file_size(fDatabase));
    EXPECT_EQ(Output({"info", fDatabase}), "file        " + fDatabase +
                                               "\n"
                                               "creator     'TEST'\n"
                                               "file type   'DVC '\n"
                                               "platform    windows\n"
                                               "records     5\n"
                                               "  'BOUT'    1\n"
                                               "  'DVC '    1\n"
                                               "  'MDUM'    2\n"
                                               "  'NFO!'    1\n"
                                               "about text  28 bytes\n"
                                               "file size   " +
                                               size + " bytes\n");
    EXPECT_EQ(Output({"info", "--json", fDatabase}),
              "{\"file\": \"" + fDatabase +
                  "\", \"creator\": \"TEST\", \"fileType\": \"DVC \", \"platform\": \"windows\", "
                  "\"fileInfo\": true,\n"
                  " \"records\": 5, \"types\": [{\"type\": \"BOUT\", \"count\": 1}, "
                  "{\"type\": \"DVC \", \"count\": 1}, {\"type\": \"MDUM\", \"count\": 2}, "
                  "{\"type\": \"NFO!\", \"count\": 1}],\n"
                  " \"aboutSize\": 28, \"size\": " +
                  size + "}\n");

    // Without its file-info record the codes are unknown.
    EXPECT_EQ(Output({"rm", fDatabase, "NFO!", "-16001"}), "");
    const std::string info = Output({"info", fDatabase});
    for (const char* line :
         {"creator     '\?\?\?\?'  (no file-info record)\n",
          "file type   '\?\?\?\?'  (no file-info record)\n", "platform    ?OS\n", "records     4\n"})
        EXPECT_NE(info.find(line), std::string::npos) << line << " in\n" << info;
}

TEST_F(KavodvdbTest, VerifyOfASoundFileSummarisesWithAProgressLineOnlyWhenAsked) {
    FillDatabase(50);

    const TRunResult result = Run({"verify", fDatabase});
    EXPECT_EQ(result.fExitCode, kExitOK) << result.fErr;
    EXPECT_EQ(result.fErr, "");
    const std::string size = std::to_string(std::filesystem::file_size(fDatabase));
    for (const std::string& line : {"  file size    " + size + " bytes\n", std::string("  records      51\n"),
                                    std::string("  keys         102\n"), std::string("  pages        "),
                                    std::string("  free pages   "), std::string("is sound\n")})
        EXPECT_NE(result.fOut.find(line), std::string::npos) << line << " in\n" << result.fOut;
    // Not a terminal and not a large file: no progress line unless asked.
    EXPECT_EQ(result.fOut.find('\r'), std::string::npos);
    const std::string progress = Output({"verify", "--progress", fDatabase});
    EXPECT_NE(progress.find("\rchecking page "), std::string::npos) << progress;
    EXPECT_NE(progress.find("is sound\n"), std::string::npos);
}

TEST_F(KavodvdbTest, ReadingCommandsOpenTheFileReadOnlyAndAWriterShutsOutEveryCommand) {
    Put("MDUM", "1", "Clip 1", "one");
    SetAboutText("About");
    const std::string before = ReadFileBytes(fDatabase);
    {
        // A reader beside us does not stop reading; it stops writing.
        THeldDatabase reader(fDatabase, kPermissionReadOnly);
        for (const char* command : {"info", "ls", "about", "verify"}) Output({command, fDatabase});
        Output({"cat", fDatabase, "MDUM", "1"});
        ExpectFailure(Run({"put", fDatabase, "MDUM", "2", "Clip 2"}, "two"), kExitDamaged, "in use");
        ExpectFailure(Run({"rm", fDatabase, "MDUM", "1"}), kExitDamaged, "in use");
    }
    EXPECT_TRUE(ReadFileBytes(fDatabase) == before);
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(fDirectory.Path())) files += entry.exists();
    EXPECT_EQ(files, 1u);

    THeldDatabase writer(fDatabase, kPermissionReadWrite);
    ExpectFailure(Run({"info", fDatabase}), kExitDamaged, "in use by another program");
    ExpectFailure(Run({"put", fDatabase, "MDUM", "2", "Clip 2"}, "two"), kExitDamaged,
                  "in use by another program");
}

// ---------------------------------------------------------------------------
// The command line

TEST_F(KavodvdbTest, EveryCommandHasHelp) {
    for (const std::string& command : kCommands) {
        const std::string help = Output({command, "--help"});
        EXPECT_EQ(help.rfind("usage: kavodvdb " + command + " ", 0), 0u) << help;
        EXPECT_EQ(Output({"help", command}), help);
    }
    const std::string general = Output({"--help"});
    EXPECT_NE(general.find("DVC means 'DVC '"), std::string::npos);
    EXPECT_NE(general.find("exit status:"), std::string::npos);
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
    EXPECT_EQ(Output({"put", fDatabase, "MDUM", "-2147483648", "lowest"}), "");
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

// Every command refuses a file that cannot be opened as a database, naming
// the file and the reason, or one whose damage it meets, and leaves the file
// as it was. The check finds all damage; where a command does not meet it,
// the command may succeed, but no command crashes.
TEST_F(KavodvdbTest, ForeignEmptyTruncatedAndDamagedFilesAreRefusedCleanly) {
    FillDatabase(200);
    const std::string sound = ReadFileBytes(fDatabase);
    ASSERT_GT(sound.size(), 4 * kPageBytes);
    // Page 0 is the file's header; every other page gets one flipped bit, and
    // so does the file's middle.
    std::string everyPage = sound;
    for (std::size_t page = kPageBytes; page < sound.size(); page += kPageBytes)
        everyPage[page + 2000] ^= 0x20;
    std::string middle = sound;
    for (std::size_t at = sound.size() / 2; at < sound.size() / 2 + 64; at += 8) middle[at] ^= 0x01;

    const std::string notADatabase = "not a database file, or damaged";
    const struct {
        std::string fName;
        std::string fBytes;
        std::string fReason;  // "damaged": met on opening or later; empty: need not be met at all
    } files[] = {
        {"random.bin", RandomBytes(3 * kPageBytes + 100, 3), notADatabase},
        {"notes.txt", "Shopping list\nmilk\nbread\n", notADatabase},
        {"empty.kdb", "", "the file is empty"},
        {"half.kdb", sound.substr(0, sound.size() / kPageBytes / 2 * kPageBytes), notADatabase},
        {"ragged.kdb", sound.substr(0, sound.size() - 1000), notADatabase},
        {"every-page.kdb", everyPage, "damaged"},
        {"middle.kdb", middle, ""},
    };
    for (const auto& file : files) {
        const std::string path = fDirectory.File(file.fName);
        WriteFileBytes(path, file.fBytes);
        for (const std::string& command : kCommands) {
            SCOPED_TRACE(command + " on " + file.fName);
            const TRunResult result = Run(ArgumentsFor(command, path), "data");
            const bool verify = command == "verify";
            if (file.fReason == "damaged") {  // met when the file opens, or later
                ExpectFailure(result, !verify && result.fExitCode == kExitFailed ? kExitFailed : kExitDamaged,
                              "damaged");
            } else if (!file.fReason.empty()) {
                ExpectFailure(result, kExitDamaged,
                              (verify ? "cannot check " : "cannot open ") + path + ": " + file.fReason);
            } else if (verify || result.fExitCode != kExitOK) {
                ExpectFailure(result, verify ? kExitDamaged : result.fExitCode, "");
                EXPECT_EQ(std::set<int>({kExitDamaged, kExitNotFound, kExitFailed}).count(result.fExitCode),
                          1u);
            }
            if (!file.fReason.empty()) {
                EXPECT_TRUE(ReadFileBytes(path) == file.fBytes) << "the file changed";
            }
        }
    }
}

}  // namespace
