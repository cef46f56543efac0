// The end of the process at any instant: a child process runs random adds,
// rewrites and deletes on a real database file and tells its parent through a
// pipe what it is about to do and, once each call has returned, what the
// engine answered. The parent kills it with SIGKILL after a random delay,
// then checks the file: the whole-file check finds nothing, and the records
// are exactly those of the acknowledged operations, with the one operation
// that was under way wholly done or wholly not (the kill may land after it
// reached the log but before it returned). The next child opens the same
// file, so the logs of earlier kills are redone on top of each other, and
// kills land inside those redos and inside checkpoints (the child's cache is
// small and it closes and reopens the file often, so checkpoints are
// frequent).
//
// POSIX only: fork and kill.
#if !defined(_WIN32)

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "engine/Pager.h"
#include "tests/engine/CampaignSupport.h"

namespace {

using kavotest::CampaignCount;
using kavotest::CompareContent;
using kavotest::PerformOperation;
using kavotest::ReadContent;
using kavotest::TContent;
using kavotest::TOperation;
using kavotest::TRecordModel;
using kavotest::TTestDatabase;

// Lines from child to parent:
//   "R"                  the database is open (its log redone)
//   "B <n> <operation>"  operation n is about to start
//   "C <n>"              step n is a close and a reopen
//   "E <n> <answer>"     step n has returned with this engine answer
//   "F <text>"           the child could not go on (it then exits)

void Say(int out, const std::string& line) {
    const std::string text = line + "\n";
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = ::write(out, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) ::_exit(4);
        written += static_cast<std::size_t>(n);
    }
}

[[noreturn]] void GiveUp(int out, const std::string& why) {
    Say(out, "F " + why);
    ::_exit(3);
}

// The child: opens the database and runs operations until it is killed. It
// starts with a copy of the parent's model, which the parent has just
// checked against the file.
[[noreturn]] void RunChild(const std::string& path, std::uint32_t seed, int out, TRecordModel model) {
    std::mt19937 random(seed);
    engine::TPager::SetCacheCapacity(16 + random() % 48);
    // Checkpoints every few pages, so that kills land inside them too.
    engine::TPager::SetCheckpointPages(4 + random() % 60);
    if (EngineInit(24, 60, 4, 24, 33) != kEngineNoError) GiveUp(out, "the engine did not start");
    TTestDatabase db(path);
    std::int16_t error = db.Open();
    if (error != kEngineNoError) GiveUp(out, "open answered " + std::to_string(error));
    Say(out, "R");
    for (std::uint64_t n = 0;; ++n) {
        const std::string step = std::to_string(n);
        if (random() % 12 == 0) {
            // A close checkpoints: kills land inside checkpoints often.
            Say(out, "C " + step);
            error = db.Close();
            if (error == kEngineNoError) error = db.Open();
            Say(out, "E " + step + " " + std::to_string(error));
            if (error != kEngineNoError) GiveUp(out, "close and reopen answered " + std::to_string(error));
            continue;
        }
        const TOperation op = model.RandomOperation(random);
        Say(out, "B " + step + " " + op.Encode());
        const std::int16_t answer = PerformOperation(db, op);
        Say(out, "E " + step + " " + std::to_string(answer));
        if (answer == kEngineNoError) model.Apply(op);
    }
}

// Reads what the child says until the deadline or, with no deadline, until
// the pipe's end.
void ReadLines(int in, std::string* text, int milliseconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    char buffer[65536];
    for (;;) {
        int wait = -1;
        if (milliseconds >= 0) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return;
            wait = static_cast<int>(left.count());
        }
        pollfd poller{in, POLLIN, 0};
        const int ready = ::poll(&poller, 1, wait);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return;
        const ssize_t n = ::read(in, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        text->append(buffer, static_cast<std::size_t>(n));
    }
}

struct TRoundLog {
    bool fReady = false;            // the child had opened the database
    std::vector<TOperation> fDone;  // acknowledged with success, in order
    bool fInFlight = false;         // an operation started and did not return
    bool fClosing = false;          // a close and reopen started and did not return
    TOperation fUnderWay;
    std::string fFailure;  // what went wrong, if anything
};

