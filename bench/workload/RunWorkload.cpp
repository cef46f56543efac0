// bench_workload: runs the record-store workload on the store, SQLite and
// LMDB, one after another, each in its own process on a fresh directory
// inside one fresh temporary directory, and prints one table of their
// speeds with the store's ratios to its peers.
//
// The engine programs are found beside this one; an engine whose program is
// missing is shown as not built, one whose program fails as failed, and the
// others still run.
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Workload.h"

namespace {

using namespace kavo_workload;

// ---------------------------------------------------------------------------
// A small reader for the engines' JSON: objects, arrays, strings, numbers,
// true, false and null.

struct TJsonValue {
    enum EKind { kNull, kBool, kNumber, kString, kArray, kObject };
    EKind fKind = kNull;
    bool fBool = false;
    double fNumber = 0;
    std::string fString;
    std::vector<TJsonValue> fItems;
    std::vector<std::pair<std::string, TJsonValue>> fMembers;

    const TJsonValue* Find(const std::string& key) const {
        for (const auto& member : fMembers) {
            if (member.first == key) return &member.second;
        }
        return nullptr;
    }
    double NumberAt(const std::string& key, double fallback = 0) const {
        const TJsonValue* value = Find(key);
        return value != nullptr && value->fKind == kNumber ? value->fNumber : fallback;
    }
    std::string StringAt(const std::string& key) const {
        const TJsonValue* value = Find(key);
        return value != nullptr && value->fKind == kString ? value->fString : std::string();
    }
};

class TJsonReader {
public:
    explicit TJsonReader(const std::string& text) : fText(text) {}

    bool ReadDocument(TJsonValue& value) {
        if (!ReadValue(value, 0)) return false;
        SkipSpace();
        return fPosition == fText.size();
    }

private:
    void SkipSpace() {
        while (fPosition < fText.size() && std::strchr(" \t\r\n", fText[fPosition]) != nullptr) ++fPosition;
    }
    bool Take(char c) {
        SkipSpace();
        if (fPosition < fText.size() && fText[fPosition] == c) {
            ++fPosition;
            return true;
        }
        return false;
    }
    bool TakeWord(const char* word) {
        const std::size_t length = std::strlen(word);
        if (fText.compare(fPosition, length, word) != 0) return false;
        fPosition += length;
        return true;
    }
    bool ReadString(std::string& text);
    bool ReadValue(TJsonValue& value, int depth);

    const std::string& fText;
    std::size_t fPosition = 0;
};

bool TJsonReader::ReadString(std::string& text) {
    if (!Take('"')) return false;
    while (fPosition < fText.size()) {
        const char c = fText[fPosition++];
        if (c == '"') return true;
        if (c != '\\') {
            text += c;
            continue;
        }
        if (fPosition >= fText.size()) return false;
        const char escaped = fText[fPosition++];
        switch (escaped) {
            case 'n': text += '\n'; break;
            case 't': text += '\t'; break;
            case 'r': text += '\r'; break;
            case 'b': text += '\b'; break;
            case 'f': text += '\f'; break;
            case 'u': {
                if (fPosition + 4 > fText.size()) return false;
                const unsigned long code = std::strtoul(fText.substr(fPosition, 4).c_str(), nullptr, 16);
                fPosition += 4;
                // Only the control characters the writer escapes come this way.
                text += code < 0x80 ? static_cast<char>(code) : '?';
                break;
            }
            default: text += escaped;
        }
    }
    return false;
}

bool TJsonReader::ReadValue(TJsonValue& value, int depth) {
    if (depth > 32) return false;
    SkipSpace();
    if (fPosition >= fText.size()) return false;
    const char c = fText[fPosition];
    if (c == '{') {
        ++fPosition;
        value.fKind = TJsonValue::kObject;
        if (Take('}')) return true;
        do {
            std::pair<std::string, TJsonValue> member;
            if (!ReadString(member.first) || !Take(':') || !ReadValue(member.second, depth + 1)) return false;
            value.fMembers.push_back(std::move(member));
        } while (Take(','));
        return Take('}');
    }
    if (c == '[') {
        ++fPosition;
        value.fKind = TJsonValue::kArray;
        if (Take(']')) return true;
        do {
            value.fItems.emplace_back();
            if (!ReadValue(value.fItems.back(), depth + 1)) return false;
        } while (Take(','));
        return Take(']');
    }
    if (c == '"') {
        value.fKind = TJsonValue::kString;
        return ReadString(value.fString);
    }
    if (TakeWord("true") || TakeWord("false")) {
        value.fKind = TJsonValue::kBool;
        value.fBool = c == 't';
        return true;
    }
    if (TakeWord("null")) return true;
    const char* start = fText.c_str() + fPosition;
    char* end = nullptr;
    value.fNumber = std::strtod(start, &end);
    if (end == start) return false;
    value.fKind = TJsonValue::kNumber;
    fPosition += static_cast<std::size_t>(end - start);
    return true;
}

// ---------------------------------------------------------------------------
// The run

struct TRunnerOptions {
    std::int32_t fRecordCount = kDefaultRecordCount;
    std::string fParentDirectory = "/var/tmp";
    std::string fJsonPath;
    std::string fSqliteSync;  // passed through when given
    std::string fLmdbSync;
    bool fKeep = false;
};

enum class EEngineStatus { kNotBuilt, kFailed, kOk };

struct TEngineRun {
    TEngineRun(const char* key, const char* label) : fKey(key), fLabel(label) {}

