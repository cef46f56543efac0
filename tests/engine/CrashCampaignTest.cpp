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
// The file is the whole database: after some kills it is copied, renamed,
// reached through a symbolic link or replaced by an earlier copy before it
// is checked, and what it holds is what was acknowledged through whatever
// name it had (or what the earlier copy held), never less and never another
// file's.
//
// A create killed at any instant leaves either nothing under the name, which
// can then be created, or a sound empty database.
//
// POSIX only: fork, kill and symbolic links.
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
#include <filesystem>
#include <fstream>
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

// A byte-for-byte copy of a file, as a person or a backup program makes one.
void CopyFile(const std::string& from, const std::string& to) {
    std::ifstream in(from, std::ios::binary);
    std::ofstream out(to, std::ios::binary | std::ios::trunc);
    out << in.rdbuf();
}

// What is done to the file between a kill and its check.
enum class TAfterKill { kNothing, kCopy, kRename, kRestoreEarlierCopy };

// Kills land while the child opens the database (and redoes the last
// child's log), inside a close and reopen, and inside an operation.
TEST(CrashCampaignTest, AKilledProcessKeepsEveryAcknowledgedOperationAndNothingHalfDone) {
    kavotest::TCampaignWorld directory("crash", false);  // the real file system
    std::string path = directory.File("crash.kdb");
    const std::string link = directory.File("link.kdb");
    const std::string copy = directory.File("copy.kdb");
    const std::string saved = directory.File("saved.kdb");
    ASSERT_EQ(kavotest::StartEngine(), kEngineNoError);
    {
        TTestDatabase db(path);
        ASSERT_EQ(db.Create(), kEngineNoError);
        ASSERT_EQ(db.Close(), kEngineNoError);
    }
    EngineStop();
    TRecordModel model;
    TRecordModel savedModel;  // what the earlier copy holds
    CopyFile(path, saved);
    const int kills = kavotest::CampaignCount("KAVO_CRASH_KILLS", 200);
    std::mt19937 random(20240611);
    std::map<std::string, int> landed;
    for (int round = 0; round < kills; ++round) {
        const std::string what = "kill " + std::to_string(round);
        // The child reaches the file through a symbolic link now and then.
        const bool throughLink = random() % 4 == 0;
        std::filesystem::remove(link);
        if (throughLink) std::filesystem::create_symlink(path, link);
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
            RunChild(throughLink ? link : path, seed, pipeEnds[1], model);
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

        // The file is copied (the copy is checked, then the original), or
        // renamed (and used under its new name from then on), or replaced by
        // the copy saved at an earlier check (which then holds the truth).
        const auto after = static_cast<TAfterKill>(random() % 8 < 5 ? 0 : random() % 3 + 1);
        if (!underWay.empty() && model.Expected(underWay[0]) != kEngineNoError) underWay.clear();
        ASSERT_EQ(kavotest::StartEngine(), kEngineNoError);
        std::string problem;
        if (after == TAfterKill::kCopy) {
            CopyFile(path, copy);
            TTestDatabase copied(copy);
            ASSERT_GE(kavotest::CheckSoundFile(copied, true, model, underWay, 0, &problem), 0)
                << what << ": the copy: " << problem;
            ASSERT_EQ(copied.Close(), kEngineNoError);
            std::filesystem::remove(copy);
        } else if (after == TAfterKill::kRename) {
            const std::string renamed = directory.File("crash-" + std::to_string(round) + ".kdb");
            std::filesystem::rename(path, renamed);
            path = renamed;
        } else if (after == TAfterKill::kRestoreEarlierCopy) {
            CopyFile(saved, path);
            model = savedModel;
            underWay.clear();
        }
        // The operation under way is found wholly done or wholly not. The
        // file is mostly opened read-only, which leaves the log for the next
        // child to redo; now and then read-write, which redoes it at once.
        TTestDatabase db(path);
        const int done = kavotest::CheckSoundFile(db, random() % 4 != 0, model, underWay, 0, &problem);
        ASSERT_GE(done, 0) << what << ": " << problem;
        if (done == 1) model.Apply(underWay[0]);
        ASSERT_EQ(db.Close(), kEngineNoError);
        EngineStop();
        if (random() % 8 == 0) {
            CopyFile(path, saved);
            savedModel = model;
        }
        ++landed[where + (where == "in an operation" ? done == 1 ? ", found done" : ", found not done" : "")];
    }
    std::printf("%d kills, leaving %zu records:", kills, model.Size());
    for (const auto& [where, count] : landed) std::printf(" %d %s;", count, where.c_str());
    std::printf("\n");
}

