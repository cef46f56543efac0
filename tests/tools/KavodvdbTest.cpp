// kavodvdb, driven as a program: on databases that the tests make, and on
// files that are missing, foreign, empty or damaged.
#include <cstdint>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "kavoDVDB.h"
#include "tests/support/KavoTest.h"
#include "tests/tools/ToolRunner.h"

namespace {

using kavotest::ReadFileBytes;
using kavotest::TRunResult;

constexpr std::size_t kPageBytes = 4096;

// The exit codes, 0 to 5.
enum { kExitOK, kExitDamaged, kExitUsage, kExitCannotOpen, kExitNotFound, kExitFailed };

const std::vector<std::string> kCommands = {"info", "ls", "cat", "about", "verify", "put", "rm", "compact"};
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

// 104857600 as 104,857,600, as compact prints sizes.
std::string WithCommas(std::uintmax_t value) {
    std::string digits = std::to_string(value);
    for (std::size_t at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, ",");
    return digits;
}

// Adds the record 'MDUM' id "Clip <id>" through the RM functions, as a host
// does; the library's code.
std::int16_t AddClip(std::int16_t refNum, int id, const std::string& data) {
    MSHandle handle = nullptr;
    std::int16_t result = MSNewHandle(&handle, 0);
    if (result == kNoError)
        result = MSCopyBlockToHandle(data.data(), &handle, static_cast<std::uint32_t>(data.size()));
    if (result == kNoError)
        result = RMAddNewRecord(refNum, "MDUM", ("Clip " + std::to_string(id)).c_str(), id, handle);
    if (result == kNoError) return RMReleaseRecord(handle);
    if (handle != nullptr) MSDisposeHandle(handle);
    return result;
}

std::uint64_t LittleEndianAt(const std::string& bytes, std::size_t at, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = width; i-- > 0;) value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
    return value;
}

// Where each whole-headed frame of a database's log ends (one past its
// payload's checksum), read as engine/FileFormat.md gives them ("Header
// slots", "Log frames"): from the first byte of the log's first extent named
// by the header slot with the higher sequence number, while the salt and the
// frame number are those expected. The logs the tests make fit their first
// extent.
std::vector<std::size_t> LogFrameEnds(const std::string& file) {
    const std::size_t slot =
        LittleEndianAt(file, kPageBytes + 16, 8) > LittleEndianAt(file, 16, 8) ? kPageBytes : 0;
    const std::uint64_t salt = LittleEndianAt(file, slot + 48, 4);
    std::size_t at = LittleEndianAt(file, slot + 40, 4) * kPageBytes;
    std::vector<std::size_t> ends;
    while (at + 24 <= file.size() && LittleEndianAt(file, at, 4) == salt &&
           LittleEndianAt(file, at + 4, 4) == ends.size()) {
        at += 24 + LittleEndianAt(file, at + 8, 4) + 4;
        ends.push_back(at);
    }
    return ends;
}

// A database held open in this process, as another program would hold it.
struct THeldDatabase {
    THeldDatabase(const std::string& path, std::int16_t permission) {
        EXPECT_EQ(InitRMRezManager(), kNoError);
        EXPECT_EQ(RMOpen(path.c_str(), permission, &fRefNum), kNoError);
    }
    ~THeldDatabase() {
        RMClose(fRefNum);
        KillRMRezManager();
    }
    std::int16_t fRefNum = 0;
};

class KavodvdbTest : public kavotest::KavoTest {
protected:
    void SetUp() override {
        ASSERT_EQ(InitRMRezManager(), kNoError);
        ASSERT_EQ(RMCreate(fDatabase.c_str(), 0x54455354, 0x44564320), kNoError);  // 'TEST', 'DVC '
        ASSERT_EQ(KillRMRezManager(), kNoError);
    }
    ~KavodvdbTest() override { std::filesystem::remove_all(fDirectory); }