    const char* fKey;    // program and JSON name
    const char* fLabel;  // column heading
    EEngineStatus fStatus = EEngineStatus::kNotBuilt;
    std::string fProgram;
    std::string fFailure;  // why it failed, when it did
    double fProcessSeconds = 0;
    std::string fRawJson;  // as the program printed it, when it parsed
    TJsonValue fResult;
    bool fHaveResult = false;
};

const char* const kPhaseNames[] = {"add",   "read_id", "read_name", "resave", "count",
                                   "nth",   "next_id", "reopen",    "remove"};

void PrintUsage(const char* program) {
    std::fprintf(stderr,
                 "usage: %s [--n N] [--dir PARENT] [--json FILE] [--sqlite-sync normal|full]\n"
                 "          [--lmdb-sync nosync|nometasync|sync] [--keep]\n"
                 "  Runs the record-store workload on the store, SQLite and LMDB, each in its\n"
                 "  own process, in a fresh temporary directory under PARENT (default /var/tmp,\n"
                 "  never a memory file system), and prints one table.\n"
                 "  --n N      records, default %" PRId32 ", from %" PRId32 " to %" PRId32 "\n"
                 "  --json F   also write every engine's results to F\n"
                 "  --keep     keep the databases afterwards\n",
                 program, kDefaultRecordCount, kMinRecordCount, kMaxRecordCount);
}

bool ParseRunnerOptions(int argc, char** argv, TRunnerOptions& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "-h" || argument == "--help") {
            PrintUsage(argv[0]);
            return false;
        }
        if (argument == "--keep") {
            options.fKeep = true;
            continue;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "%s: %s needs a value\n", argv[0], argument.c_str());
            PrintUsage(argv[0]);
            return false;
        }
        const std::string value = argv[++i];
        if (argument == "--n") {
            char* end = nullptr;
            errno = 0;
            const long long count = std::strtoll(value.c_str(), &end, 10);
            if (value.empty() || *end != '\0' || errno != 0 || count < kMinRecordCount || count > kMaxRecordCount) {
                std::fprintf(stderr, "%s: N must be a whole number from %" PRId32 " to %" PRId32 ", not %s\n",
                             argv[0], kMinRecordCount, kMaxRecordCount, value.c_str());
                return false;
            }
            options.fRecordCount = static_cast<std::int32_t>(count);
        } else if (argument == "--dir") {
            options.fParentDirectory = value;
        } else if (argument == "--json") {
            options.fJsonPath = value;
        } else if (argument == "--sqlite-sync" && (value == "normal" || value == "full")) {
            options.fSqliteSync = value;
        } else if (argument == "--lmdb-sync" && (value == "nosync" || value == "nometasync" || value == "sync")) {
            options.fLmdbSync = value;
        } else {
            std::fprintf(stderr, "%s: unknown option or value: %s %s\n", argv[0], argument.c_str(), value.c_str());
            PrintUsage(argv[0]);
            return false;
        }
    }
    return true;
}

std::string ProgramDirectory() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0) return ".";
    path[length] = '\0';
    return std::filesystem::path(path).parent_path().string();
}

