#include "tools/Commands.h"

#include <cinttypes>
#include <cstdio>
#include <map>

#include "engine/Engine.h"
#include "tools/Console.h"
#include "tools/DatabaseFile.h"
#include "tools/RecordText.h"
#include "tools/ToolExit.h"

namespace {

// Files from this size on get a progress line while they are checked.
constexpr std::uint64_t kProgressFileBytes = 8u << 20;
constexpr std::size_t kDumpBytesPerLine = 16;

// Command-line pieces that name a record.

int ParseTypeArgument(const std::string& text, TRecordType* type) {
    std::string problem;
    if (ParseRecordType(text, type, &problem)) return kExitOK;
    Complain("bad type \"" + EscapeForTerminal(text) + "\": " + problem);
    return kExitUsage;
}

int CheckNameArgument(const std::string& name) {
    if (name.size() <= kMaxRecordNameLength) return kExitOK;
    Complain("bad name \"" + EscapeForTerminal(name) + "\": a name has at most 31 characters");
    return kExitUsage;
}

// TYPE and ID|NAME: an ID when the text is a decimal number, unless byName.
int ParseKeyArguments(const std::string& typeText, const std::string& keyText, bool byName, TRecordKey* key) {
    const int typed = ParseTypeArgument(typeText, &key->fType);
    if (typed != kExitOK) return typed;
    key->fID = 0;
    key->fByName = byName || !ParseRecordID(keyText, &key->fID);
    if (!key->fByName) return kExitOK;
    key->fName = keyText;
    return CheckNameArgument(keyText);
}

bool StartRecordManager(const TRecordManagerSession& session) {
    if (!session.Started()) Complain("the record manager could not start");
    return session.Started();
}

// Output

// 104857600 as 104,857,600.
std::string GroupDigits(std::uint64_t value) {
    std::string digits = std::to_string(value);
    for (std::size_t at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, ",");
    return digits;
}

void PrintHexDump(const std::vector<unsigned char>& data) {
    for (std::size_t line = 0; line < data.size(); line += kDumpBytesPerLine) {
        std::printf("%08zx ", line);
        std::string text;
        for (std::size_t i = 0; i < kDumpBytesPerLine; ++i) {
            if (i % 8 == 0) std::printf(" ");
            if (line + i < data.size()) {
                const unsigned char byte = data[line + i];
                std::printf("%02x ", byte);
                text += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
            } else {
                std::printf("   ");
            }
        }
        std::printf(" |%s|\n", text.c_str());
    }
    std::printf("%08zx\n", data.size());
}

std::string JsonRecord(const TRecordInfo& record) {
    const std::string type(record.fType.begin(), record.fType.end());
    return "{\"type\": " + QuoteJson(type) + ", \"id\": " + std::to_string(record.fID) +
           ", \"name\": " + QuoteJson(record.fName) + ", \"size\": " + std::to_string(record.fSize) + "}";
}

// What verify says of the log: how many operations a program had logged since
// the file's last checkpoint when it ended with the file open (the check
// redoes them), or where their redo stopped at a damaged or cut-short frame.
std::string DescribeLog(const TIntegrityReport& report) {
    if (!report.fLogNote.empty()) return report.fLogNote;
    if (report.fLogFrames == 0) return "nothing since the last checkpoint";
    return std::to_string(report.fLogFrames) + (report.fLogFrames == 1 ? " operation" : " operations") +
           " since the last checkpoint, redone";
}

// Why a compaction of a file that opened stopped, other than damage.
std::string CompactFailure(std::int16_t result) {
    if (result == kWriteFailed) return "the file could not be written";
    if (result == kEngineOutOfMemory) return "out of memory";
    return "the engine answered " + std::to_string(result);
}

// The progress line of verify, rewritten in place.
class TProgressLine {
public:
    explicit TProgressLine(bool shown) : fShown(shown), fLastPercent(-1) {}