    TRunResult Run(const std::vector<std::string>& arguments, const std::string& input = "") {
        return kavotest::RunProgram(KAVODVDB_PATH, arguments, fDirectory, input);
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

    // The about text is the record "BOUT" 1 "About Media File", with a NUL.
    void SetAboutText(const std::string& text) {
        Put("BOUT", "1", "About Media File", std::string(text.c_str(), text.size() + 1));
    }

    // The program ended by itself with the code and said the message.
    static void ExpectFailure(const TRunResult& result, int exitCode, const std::string& message) {
        ASSERT_TRUE(result.fExited) << "the program crashed";
        EXPECT_EQ(result.fExitCode, exitCode) << result.fErr;
        EXPECT_NE(result.fErr.find("kavodvdb: "), std::string::npos) << result.fErr;
        EXPECT_NE(result.fErr.find(message), std::string::npos) << result.fErr;
    }

    const std::string fDirectory = kavotest::MakeScratchDirectory();
    const std::string fDatabase = fDirectory + "/media.kdb";
};

// ---------------------------------------------------------------------------
// A sound database

// ls lists in the file's order, or one type given short, padded or escaped;
// each type is quoted and escaped so that, without its quotes, it names its
// records again; JSON escapes types and names.
TEST_F(KavodvdbTest, ListingsShowEveryRecordWithTypesThatPasteBackIntoCommands) {
    const struct {
        const char* fType;
        const char* fListed;  // as ls shows it, without the quotes
        const char* fID;
        const char* fName;
        std::string fData;
    } records[] = {
        {"DVC", "DVC ", "7", "Clip 7", "clip"},
        {"DVC\\x20", "DVC ", "1", "DVC Header Info", ""},
        {"a\\\\b", "a\\x5cb ", "1", "backslash", "1"},
        {"it's", "it\\x27s", "2", "quote", "22"},
        {"\\x7f\\xff", "\\x7f\\xff  ", "3", "say \"hi\" \\ now\t!", "333"},
        {"\\x7f\\xff", "\\x7f\\xff  ", "-4", "Clip 4", "x"},
    };
    for (const auto& r : records) Put(r.fType, r.fID, r.fName, r.fData);

    const std::string dvc =
        "'DVC '            7           4  Clip 7\n"
        "'DVC '            1           0  DVC Header Info\n";
    EXPECT_EQ(Output({"ls", fDatabase}),
              kListHeader + dvc +
                  "'NFO!'       -16001          19  _File_Info_\n"
                  "'a\\x5cb '            1           1  backslash\n"
                  "'it\\x27s'            2           2  quote\n"
                  "'\\x7f\\xff  '           -4           1  Clip 4\n"
                  "'\\x7f\\xff  '            3           3  say \"hi\" \\ now\\x09!\n");
    for (const char* type : {"DVC", "DVC ", "DVC\\x20"})
        EXPECT_EQ(Output({"ls", fDatabase, type}), kListHeader + dvc);
    EXPECT_EQ(Output({"ls", fDatabase, "WHER"}), kListHeader);
    for (const auto& r : records)
        EXPECT_TRUE(Output({"cat", "--raw", fDatabase, r.fListed, r.fID}) == r.fData) << r.fListed;
    EXPECT_EQ(Output({"ls", "--json", fDatabase, "\\x7f\\xff"}),
              "[\n"
              "  {\"type\": \"\\u007f\xC3\xBF  \", \"id\": -4, \"name\": \"Clip 4\", \"size\": 1},\n"
              "  {\"type\": \"\\u007f\xC3\xBF  \", \"id\": 3, \"name\": \"say \\\"hi\\\" \\\\ now\\t!\", "
              "\"size\": 3}\n"
              "]\n");
}

// cat finds a record by ID or by name and writes it raw or as a hex dump;
// put replaces a record only when asked; rm takes an ID or a name.
TEST_F(KavodvdbTest, CatPutAndRemoveFindARecordByIDOrByName) {
    const std::string data = RandomBytes(200000, 11) + std::string("\r\n\0\x1a", 4);
    Put("MDUM", "1", "Clip 1", data);
    Put("MDUM", "2", "Clip 2", std::string("Hello, world!\n\0\xff", 16) + "tail");
    Put("MDUM", "7", "42", "by name");
    Put("MDUM", "-5", "minus five", "negative");

    EXPECT_TRUE(Output({"cat", "--raw", fDatabase, "MDUM", "1"}) == data);
    EXPECT_EQ(Output({"cat", fDatabase, "MDUM", "2"}),
              "00000000  48 65 6c 6c 6f 2c 20 77  6f 72 6c 64 21 0a 00 ff  |Hello, world!...|\n"
              "00000010  74 61 69 6c                                       |tail|\n"
              "00000014\n");
    // A number is an ID unless a name is asked for, and a negative one is no option.
    ExpectFailure(Run({"cat", "--raw", fDatabase, "MDUM", "42"}), kExitNotFound, "has no record 'MDUM' 42");
    EXPECT_EQ(Output({"cat", "--raw", "--name", fDatabase, "MDUM", "42"}), "by name");
    EXPECT_EQ(Output({"cat", "--raw", "--", fDatabase, "MDUM", "-5"}), "negative");

    EXPECT_EQ(Output({"put", "--replace", fDatabase, "MDUM", "1", "Clip 1"}, "second"), "");
    EXPECT_EQ(Output({"cat", "--raw", fDatabase, "MDUM", "1"}), "second");
    EXPECT_EQ(Output({"rm", fDatabase, "MDUM", "1"}), "");
    EXPECT_EQ(Output({"rm", fDatabase, "MDUM", "Clip 2"}), "");
    EXPECT_EQ(Output({"rm", "--name", fDatabase, "MDUM", "42"}), "");
    EXPECT_EQ(Output({"rm", fDatabase, "MDUM", "-5"}), "");
    EXPECT_EQ(Output({"ls", fDatabase, "MDUM"}), kListHeader);
}

// The reading commands open the file read-only: beside a reader, info shows
// the codes, platform, counts per type, about text and size, as text or JSON,
// and the others work too, while put and rm are stopped; the file and its
// directory stay as they were. Without its file-info record the codes are
// unknown. A writer beside them shuts out every command.
TEST_F(KavodvdbTest, ReadingCommandsShowTheFileBesideAReaderAndAWriterShutsOutEveryCommand) {
    EXPECT_NE(Output({"info", fDatabase}).find("about text  none\n"), std::string::npos);
    Put("MDUM", "1", "Clip 1", "one");
    Put("MDUM", "2", "Clip 2", "two");
    SetAboutText("Holiday clips, summer 2026.");
    const std::string before = ReadFileBytes(fDatabase);
    const std::string size = std::to_string(before.size());
    {
        THeldDatabase reader(fDatabase, kPermissionReadOnly);
        EXPECT_EQ(Output({"about", fDatabase}), "Holiday clips, summer 2026.\n");
        EXPECT_EQ(Output({"info", fDatabase}), "file        " + fDatabase +
                                                   "\n"
                                                   "creator     'TEST'\n"
                                                   "file type   'DVC '\n"
                                                   "platform    windows\n"
                                                   "records     4\n"
                                                   "  'BOUT'    1\n"
                                                   "  'MDUM'    2\n"
                                                   "  'NFO!'    1\n"
                                                   "about text  28 bytes\n"
                                                   "file size   " +
                                                   size + " bytes\n");
        EXPECT_EQ(Output({"info", "--json", fDatabase}),
                  "{\"file\": \"" + fDatabase +
                      "\", \"creator\": \"TEST\", \"fileType\": \"DVC \", \"platform\": \"windows\", "
                      "\"fileInfo\": true,\n"
                      " \"records\": 4, \"types\": [{\"type\": \"BOUT\", \"count\": 1}, "
                      "{\"type\": \"MDUM\", \"count\": 2}, {\"type\": \"NFO!\", \"count\": 1}],\n"
                      " \"aboutSize\": 28, \"size\": " +
                      size + "}\n");
        for (const char* command : {"ls", "verify"}) Output({command, fDatabase});
        Output({"cat", fDatabase, "MDUM", "1"});
        ExpectFailure(Run({"put", fDatabase, "MDUM", "3", "Clip 3"}, "three"), kExitDamaged, "in use");
        ExpectFailure(Run({"rm", fDatabase, "MDUM", "1"}), kExitDamaged, "in use");
        ExpectFailure(Run({"compact", fDatabase}), kExitDamaged, "in use");
    }
    EXPECT_TRUE(ReadFileBytes(fDatabase) == before);
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(fDirectory)) files += entry.exists();
    EXPECT_EQ(files, 1u);