std::string FileSystemName(const std::string& directory, bool& inMemory) {
    struct statfs info;
    inMemory = false;
    if (statfs(directory.c_str(), &info) != 0) return "unknown file system";
    switch (static_cast<unsigned long>(info.f_type)) {
        case 0x01021994: inMemory = true; return "tmpfs";
        case 0x858458f6: inMemory = true; return "ramfs";
        case 0xEF53: return "ext2/3/4";
        case 0x58465342: return "xfs";
        case 0x9123683E: return "btrfs";
        case 0x794C7630: return "overlayfs";
        default: {
            char name[32];
            std::snprintf(name, sizeof name, "file system 0x%lx", static_cast<unsigned long>(info.f_type));
            return name;
        }
    }
}

// Runs one engine program with its stdout into a pipe; the program's stderr
// stays the terminal's, so its messages show as they come.
void RunEngine(TEngineRun& run, const TRunnerOptions& options, const std::string& directory) {
    std::vector<std::string> arguments = {run.fProgram, "--n", std::to_string(options.fRecordCount)};
    if (std::strcmp(run.fKey, "sqlite") == 0 && !options.fSqliteSync.empty()) {
        arguments.insert(arguments.end(), {"--sqlite-sync", options.fSqliteSync});
    }
    if (std::strcmp(run.fKey, "lmdb") == 0 && !options.fLmdbSync.empty()) {
        arguments.insert(arguments.end(), {"--lmdb-sync", options.fLmdbSync});
    }
    arguments.push_back(directory);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);

    int output[2];
    if (pipe(output) != 0) {
        run.fStatus = EEngineStatus::kFailed;
        run.fFailure = std::string("cannot make a pipe: ") + std::strerror(errno);
        return;
    }
    std::fflush(nullptr);
    const double start = MonotonicSeconds();
    const pid_t child = fork();
    if (child < 0) {
        close(output[0]);
        close(output[1]);
        run.fStatus = EEngineStatus::kFailed;
        run.fFailure = std::string("cannot start a process: ") + std::strerror(errno);
        return;
    }
    if (child == 0) {
        dup2(output[1], STDOUT_FILENO);
        close(output[0]);
        close(output[1]);
        execv(argv[0], argv.data());
        std::fprintf(stderr, "bench_workload: cannot run %s: %s\n", argv[0], std::strerror(errno));
        _exit(127);
    }
    close(output[1]);
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t got = read(output[0], buffer, sizeof buffer);
        if (got > 0) {
            text.append(buffer, static_cast<std::size_t>(got));
        } else if (got == 0 || errno != EINTR) {
            break;
        }
    }
    close(output[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    run.fProcessSeconds = MonotonicSeconds() - start;

    // The JSON is the last line the program printed.
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    const std::size_t lineStart = text.find_last_of('\n');
    const std::string json = lineStart == std::string::npos ? text : text.substr(lineStart + 1);
    TJsonValue result;
    if (!json.empty() && TJsonReader(json).ReadDocument(result) && result.fKind == TJsonValue::kObject) {
        run.fRawJson = json;
        run.fResult = std::move(result);
        run.fHaveResult = true;
    }
    const TJsonValue* ok = run.fHaveResult ? run.fResult.Find("ok") : nullptr;
    const bool reportedOk = ok != nullptr && ok->fKind == TJsonValue::kBool && ok->fBool;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0 && reportedOk) {
        run.fStatus = EEngineStatus::kOk;
        return;
    }
    run.fStatus = EEngineStatus::kFailed;
    if (run.fHaveResult && !run.fResult.StringAt("error").empty()) {
        run.fFailure = run.fResult.StringAt("error");
    } else if (WIFSIGNALED(status)) {
        run.fFailure = "killed by signal " + std::to_string(WTERMSIG(status)) + " (" + strsignal(WTERMSIG(status)) + ")";
    } else if (WIFEXITED(status)) {
        run.fFailure = "exit status " + std::to_string(WEXITSTATUS(status));
        if (!run.fHaveResult) run.fFailure += ", no results printed";
    } else {
        run.fFailure = "ended abnormally";
    }
}

// ---------------------------------------------------------------------------
// The table

// Columns are counted in characters, not bytes ("µs" is two bytes).
std::string PadLeft(const std::string& text, std::size_t width) {
    std::size_t characters = 0;
    for (const char c : text) {
        if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) ++characters;
    }
    return characters >= width ? text : std::string(width - characters, ' ') + text;
}

