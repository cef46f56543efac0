#include "Workload.h"

#include <dirent.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <utility>

namespace kavo_workload {

const char kRecordType[4] = {'M', 'D', 'U', 'M'};

// ---------------------------------------------------------------------------
// Records

void MakeName(std::int32_t id, char name[kNameBufferSize]) {
    std::memset(name, 0, kNameBufferSize);
    std::memcpy(name, "Medium ", 7);
    auto digits = static_cast<std::uint32_t>(id);
    for (std::size_t i = kNameLength; i > 7; --i) {
        name[i - 1] = static_cast<char>('0' + digits % 10);
        digits /= 10;
    }
}

namespace {

std::uint32_t FirstState(std::int32_t id, int gen) {
    std::uint32_t x = static_cast<std::uint32_t>(static_cast<std::uint64_t>(static_cast<std::uint32_t>(id)) *
                                                 2654435761u) ^
                      (gen == 0 ? 0x9E3779B9u : 0x7F4A7C15u);
    return x == 0 ? 1 : x;
}

inline std::uint32_t StepXorshift(std::uint32_t x) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    return x;
}

}  // namespace

void MakeData(std::int32_t id, int gen, std::uint8_t data[kDataSize]) {
    std::uint32_t x = FirstState(id, gen);
    for (std::uint32_t i = 0; i < kDataSize / 4; ++i) {
        x = StepXorshift(x);
        data[4 * i] = static_cast<std::uint8_t>(x);
        data[4 * i + 1] = static_cast<std::uint8_t>(x >> 8);
        data[4 * i + 2] = static_cast<std::uint8_t>(x >> 16);
        data[4 * i + 3] = static_cast<std::uint8_t>(x >> 24);
    }
}

std::uint8_t ExpectedFirstByte(std::int32_t id, int gen) {
    return static_cast<std::uint8_t>(StepXorshift(FirstState(id, gen)));
}

// ---------------------------------------------------------------------------
// Fixed orders