    EXPECT_EQ(Output({"rm", fDatabase, "NFO!", "-16001"}), "");
    const std::string info = Output({"info", fDatabase});
    for (const char* line :
         {"creator     '\?\?\?\?'  (no file-info record)\n",
          "file type   '\?\?\?\?'  (no file-info record)\n", "platform    ?OS\n", "records     3\n"})
        EXPECT_NE(info.find(line), std::string::npos) << line << " in\n" << info;

    THeldDatabase writer(fDatabase, kPermissionReadWrite);
    ExpectFailure(Run({"info", fDatabase}), kExitDamaged, "in use by another program");
    ExpectFailure(Run({"put", fDatabase, "MDUM", "3", "Clip 3"}, "three"), kExitDamaged,
                  "in use by another program");
    ExpectFailure(Run({"compact", fDatabase}), kExitDamaged,
                  "cannot compact " + fDatabase + ": in use by another program");
}

// compact gives back what removals freed and keeps every record; a file of
// another format version is refused by every command, which names the version.
TEST_F(KavodvdbTest, CompactGivesBackFreeSpaceAndAnOlderFormatIsNamed) {
    {
        THeldDatabase held(fDatabase, kPermissionReadWrite);
        const std::string data = RandomBytes(2000, 11);
        for (int id = 1; id <= 400; ++id) ASSERT_EQ(AddClip(held.fRefNum, id, data), kNoError);
        for (int id = 1; id <= 400; ++id) {
            if (id % 50 == 0) continue;
            ASSERT_EQ(RMRemoveNumberedRecord(held.fRefNum, id, "MDUM"), kNoError);
        }
    }
    const std::string listed = Output({"ls", fDatabase});
    const std::uintmax_t before = std::filesystem::file_size(fDatabase);
    const std::string report = Output({"compact", fDatabase});
    const std::uintmax_t after = std::filesystem::file_size(fDatabase);
    EXPECT_LT(after, before / 4);
    EXPECT_EQ(report, fDatabase + ": " + WithCommas(before) + " bytes -> " + WithCommas(after) +
                          " bytes (gave back " + WithCommas(before - after) + ")\n");
    EXPECT_EQ(Output({"ls", fDatabase}), listed);
    EXPECT_NE(Output({"verify", fDatabase}).find("is sound"), std::string::npos);
    EXPECT_EQ(Output({"compact", "--json", fDatabase}),
              "{\"file\": \"" + fDatabase + "\", \"bytes_before\": " + std::to_string(after) +
                  ", \"bytes_after\": " + std::to_string(after) + "}\n");

    // Both header slots say version 1 (the version field is a little-endian
    // word at byte 8 of each).
    std::string older = ReadFileBytes(fDatabase);
    older[8] = 1;
    older[kPageBytes + 8] = 1;
    const std::string path = fDirectory + "/older.kdb";
    kavotest::WriteFileBytes(path, older);
    for (const std::string& command : kCommands) {
        SCOPED_TRACE(command);
        ExpectFailure(Run(ArgumentsFor(command, path), "data"), kExitDamaged,
                      "database format version 1; this library reads version 2");
    }
    EXPECT_TRUE(ReadFileBytes(path) == older);
}

