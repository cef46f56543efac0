// An editing session killed at any instant: a child process runs a random
// session through the flat functions on a real database file and tells its
// parent through a pipe what it is about to do and what each operation
// answered. The parent kills it with SIGKILL after a random delay, opens
// the file and finds every acknowledged operation there; each record that
// the operation under way touches is as it was or as the operation leaves
// it (an operation that writes several records, a medium and its path, is
// not one atomic change). The next child goes on with the same file, whose
// log the kill may have left to redo.
//
// POSIX only: fork and kill.
#if !defined(_WIN32)

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <sstream>
#include <string>

#include "tests/engine/CampaignSupport.h"
#include "tests/media/MediaTestSupport.h"
#include "tests/story/SessionModel.h"

namespace {

using kavotest::TSessionOp;
using kavotest::TSessionState;

void Say(int out, const std::string& line) {
    const std::string text = line + "\n";
    if (::write(out, text.data(), text.size()) != static_cast<ssize_t>(text.size())) ::_exit(4);
}

[[noreturn]] void RunChild(const std::string& file, std::uint32_t seed, int out, TSessionState state) {
    std::mt19937 random(seed);
    std::int16_t refNum = 0;
    if (InitRMRezManager() != kNoError || RMOpen(file.c_str(), kPermissionReadWrite, &refNum) != kNoError ||
        RMSetCurrentDB(refNum) != kNoError)
        ::_exit(3);
    for (;;) {
        const TSessionOp op = kavotest::RandomOperation(state, random, false);
        Say(out, "B " + op.Encode());
        const std::int16_t answer = kavotest::Perform(op, refNum, 0);
        Say(out, "E " + std::to_string(answer));
        if (answer != op.fExpected) ::_exit(5);
        kavotest::Apply(&state, op);
    }
}

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

// Applies the acknowledged operations to the model; the one started and not
// answered is left in *underWay. Returns what went wrong, or "".
std::string FollowChild(const std::string& text, TSessionState* state, std::vector<TSessionOp>* underWay) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line) && !lines.eof();) {  // the last line may be cut short
        TSessionOp op;
        if (line.size() > 2 && line[0] == 'B' && TSessionOp::Decode(line.substr(2), &op)) {
            *underWay = {op};
            continue;
        }
        if (line.size() < 3 || line[0] != 'E' || underWay->size() != 1) return "unreadable line: " + line;
        op = underWay->front();
        underWay->clear();
        if (std::stoi(line.substr(2)) != op.fExpected) return op.Encode() + " answered " + line.substr(2);
        kavotest::Apply(state, op);
    }
    return "";
}

class SessionCrashTest : public kavotest::MediaTest {};

TEST_F(SessionCrashTest, AKilledSessionKeepsEveryAcknowledgedChange) {
    TSessionState state;
    ASSERT_EQ(kavotest::StartSession(fRefNum, &state), kNoError);
    ASSERT_EQ(RMClose(fRefNum), kNoError);
    ASSERT_EQ(KillRMRezManager(), kNoError);
    const int kills = std::max(20, kavotest::CampaignCount("KAVO_CRASH_KILLS", 200) / 4);
    std::mt19937 random(20261125);
    int inOperation = 0;
    for (int round = 0; round < kills; ++round) {
        int pipeEnds[2];
        ASSERT_EQ(::pipe(pipeEnds), 0);
        const std::uint32_t seed = static_cast<std::uint32_t>(random());
        const int delay = static_cast<int>(random() % 5 == 0 ? random() % 3 : random() % 60);
        std::fflush(nullptr);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(pipeEnds[0]);
            RunChild(fFileName, seed, pipeEnds[1], state);
        }
        ::close(pipeEnds[1]);
        std::string text;
        ReadChild(pipeEnds[0], &text, std::chrono::steady_clock::now() + std::chrono::milliseconds(delay));
        ::kill(child, SIGKILL);
        ReadChild(pipeEnds[0], &text);
        ::close(pipeEnds[0]);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        std::vector<TSessionOp> underWay;
        const std::string failure = FollowChild(text, &state, &underWay);
        ASSERT_EQ(failure, "") << "kill " << round;
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
            << "kill " << round << ": the child ended by itself, status " << status;
        inOperation += underWay.empty() ? 0 : 1;

        ASSERT_EQ(InitRMRezManager(), kNoError);
        ASSERT_EQ(RMOpen(fFileName.c_str(), kPermissionReadWrite, &fRefNum), kNoError) << "kill " << round;
        ASSERT_EQ(RMSetCurrentDB(fRefNum), kNoError);
        const std::string problem =
            kavotest::CheckSession(fRefNum, 0, &state, underWay.empty() ? nullptr : &underWay.front());
        ASSERT_EQ(problem, "") << "kill " << round << (underWay.empty() ? "" : " during " + underWay[0].Encode());
        ASSERT_EQ(RMClose(fRefNum), kNoError);
        ASSERT_EQ(KillRMRezManager(), kNoError);
    }
    std::printf("%d kills (%d inside an operation): %zu media, %zu scenes, %zu on the board\n", kills,
                inOperation, state.fMedia.size(), state.fScenes.size(), state.fBoard.size());
    // The fixture's tear-down expects a manager.
    ASSERT_EQ(InitRMRezManager(), kNoError);
}

}  // namespace

#endif  // !defined(_WIN32)