    void Show(std::uint32_t done, std::uint32_t total) {
        if (!fShown || total == 0) return;
        const int percent = static_cast<int>(std::uint64_t{done} * 100 / total);
        if (percent == fLastPercent) return;
        fLastPercent = percent;
        std::printf("\rchecking page %" PRIu32 " of %" PRIu32 " (%d%%)", done, total, percent);
        std::fflush(stdout);
    }

    void Clear() {
        if (!fShown || fLastPercent < 0) return;
        std::printf("\r%60s\r", "");
        std::fflush(stdout);
    }

private:
    bool fShown;
    int fLastPercent;
};

}  // namespace

// ---------------------------------------------------------------------------

int RunInfo(const TArguments& arguments) {
    const std::string& path = arguments.fPositional[0];
    TRecordManagerSession session;
    if (!StartRecordManager(session)) return kExitFailed;
    CDatabaseFile database(path);
    int result = database.Open(false);
    if (result != kExitOK) return result;

    TFileInfo info;
    result = database.ReadFileInfo(&info);
    if (result != kExitOK) return result;
    std::map<TRecordType, std::uint32_t> counts;
    std::uint32_t total = 0;
    result = database.VisitRecords(nullptr, [&](const TRecordInfo& record) {
        ++counts[record.fType];
        ++total;
    });
    if (result != kExitOK) return result;
    bool hasAbout = false;
    std::uint32_t aboutSize = 0;
    result = database.AboutTextSize(&hasAbout, &aboutSize);
    if (result != kExitOK) return result;
    result = database.Close();
    if (result != kExitOK) return result;
    const std::uint64_t fileBytes = FileSizeOf(path);

    if (arguments.Has("--json")) {
        const auto code = [](const TRecordType& type) {
            return QuoteJson(std::string(type.begin(), type.end()));
        };
        std::printf("{\"file\": %s, \"creator\": %s, \"fileType\": %s, \"platform\": %s, \"fileInfo\": %s,\n",
                    QuoteJson(path).c_str(), code(info.fCreator).c_str(), code(info.fFileType).c_str(),
                    QuoteJson(info.fPlatform).c_str(), info.fPresent ? "true" : "false");
        std::printf(" \"records\": %" PRIu32 ", \"types\": [", total);
        const char* separator = "";
        for (const auto& [type, count] : counts) {
            std::printf("%s{\"type\": %s, \"count\": %" PRIu32 "}", separator, code(type).c_str(), count);
            separator = ", ";
        }
        std::printf("],\n \"aboutSize\": %s, \"size\": %" PRIu64 "}\n",
                    hasAbout ? std::to_string(aboutSize).c_str() : "null", fileBytes);
        return kExitOK;
    }

    const char* missing = info.fPresent ? "" : "  (no file-info record)";
    std::printf("file        %s\n", EscapeForTerminal(path).c_str());
    std::printf("creator     %s%s\n", QuoteRecordType(info.fCreator).c_str(), missing);
    std::printf("file type   %s%s\n", QuoteRecordType(info.fFileType).c_str(), missing);
    std::printf("platform    %s\n", EscapeForTerminal(info.fPlatform).c_str());
    std::printf("records     %" PRIu32 "\n", total);
    for (const auto& [type, count] : counts)
        std::printf("  %-8s  %" PRIu32 "\n", QuoteRecordType(type).c_str(), count);
    if (hasAbout) {
        std::printf("about text  %" PRIu32 " bytes\n", aboutSize);
    } else {
        std::printf("about text  none\n");
    }
    std::printf("file size   %" PRIu64 " bytes\n", fileBytes);
    return kExitOK;
}

