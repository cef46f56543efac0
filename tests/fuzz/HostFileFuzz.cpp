// libFuzzer target: a host file (its log inside it) made of the input, in
// the fault-injecting file system, is checked whole, opened through the
// engine's calls, read by every key it holds, counted and walked, and
// changed a little. Whatever the bytes, the engine answers codes: it never
// crashes, hangs or reads out of bounds.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "engine/Engine.h"
#include "engine/FaultFileIO.h"
#include "engine/FileIO.h"
#include "tests/engine/EngineFixture.h"
#include "tests/engine/Reseal.h"
#include "tests/fuzz/HostFileFuzzInput.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr const char* kHostName = "fuzz.kdb";
// Bounds on the work one input may cause: a walk that goes on past them is
// cut short (a damaged tree may claim any count), and a record longer than
// kLongestRecord is not read whole.
constexpr std::uint32_t kLongestWalk = 20000;
constexpr std::uint32_t kLongestRecord = 1u << 22;

// Reads the current record whole, if it is not absurdly long.
void ReadCurrent(std::int16_t data) {
    const std::uint32_t length = VarRecordLength(data);
    if (length == 0 || length > kLongestRecord) return;
    Bytes record(length);
    ReadVarRecord(data, record.data(), length);
}

// Walks an index, reading every record it names; gives back the keys.
std::vector<Bytes> WalkIndex(const kavotest::TTestDatabase& db, std::int16_t index, std::size_t keyLength) {
    std::vector<Bytes> keys;
    std::uint8_t key[64];
    std::uint8_t fixed[kavotest::kFixedLength];
    for (std::uint32_t p = FirstKey(index, key); p != 0 && keys.size() < kLongestWalk;
         p = NextKey(index, key)) {
        keys.emplace_back(key, key + keyLength);
        if (ReadFixedAt(db.Data(), p, fixed) == kEngineNoError) ReadCurrent(db.Data());
    }
    return keys;
}

void Exercise(const kavotest::TTestDatabase& db) {
    const std::vector<Bytes> numbers = WalkIndex(db, db.NumberIndex(), 8);
    const std::vector<Bytes> names = WalkIndex(db, db.NameIndex(), 36);
    // Every key found, looked up again (the keys come back stored, so they
    // go in as they are).
    SetKeysArriveTransformed(true);
    std::uint8_t fixed[kavotest::kFixedLength];
    std::uint8_t found[64];
    for (const Bytes& key : numbers) {
        if (GetRecordByKey(db.NumberIndex(), key.data(), fixed) == kEngineNoError) ReadCurrent(db.Data());
        GetRecordAtOrBefore(db.NumberIndex(), key.data(), fixed);
        FindKeyAtOrAfter(db.NumberIndex(), key.data(), found);
        CountKeysBelow(db.NumberIndex(), key.data());
    }
    for (const Bytes& key : names) {
        if (GetRecordByKey(db.NameIndex(), key.data(), fixed) == kEngineNoError) ReadCurrent(db.Data());
    }
    SetKeysArriveTransformed(false);
    for (std::uint32_t n = 0; n < 64; ++n)
        NthKey(n % 2 == 0 ? db.NumberIndex() : db.NameIndex(), n * 7, found);
    const Bytes low = kavotest::NumberKey("MDUM", INT32_MIN);
    const Bytes high = kavotest::NumberKey("MDUM", INT32_MAX);
    CountKeyRange(db.NumberIndex(), low.data(), high.data());

    // A few changes: an add with a long record, a rewrite and a delete of
    // the first record.
    const Bytes added = kavotest::MakeRecord("MDUM", 4711, "fuzz", Bytes(3000, 0x5A));
    AddVarRecord(db.Data(), added.data(), static_cast<std::uint32_t>(added.size()));
    if (!numbers.empty() &&
        ReadFixedAt(db.Data(), FirstKey(db.NumberIndex(), nullptr), fixed) == kEngineNoError) {
        const Bytes rewritten = kavotest::MakeRecord("MDUM", 4712, "fuzz2", Bytes(10, 1));
        ReWriteVarRecord(db.Data(), rewritten.data(), static_cast<std::uint32_t>(rewritten.size()));
        DeleteVarRecord(db.Data());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kavofuzz::TFuzzInput input = kavofuzz::DecodeFuzzInput(data, size);
    if (input.fFlags & kavofuzz::kFuzzResealPages) kavotest::ResealPages(&input.fHost);
    if (input.fFlags & kavofuzz::kFuzzResealLog) kavotest::ResealLog(&input.fHost);

    engine::TFaultFileSystem fileSystem;
    engine::InstallFileSystem(&fileSystem);
    fileSystem.WriteWholeFile(kHostName, input.fHost);

    TIntegrityReport report;
    CheckHostFile(kHostName, &report);
    EngineInit(24, 60, 4, 24, 33);
    kavotest::TTestDatabase db(kHostName);
    if (db.Open((input.fFlags & kavofuzz::kFuzzReadOnly) != 0) == kEngineNoError) {
        Exercise(db);
        db.Close();
    }
    EngineStop();
    engine::InstallFileSystem(nullptr);
    return 0;
}
