// The keyed file engine at growing sizes: single adds, point reads through
// each index, k-th key, range counts and deletes, at 10,000, 100,000 and
// 1,000,000 keys (or the sizes given). For each phase, per operation:
// microseconds (wall and CPU); pages visited (fetched from the cache or the
// file, or allocated: the trees' work, which grows with their height); pages
// copied or allocated; 4 KiB pages' worth and bytes written, log and
// checkpoints included; pages read from the file. After the adds, file bytes
// per record; at the end, the peak memory of the process. Last, how the
// pages visited and the time per operation grew from the smallest size to
// the largest, beside how log n grew and how the time grew for the same
// adds, reads and deletes on ordered maps in memory.
//
// Options: --dir DIRECTORY (default /var/tmp), --cache-mib N (the page cache,
// default 64 MiB), then the sizes.
//
// Records are laid out as the record manager lays them out (40-byte fixed
// part: type, ID, name) with 200 bytes of data, added in ID order (as a
// host numbering its media adds them); reads and deletes go in random order.
//
// The difference between wall and CPU time is time spent waiting for the
// disk (writes and syncs at write-backs and checkpoints). Time grows faster
// than the pages visited once the file outgrows the page cache (pages come
// from the operating system's cache, a system call and a checksum each) and
// the processor's caches; and changes written per operation grow until the
// file outgrows what one checkpoint's window of copies covers, past which a
// random change copies each page it changes once, a bounded number.
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#if defined(__unix__)
#include <sys/resource.h>
#include <unistd.h>
#endif
#include <ctime>

#include "engine/Engine.h"
#include "engine/FaultFileIO.h"
#include "engine/FileIO.h"
#include "engine/Pager.h"

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint16_t kFixed = 40;

struct TDatabase {
    std::string fPath;
    std::string fDataName;
    KeySegment fSegments[4] = {{0, 4, kSegmentBytes}, {4, 4, kSegmentSignedInt}, {0, 4, kSegmentBytes},
                               {8, 32, kSegmentString}};
    IndexDefinition fIndexes[2];
    FileDefinition fDefinition{};

    explicit TDatabase(std::string path) : fPath(std::move(path)), fDataName(fPath + "!data") {
        fIndexes[0] = IndexDefinition{8, 0, 0, 1, 0, 2, &fSegments[0], "number_key", nullptr, nullptr, nullptr};
        fIndexes[1] = IndexDefinition{36, 12, 0, 1, 0, 2, &fSegments[2], "name_key", nullptr, nullptr, nullptr};
        fDefinition = FileDefinition{fDataName.c_str(), -1, kFixed, 16384, 68, 2, 4096, 64, fIndexes,
                                     nullptr, nullptr, 0};
    }
    std::int16_t Data() const { return fDefinition.fChosenDataFileNumber; }
    std::int16_t ByNumber() const { return static_cast<std::int16_t>(Data() + 1); }
    std::int16_t ByName() const { return static_cast<std::int16_t>(Data() + 2); }
};

Bytes NumberKey(std::int32_t id) {
    Bytes key(8);
    std::memcpy(key.data(), "MDUM", 4);
    std::memcpy(key.data() + 4, &id, 4);
    return key;
}

std::string NameOf(std::int32_t id) {
    char name[32];
    std::snprintf(name, sizeof name, "Medium %07d", static_cast<int>(id));
    return name;
}

Bytes NameKey(std::int32_t id) {
    Bytes key(36, 0);
    std::memcpy(key.data(), "MDUM", 4);
    const std::string name = NameOf(id);
    std::memcpy(key.data() + 4, name.data(), name.size());
    return key;
}

Bytes Record(std::int32_t id) {
    Bytes record(kFixed + 200, 0);
    std::memcpy(record.data(), "MDUM", 4);
    std::memcpy(record.data() + 4, &id, 4);
    const std::string name = NameOf(id);
    std::memcpy(record.data() + 8, name.data(), name.size());
    for (std::size_t i = kFixed; i < record.size(); ++i) record[i] = static_cast<std::uint8_t>(id * 31 + i);
    return record;
}

long PeakKilobytes() {
#if defined(__unix__)
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
#else
    return 0;
#endif
}

struct TPhase {
    const char* fName;
    std::uint64_t fOps = 0;
    double fSeconds = 0;
    double fCpuSeconds = 0;
    std::uint64_t fBytes = 0;
    std::uint64_t fBytesRead = 0;
    // From the pager, when the host file stayed open through the phase.
    bool fCounted = false;
    std::uint64_t fVisits = 0;
    std::uint64_t fAllocated = 0;
};

double CpuSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

void Fail(const char* what, long detail) {
    std::fprintf(stderr, "engine bench: %s failed (%ld, engine error %d)\n", what, detail, EngineError());
    std::exit(1);
}

std::vector<TPhase> RunSize(std::uint32_t n, const std::string& directory) {
    engine::TCountingFileSystem counting(engine::PlatformFileSystem());
    engine::InstallFileSystem(&counting);
    const std::string path = directory + "/engine-" + std::to_string(n) + ".kdb";
    std::filesystem::remove(path);
    if (EngineInit(24, 60, 4, 24, 33) != kEngineNoError) Fail("EngineInit", 0);
    TDatabase db(path);
    if (CreateHostFile(0, path.c_str(), 0, 0, kHostCreateMode) != kEngineNoError) Fail("CreateHostFile", 0);
    if (CreateFilesFromDefinition(&db.fDefinition) != kEngineNoError) Fail("CreateFilesFromDefinition", 0);

    std::vector<std::int32_t> ids(n);
    for (std::uint32_t i = 0; i < n; ++i) ids[i] = static_cast<std::int32_t>(i + 1);
    std::mt19937 random(n);
    const std::uint32_t samples = std::min<std::uint32_t>(n, 100000);
    std::vector<TPhase> phases;
    // Phases that close the host file have no pager counters of their own.
    auto time = [&](const char* name, std::uint64_t ops, auto&& body, bool counted = true) {
        counting.ResetCounters();
        const engine::TPagerStats* stats = HostFileStats(0);
        const engine::TPagerStats before = stats != nullptr ? *stats : engine::TPagerStats{};
        const auto start = Clock::now();
        const double cpuStart = CpuSeconds();
        body();
        TPhase phase{name, ops, std::chrono::duration<double>(Clock::now() - start).count(),
                     CpuSeconds() - cpuStart, counting.Counters().fBytesWritten, counting.Counters().fBytesRead};
        if (counted && stats != nullptr && HostFileStats(0) == stats) {
            phase.fCounted = true;
            phase.fVisits = stats->fPageVisits - before.fPageVisits;
            phase.fAllocated = stats->fPagesAllocated - before.fPagesAllocated;
        }
        phases.push_back(phase);
    };

    time("add", n, [&] {
        for (std::int32_t id : ids) {
            const Bytes record = Record(id);
            if (AddVarRecord(db.Data(), record.data(), static_cast<std::uint32_t>(record.size())) != kEngineNoError)
                Fail("AddVarRecord", id);
        }
    });
    time("close + open", 1, [&] {
        CloseFilesFromDefinition(&db.fDefinition);
        if (CloseHostFile(0, 0) != kEngineNoError) Fail("CloseHostFile", 0);
        if (OpenHostFile(0, path.c_str(), kHostOpenReadWrite) != kEngineNoError) Fail("OpenHostFile", 0);
        db.fDefinition.fDataFileNumber = -1;
        if (OpenFilesFromDefinition(&db.fDefinition) != kEngineNoError) Fail("OpenFilesFromDefinition", 0);
    }, false);
    std::uint64_t fileBytes = 0;
    {
        std::error_code ignored;
        fileBytes = std::filesystem::file_size(path, ignored);
    }
    std::uint8_t fixed[kFixed];
    Bytes buffer(4096);
    std::shuffle(ids.begin(), ids.end(), random);
    time("read by number key", samples, [&] {
        for (std::uint32_t i = 0; i < samples; ++i) {
            const Bytes key = NumberKey(ids[i]);
            if (GetRecordByKey(db.ByNumber(), key.data(), fixed) != kEngineNoError) Fail("GetRecordByKey", ids[i]);
            const std::uint32_t length = VarRecordLength(db.Data());
            if (ReadVarRecord(db.Data(), buffer.data(), length) != kEngineNoError) Fail("ReadVarRecord", ids[i]);
        }
    });
    std::shuffle(ids.begin(), ids.end(), random);
    time("read by name key", samples, [&] {
        for (std::uint32_t i = 0; i < samples; ++i) {
            const Bytes key = NameKey(ids[i]);
            if (GetRecordByKey(db.ByName(), key.data(), fixed) != kEngineNoError) Fail("GetRecordByKey", ids[i]);
            const std::uint32_t length = VarRecordLength(db.Data());
            if (ReadVarRecord(db.Data(), buffer.data(), length) != kEngineNoError) Fail("ReadVarRecord", ids[i]);
        }
    });
    constexpr std::uint32_t kSeeks = 10000;
    time("k-th key + fixed part", kSeeks, [&] {
        for (std::uint32_t i = 0; i < kSeeks; ++i) {
            const std::uint32_t k = random() % n;
            const std::uint32_t position = NthKey(db.ByName(), k, nullptr);
            if (position == 0) Fail("NthKey", k);
            if (ReadFixedAt(db.Data(), position, fixed) != kEngineNoError) Fail("ReadFixedAt", k);
        }
    });
    time("range count", kSeeks, [&] {
        for (std::uint32_t i = 0; i < kSeeks; ++i) {
            std::int32_t a = static_cast<std::int32_t>(random() % n);
            std::int32_t b = static_cast<std::int32_t>(random() % n);
            if (a > b) std::swap(a, b);
            const Bytes low = NumberKey(a + 1);
            const Bytes high = NumberKey(b + 1);
            if (CountKeyRange(db.ByNumber(), low.data(), high.data()) != std::uint32_t(b - a + 1))
                Fail("CountKeyRange", a);
        }
    });
    std::shuffle(ids.begin(), ids.end(), random);
    time("delete", n, [&] {
        for (std::int32_t id : ids) {
            const Bytes key = NumberKey(id);
            if (GetRecordByKey(db.ByNumber(), key.data(), fixed) != kEngineNoError) Fail("GetRecordByKey", id);
            if (DeleteVarRecord(db.Data()) != kEngineNoError) Fail("DeleteVarRecord", id);
        }
    });
    time("close", 1, [&] {
        CloseFilesFromDefinition(&db.fDefinition);
        if (CloseHostFile(0, 0) != kEngineNoError) Fail("CloseHostFile", 0);
    }, false);
    EngineStop();
    engine::InstallFileSystem(nullptr);
    std::filesystem::remove(path);

    std::printf("\n%u keys: file %.1f MiB after the adds, %.0f bytes per record\n", n, fileBytes / 1048576.0,
                double(fileBytes) / n);
    std::printf("  %-22s %10s %9s %9s %10s %10s %10s %9s %9s\n", "phase", "operations", "us/op", "cpu us/op",
                "visits/op", "copies/op", "written/op", "B wr/op", "read/op");
    for (const TPhase& p : phases) {
        std::printf("  %-22s %10" PRIu64 " %9.2f %9.2f", p.fName, p.fOps, p.fSeconds * 1e6 / p.fOps,
                    p.fCpuSeconds * 1e6 / p.fOps);
        if (p.fCounted) {
            std::printf(" %10.2f %10.3f", double(p.fVisits) / p.fOps, double(p.fAllocated) / p.fOps);
        } else {
            std::printf(" %10s %10s", "-", "-");
        }
        std::printf(" %10.3f %9.0f %9.3f\n", double(p.fBytes) / 4096.0 / p.fOps, double(p.fBytes) / p.fOps,
                    double(p.fBytesRead) / 4096.0 / p.fOps);
    }
    std::printf("  peak memory of the process so far: %.1f MiB\n", PeakKilobytes() / 1024.0);
    return phases;
}

