// The status log: two lines per entry, the code after the message unless it
// is 0 or the entry is fatal, long messages cut; and the fatal paths, which
// end the process.
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "engine/EngineErrors.h"
#include "engine/EngineState.h"
#include "engine/StatusLog.h"
#include "tests/engine/TempDirectory.h"
#include "tests/support/KavoTest.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace {

constexpr const char* kLogName = "DBSTATUS.LOG";
constexpr const char* kDirectoryVariable = "KAVO_STATUSLOG_TEST_DIRECTORY";

// Each test runs in a temporary current directory. A death test's child that
// starts the program over (the only kind on Windows) begins in the directory
// the program started in; it finds its parent's through the environment, so
// that the parent sees what the child logged.
class StatusLogTest : public kavotest::KavoTest {
protected:
    void SetUp() override {
        if (::testing::internal::InDeathTestChild()) {
            // Never log into the directory the program started in.
            const char* parents = std::getenv(kDirectoryVariable);
            ASSERT_NE(parents, nullptr) << "the parent's directory is not known";
            std::filesystem::current_path(parents);
            return;
        }
        fDirectory = std::make_unique<kavotest::TTempDirectory>("statuslog");
        fPrevious = std::filesystem::current_path();
        std::filesystem::current_path(fDirectory->Path());
        // Each test sets it afresh; a child started over inherits it.
#ifdef _WIN32
        SetEnvironmentVariableA(kDirectoryVariable, fDirectory->Path().string().c_str());
#else
        setenv(kDirectoryVariable, fDirectory->Path().c_str(), 1);
#endif
    }

    void TearDown() override {
        engine::SetLowError(0);
        if (fDirectory != nullptr) std::filesystem::current_path(fPrevious);
        KavoTest::TearDown();
    }

    // The log's lines without their ends (text mode on Windows writes "\r\n").
    static std::vector<std::string> LogLines() {
        std::ifstream in(kLogName, std::ios::binary);
        std::vector<std::string> lines;
        std::string line;
        while (std::getline(in, line)) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            lines.push_back(line);
        }
        return lines;
    }

    // The date line as the C runtime's asctime writes it, at some second
    // between the two instants.
    static bool IsDateBetween(const std::string& line, std::time_t before, std::time_t after) {
        for (std::time_t t = before; t <= after; ++t) {
            std::string expected = std::asctime(std::localtime(&t));
            expected.pop_back();  // its newline
            if (line == expected) return true;
        }
        return false;
    }

    std::unique_ptr<kavotest::TTempDirectory> fDirectory;
    std::filesystem::path fPrevious;
};

// Each entry is appended to what the log holds: the date line, then the
// user and the message, cut at 256 characters, and the code after it unless
// it is 0 or the entry is fatal. The call answers the code (0 when fatal).
TEST_F(StatusLogTest, AnEntryIsTheDateLineThenTheUserTheMessageAndAnyCode) {
    std::ofstream(kLogName, std::ios::binary) << "an earlier run\n";
    const std::string longMessage(100000, 'm');
    const std::string cutMessage = std::string(256, 'e') + "cut";
    // The message, the code, the answer, and the line.
    const std::tuple<const char*, std::int16_t, std::int16_t, std::string> entries[] = {
        {"index damaged", 0, 0, "index damaged"},
        {kMsgNodeBeyondEnd, kLowNodeBeyondEnd, 519, "node exceeds logical index EOF: 519"},
        {"negative", -5, -5, "negative: -5"},
        {"the end", kFatalStatusCode, 0, "the end"},
        {longMessage.c_str(), 519, 519, std::string(256, 'm') + ": 519"},
        {cutMessage.c_str(), 0, 0, std::string(256, 'e')},
        {nullptr, 7, 7, ": 7"},
    };
    const std::time_t before = std::time(nullptr);
    for (const auto& [message, code, answer, line] : entries) EXPECT_EQ(LogStatus(message, code), answer);
    const std::time_t after = std::time(nullptr);

    const std::vector<std::string> lines = LogLines();
    ASSERT_EQ(lines.size(), 1 + 2 * std::size(entries));
    EXPECT_EQ(lines[0], "an earlier run");
    for (std::size_t i = 0; i < std::size(entries); ++i) {
        EXPECT_TRUE(IsDateBetween(lines[1 + 2 * i], before, after)) << lines[1 + 2 * i];
        EXPECT_EQ(lines[2 + 2 * i], " - User# 01\t" + std::get<3>(entries[i]));
    }
}

// FatalError logs the message as a fatal entry (no code) and ends the
// process with its number; FatalErrorAt prints where it failed, logs
// nothing and ends it with 100.
TEST_F(StatusLogTest, TheFatalPathsEndTheProcessWithTheirNumbers) {
    EXPECT_EXIT(FatalError(kFatalBadHostFileNumber), ::testing::ExitedWithCode(22), "error #22 low_err=0");
    engine::SetLowError(kLowNodeBeyondEnd);
    EXPECT_EXIT(FatalError(kFatalNodeAtZero), ::testing::ExitedWithCode(237), "error #237 low_err=519");
    EXPECT_EXIT(FatalErrorAt("WriteNode", 3, 120, 5, 0x1f, 519), ::testing::ExitedWithCode(100),
                "WriteNode\\s+M3 L120 F5 P1fx  ErrorCode=519");
    EXPECT_EXIT(FatalErrorAt("Seek", 1, 2, 3, 0x123456789abULL, -1), ::testing::ExitedWithCode(100),
                "Seek\\s+M1 L2 F3 P123456789abx  ErrorCode=-1");
    EXPECT_EXIT(FatalErrorAt(nullptr, 0, 0, 0, 0, 0), ::testing::ExitedWithCode(100),
                "M0 L0 F0 P0x  ErrorCode=0");

    const std::vector<std::string> lines = LogLines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1], " - User# 01\tFatal engine error #22 low_err=0");
    EXPECT_EQ(lines[3], " - User# 01\tFatal engine error #237 low_err=519");
}

// The log is opened for each entry; when it cannot be, the process ends.
TEST_F(StatusLogTest, ALogThatCannotBeOpenedEndsTheProcessWith10) {
    std::filesystem::create_directory(kLogName);
    EXPECT_EXIT(LogStatus("entry that is lost", 519), ::testing::ExitedWithCode(10),
                "entry that is lost.*519");
    EXPECT_EXIT(FatalError(kFatalRangeCountLow), ::testing::ExitedWithCode(10), "error #7214");
}

}  // namespace