std::string PadRight(const std::string& text, std::size_t width) {
    return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

std::string Grouped(double value) {
    char digits[32];
    std::snprintf(digits, sizeof digits, "%.0f", value);
    std::string text = digits;
    const std::size_t firstDigit = text[0] == '-' ? 1 : 0;
    for (std::size_t i = text.size(); i > firstDigit + 3; i -= 3) text.insert(i - 3, ",");
    return text;
}

std::string FormatRate(double perSecond) {
    if (perSecond >= 100) return Grouped(perSecond);
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", perSecond);
    return text;
}

std::string FormatMicroseconds(double microseconds) {
    char text[32];
    if (microseconds >= 10000) return Grouped(microseconds);
    std::snprintf(text, sizeof text, microseconds >= 100 ? "%.1f" : "%.2f", microseconds);
    return text;
}

std::string FormatRatio(double ratio) {
    char text[32];
    std::snprintf(text, sizeof text,
                  ratio >= 100 ? "%.0f" : ratio >= 10 ? "%.1f" : ratio >= 0.1 ? "%.2f" : "%.2g", ratio);
    return text;
}

std::string FormatSeconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, seconds < 10 ? "%.2f s" : "%.1f s", seconds);
    return text;
}

std::string FormatMiB(double bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MiB", bytes / (1024.0 * 1024.0));
    return text;
}

// The phase of an engine's results by name, or null.
const TJsonValue* FindPhase(const TEngineRun& run, const char* name) {
    if (!run.fHaveResult) return nullptr;
    const TJsonValue* phases = run.fResult.Find("phases");
    if (phases == nullptr || phases->fKind != TJsonValue::kArray) return nullptr;
    for (const TJsonValue& phase : phases->fItems) {
        if (phase.StringAt("name") == name) return &phase;
    }
    return nullptr;
}

double PhaseRate(const TEngineRun& run, const char* name) {
    const TJsonValue* phase = FindPhase(run, name);
    if (phase == nullptr) return 0;
    const double seconds = phase->NumberAt("seconds");
    return seconds > 0 ? phase->NumberAt("operations") / seconds : 0;
}

std::int64_t PhaseOperations(const char* name, std::int32_t count) {
    const std::string phase = name;
    if (phase == "resave") return count / 2;
    if (phase == "count") return kCountOperations;
    if (phase == "nth") return kNthOperations;
    if (phase == "next_id") return kNextIdOperations;
    if (phase == "reopen") return 1;
    return count;
}

// What an engine's cells show for a phase it has no figure for.
std::string MissingCell(const TEngineRun& run, bool firstMissing) {
    if (run.fStatus == EEngineStatus::kNotBuilt) return "not built";
    if (run.fStatus == EEngineStatus::kFailed) return firstMissing ? "failed" : "-";
    return "-";
}

constexpr std::size_t kPhaseWidth = 10;
constexpr std::size_t kOpsWidth = 10;
constexpr std::size_t kRateWidth = 12;
constexpr std::size_t kTimeWidth = 10;
constexpr std::size_t kRatioWidth = 11;