// A copy of the file taken while a program holds it open is what that
// program leaves when it ends there: verify redoes and counts the operations
// logged since the last checkpoint and finds what a proper close would have
// kept. A damaged frame stops the redo and is named, with the whole frames
// found after it, which were acknowledged operations lost; when it was the
// last frame the file is sound.
TEST_F(KavodvdbTest, VerifyRedoesTheLogAProgramLeftAndNamesAFrameThatStopsIt) {
    std::string left;
    {
        THeldDatabase held(fDatabase, kPermissionReadWrite);
        for (int id = 1; id <= 5; ++id) ASSERT_EQ(AddClip(held.fRefNum, id, RandomBytes(500, id)), kNoError);
        left = ReadFileBytes(fDatabase);
    }
    const std::string closed = Output({"verify", fDatabase});
    EXPECT_NE(closed.find("  log          nothing since the last checkpoint\n"), std::string::npos) << closed;

    const std::vector<std::size_t> frames = LogFrameEnds(left);
    ASSERT_GE(frames.size(), 5u);
    const std::string count = std::to_string(frames.size());
    const std::string path = fDirectory + "/left.kdb";
    kavotest::WriteFileBytes(path, left);
    const TRunResult redone = Run({"verify", path});
    EXPECT_EQ(redone.fExitCode, kExitOK) << redone.fErr;
    EXPECT_NE(redone.fOut.find("  log          " + count + " operations since the last checkpoint, redone\n"),
              std::string::npos)
        << redone.fOut;
    // The counts are those of the closed file.
    const auto counts = [](const std::string& report) {
        return report.substr(report.find("  records "), report.find("  log ") - report.find("  records "));
    };
    EXPECT_EQ(counts(redone.fOut), counts(closed));

    // The last byte of a frame is its payload's checksum.
    std::string lastTorn = left;
    lastTorn[frames.back() - 1] ^= 0x01;
    kavotest::WriteFileBytes(path, lastTorn);
    const TRunResult torn = Run({"verify", path});
    EXPECT_EQ(torn.fExitCode, kExitOK) << torn.fErr;
    const std::string last = std::to_string(frames.size() - 1);
    EXPECT_NE(torn.fOut.find("  log          the log's frame " + last + " is damaged or incomplete; " + last +
                             " operations were redone before it\n"),
              std::string::npos)
        << torn.fOut;

    std::string firstTorn = left;
    firstTorn[frames.front() - 1] ^= 0x01;
    kavotest::WriteFileBytes(path, firstTorn);
    const TRunResult lost = Run({"verify", path});
    EXPECT_NE(lost.fOut.find("  log          the log's frame 0 is damaged or incomplete; 0 operations were "
                             "redone before it, and the whole frames after it were lost\n"),
              std::string::npos)
        << lost.fOut;
    // Whether lost operations make the file damaged is the check's to say:
    // verify fails exactly when it lists problems.
    ASSERT_TRUE(lost.fExited);
    EXPECT_EQ(lost.fExitCode == kExitDamaged, lost.fOut.find("\nproblems:\n") != std::string::npos)
        << lost.fOut;
}

