// The record-store workload: one fixed sequence of phases run on the record
// store and on two embedded peers, each in its own process, so that their
// speeds can be set side by side.
//
// This header holds what every engine program shares: the records (IDs,
// names, data), the fixed orders, the engine interface that each program
// fills in, the phase driver written once over that interface, and the
// report of one engine's results as one JSON object on stdout.
#ifndef KAVO_BENCH_WORKLOAD_H
#define KAVO_BENCH_WORKLOAD_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kavo_workload {

// ---------------------------------------------------------------------------
// Records

// Every record has this type, compared as four bytes.
extern const char kRecordType[4];

constexpr std::uint32_t kDataSize = 256;
constexpr std::size_t kNameBufferSize = 32;  // a name in a zero-filled buffer
constexpr std::size_t kNameLength = 14;      // "Medium %07d"

constexpr std::int32_t kDefaultRecordCount = 100000;
constexpr std::int32_t kMinRecordCount = 2;
constexpr std::int32_t kMaxRecordCount = 9999999;

// "Medium %07d" of id into a zero-filled 32-byte buffer. Written by hand:
// it runs inside the timing on every operation and must stay near 10 ns.
void MakeName(std::int32_t id, char name[kNameBufferSize]);

// The 256 data bytes of a record: a 32-bit xorshift seeded from the ID and
// the record's version (0 when first added, 1 after it was saved again),
// each state stored little-endian.
void MakeData(std::int32_t id, int gen, std::uint8_t data[kDataSize]);

// Byte 0 of MakeData(id, gen): the low byte of the first state written.
std::uint8_t ExpectedFirstByte(std::int32_t id, int gen);

// ---------------------------------------------------------------------------
// Fixed orders: splitmix64, seeded per phase.

class TSplitMix64 {
public:
    explicit TSplitMix64(std::uint64_t seed) : fState(seed) {}
    std::uint64_t Next();
    // A value in 0 .. bound-1 (bound below 2^32).
    std::uint32_t Below(std::uint32_t bound);

private:
    std::uint64_t fState;
};

// The IDs 1 .. count shuffled from a generator seeded with seed.
std::vector<std::int32_t> MakePermutation(std::uint64_t seed, std::int32_t count);

constexpr std::uint64_t kReadIdSeed = 0x1001;
constexpr std::uint64_t kReadNameSeed = 0x1002;
constexpr std::uint64_t kResaveSeed = 0x1003;
constexpr std::uint64_t kNthSeed = 0x1004;
constexpr std::uint64_t kRemoveSeed = 0x1005;

constexpr int kCountOperations = 1000;
constexpr int kNthOperations = 1000;
constexpr int kNextIdOperations = 10000;
// The store reads the k-th record of a type only within the first 100,000,
// so the nth sample is drawn below min(N, 100,000) for every engine.
constexpr std::int32_t kNthRange = 100000;

// Every order and sample of one run, made before the first phase (untimed)
// and kept to the end, so that peak RSS counts them for every engine alike.
struct TWorkloadOrders {
    std::vector<std::int32_t> fReadIdOrder;
    std::vector<std::int32_t> fReadNameOrder;
    std::vector<std::int32_t> fResaveOrder;  // the first N/2 of its permutation
    std::vector<std::uint32_t> fNthSample;   // indexes k from 0
    std::vector<std::int32_t> fRemoveOrder;
};

TWorkloadOrders MakeOrders(std::int32_t count);

// ---------------------------------------------------------------------------
// The engine interface. Each call is one operation of the workload on the
// engine's open database, all of the record type above. A call returns true
// on success; on failure it returns false and LastError() says what the
// engine answered. Reads hand back the size of the data read and its byte 0,
// having copied the data out of the engine (or, for the store, having read it
// into a handle and released it again).

struct TReadResult {
    std::uint32_t fSize = 0;
    std::uint8_t fFirstByte = 0;
};

class CWorkloadEngine {
public:
    virtual ~CWorkloadEngine() = default;

    // Short name used in the JSON ("store", "sqlite", "lmdb").
    virtual const char* EngineName() const = 0;
    // Library version and the settings this run uses, for the report.
    virtual std::string EngineVersion() const = 0;
    virtual std::string EngineSettings() const = 0;