int RunList(const TArguments& arguments) {
    TRecordType onlyType;
    const bool filtered = arguments.fPositional.size() > 1;
    if (filtered) {
        const int typed = ParseTypeArgument(arguments.fPositional[1], &onlyType);
        if (typed != kExitOK) return typed;
    }
    TRecordManagerSession session;
    if (!StartRecordManager(session)) return kExitFailed;
    CDatabaseFile database(arguments.fPositional[0]);
    int result = database.Open(false);
    if (result != kExitOK) return result;

    const bool json = arguments.Has("--json");
    const char* separator = "";
    if (json) {
        std::printf("[");
    } else {
        std::printf("%-6s  %11s  %10s  %s\n", "TYPE", "ID", "SIZE", "NAME");
    }
    result = database.VisitRecords(filtered ? &onlyType : nullptr, [&](const TRecordInfo& record) {
        if (json) {
            std::printf("%s\n  %s", separator, JsonRecord(record).c_str());
            separator = ",";
        } else {
            std::printf("%-6s  %11" PRId32 "  %10" PRIu32 "  %s\n", QuoteRecordType(record.fType).c_str(),
                        record.fID, record.fSize, EscapeForTerminal(record.fName).c_str());
        }
    });
    // A listing cut short by damage is not finished off as if it were whole.
    if (result != kExitOK) return result;
    if (json) std::printf("%s]\n", *separator != '\0' ? "\n" : "");
    return database.Close();
}

int RunCat(const TArguments& arguments) {
    TRecordKey key;
    int result =
        ParseKeyArguments(arguments.fPositional[1], arguments.fPositional[2], arguments.Has("--name"), &key);
    if (result != kExitOK) return result;
    TRecordManagerSession session;
    if (!StartRecordManager(session)) return kExitFailed;
    CDatabaseFile database(arguments.fPositional[0]);
    result = database.Open(false);
    if (result != kExitOK) return result;
    std::vector<unsigned char> data;
    result = database.ReadRecord(key, &data);
    if (result != kExitOK) return result;
    result = database.Close();
    if (result != kExitOK) return result;

    if (arguments.Has("--raw")) {
        SetStreamBinary(stdout);
        if (!data.empty() && std::fwrite(data.data(), 1, data.size(), stdout) != data.size()) {
            Complain("cannot write the record to standard output");
            return kExitFailed;
        }
    } else {
        PrintHexDump(data);
    }
    return kExitOK;
}

int RunAbout(const TArguments& arguments) {
    TRecordManagerSession session;
    if (!StartRecordManager(session)) return kExitFailed;
    CDatabaseFile database(arguments.fPositional[0]);
    int result = database.Open(false);
    if (result != kExitOK) return result;
    std::string text;
    result = database.ReadAboutText(&text);
    if (result != kExitOK) return result;
    result = database.Close();
    if (result != kExitOK) return result;
    std::fputs(text.c_str(), stdout);
    if (!text.empty() && text.back() != '\n') std::fputc('\n', stdout);
    return kExitOK;
}

int RunVerify(const TArguments& arguments) {
    const std::string& path = arguments.fPositional[0];
    const int probed = ProbeFile(path, false);
    if (probed != kExitOK) return probed;

    const bool large = FileSizeOf(path) >= kProgressFileBytes;
    TProgressLine progress(arguments.Has("--progress") || (large && StreamIsTerminal(stdout)));
    TIntegrityReport report;
    const std::int16_t result = CheckHostFile(
        path.c_str(), &report, [&](std::uint32_t done, std::uint32_t total) { progress.Show(done, total); });
    progress.Clear();
    if (result == kFileNotOpened) {
        Complain("cannot check " + path + ": " + WhyNotADatabase(path));
        return kExitDamaged;
    }
    if (result != kEngineNoError) {
        Complain("cannot check " + path + ": the engine answered " + std::to_string(result));
        return kExitFailed;
    }

    std::printf("checked %s\n", EscapeForTerminal(path).c_str());
    std::printf("  file size    %" PRIu64 " bytes\n", report.fFileBytes);
    std::printf("  pages        %" PRIu32 "\n", report.fPages);
    std::printf("  free pages   %" PRIu32 "\n", report.fFreePages);
    std::printf("  records      %" PRIu32 "\n", report.fRecords);
    std::printf("  keys         %" PRIu32 "\n", report.fKeys);
    std::printf("  log          %s\n", EscapeForTerminal(DescribeLog(report)).c_str());
    if (report.fProblems.empty()) {
        std::printf("no problems: %s is sound\n", EscapeForTerminal(path).c_str());
        return kExitOK;
    }
    std::printf("problems:\n");
    for (const std::string& problem : report.fProblems)
        std::printf("  %s\n", EscapeForTerminal(problem).c_str());
    const std::size_t count = report.fProblems.size();
    Complain(path + " is damaged: " + std::to_string(count) + (count == 1 ? " problem" : " problems"));
    return kExitDamaged;
}