// ---------------------------------------------------------------------------
// The command line and the failures

// Every command has its help, also through kavodvdb help COMMAND.
TEST_F(KavodvdbTest, EveryCommandHasHelp) {
    for (const std::string& command : kCommands) {
        const std::string help = Output({command, "--help"});
        EXPECT_EQ(help.rfind("usage: kavodvdb " + command + " ", 0), 0u) << help;
        EXPECT_EQ(Output({"help", command}), help);
    }
    EXPECT_NE(Output({"--help"}).find("exit status:"), std::string::npos);
}

// A wrong command line, a record that is missing or taken, a missing about
// text: each ends the program with its exit code and a message, and nothing
// on standard output; a failed put or rm leaves the records as they were.
TEST_F(KavodvdbTest, EveryFailureEndsWithItsExitCodeAndAMessage) {
    Put("MDUM", "1", "Clip 1", "one");
    const std::string listed = Output({"ls", fDatabase});
    const struct {
        std::vector<std::string> fArguments;
        int fExitCode;
        std::string fMessage;
    } failures[] = {
        {{}, kExitUsage, "no command given"},
        {{"frobnicate", fDatabase}, kExitUsage, "no command frobnicate"},
        {{"ls"}, kExitUsage, "too few arguments for ls"},
        {{"info", fDatabase, "extra"}, kExitUsage, "too many arguments for info"},
        {{"ls", "--raw", fDatabase}, kExitUsage, "unknown option --raw for ls"},
        {{"ls", "-x", fDatabase}, kExitUsage, "unknown option -x for ls"},
        {{"cat", fDatabase, "TOOLONG", "1"}, kExitUsage, "bad type \"TOOLONG\""},
        {{"cat", fDatabase, "", "1"}, kExitUsage, "it is empty"},
        {{"cat", fDatabase, "A\\q", "1"}, kExitUsage, "unknown escape \\q"},
        {{"cat", fDatabase, "A\\x4", "1"}, kExitUsage, "\\x needs two hexadecimal digits"},
        {{"cat", fDatabase, "MDUM", std::string(32, 'n')}, kExitUsage, "at most 31 characters"},
        {{"put", fDatabase, "MDUM", "one", "Clip 1"}, kExitUsage, "bad ID \"one\""},
        {{"put", fDatabase, "MDUM", "2147483648", "Clip 1"}, kExitUsage, "bad ID"},
        {{"info", fDirectory}, kExitCannotOpen, "it is a directory"},
        {{"put", fDatabase, "MDUM", "1", "Other"}, kExitFailed, "exists already"},
        {{"put", fDatabase, "MDUM", "4", "Clip 1"}, kExitFailed, "exists already"},
        {{"rm", fDatabase, "MDUM", "2"}, kExitNotFound, "has no record 'MDUM' 2"},
        {{"rm", fDatabase, "MDUM", "Clip 2"}, kExitNotFound, "has no record 'MDUM' \"Clip 2\""},
        {{"about", fDatabase}, kExitNotFound, "has no about text"},
    };
    for (const auto& failure : failures) {
        SCOPED_TRACE(failure.fMessage);
        const TRunResult result = Run(failure.fArguments, "data");
        ExpectFailure(result, failure.fExitCode, failure.fMessage);
        EXPECT_EQ(result.fOut, "");
    }
    EXPECT_EQ(Output({"ls", fDatabase}), listed);
    EXPECT_EQ(Output({"put", fDatabase, "MDUM", "-2147483648", "lowest"}), "");
}