    // Creates a fresh database in directory (which exists and is empty) and
    // opens it for reading and writing.
    virtual bool CreateDatabase(const std::string& directory) = 0;
    virtual bool AddRecord(std::int32_t id, const char* name, const std::uint8_t* data) = 0;
    virtual bool ReadRecordByID(std::int32_t id, TReadResult& result) = 0;
    virtual bool ReadRecordByName(const char* name, TReadResult& result) = 0;
    virtual bool RemoveRecordByName(const char* name) = 0;
    virtual bool RemoveRecordByID(std::int32_t id) = 0;
    virtual bool CountRecordsOfType(std::uint32_t& count) = 0;
    // The index-th record of the type in name order, from 0.
    virtual bool ReadNthRecordOfType(std::uint32_t index, TReadResult& result) = 0;
    // Largest ID of the type + 1; 1 when the type has no record.
    virtual bool NextRecordID(std::int32_t& id) = 0;
    virtual bool CloseDatabase() = 0;
    // Untimed, between the close and the open of the reopen phase. The
    // default does nothing.
    virtual void PrepareReopen() {}
    virtual bool ReopenDatabase() = 0;
    // A remark on the last reopen worth carrying into the results ("" for none).
    virtual std::string ReopenNote() const { return std::string(); }

    const std::string& LastError() const { return fLastError; }

protected:
    bool Fail(const std::string& what);
    std::string fLastError;
};

// ---------------------------------------------------------------------------
// Results

struct TPhaseResult {
    std::string fName;
    std::int64_t fOperations = 0;
    double fSeconds = 0;
};

struct TDirectoryBytes {
    std::uint64_t fApparent = 0;   // sum of the files' sizes
    std::uint64_t fAllocated = 0;  // sum of the blocks they take on disk
};

struct TWorkloadResult {
    std::string fEngine;
    std::string fVersion;
    std::string fSettings;
    std::int32_t fRecordCount = 0;
    std::string fDirectory;
    bool fOk = false;
    std::string fError;  // which phase and check failed, when not fOk
    std::vector<TPhaseResult> fPhases;
    TDirectoryBytes fBytesAfterAdd;
    bool fHaveBytesAfterAdd = false;
    std::uint64_t fPeakRssBytes = 0;
    double fWallSeconds = 0;
    std::vector<std::string> fNotes;
};

// Seconds on the monotonic clock since an arbitrary start.
double MonotonicSeconds();

// Peak resident set of this process in bytes (getrusage, ru_maxrss).
std::uint64_t PeakRssBytes();

// File bytes under directory (recursively), leaving out the store's status
// log "DBSTATUS.LOG", which is not part of a database.
TDirectoryBytes MeasureDirectoryBytes(const std::string& directory);

// Runs every phase in order on engine, on a fresh database in directory.
// Stops at the first failed operation or check and says so in fError.
TWorkloadResult RunWorkload(CWorkloadEngine& engine, std::int32_t count, const std::string& directory);

// One engine's results as one JSON object on a single line.
std::string FormatResultJson(const TWorkloadResult& result);

// Quotes text as a JSON string.
std::string QuoteJson(const std::string& text);

// ---------------------------------------------------------------------------
// The engine programs' shared main

// What an engine program was asked for on its command line.
struct TEngineCommandLine {
    std::int32_t fRecordCount = kDefaultRecordCount;
    std::string fDirectory;
};

// Parses "[--n N] [options] DIRECTORY". option is called with each option
// it does not know and the value that follows; it returns false to refuse
// it. Prints the usage and returns false on a bad command line.
bool ParseEngineCommandLine(int argc, char** argv, const char* usageOptions,
                            bool (*option)(const std::string& name, const std::string& value),
                            TEngineCommandLine& commandLine);

// Makes the directory (it must be absent or empty), runs the workload,
// prints the JSON on stdout and a failure on stderr. Returns the exit status:
// 0 when every phase passed, 1 when an operation or check failed.
int RunEngineProgram(CWorkloadEngine& engine, const TEngineCommandLine& commandLine);

}  // namespace kavo_workload

#endif  // KAVO_BENCH_WORKLOAD_H