void PrintTable(const std::vector<TEngineRun>& runs, const TRunnerOptions& options, double wallSeconds) {
    const TEngineRun& store = runs[0];
    const TEngineRun& sqlite = runs[1];
    const TEngineRun& lmdb = runs[2];
    const std::size_t engineWidth = kRateWidth + kTimeWidth + 2;

    std::string line = PadRight("", kPhaseWidth + kOpsWidth);
    for (const TEngineRun& run : runs) line += "  " + PadLeft(run.fLabel, engineWidth - 2) + "  ";
    line += PadLeft("store/", kRatioWidth) + PadLeft("store/", kRatioWidth);
    std::printf("%s\n", line.c_str());
    line = PadRight("phase", kPhaseWidth) + PadLeft("ops", kOpsWidth);
    for (std::size_t i = 0; i < runs.size(); ++i) {
        line += "  " + PadLeft("ops/s", kRateWidth) + PadLeft("µs/op", kTimeWidth);
    }
    line += PadLeft("best peer", kRatioWidth) + PadLeft("SQLite", kRatioWidth);
    std::printf("%s\n", line.c_str());

    std::map<const TEngineRun*, bool> shownFailure;
    for (const char* name : kPhaseNames) {
        line = PadRight(name, kPhaseWidth) + PadLeft(Grouped(static_cast<double>(PhaseOperations(name, options.fRecordCount))), kOpsWidth);
        for (const TEngineRun& run : runs) {
            const TJsonValue* phase = FindPhase(run, name);
            line += "  ";
            if (phase != nullptr) {
                line += PadLeft(FormatRate(PhaseRate(run, name)), kRateWidth) +
                        PadLeft(FormatMicroseconds(phase->NumberAt("us_per_op")), kTimeWidth);
            } else {
                const bool firstMissing = !shownFailure[&run];
                shownFailure[&run] = true;
                line += PadLeft(MissingCell(run, firstMissing), kRateWidth) + PadLeft("", kTimeWidth);
            }
        }
        const double storeRate = PhaseRate(store, name);
        const double bestPeer = std::max(PhaseRate(sqlite, name), PhaseRate(lmdb, name));
        const double sqliteRate = PhaseRate(sqlite, name);
        line += PadLeft(storeRate > 0 && bestPeer > 0 ? FormatRatio(storeRate / bestPeer) : "-", kRatioWidth);
        line += PadLeft(storeRate > 0 && sqliteRate > 0 ? FormatRatio(storeRate / sqliteRate) : "-", kRatioWidth);
        std::printf("%s\n", line.c_str());
    }
    std::printf("\nstore/best peer and store/SQLite divide operations per second: above 1 the store is faster.\n\n");

    const std::size_t labelWidth = kPhaseWidth + kOpsWidth;
    auto printRow = [&](const char* label, auto cell) {
        std::string row = PadRight(label, labelWidth);
        for (const TEngineRun& run : runs) {
            std::string text = "-";
            if (run.fStatus == EEngineStatus::kNotBuilt) {
                text = "not built";
            } else if (run.fHaveResult || run.fProcessSeconds > 0) {
                text = cell(run);
            }
            row += "  " + PadLeft(text, engineWidth - 2) + "  ";
        }
        while (!row.empty() && row.back() == ' ') row.pop_back();
        std::printf("%s\n", row.c_str());
    };
    printRow("file bytes after add", [](const TEngineRun& run) {
        const double bytes = run.fResult.NumberAt("file_bytes_after_add", -1);
        return bytes < 0 ? std::string("-") : Grouped(bytes);
    });
    printRow("  per record", [](const TEngineRun& run) {
        const double bytes = run.fResult.NumberAt("file_bytes_per_record", -1);
        if (bytes < 0) return std::string("-");
        char text[32];
        std::snprintf(text, sizeof text, "%.1f", bytes);
        return std::string(text);
    });
    printRow("  allocated", [](const TEngineRun& run) {
        const double bytes = run.fResult.NumberAt("file_bytes_allocated_after_add", -1);
        return bytes < 0 ? std::string("-") : Grouped(bytes);
    });
    printRow("peak RSS", [](const TEngineRun& run) {
        const double bytes = run.fResult.NumberAt("peak_rss_bytes", -1);
        return bytes < 0 ? std::string("-") : FormatMiB(bytes);
    });
    printRow("wall time", [](const TEngineRun& run) { return FormatSeconds(run.fProcessSeconds); });
    std::printf("\nwhole run: %s\n", FormatSeconds(wallSeconds).c_str());

    bool headed = false;
    for (const TEngineRun& run : runs) {
        std::vector<std::string> lines;
        if (run.fStatus == EEngineStatus::kFailed) lines.push_back("FAILED: " + run.fFailure);
        if (run.fStatus == EEngineStatus::kNotBuilt) lines.push_back("not built: " + run.fProgram + " is missing");
        const TJsonValue* notes = run.fHaveResult ? run.fResult.Find("notes") : nullptr;
        if (notes != nullptr) {
            for (const TJsonValue& note : notes->fItems) lines.push_back(note.fString);
        }
        for (const std::string& text : lines) {
            if (!headed) std::printf("\n");
            headed = true;
            std::printf("%s: %s\n", run.fLabel, text.c_str());
        }
    }
}

void PrintHeading(const std::vector<TEngineRun>& runs, const TRunnerOptions& options, const std::string& directory,
                  const std::string& fileSystem, double loadAtStart) {
    std::printf("Record-store workload: N = %s records of type MDUM, one process per engine\n",
                Grouped(options.fRecordCount).c_str());
    std::printf("  directory %s (%s); load average %.2f at the start\n", directory.c_str(), fileSystem.c_str(),
                loadAtStart);
    for (const TEngineRun& run : runs) {
        if (!run.fHaveResult) continue;
        std::printf("  %-7s %s: %s\n", run.fLabel, run.fResult.StringAt("version").c_str(),
                    run.fResult.StringAt("settings").c_str());
    }
    std::printf("\n");
}

