// Writes, or checks, a database of fixed, known content, so that a file made
// by one build can be checked by another (the Linux and the Windows builds).
//
//   engine_portable_file make FILE     writes FILE (replacing it) and closes it cleanly
//   engine_portable_file verify FILE   FILE opens, passes the whole-file check and holds
//                                      exactly that content
//
// Exit status 0 when it did so, 1 when not (with the reason on stderr), 2 on
// a usage error.
#include <climits>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "engine/Engine.h"
#include "tests/engine/CampaignSupport.h"

namespace {

using kavotest::TOperation;
using kavotest::TRecordModel;
using kavotest::TTestDatabase;

// The content, and the operations that make it, in order: chosen records at
// the edges (extreme IDs, the longest name, bytes above 127, lengths around
// the inline limit, records of hundreds of kilobytes), then a few thousand
// random adds, rewrites and deletes from a fixed seed, so that the file also
// holds free pages and records that moved. Operations the model refuses (a
// clash the seed happened to make) are left out, by make and verify alike.
// mt19937 gives the same numbers on every platform, and only its raw output
// is used.
TRecordModel Content(std::vector<TOperation>* ops) {
    TRecordModel model;
    const auto perform = [&](const TOperation& op) {
        if (model.Expected(op) != kEngineNoError) return;
        model.Apply(op);
        ops->push_back(op);
    };
    const auto add = [&](const char* type, std::int32_t id, const std::string& name, std::uint32_t size) {
        perform(TOperation{TOperation::kAdd, type, id, 0, name,
                           static_cast<std::uint32_t>(ops->size() * 2654435761u), size});
    };
    add("MDUM", INT32_MIN, "lowest", 0);
    add("MDUM", INT32_MAX, "highest", 1);
    add("MDUM", -1, "minus one", 17);
    add("MDUM", 0, "zero", 959);
    add("path", 0, "inline limit", 960);                      // 1000 bytes with the fixed part: kept whole
    add("path", 1, "just past it", 961);                      // 1001: spills into an overflow page
    add(".bmp", 1, "abcdefghijklmnopqrstuvwxyz01234", 4096);  // the longest name
    add("alis", 7, std::string("caf\xe9 cr\xe8me"), 4091);
    add("fdat", 8, "\x7f\x80\xff", 10000);
    add("DVC ", 1, "DVC Header Info", 100000);
    add("STRY", 1000, "Story", 300000);
    add("NFO!", -16001, "_File_Info_", 64);
    add("BOUT", 1, "About Media File", 200);
    std::mt19937 random(19930701);
    for (int i = 0; i < 2000; ++i) perform(model.RandomOperation(random, 100000));
    return model;
}

int Fail(const std::string& why) {
    std::fprintf(stderr, "engine_portable_file: %s\n", why.c_str());
    return 1;
}

int Make(const std::string& path) {
    std::remove(path.c_str());
    std::vector<TOperation> ops;
    Content(&ops);
    if (kavotest::StartEngine() != kEngineNoError) return Fail("the engine did not start");
    TTestDatabase db(path);
    std::int16_t error = db.Create();
    for (std::size_t i = 0; i < ops.size() && error == kEngineNoError; ++i)
        error = kavotest::PerformOperation(db, ops[i]);
    if (error == kEngineNoError) error = db.Close();
    EngineStop();
    return error == kEngineNoError ? 0 : Fail("making " + path + " answered " + std::to_string(error));
}

// The file's content is checked by walking both indexes, which compares
// every key the other build stored with the key this one makes.
int Verify(const std::string& path) {
    std::vector<TOperation> ops;
    const TRecordModel model = Content(&ops);
    if (kavotest::StartEngine() != kEngineNoError) return Fail("the engine did not start");
    TTestDatabase db(path);
    std::string problem;
    const int prefix = kavotest::CheckSoundFile(db, true, model, {}, 0, &problem);
    db.Close();
    EngineStop();
    return prefix == 0 ? 0 : Fail(path + ": " + problem);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "make") return Make(argv[2]);
    if (argc == 3 && std::string(argv[1]) == "verify") return Verify(argv[2]);
    std::fprintf(stderr, "usage: engine_portable_file make|verify FILE\n");
    return 2;
}
