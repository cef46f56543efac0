// Writes the seed corpus of the host-file fuzz target into a directory: a
// small real database closed cleanly, the same with a live log after a
// process death, and with a checkpoint cut short by a loss of power, each
// with and without resealing.
//
//   engine_fuzz_seeds DIRECTORY
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "engine/Engine.h"
#include "engine/FaultFileIO.h"
#include "engine/FileIO.h"
#include "tests/engine/EngineFixture.h"
#include "tests/fuzz/HostFileFuzzInput.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using kavofuzz::TFuzzInput;

constexpr const char* kHostName = "seed.kdb";
constexpr const char* kLogName = "seed.kdb!log";

// Adds count records of mixed lengths (a few spill into overflow pages) and
// deletes every fifth, so that the file has a free list.
void Fill(const kavotest::TTestDatabase& db, std::mt19937& random, std::int32_t firstID, int count) {
    static const char* const kTypes[] = {"MDUM", "path", "SEEN", "DVC "};
    for (int i = 0; i < count; ++i) {
        const std::int32_t id = firstID + i;
        const std::size_t size = i % 9 == 0 ? 1000 + random() % 9000 : random() % 200;
        const Bytes record = kavotest::MakeRecord(kTypes[i % 4], id, "s" + std::to_string(id),
                                                  Bytes(size, static_cast<std::uint8_t>(random())));
        AddVarRecord(db.Data(), record.data(), static_cast<std::uint32_t>(record.size()));
    }
    for (int i = 0; i < count; i += 5) {
        const Bytes key = kavotest::NumberKey(kTypes[i % 4], firstID + i);
        std::uint8_t fixed[kavotest::kFixedLength];
        if (GetRecordByKey(db.NumberIndex(), key.data(), fixed) == kEngineNoError) DeleteVarRecord(db.Data());
    }
}

bool Save(const std::string& directory, const std::string& name, const TFuzzInput& input) {
    std::ofstream out(directory + "/" + name, std::ios::binary);
    const std::string bytes = kavofuzz::EncodeFuzzInput(input);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

// Each image as it is, resealed, and opened read-only.
bool SaveVariants(const std::string& directory, const std::string& name, engine::TFaultFileSystem& fs,
                  bool withLog) {
    TFuzzInput input;
    fs.ReadWholeFile(kHostName, &input.fHost);
    if (withLog) {
        fs.ReadWholeFile(kLogName, &input.fLog);
        input.fFlags = kavofuzz::kFuzzHasLog;
    }
    bool saved = Save(directory, name, input);
    input.fFlags |= kavofuzz::kFuzzResealPages | kavofuzz::kFuzzResealLog;
    saved = Save(directory, name + "-resealed", input) && saved;
    input.fFlags |= kavofuzz::kFuzzReadOnly;
    return Save(directory, name + "-read-only", input) && saved;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: engine_fuzz_seeds DIRECTORY\n");
        return 2;
    }
    const std::string directory = argv[1];
    engine::TFaultFileSystem fs;
    engine::InstallFileSystem(&fs);
    std::mt19937 random(5);
    EngineInit(24, 60, 4, 24, 33);
    kavotest::TTestDatabase db(kHostName);
    db.Create();
    Fill(db, random, -20, 60);
    db.Close();
    bool saved = SaveVariants(directory, "closed", fs, false);

    db.Open();
    Fill(db, random, 1000, 25);
    fs.Crash();
    saved = SaveVariants(directory, "live-log", fs, true) && saved;
    EngineStop();

    // The close's last sync fails (its log is synced, its overwriting not),
    // then the power goes; the steps run twice from the live log's state,
    // the first time to count the close's syncs.
    std::string host;
    std::string log;
    fs.ReadWholeFile(kHostName, &host);
    fs.ReadWholeFile(kLogName, &log);
    int closingSyncs = 0;
    for (int run = 0; run < 2; ++run) {
        engine::TFaultFileSystem cutFs;
        engine::InstallFileSystem(&cutFs);
        cutFs.WriteWholeFile(kHostName, host);
        cutFs.WriteWholeFile(kLogName, log);
        EngineInit(24, 60, 4, 24, 33);
        db.Open();
        std::mt19937 sameRandom = random;
        Fill(db, sameRandom, 2000, 25);
        cutFs.ResetCounters();
        if (run == 1) cutFs.FailSyncAfter(closingSyncs - 1);
        db.Close();
        closingSyncs = static_cast<int>(cutFs.Counters().fSyncs);
        if (run == 1) {
            cutFs.PowerCut(1);
            saved = SaveVariants(directory, "cut-checkpoint", cutFs, true) && saved;
        }
        EngineStop();
    }
    engine::InstallFileSystem(nullptr);
    if (!saved) std::fprintf(stderr, "engine_fuzz_seeds: could not write into %s\n", directory.c_str());
    return saved ? 0 : 1;
}
