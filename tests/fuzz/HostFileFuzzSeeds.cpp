// Writes the seed corpus of the host-file fuzz target into a directory: a
// small real database closed cleanly, the same with a checkpoint cut short
// by a loss of power, and with a live log after a process death, each with
// and without resealing.
//
//   engine_fuzz_seeds DIRECTORY
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <utility>
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

// Saves the host file as it is, resealed, and to be opened read-only.
bool SaveVariants(const std::string& directory, const std::string& name, const engine::TFaultFileSystem& fs) {
    TFuzzInput input;
    fs.ReadWholeFile(kHostName, &input.fHost);
    const std::pair<const char*, std::uint8_t> variants[] = {
        {"", 0},
        {"-resealed", kavofuzz::kFuzzResealPages | kavofuzz::kFuzzResealLog},
        {"-read-only", kavofuzz::kFuzzReadOnly}};
    bool saved = true;
    for (const auto& [suffix, flags] : variants) {
        input.fFlags = flags;
        const std::string bytes = kavofuzz::EncodeFuzzInput(input);
        std::ofstream out(directory + "/" + name + suffix, std::ios::binary);
        saved = out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())) && saved;
    }
    return saved;
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
    bool saved = SaveVariants(directory, "closed", fs);

    // More changes; the close's checkpoint syncs the pages it copied but not
    // the header slot naming them (its second sync fails); the power goes.
    db.Open();
    Fill(db, random, 1000, 25);
    fs.FailSyncAfter(1);
    db.Close();
    fs.PowerCut(1);
    saved = SaveVariants(directory, "cut-checkpoint", fs) && saved;
    EngineStop();

    // The log is replayed, more changes follow, and the process dies.
    EngineInit(24, 60, 4, 24, 33);
    db.Open();
    Fill(db, random, 2000, 25);
    fs.Crash();
    saved = SaveVariants(directory, "live-log", fs) && saved;
    EngineStop();
    engine::InstallFileSystem(nullptr);
    if (!saved) std::fprintf(stderr, "engine_fuzz_seeds: could not write into %s\n", directory.c_str());
    return saved ? 0 : 1;
}