// The same adds, point reads and deletes on three ordered maps in memory
// (records by position, positions by number key and by name key): no file,
// no pages, no checksums, the same keys and orders. How its time per
// operation grows is what the processor's caches alone do to a structure
// whose work grows as log n: the yardstick for the engine's time.
std::vector<TPhase> RunInMemory(std::uint32_t n) {
    std::map<std::uint32_t, Bytes> records;
    std::map<Bytes, std::uint32_t> byNumber;
    std::map<Bytes, std::uint32_t> byName;
    std::vector<std::int32_t> ids(n);
    for (std::uint32_t i = 0; i < n; ++i) ids[i] = static_cast<std::int32_t>(i + 1);
    std::mt19937 random(n);
    const std::uint32_t samples = std::min<std::uint32_t>(n, 100000);
    Bytes buffer(4096);
    std::uint64_t sink = 0;
    std::vector<TPhase> phases;
    auto time = [&](const char* name, std::uint64_t ops, auto&& body) {
        const auto start = Clock::now();
        body();
        phases.push_back(TPhase{name, ops, std::chrono::duration<double>(Clock::now() - start).count()});
    };
    auto read = [&](const std::map<Bytes, std::uint32_t>& index, const Bytes& key) {
        const auto found = index.find(key);
        if (found == index.end()) Fail("in memory: find", 0);
        const Bytes& record = records.find(found->second)->second;
        std::memcpy(buffer.data(), record.data(), record.size());
        sink += buffer[record.size() - 1];
    };

    time("add", n, [&] {
        for (std::int32_t id : ids) {
            const auto position = static_cast<std::uint32_t>(id);
            records.emplace(position, Record(id));
            byNumber.emplace(NumberKey(id), position);
            byName.emplace(NameKey(id), position);
        }
    });
    std::shuffle(ids.begin(), ids.end(), random);
    time("read by number key", samples, [&] {
        for (std::uint32_t i = 0; i < samples; ++i) read(byNumber, NumberKey(ids[i]));
    });
    std::shuffle(ids.begin(), ids.end(), random);
    time("read by name key", samples, [&] {
        for (std::uint32_t i = 0; i < samples; ++i) read(byName, NameKey(ids[i]));
    });
    std::shuffle(ids.begin(), ids.end(), random);
    time("delete", n, [&] {
        for (std::int32_t id : ids) {
            const auto found = byNumber.find(NumberKey(id));
            if (found == byNumber.end()) Fail("in memory: find", id);
            const auto record = records.find(found->second);
            // Its keys come from the record, as the engine's do.
            Bytes name(36, 0);
            std::memcpy(name.data(), record->second.data(), 4);
            std::memcpy(name.data() + 4, record->second.data() + 8, 32);
            byName.erase(name);
            records.erase(record);
            byNumber.erase(found);
        }
    });
    if (sink == 1) std::printf(" ");  // keeps the reads from being optimised away
    return phases;
}