// A child creates databases one after another, saying which; killed at any
// instant, it leaves each name either free (and a create then succeeds) or
// holding a sound empty database, and nothing else in the directory.
TEST(CrashCampaignTest, AKilledCreateLeavesNothingOrASoundEmptyDatabase) {
    kavotest::TCampaignWorld directory("create", false);
    const int kills = kavotest::CampaignCount("KAVO_CRASH_KILLS", 200);
    std::mt19937 random(1999);
    int found[2] = {0, 0};
    for (int round = 0; round < kills; ++round) {
        const std::string what = "kill " + std::to_string(round);
        const std::string stem = directory.File("new-" + std::to_string(round) + "-");
        int pipeEnds[2];
        ASSERT_EQ(::pipe(pipeEnds), 0);
        const int delay = static_cast<int>(random() % 4);
        std::fflush(nullptr);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(pipeEnds[0]);
            if (kavotest::StartEngine() != kEngineNoError) ::_exit(3);
            for (int i = 0;; ++i) {
                Say(pipeEnds[1], "B " + std::to_string(i));
                TTestDatabase db(stem + std::to_string(i));
                if (db.Create() != kEngineNoError || db.Close() != kEngineNoError) ::_exit(5);
            }
        }
        ::close(pipeEnds[1]);
        std::string text;
        ReadChild(pipeEnds[0], &text, std::chrono::steady_clock::now() + std::chrono::milliseconds(delay));
        ::kill(child, SIGKILL);
        ReadChild(pipeEnds[0], &text);
        ::close(pipeEnds[0]);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << what << ": status " << status;
        const std::size_t last = text.rfind("B ");
        if (last == std::string::npos) continue;  // killed before its first create
        const int underWay = std::atoi(text.c_str() + last + 2);

        // The create under way left nothing or a database; the one before
        // it, finished, left a database.
        ASSERT_EQ(kavotest::StartEngine(), kEngineNoError);
        for (int i = std::max(0, underWay - 1); i <= underWay; ++i) {
            const std::string name = stem + std::to_string(i);
            TTestDatabase db(name);
            const bool exists = std::filesystem::exists(name);
            if (i == underWay) ++found[exists ? 1 : 0];
            ASSERT_TRUE(exists || i == underWay) << what << ": " << name << " is missing";
            if (exists) {
                std::string problem;
                ASSERT_EQ(kavotest::CheckSoundFile(db, false, TRecordModel(), {}, 0, &problem), 0)
                    << what << ": " << name << ": " << problem;
            } else {
                ASSERT_EQ(db.Create(), kEngineNoError) << what << ": " << name << " cannot be created";
            }
            ASSERT_EQ(db.Close(), kEngineNoError);
        }
        EngineStop();
    }
    // Nothing but databases: no temporary or side file is ever left.
    for (const auto& entry : std::filesystem::directory_iterator(directory.File(""))) {
        const std::string file = entry.path().filename().string();
        EXPECT_TRUE(file.rfind("new-", 0) == 0 || file == "DBSTATUS.LOG") << "left behind: " << file;
    }
    std::printf("%d killed creates: %d left nothing, %d an empty database\n", kills, found[0], found[1]);
}

}  // namespace

#endif  // !defined(_WIN32)
