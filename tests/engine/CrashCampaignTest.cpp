// The end of the process at any instant: a child process runs random adds,
// rewrites, deletes and closes with reopens on a real database file and
// tells its parent through a pipe what it is about to do and, once each call
// has returned, what the engine answered. The parent kills it with SIGKILL
// after a random delay, then checks the file: the whole-file check finds
// nothing, and the records are exactly those of the acknowledged operations,
// with the one operation that was under way wholly done or wholly not (the
// kill may land after it reached the log but before it returned). The next
// child opens the same file, so the logs of earlier kills are redone on top
// of each other, and kills land inside those redos and inside checkpoints
// (the child's cache is small and it closes and reopens the file often, so
// checkpoints are frequent).
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
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/engine/CampaignSupport.h"

namespace {

using kavotest::TOperation;
using kavotest::TRecordModel;
using kavotest::TTestDatabase;

// Lines from child to parent, each written whole (they are shorter than a
// pipe writes at once):
//   "B <operation>"  the operation is about to start
//   "E <answer>"     it has returned with this engine answer
void Say(int out, const std::string& line) {
    const std::string text = line + "\n";
    if (::write(out, text.data(), text.size()) != static_cast<ssize_t>(text.size())) ::_exit(4);
}

// The child: opens the database and runs operations until it is killed. It
// starts with a copy of the parent's model, which the parent has just
// checked against the file.
[[noreturn]] void RunChild(const std::string& path, std::uint32_t seed, int out, TRecordModel model) {
    std::mt19937 random(seed);
    engine::TPager::SetCacheCapacity(16 + random() % 48);
    // Checkpoints every few pages, so that kills land inside them too.
    engine::TPager::SetCheckpointPages(4 + random() % 60);
    TTestDatabase db(path);
    if (kavotest::StartEngine() != kEngineNoError || db.Open() != kEngineNoError) ::_exit(3);
    for (;;) {
        const TOperation op = model.RandomOperation(random);
        Say(out, "B " + op.Encode());
        const std::int16_t answer = kavotest::PerformOperation(db, op);
        Say(out, "E " + std::to_string(answer));
        if (answer == kEngineNoError) model.Apply(op);
    }
}

// What the child says until the deadline (read as it comes, so that a full
// pipe never holds the child up) or, without one, up to the pipe's end.
void ReadChild(int in, std::string* text, std::chrono::steady_clock::time_point deadline = {}) {
    char buffer[65536];
    for (;;) {
        if (deadline != std::chrono::steady_clock::time_point{}) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd ready{in, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&ready, 1, static_cast<int>(left.count())) <= 0) return;
        }
        const ssize_t n = ::read(in, buffer, sizeof buffer);
        if (n <= 0) return;
        text->append(buffer, static_cast<std::size_t>(n));
    }
}

// Goes through the child's lines, checking each answer against the model:
// applies the operations acknowledged with success to it, in order, and
// leaves the one started and not finished, if any, in *underWay. Returns
// what went wrong, or "".
std::string FollowChild(const std::string& text, TRecordModel* model, std::vector<TOperation>* underWay) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line) && !lines.eof();) {  // the last line may be cut short
        TOperation op;
        if (line[0] == 'B' && TOperation::Decode(line.substr(2), &op)) {
            *underWay = {op};
            continue;
        }
        if (line[0] != 'E' || underWay->size() != 1) return "unreadable line: " + line;
        op = underWay->front();
        underWay->clear();
        const int answer = std::stoi(line.substr(2));
        if (answer != model->Expected(op)) return op.Encode() + " answered " + std::to_string(answer);
        if (answer == kEngineNoError) model->Apply(op);
    }
    return "";
}

// Kills land while the child opens the database (and redoes the last
// child's log), inside a close and reopen, and inside an operation.
TEST(CrashCampaignTest, AKilledProcessKeepsEveryAcknowledgedOperationAndNothingHalfDone) {
    kavotest::TCampaignWorld directory("crash", false);  // the real file system
    TTestDatabase db(directory.File("crash.kdb"));
    ASSERT_EQ(kavotest::StartEngine(), kEngineNoError);
    ASSERT_EQ(db.Create(), kEngineNoError);
    ASSERT_EQ(db.Close(), kEngineNoError);
    EngineStop();
    TRecordModel model;
    const int kills = kavotest::CampaignCount("KAVO_CRASH_KILLS", 200);
    std::mt19937 random(20240611);
    std::map<std::string, int> landed;
    for (int round = 0; round < kills; ++round) {
        const std::string what = "kill " + std::to_string(round);
        int pipeEnds[2];
        ASSERT_EQ(::pipe(pipeEnds), 0);
        const std::uint32_t seed = static_cast<std::uint32_t>(random());
        // Mostly within a few tens of milliseconds, now and then at once.
        const int delay = static_cast<int>(random() % 5 == 0 ? random() % 3 : random() % 80);
        std::fflush(nullptr);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(pipeEnds[0]);
            RunChild(db.Path(), seed, pipeEnds[1], model);
        }
        ::close(pipeEnds[1]);
        std::string text;
        ReadChild(pipeEnds[0], &text, std::chrono::steady_clock::now() + std::chrono::milliseconds(delay));
        ::kill(child, SIGKILL);
        ReadChild(pipeEnds[0], &text);
        ::close(pipeEnds[0]);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        std::vector<TOperation> underWay;
        const std::string failure = FollowChild(text, &model, &underWay);
        const std::string where = underWay.empty() ? "while opening or between calls"
                                  : underWay[0].fKind == TOperation::kReopen ? "in a close and reopen"
                                                                             : "in an operation";
        ASSERT_TRUE(failure.empty()) << what << ": " << failure;
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
            << what << ": the child ended by itself " << where << ", status " << status;

        // The operation under way is found wholly done or wholly not. The
        // file is mostly opened read-only, which leaves the log for the next
        // child to redo; now and then read-write, which redoes it at once.
        if (!underWay.empty() && model.Expected(underWay[0]) != kEngineNoError) underWay.clear();
        ASSERT_EQ(kavotest::StartEngine(), kEngineNoError);
        std::string problem;
        const int done = kavotest::CheckSoundFile(db, random() % 4 != 0, model, underWay, 0, &problem);
        ASSERT_GE(done, 0) << what << ": " << problem;
        if (done == 1) model.Apply(underWay[0]);
        ASSERT_EQ(db.Close(), kEngineNoError);
        EngineStop();
        ++landed[where + (where == "in an operation" ? done == 1 ? ", found done" : ", found not done" : "")];
    }
    std::printf("%d kills, leaving %zu records:", kills, model.Size());
    for (const auto& [where, count] : landed) std::printf(" %d %s;", count, where.c_str());
    std::printf("\n");
}

}  // namespace

#endif  // !defined(_WIN32)