// Goes through the child's lines, checking every answer against the model
// and applying the acknowledged operations to it.
TRoundLog FollowChild(const std::string& text, TRecordModel* model) {
    TRoundLog log;
    std::istringstream lines(text);
    std::string line;
    bool closing = false;
    while (std::getline(lines, line)) {
        if (lines.eof()) break;  // a line cut short by the kill: never started
        if (line.empty()) continue;
        if (line == "R") {
            log.fReady = true;
            continue;
        }
        if (line[0] == 'F') {
            log.fFailure = "the child gave up: " + line.substr(2);
            return log;
        }
        if (line[0] == 'C') {
            closing = log.fClosing = true;
            continue;
        }
        if (line[0] == 'B') {
            const std::size_t blank = line.find(' ', 2);
            if (blank == std::string::npos || !TOperation::Decode(line.substr(blank + 1), &log.fUnderWay)) {
                log.fFailure = "unreadable line: " + line;
                return log;
            }
            log.fInFlight = true;
            continue;
        }
        if (line[0] != 'E') {
            log.fFailure = "unreadable line: " + line;
            return log;
        }
        const int answer = std::stoi(line.substr(line.rfind(' ') + 1));
        if (closing) {
            closing = log.fClosing = false;
            continue;  // the child gives up itself when a reopen fails
        }
        const std::int16_t expected = model->Expected(log.fUnderWay);
        if (answer != expected) {
            log.fFailure = log.fUnderWay.Encode() + " answered " + std::to_string(answer) + ", expected " +
                           std::to_string(expected);
            return log;
        }
        if (answer == kEngineNoError) {
            model->Apply(log.fUnderWay);
            log.fDone.push_back(log.fUnderWay);
        }
        log.fInFlight = false;
    }
    return log;
}

TEST(CrashCampaignTest, AKilledProcessKeepsEveryAcknowledgedOperationAndNothingHalfDone) {
    kavotest::TWorkingDirectory directory("crash");
    const std::string path = directory.File("crash.kdb");
    {
        TTestDatabase db(path);
        ASSERT_EQ(EngineInit(24, 60, 4, 24, 33), kEngineNoError);
        ASSERT_EQ(db.Create(), kEngineNoError);
        ASSERT_EQ(db.Close(), kEngineNoError);
        EngineStop();
    }
    TRecordModel model;
    const int kills = CampaignCount("KAVO_CRASH_KILLS", 200);
    std::mt19937 random(20240611);
    std::size_t acknowledged = 0;
    std::size_t beforeReady = 0;
    std::size_t inClose = 0;
    std::size_t underWayDone = 0;
    std::size_t underWayUndone = 0;
    for (int round = 0; round < kills; ++round) {
        const std::string what = "kill " + std::to_string(round);
        int pipeEnds[2];
        ASSERT_EQ(::pipe(pipeEnds), 0);
        const std::uint32_t seed = static_cast<std::uint32_t>(random());
        const unsigned delayDie = random() % 10;
        const int delay = delayDie < 2   ? static_cast<int>(random() % 3)
                          : delayDie < 8 ? static_cast<int>(random() % 30)
                                         : 30 + static_cast<int>(random() % 50);
        std::fflush(nullptr);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(pipeEnds[0]);
            RunChild(path, seed, pipeEnds[1], model);
        }
        ::close(pipeEnds[1]);
        std::string text;
        ReadLines(pipeEnds[0], &text, delay);
        ::kill(child, SIGKILL);
        ReadLines(pipeEnds[0], &text, -1);
        ::close(pipeEnds[0]);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);

        const TRoundLog log = FollowChild(text, &model);
        ASSERT_TRUE(log.fFailure.empty()) << what << ": " << log.fFailure;
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
            << what << ": the child ended by itself, status " << status;
        acknowledged += log.fDone.size();
        beforeReady += log.fReady ? 0 : 1;
        inClose += log.fClosing ? 1 : 0;

        ASSERT_EQ(EngineInit(24, 60, 4, 24, 33), kEngineNoError);
        TIntegrityReport report;
        ASSERT_EQ(CheckHostFile(path.c_str(), &report), kEngineNoError) << what;
        ASSERT_TRUE(report.fProblems.empty()) << what << ": " << report.fProblems.front();
        // Mostly read-only, which leaves the log for the next child to redo;
        // now and then read-write, which redoes it at once.
        TTestDatabase db(path);
        ASSERT_EQ(db.Open(random() % 4 != 0), kEngineNoError) << what;
        const TContent content = ReadContent(db);
        ASSERT_TRUE(content.fProblem.empty()) << what << ": " << content.fProblem;
        std::string difference = CompareContent(model, content);
        if (!difference.empty() && log.fInFlight && model.Expected(log.fUnderWay) == kEngineNoError) {
            TRecordModel done = model;
            done.Apply(log.fUnderWay);
            if (CompareContent(done, content).empty()) {
                model = done;
                difference.clear();
                ++underWayDone;
            }
        } else if (log.fInFlight) {
            ++underWayUndone;
        }
        ASSERT_TRUE(difference.empty()) << what << ": " << difference;
        EXPECT_EQ(report.fRecords, model.Size()) << what;
        ASSERT_EQ(db.Close(), kEngineNoError);
        EngineStop();
    }
    std::printf(
        "%d kills: %zu while opening, %zu in a close and reopen, %zu in an operation (found done %zu "
        "times, not done %zu times); %zu operations acknowledged\n",
        kills, beforeReady, inClose, underWayDone + underWayUndone, underWayDone, underWayUndone,
        acknowledged);
}

}  // namespace

#endif  // !defined(_WIN32)