int RunPut(const TArguments& arguments) {
    const std::string& path = arguments.fPositional[0];
    TRecordType type;
    int result = ParseTypeArgument(arguments.fPositional[1], &type);
    if (result != kExitOK) return result;
    std::int32_t id = 0;
    if (!ParseRecordID(arguments.fPositional[2], &id)) {
        Complain("bad ID \"" + EscapeForTerminal(arguments.fPositional[2]) +
                 "\": an ID is a decimal number from -2147483648 to 2147483647");
        return kExitUsage;
    }
    const std::string& name = arguments.fPositional[3];
    result = CheckNameArgument(name);
    if (result != kExitOK) return result;
    // The file is looked at before standard input is read, so that a wrong
    // name is not found out only after the data has been typed.
    result = ProbeFile(path, true);
    if (result != kExitOK) return result;
    std::vector<unsigned char> data;
    SetStreamBinary(stdin);
    if (!ReadWholeStream(stdin, &data)) {
        Complain("cannot read the record's data from standard input");
        return kExitFailed;
    }

    TRecordManagerSession session;
    if (!StartRecordManager(session)) return kExitFailed;
    CDatabaseFile database(path);
    result = database.Open(true);
    if (result != kExitOK) return result;
    if (arguments.Has("--replace")) {
        result = database.RemoveRecordIfPresent(TRecordKey{type, false, id, ""});
        if (result == kExitOK) result = database.RemoveRecordIfPresent(TRecordKey{type, true, 0, name});
        if (result != kExitOK) return result;
    }
    result = database.AddRecord(type, id, name, data);
    if (result != kExitOK) return result;
    return database.Close();
}

int RunRemove(const TArguments& arguments) {
    TRecordKey key;
    int result =
        ParseKeyArguments(arguments.fPositional[1], arguments.fPositional[2], arguments.Has("--name"), &key);
    if (result != kExitOK) return result;
    TRecordManagerSession session;
    if (!StartRecordManager(session)) return kExitFailed;
    CDatabaseFile database(arguments.fPositional[0]);
    result = database.Open(true);
    if (result != kExitOK) return result;
    result = database.RemoveRecord(key);
    if (result != kExitOK) return result;
    return database.Close();
}

int RunCompact(const TArguments& arguments) {
    const std::string& path = arguments.fPositional[0];
    const int probed = ProbeFile(path, true);
    if (probed != kExitOK) return probed;
    TCompactReport report;
    const std::int16_t result = CompactHostFile(path.c_str(), &report);
    if (result == kFileNotOpened) {
        Complain("cannot compact " + path + ": " + WhyNotADatabase(path));
        return kExitDamaged;
    }
    if (result == kPageDamaged) {
        Complain("cannot compact " + path + ": it is damaged (kavodvdb verify tells where)");
        return kExitDamaged;
    }
    if (result != kEngineNoError) {
        Complain("cannot compact " + path + ": " + CompactFailure(result) +
                 " (the file is sound, compacted as far as the rounds finished before reached)");
        return kExitFailed;
    }
    const std::uint64_t given =
        report.fBytesBefore > report.fBytesAfter ? report.fBytesBefore - report.fBytesAfter : 0;
    if (arguments.Has("--json")) {
        std::printf("{\"file\": %s, \"bytes_before\": %" PRIu64 ", \"bytes_after\": %" PRIu64 "}\n",
                    QuoteJson(path).c_str(), report.fBytesBefore, report.fBytesAfter);
        return kExitOK;
    }
    std::printf("%s: %s bytes -> %s bytes (gave back %s)\n", EscapeForTerminal(path).c_str(),
                GroupDigits(report.fBytesBefore).c_str(), GroupDigits(report.fBytesAfter).c_str(),
                GroupDigits(given).c_str());
    return kExitOK;
}