std::uint64_t TSplitMix64::Next() {
    fState += 0x9E3779B97F4A7C15ull;
    std::uint64_t z = fState;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

std::uint32_t TSplitMix64::Below(std::uint32_t bound) {
    return static_cast<std::uint32_t>(((Next() >> 32) * bound) >> 32);
}

std::vector<std::int32_t> MakePermutation(std::uint64_t seed, std::int32_t count) {
    std::vector<std::int32_t> order(static_cast<std::size_t>(count));
    for (std::int32_t i = 0; i < count; ++i) order[static_cast<std::size_t>(i)] = i + 1;
    TSplitMix64 generator(seed);
    for (std::uint32_t i = static_cast<std::uint32_t>(count); i >= 2; --i) {
        const std::uint32_t j = generator.Below(i);
        std::swap(order[i - 1], order[j]);
    }
    return order;
}

TWorkloadOrders MakeOrders(std::int32_t count) {
    TWorkloadOrders orders;
    orders.fReadIdOrder = MakePermutation(kReadIdSeed, count);
    orders.fReadNameOrder = MakePermutation(kReadNameSeed, count);
    orders.fResaveOrder = MakePermutation(kResaveSeed, count);
    orders.fResaveOrder.resize(static_cast<std::size_t>(count / 2));
    orders.fResaveOrder.shrink_to_fit();
    const auto nthBound = static_cast<std::uint32_t>(count < kNthRange ? count : kNthRange);
    TSplitMix64 nthGenerator(kNthSeed);
    orders.fNthSample.resize(kNthOperations);
    for (auto& index : orders.fNthSample) index = nthGenerator.Below(nthBound);
    orders.fRemoveOrder = MakePermutation(kRemoveSeed, count);
    return orders;
}

// ---------------------------------------------------------------------------
// Engine interface

bool CWorkloadEngine::Fail(const std::string& what) {
    fLastError = what;
    return false;
}

// ---------------------------------------------------------------------------
// Measurements

double MonotonicSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::uint64_t PeakRssBytes() {
    struct rusage usage;
    std::memset(&usage, 0, sizeof usage);
    if (getrusage(RUSAGE_SELF, &usage) != 0) return 0;
    return static_cast<std::uint64_t>(usage.ru_maxrss) * 1024;  // Linux counts KiB
}

namespace {

void AddDirectoryBytes(const std::string& directory, TDirectoryBytes& bytes) {
    DIR* listing = opendir(directory.c_str());
    if (listing == nullptr) return;
    while (const dirent* entry = readdir(listing)) {
        const std::string name = entry->d_name;
        if (name == "." || name == ".." || name == "DBSTATUS.LOG") continue;
        const std::string path = directory + "/" + name;
        struct stat info;
        if (lstat(path.c_str(), &info) != 0) continue;
        if (S_ISDIR(info.st_mode)) {
            AddDirectoryBytes(path, bytes);
        } else if (S_ISREG(info.st_mode)) {
            bytes.fApparent += static_cast<std::uint64_t>(info.st_size);
            bytes.fAllocated += static_cast<std::uint64_t>(info.st_blocks) * 512;
        }
    }
    closedir(listing);
}

}  // namespace

TDirectoryBytes MeasureDirectoryBytes(const std::string& directory) {
    TDirectoryBytes bytes;
    AddDirectoryBytes(directory, bytes);
    return bytes;
}

// ---------------------------------------------------------------------------
// The phase driver

namespace {

std::string Printed(const char* format, ...) __attribute__((format(printf, 1, 2)));

std::string Printed(const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

// One run: the engine, the orders, each record's current version and the
// results so far. Each phase returns false after writing fError.
class TPhaseDriver {
public:
    TPhaseDriver(CWorkloadEngine& engine, std::int32_t count, TWorkloadResult& result)
        : fEngine(engine),
          fCount(count),
          fOrders(MakeOrders(count)),
          fGen(static_cast<std::size_t>(count) + 1, 0),
          fResult(result) {}

    bool RunAll(const std::string& directory);

private:
    bool RunAdd(const std::string& directory);
    bool RunReadByID();
    bool RunReadByName();
    bool RunResave();
    bool RunCount();
    bool RunNth();
    bool RunNextID();
    bool RunReopen();
    bool RunRemove();

    bool CheckCount(const char* when, std::uint32_t expected);
    bool CheckRead(const TReadResult& read, std::int32_t id, std::string& failure) const;
    void RecordPhase(const char* name, std::int64_t operations, double seconds);
    bool FailOperation(const char* phase, std::size_t index, std::int32_t id, const std::string& what);
    bool FailPhase(const char* phase, const std::string& what);

    CWorkloadEngine& fEngine;
    const std::int32_t fCount;
    const TWorkloadOrders fOrders;
    std::vector<std::uint8_t> fGen;  // by ID
    TWorkloadResult& fResult;
};

bool TPhaseDriver::RunAll(const std::string& directory) {
    return RunAdd(directory) && RunReadByID() && RunReadByName() && RunResave() && RunCount() && RunNth() &&
           RunNextID() && RunReopen() && RunRemove();
}

void TPhaseDriver::RecordPhase(const char* name, std::int64_t operations, double seconds) {
    TPhaseResult phase;
    phase.fName = name;
    phase.fOperations = operations;
    phase.fSeconds = seconds;
    fResult.fPhases.push_back(phase);
}

bool TPhaseDriver::FailOperation(const char* phase, std::size_t index, std::int32_t id,
                                 const std::string& what) {
    fResult.fError = Printed("phase %s, operation %zu (ID %" PRId32 "): ", phase, index + 1, id) + what;
    return false;
}

bool TPhaseDriver::FailPhase(const char* phase, const std::string& what) {
    fResult.fError = std::string("phase ") + phase + ": " + what;
    return false;
}

bool TPhaseDriver::CheckRead(const TReadResult& read, std::int32_t id, std::string& failure) const {
    const std::uint8_t expected = ExpectedFirstByte(id, fGen[static_cast<std::size_t>(id)]);
    if (read.fSize == kDataSize && read.fFirstByte == expected) return true;
    failure = Printed("check failed: size %" PRIu32 ", byte 0 = %u; expected size %" PRIu32 ", byte 0 = %u",
                      read.fSize, read.fFirstByte, kDataSize, expected);
    return false;
}

// The untimed counts after add, resave, reopen and remove.
bool TPhaseDriver::CheckCount(const char* when, std::uint32_t expected) {
    std::uint32_t count = 0;
    if (!fEngine.CountRecordsOfType(count)) {
        return FailPhase(when, "count after the phase failed: " + fEngine.LastError());
    }
    if (count != expected) {
        return FailPhase(when, Printed("check failed: count after the phase is %" PRIu32 ", expected %" PRIu32,
                                       count, expected));
    }
    return true;
}

bool TPhaseDriver::RunAdd(const std::string& directory) {
    if (!fEngine.CreateDatabase(directory)) return FailPhase("add", "create failed: " + fEngine.LastError());
    char name[kNameBufferSize];
    std::uint8_t data[kDataSize];
    const double start = MonotonicSeconds();
    for (std::int32_t id = 1; id <= fCount; ++id) {
        MakeName(id, name);
        MakeData(id, 0, data);
        if (!fEngine.AddRecord(id, name, data)) {
            return FailOperation("add", static_cast<std::size_t>(id - 1), id, "add failed: " + fEngine.LastError());
        }
    }
    RecordPhase("add", fCount, MonotonicSeconds() - start);
    // Right after the phase, with the database still open.
    fResult.fBytesAfterAdd = MeasureDirectoryBytes(directory);
    fResult.fHaveBytesAfterAdd = true;
    return CheckCount("add", static_cast<std::uint32_t>(fCount));
}

bool TPhaseDriver::RunReadByID() {
    const auto& order = fOrders.fReadIdOrder;
    TReadResult read;
    std::string failure;
    const double start = MonotonicSeconds();
    for (std::size_t i = 0; i < order.size(); ++i) {
        const std::int32_t id = order[i];
        if (!fEngine.ReadRecordByID(id, read)) {
            return FailOperation("read_id", i, id, "read failed: " + fEngine.LastError());
        }
        if (!CheckRead(read, id, failure)) return FailOperation("read_id", i, id, failure);
    }
    RecordPhase("read_id", static_cast<std::int64_t>(order.size()), MonotonicSeconds() - start);
    return true;
}

bool TPhaseDriver::RunReadByName() {
    const auto& order = fOrders.fReadNameOrder;
    char name[kNameBufferSize];
    TReadResult read;
    std::string failure;
    const double start = MonotonicSeconds();
    for (std::size_t i = 0; i < order.size(); ++i) {
        const std::int32_t id = order[i];
        MakeName(id, name);
        if (!fEngine.ReadRecordByName(name, read)) {
            return FailOperation("read_name", i, id, "read failed: " + fEngine.LastError());
        }
        if (!CheckRead(read, id, failure)) return FailOperation("read_name", i, id, failure);
    }
    RecordPhase("read_name", static_cast<std::int64_t>(order.size()), MonotonicSeconds() - start);
    return true;
}

bool TPhaseDriver::RunResave() {
    const auto& order = fOrders.fResaveOrder;
    char name[kNameBufferSize];
    std::uint8_t data[kDataSize];
    const double start = MonotonicSeconds();
    for (std::size_t i = 0; i < order.size(); ++i) {
        const std::int32_t id = order[i];
        MakeName(id, name);
        if (!fEngine.RemoveRecordByName(name)) {
            return FailOperation("resave", i, id, "remove by name failed: " + fEngine.LastError());
        }
        MakeData(id, 1, data);
        if (!fEngine.AddRecord(id, name, data)) {
            return FailOperation("resave", i, id, "add failed: " + fEngine.LastError());
        }
        fGen[static_cast<std::size_t>(id)] = 1;
    }
    RecordPhase("resave", static_cast<std::int64_t>(order.size()), MonotonicSeconds() - start);
    return CheckCount("resave", static_cast<std::uint32_t>(fCount));
}

bool TPhaseDriver::RunCount() {
    const auto expected = static_cast<std::uint32_t>(fCount);
    std::uint32_t count = 0;
    const double start = MonotonicSeconds();
    for (int i = 0; i < kCountOperations; ++i) {
        if (!fEngine.CountRecordsOfType(count)) {
            return FailPhase("count", Printed("operation %d: count failed: ", i + 1) + fEngine.LastError());
        }
        if (count != expected) {
            return FailPhase("count", Printed("operation %d: check failed: count is %" PRIu32 ", expected %" PRIu32,
                                              i + 1, count, expected));
        }
    }
    RecordPhase("count", kCountOperations, MonotonicSeconds() - start);
    return true;
}

bool TPhaseDriver::RunNth() {
    const auto& sample = fOrders.fNthSample;
    TReadResult read;
    std::string failure;
    const double start = MonotonicSeconds();
    for (std::size_t i = 0; i < sample.size(); ++i) {
        // Names sort in ID order, so the k-th record by name is ID k + 1.
        const auto id = static_cast<std::int32_t>(sample[i] + 1);
        if (!fEngine.ReadNthRecordOfType(sample[i], read)) {
            return FailOperation("nth", i, id, "read failed: " + fEngine.LastError());
        }
        if (!CheckRead(read, id, failure)) return FailOperation("nth", i, id, failure);
    }
    RecordPhase("nth", static_cast<std::int64_t>(sample.size()), MonotonicSeconds() - start);
    return true;
}

bool TPhaseDriver::RunNextID() {
    const std::int32_t expected = fCount + 1;
    std::int32_t next = 0;
    const double start = MonotonicSeconds();
    for (int i = 0; i < kNextIdOperations; ++i) {
        if (!fEngine.NextRecordID(next)) {
            return FailPhase("next_id", Printed("operation %d: next ID failed: ", i + 1) + fEngine.LastError());
        }
        if (next != expected) {
            return FailPhase("next_id", Printed("operation %d: check failed: next ID is %" PRId32
                                                ", expected %" PRId32,
                                                i + 1, next, expected));
        }
    }
    RecordPhase("next_id", kNextIdOperations, MonotonicSeconds() - start);
    return true;
}

bool TPhaseDriver::RunReopen() {
    double start = MonotonicSeconds();
    if (!fEngine.CloseDatabase()) return FailPhase("reopen", "close failed: " + fEngine.LastError());
    const double closeSeconds = MonotonicSeconds() - start;
    fEngine.PrepareReopen();
    start = MonotonicSeconds();
    if (!fEngine.ReopenDatabase()) return FailPhase("reopen", "open failed: " + fEngine.LastError());
    const double openSeconds = MonotonicSeconds() - start;
    RecordPhase("reopen", 1, closeSeconds + openSeconds);
    const std::string note = fEngine.ReopenNote();
    if (!note.empty()) fResult.fNotes.push_back("reopen: " + note);

    if (!CheckCount("reopen", static_cast<std::uint32_t>(fCount))) return false;
    // The one read after reopening takes the first record saved again, so
    // that it shows both the data and its second version survived the close.
    const std::int32_t id = fOrders.fResaveOrder.empty() ? 1 : fOrders.fResaveOrder.front();
    TReadResult read;
    std::string failure;
    if (!fEngine.ReadRecordByID(id, read)) {
        return FailPhase("reopen", Printed("read of ID %" PRId32 " after the phase failed: ", id) + fEngine.LastError());
    }
    if (!CheckRead(read, id, failure)) {
        return FailPhase("reopen", Printed("read of ID %" PRId32 " after the phase: ", id) + failure);
    }
    return true;
}

bool TPhaseDriver::RunRemove() {
    const auto& order = fOrders.fRemoveOrder;
    const double start = MonotonicSeconds();
    for (std::size_t i = 0; i < order.size(); ++i) {
        const std::int32_t id = order[i];
        if (!fEngine.RemoveRecordByID(id)) {
            return FailOperation("remove", i, id, "remove by ID failed: " + fEngine.LastError());
        }
    }
    RecordPhase("remove", static_cast<std::int64_t>(order.size()), MonotonicSeconds() - start);
    return CheckCount("remove", 0);
}

}  // namespace

TWorkloadResult RunWorkload(CWorkloadEngine& engine, std::int32_t count, const std::string& directory) {
    TWorkloadResult result;
    result.fEngine = engine.EngineName();
    result.fVersion = engine.EngineVersion();
    result.fSettings = engine.EngineSettings();
    result.fRecordCount = count;
    result.fDirectory = directory;
    TPhaseDriver driver(engine, count, result);
    result.fOk = driver.RunAll(directory);
    if (result.fOk && !engine.CloseDatabase()) {
        result.fOk = false;
        result.fError = "final close failed: " + engine.LastError();
    }
    return result;
}

// ---------------------------------------------------------------------------
// JSON

std::string QuoteJson(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        switch (c) {
            case '"': quoted += "\\\""; break;
            case '\\': quoted += "\\\\"; break;
            case '\n': quoted += "\\n"; break;
            case '\t': quoted += "\\t"; break;
            case '\r': quoted += "\\r"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    quoted += Printed("\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
                } else {
                    quoted += c;
                }
        }
    }
    return quoted + "\"";
}

std::string FormatResultJson(const TWorkloadResult& result) {
    std::string json = "{";
    json += "\"engine\":" + QuoteJson(result.fEngine);
    json += ",\"version\":" + QuoteJson(result.fVersion);
    json += ",\"settings\":" + QuoteJson(result.fSettings);
    json += Printed(",\"n\":%" PRId32, result.fRecordCount);
    json += ",\"directory\":" + QuoteJson(result.fDirectory);
    json += result.fOk ? ",\"ok\":true" : ",\"ok\":false";
    if (!result.fOk) json += ",\"error\":" + QuoteJson(result.fError);
    json += ",\"phases\":[";
    for (std::size_t i = 0; i < result.fPhases.size(); ++i) {
        const TPhaseResult& phase = result.fPhases[i];
        const double perSecond = phase.fSeconds > 0 ? static_cast<double>(phase.fOperations) / phase.fSeconds : 0;
        const double microseconds =
            phase.fOperations > 0 ? phase.fSeconds * 1e6 / static_cast<double>(phase.fOperations) : 0;
        json += Printed("%s{\"name\":%s,\"operations\":%" PRId64
                        ",\"seconds\":%.9g,\"ops_per_second\":%.6g,\"us_per_op\":%.6g}",
                        i == 0 ? "" : ",", QuoteJson(phase.fName).c_str(), phase.fOperations, phase.fSeconds,
                        perSecond, microseconds);
    }
    json += "]";
    if (result.fHaveBytesAfterAdd) {
        json += Printed(",\"file_bytes_after_add\":%" PRIu64 ",\"file_bytes_allocated_after_add\":%" PRIu64,
                        result.fBytesAfterAdd.fApparent, result.fBytesAfterAdd.fAllocated);
        if (result.fRecordCount > 0) {
            json += Printed(",\"file_bytes_per_record\":%.6g",
                            static_cast<double>(result.fBytesAfterAdd.fApparent) / result.fRecordCount);
        }
    }
    json += Printed(",\"peak_rss_bytes\":%" PRIu64 ",\"wall_seconds\":%.6g", result.fPeakRssBytes,
                    result.fWallSeconds);
    json += ",\"notes\":[";
    for (std::size_t i = 0; i < result.fNotes.size(); ++i) {
        json += (i == 0 ? "" : ",") + QuoteJson(result.fNotes[i]);
    }
    json += "]}";
    return json;
}

// ---------------------------------------------------------------------------
// The engine programs' shared main

namespace {

void PrintUsage(const char* program, const char* usageOptions) {
    std::fprintf(stderr,
                 "usage: %s [--n N] %sDIRECTORY\n"
                 "  Runs the record-store workload on a fresh database in DIRECTORY (absent or\n"
                 "  empty) and prints the results as one JSON object. N records, default %" PRId32
                 ", from %" PRId32 " to %" PRId32 ".\n",
                 program, usageOptions, kDefaultRecordCount, kMinRecordCount, kMaxRecordCount);
}

bool ParseRecordCount(const std::string& text, std::int32_t& count) {
    errno = 0;
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || value < kMinRecordCount || value > kMaxRecordCount) {
        return false;
    }
    count = static_cast<std::int32_t>(value);
    return true;
}

}  // namespace