// From the smallest size to the largest: how the pages visited and the time
// per operation grew, beside how log n grew and how the time grew in memory.
void PrintGrowth(std::uint32_t small, const std::vector<TPhase>& a, const std::vector<TPhase>& memoryA,
                 std::uint32_t large, const std::vector<TPhase>& b, const std::vector<TPhase>& memoryB) {
    auto perOp = [](const TPhase& p) { return p.fSeconds / p.fOps; };
    std::printf("\nfrom %u to %u keys log n grows %.2fx; per operation:\n", small, large,
                std::log(double(large)) / std::log(double(small)));
    std::printf("  %-22s %12s %12s %16s\n", "phase", "visits grow", "time grows", "in memory grows");
    for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) {
        if (!a[i].fCounted || !b[i].fCounted || a[i].fVisits == 0) continue;
        const double visits = (double(b[i].fVisits) / b[i].fOps) / (double(a[i].fVisits) / a[i].fOps);
        std::printf("  %-22s %11.2fx %11.2fx", a[i].fName, visits, perOp(b[i]) / perOp(a[i]));
        for (std::size_t j = 0; j < memoryA.size() && j < memoryB.size(); ++j) {
            if (std::strcmp(memoryA[j].fName, a[i].fName) == 0)
                std::printf(" %15.2fx", perOp(memoryB[j]) / perOp(memoryA[j]));
        }
        std::printf("\n");
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::uint32_t> sizes;
    std::string directory = "/var/tmp";
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--dir") == 0 && i + 1 < argc) {
            directory = argv[++i];
        } else if (std::strcmp(argv[i], "--cache-mib") == 0 && i + 1 < argc) {
            engine::TPager::SetCacheCapacity(std::strtoul(argv[++i], nullptr, 10) * 256);
        } else {
            sizes.push_back(static_cast<std::uint32_t>(std::strtoul(argv[i], nullptr, 10)));
        }
    }
    if (sizes.empty()) sizes = {10000, 100000, 1000000};
    std::printf("kavoDVDB engine benchmark (files in %s, page cache %zu MiB)\n", directory.c_str(),
                engine::TPager::CacheCapacity() / 256);
    std::sort(sizes.begin(), sizes.end());
    std::vector<std::vector<TPhase>> results;
    for (std::uint32_t n : sizes) results.push_back(RunSize(n, directory));
    // After the engine's runs, so that their peak memory is their own.
    std::vector<std::vector<TPhase>> inMemory;
    for (std::uint32_t n : sizes) inMemory.push_back(RunInMemory(n));
    std::printf("\nthe same on ordered maps in memory (std::map), us/op:\n  %-10s", "keys");
    for (const TPhase& p : inMemory.front()) std::printf(" %20s", p.fName);
    std::printf("\n");
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        std::printf("  %-10u", sizes[i]);
        for (const TPhase& p : inMemory[i]) std::printf(" %20.3f", p.fSeconds * 1e6 / p.fOps);
        std::printf("\n");
    }
    if (sizes.size() > 1 && sizes.front() > 1)
        PrintGrowth(sizes.front(), results.front(), inMemory.front(), sizes.back(), results.back(),
                    inMemory.back());
    return 0;
}