// verify summarises a sound file, with a progress line only when asked. Every
// command refuses a file that is missing or cannot be opened as a database,
// naming the file and the reason, or one whose damage it meets, and leaves
// the file as it was. The check finds all damage; where a command does not
// meet it, the command may succeed, but no command crashes.
TEST_F(KavodvdbTest, VerifyPassesASoundFileAndEveryCommandRefusesABrokenOneCleanly) {
    {  // enough records of some size that the file has many pages
        THeldDatabase held(fDatabase, kPermissionReadWrite);
        const std::string data = RandomBytes(300, 7);
        for (int id = 1; id <= 200; ++id) ASSERT_EQ(AddClip(held.fRefNum, id, data), kNoError);
    }
    const TRunResult result = Run({"verify", fDatabase});
    EXPECT_EQ(result.fExitCode, kExitOK) << result.fErr;
    EXPECT_EQ(result.fErr, "");
    const std::string size = std::to_string(std::filesystem::file_size(fDatabase));
    const std::string lines[] = {"  file size    " + size + " bytes\n",
                                 "  records      201\n",
                                 "  keys         402\n",
                                 "  pages        ",
                                 "  free pages   ",
                                 "is sound\n"};
    for (const std::string& line : lines)
        EXPECT_NE(result.fOut.find(line), std::string::npos) << line << " in\n" << result.fOut;
    // No terminal and no large file: a progress line only when asked.
    EXPECT_EQ(result.fOut.find('\r'), std::string::npos);
    EXPECT_NE(Output({"verify", "--progress", fDatabase}).find("\rchecking page "), std::string::npos);

    const std::string sound = ReadFileBytes(fDatabase);
    ASSERT_GT(sound.size(), 4 * kPageBytes);
    // Page 0 is the file's header; every other page gets one flipped bit, and
    // so does the file's middle.
    std::string everyPage = sound;
    for (std::size_t page = kPageBytes; page < sound.size(); page += kPageBytes)
        everyPage[page + 2000] ^= 0x20;
    std::string middle = sound;
    for (std::size_t at = sound.size() / 2; at < sound.size() / 2 + 64; at += 8) middle[at] ^= 0x01;

    const std::string notADatabase = "not a database of this library";
    const std::string cutShort = "cut short: the file holds fewer pages than its header counts";
    const struct {
        std::string fName;
        std::string fBytes;
        int fExitCode;        // kExitOK: the damage need not be met at all
        std::string fReason;  // "damaged": met when the file opens, or later
    } files[] = {
        {"missing.kdb", "", kExitCannotOpen, "no such file"},
        {"random.bin", RandomBytes(3 * kPageBytes + 100, 3), kExitDamaged, notADatabase},
        {"notes.txt", "Shopping list\nmilk\nbread\n", kExitDamaged, notADatabase},
        {"empty.kdb", "", kExitDamaged, "the file is empty"},
        {"half.kdb", sound.substr(0, sound.size() / kPageBytes / 2 * kPageBytes), kExitDamaged, cutShort},
        {"ragged.kdb", sound.substr(0, sound.size() - 1000), kExitDamaged, cutShort},
        {"every-page.kdb", everyPage, kExitDamaged, "damaged"},
        {"middle.kdb", middle, kExitOK, ""},
    };
    for (const auto& file : files) {
        const std::string path = fDirectory + "/" + file.fName;
        if (file.fExitCode != kExitCannotOpen) kavotest::WriteFileBytes(path, file.fBytes);
        for (const std::string& command : kCommands) {
            SCOPED_TRACE(command + " on " + file.fName);
            const TRunResult result = Run(ArgumentsFor(command, path), "data");
            const bool verify = command == "verify";
            if (file.fReason == "damaged") {
                ExpectFailure(result, !verify && result.fExitCode == kExitFailed ? kExitFailed : kExitDamaged,
                              "damaged");
            } else if (file.fExitCode != kExitOK) {
                // verify and compact hand a file that opens to the engine
                // themselves, and say so.
                std::string refused = "cannot open ";
                if (file.fExitCode == kExitDamaged && verify) refused = "cannot check ";
                if (file.fExitCode == kExitDamaged && command == "compact") refused = "cannot compact ";
                ExpectFailure(result, file.fExitCode, refused + path + ": " + file.fReason);
                EXPECT_EQ(result.fOut, "");
            } else if (verify || result.fExitCode != kExitOK) {
                ExpectFailure(result, verify ? kExitDamaged : result.fExitCode, "");
                EXPECT_EQ(std::set<int>({kExitDamaged, kExitNotFound, kExitFailed}).count(result.fExitCode),
                          1u);
            }
            if (file.fExitCode != kExitOK) {
                EXPECT_TRUE(ReadFileBytes(path) == file.fBytes) << "the file changed";
            }
        }
        EXPECT_EQ(std::filesystem::exists(path), file.fExitCode != kExitCannotOpen);
    }
}

}  // namespace