bool ParseEngineCommandLine(int argc, char** argv, const char* usageOptions,
                            bool (*option)(const std::string& name, const std::string& value),
                            TEngineCommandLine& commandLine) {
    const char* program = argc > 0 ? argv[0] : "workload";
    bool haveDirectory = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "-h" || argument == "--help") {
            PrintUsage(program, usageOptions);
            return false;
        }
        if (argument.compare(0, 2, "--") == 0) {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "%s: %s needs a value\n", program, argument.c_str());
                PrintUsage(program, usageOptions);
                return false;
            }
            const std::string value = argv[++i];
            if (argument == "--n") {
                if (!ParseRecordCount(value, commandLine.fRecordCount)) {
                    std::fprintf(stderr, "%s: N must be a whole number from %" PRId32 " to %" PRId32 ", not %s\n",
                                 program, kMinRecordCount, kMaxRecordCount, value.c_str());
                    return false;
                }
            } else if (option == nullptr || !option(argument, value)) {
                std::fprintf(stderr, "%s: unknown option or value: %s %s\n", program, argument.c_str(),
                             value.c_str());
                PrintUsage(program, usageOptions);
                return false;
            }
        } else if (!haveDirectory) {
            commandLine.fDirectory = argument;
            haveDirectory = true;
        } else {
            std::fprintf(stderr, "%s: more than one directory given\n", program);
            PrintUsage(program, usageOptions);
            return false;
        }
    }
    if (!haveDirectory) {
        std::fprintf(stderr, "%s: no directory given\n", program);
        PrintUsage(program, usageOptions);
        return false;
    }
    return true;
}

