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

using kavotest::Bytes;
using kavotest::TOperation;
using kavotest::TRecordModel;
using kavotest::TTestDatabase;

// The operations that make the content, in order: chosen records at the
// edges (extreme IDs, the longest name, bytes above 127, lengths around the
// inline limit, records of hundreds of kilobytes), then a few hundred made
// from a fixed seed, then deletes and rewrites, so that the file also holds
// free pages and records that moved. mt19937 gives the same numbers on every
// platform, and only its raw output is used.
std::vector<TOperation> ContentOperations() {
    std::vector<TOperation> ops;
    const auto add = [&](const char* type, std::int32_t id, const std::string& name, std::uint32_t size) {
        TOperation op;
        op.fKind = TOperation::kAdd;
        op.fType = type;
        op.fID = id;
        op.fName = name;
        op.fSeed = static_cast<std::uint32_t>(ops.size() * 2654435761u);
        op.fSize = size;
        ops.push_back(op);
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

    static const char* const kTypes[] = {"MDUM", "path", "SEEN", "WHER", "alis"};
    std::mt19937 random(19930701);
    for (int i = 0; i < 600; ++i) {
        const char* type = kTypes[random() % 5];
        const auto id = static_cast<std::int32_t>(random() % 200000) - 100000;
        const unsigned die = random() % 100;
        const std::uint32_t size = die < 3    ? 20000 + random() % 60000
                                   : die < 15 ? 1000 + random() % 6000
                                              : random() % 500;
        add(type, id, "item " + std::to_string(i), size);
    }
    // Deletes and rewrites of every seventh and every fifth of those.
    const std::size_t made = ops.size();
    for (std::size_t i = 13; i < made; ++i) {
        TOperation op = ops[i];
        if (i % 7 == 0) {
            op.fKind = TOperation::kDelete;
            ops.push_back(op);
        } else if (i % 5 == 0) {
            op.fKind = TOperation::kRewrite;
            op.fNewID = op.fID + (i % 2 == 0 ? 0 : 300000);
            op.fName = "moved " + std::to_string(i);
            op.fSize = (op.fSize * 3 + 1001) % 7000;
            op.fSeed ^= 0xA5A5A5A5u;
            ops.push_back(op);
        }
    }
    return ops;
}

// The content the operations leave; operations that would be refused (a
// clash the seed happened to make) are left out, by make and verify alike.
TRecordModel ContentModel(std::vector<TOperation>* applied) {
    TRecordModel model;
    for (const TOperation& op : ContentOperations()) {
        if (model.Expected(op) != kEngineNoError) continue;
        model.Apply(op);
        applied->push_back(op);
    }
    return model;
}

int Fail(const std::string& why) {
    std::fprintf(stderr, "engine_portable_file: %s\n", why.c_str());
    return 1;
}

int Make(const std::string& path) {
    std::remove(path.c_str());
    std::remove((path + "!log").c_str());
    std::vector<TOperation> ops;
    ContentModel(&ops);
    if (EngineInit(24, 60, 4, 24, 33) != kEngineNoError) return Fail("the engine did not start");
    TTestDatabase db(path);
    std::int16_t error = db.Create();
    if (error != kEngineNoError) return Fail("creating " + path + " answered " + std::to_string(error));
    for (const TOperation& op : ops) {
        error = kavotest::PerformOperation(db, op);
        if (error != kEngineNoError) return Fail(op.Encode() + " answered " + std::to_string(error));
    }
    error = db.Close();
    EngineStop();
    if (error != kEngineNoError) return Fail("closing answered " + std::to_string(error));
    return 0;
}

int Verify(const std::string& path) {
    std::vector<TOperation> ops;
    const TRecordModel model = ContentModel(&ops);
    TIntegrityReport report;
    std::int16_t error = CheckHostFile(path.c_str(), &report);
    if (error != kEngineNoError) return Fail("checking " + path + " answered " + std::to_string(error));
    if (!report.fProblems.empty()) return Fail("the check found: " + report.fProblems.front());
    if (report.fRecords != model.Size())
        return Fail("the check counted " + std::to_string(report.fRecords) + " records, not " +
                    std::to_string(model.Size()));
    if (EngineInit(24, 60, 4, 24, 33) != kEngineNoError) return Fail("the engine did not start");
    TTestDatabase db(path);
    error = db.Open(true);
    if (error != kEngineNoError) return Fail("opening " + path + " answered " + std::to_string(error));
    const std::string difference = kavotest::CompareContent(model, kavotest::ReadContent(db));
    if (!difference.empty()) return Fail(difference);
    // Each record by its name as well, the keys being stored in a form of
    // their own.
    for (const auto& [name, record] : model.Records()) {
        const Bytes key = kavotest::NameKey(name.fType.c_str(), record.fName);
        std::uint8_t fixed[kavotest::kFixedLength];
        if (GetRecordByKey(db.NameIndex(), key.data(), fixed) != kEngineNoError ||
            !std::equal(fixed, fixed + kavotest::kFixedLength, record.fBytes->begin()))
            return Fail("record " + kavotest::RecordNameText(name) + " is not found by its name");
    }
    db.Close();
    EngineStop();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "make") return Make(argv[2]);
    if (argc == 3 && std::string(argv[1]) == "verify") return Verify(argv[2]);
    std::fprintf(stderr, "usage: engine_portable_file make|verify FILE\n");
    return 2;
}