bool WriteJson(const std::string& path, const std::vector<TEngineRun>& runs, const TRunnerOptions& options,
               const std::string& directory, double wallSeconds, double loadAtStart, double loadAtEnd) {
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr) return false;
    std::fprintf(file,
                 "{\"workload\":\"record-store\",\"n\":%" PRId32
                 ",\"directory\":%s,\"wall_seconds\":%.6g,\"load_average_start\":%.2f,\"load_average_end\":%.2f,"
                 "\"engines\":[",
                 options.fRecordCount, QuoteJson(directory).c_str(), wallSeconds, loadAtStart, loadAtEnd);
    for (std::size_t i = 0; i < runs.size(); ++i) {
        const TEngineRun& run = runs[i];
        const char* status = run.fStatus == EEngineStatus::kOk       ? "ok"
                             : run.fStatus == EEngineStatus::kFailed ? "failed"
                                                                     : "not built";
        std::fprintf(file, "%s\n{\"engine\":\"%s\",\"status\":\"%s\",\"process_seconds\":%.6g,\"failure\":%s,\"result\":%s}",
                     i == 0 ? "" : ",", run.fKey, status, run.fProcessSeconds, QuoteJson(run.fFailure).c_str(),
                     run.fHaveResult ? run.fRawJson.c_str() : "null");
    }
    std::fprintf(file, "\n]}\n");
    return std::fclose(file) == 0;
}

double LoadAverage() {
    double load = 0;
    return getloadavg(&load, 1) == 1 ? load : -1;
}

}  // namespace

int main(int argc, char** argv) {
    TRunnerOptions options;
    if (!ParseRunnerOptions(argc, argv, options)) return 2;

    bool inMemory = false;
    const std::string fileSystem = FileSystemName(options.fParentDirectory, inMemory);
    if (inMemory) {
        std::fprintf(stderr,
                     "bench_workload: %s is on %s; the workload runs on a disk, never in memory (use --dir)\n",
                     options.fParentDirectory.c_str(), fileSystem.c_str());
        return 2;
    }
    std::string pattern = options.fParentDirectory + "/kavo-workload-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        std::fprintf(stderr, "bench_workload: cannot make a directory in %s: %s\n",
                     options.fParentDirectory.c_str(), std::strerror(errno));
        return 2;
    }
    const std::string directory = pattern;

    std::vector<TEngineRun> runs = {{"store", "store"}, {"sqlite", "SQLite"}, {"lmdb", "LMDB"}};
    const std::string programDirectory = ProgramDirectory();
    const double loadAtStart = LoadAverage();
    const double start = MonotonicSeconds();
    for (TEngineRun& run : runs) {
        run.fProgram = programDirectory + "/bench_" + run.fKey + "_workload";
        if (access(run.fProgram.c_str(), X_OK) != 0) {
            std::fprintf(stderr, "bench_workload: %-6s not built (%s is missing)\n", run.fKey, run.fProgram.c_str());
            continue;
        }
        std::fprintf(stderr, "bench_workload: %-6s running ...\n", run.fKey);
        RunEngine(run, options, directory + "/" + run.fKey);
        std::fprintf(stderr, "bench_workload: %-6s %s in %.1f s\n", run.fKey,
                     run.fStatus == EEngineStatus::kOk ? "done" : "FAILED", run.fProcessSeconds);
    }
    const double wallSeconds = MonotonicSeconds() - start;
    const double loadAtEnd = LoadAverage();

    PrintHeading(runs, options, directory, fileSystem, loadAtStart);
    PrintTable(runs, options, wallSeconds);
    std::printf("load average %.2f at the end\n", loadAtEnd);

    int status = 0;
    for (const TEngineRun& run : runs) {
        if (run.fStatus == EEngineStatus::kFailed) status = 1;
    }
    if (!options.fJsonPath.empty() &&
        !WriteJson(options.fJsonPath, runs, options, directory, wallSeconds, loadAtStart, loadAtEnd)) {
        std::fprintf(stderr, "bench_workload: cannot write %s\n", options.fJsonPath.c_str());
        status = 1;
    }
    if (options.fKeep) {
        std::printf("databases kept in %s\n", directory.c_str());
    } else {
        std::error_code error;
        std::filesystem::remove_all(directory, error);
    }
    return status;
}