int RunEngineProgram(CWorkloadEngine& engine, const TEngineCommandLine& commandLine) {
    const double start = MonotonicSeconds();
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::path directory = fs::absolute(commandLine.fDirectory, error);
    if (error) {
        std::fprintf(stderr, "bench %s: %s: %s\n", engine.EngineName(), commandLine.fDirectory.c_str(),
                     error.message().c_str());
        return 2;
    }
    if (fs::exists(directory, error)) {
        if (!fs::is_directory(directory, error) || !fs::is_empty(directory, error)) {
            std::fprintf(stderr, "bench %s: %s is not an empty directory; the workload needs a fresh one\n",
                         engine.EngineName(), directory.c_str());
            return 2;
        }
    } else if (!fs::create_directories(directory, error)) {
        std::fprintf(stderr, "bench %s: cannot make %s: %s\n", engine.EngineName(), directory.c_str(),
                     error.message().c_str());
        return 2;
    }

    TWorkloadResult result = RunWorkload(engine, commandLine.fRecordCount, directory.string());
    result.fPeakRssBytes = PeakRssBytes();
    result.fWallSeconds = MonotonicSeconds() - start;
    std::printf("%s\n", FormatResultJson(result).c_str());
    std::fflush(stdout);
    if (!result.fOk) {
        std::fprintf(stderr, "bench %s: %s\n", engine.EngineName(), result.fError.c_str());
        return 1;
    }
    return 0;
}

}  // namespace kavo_workload
