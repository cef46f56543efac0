// What the crash, power-loss and corruption campaigns share: record
// operations that can be written down in one line and redone exactly, a
// reference model of the records they leave, a reader that takes a
// database's whole content through the engine's calls and checks that its
// two indexes agree with its records, and the check every campaign makes of
// a file after its ending.
#ifndef KAVO_TESTS_ENGINE_CAMPAIGNSUPPORT_H
#define KAVO_TESTS_ENGINE_CAMPAIGNSUPPORT_H

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include "engine/Engine.h"
#include "engine/FaultFileIO.h"
#include "engine/FileIO.h"
#include "engine/Pager.h"
#include "tests/engine/EngineFixture.h"
#include "tests/engine/TempDirectory.h"

namespace kavotest {

using Bytes = std::vector<std::uint8_t>;

// The engine as every campaign starts it.
inline std::int16_t StartEngine() {
    return EngineInit(24, 60, 4, 24, 33);
}

// A count taken from the environment, for campaigns whose length CI and a
// developer want differently; the default when it is unset or not a number.
inline int CampaignCount(const char* variable, int fallback) {
    const char* text = std::getenv(variable);
    const int value = text != nullptr ? std::atoi(text) : 0;
    return value > 0 ? value : fallback;
}

// While it lives, a fresh temporary directory is the current one (the
// status log the engine writes on finding damage lands there and goes with
// it) and, unless the real file system is asked for, the fault-injecting one
// stands in for it, with the engine started. At its end the engine is
// stopped and the pager's cache and checkpoint settings are as they were.
class TCampaignWorld {
public:
    explicit TCampaignWorld(const std::string& tag, bool faults = true) : fDirectory(tag) {
        std::filesystem::current_path(fDirectory.Path());
        if (faults) Install();
    }
    ~TCampaignWorld() {
        EngineStop();
        engine::InstallFileSystem(nullptr);
        engine::TPager::SetCacheCapacity(fCapacity);
        engine::TPager::SetCheckpointPages(0);
        std::error_code ignored;
        std::filesystem::current_path(fPrevious, ignored);
    }
    // An empty fault-injecting file system in place of the current one, and
    // the engine started afresh; the engine's answer.
    std::int16_t Install() {
        EngineStop();
        fFileSystem = std::make_unique<engine::TFaultFileSystem>();
        engine::InstallFileSystem(fFileSystem.get());
        return StartEngine();
    }
    engine::TFaultFileSystem& Files() { return *fFileSystem; }
    std::string File(const std::string& name) const { return fDirectory.File(name); }

private:
    std::filesystem::path fPrevious = std::filesystem::current_path();
    TTempDirectory fDirectory;
    std::unique_ptr<engine::TFaultFileSystem> fFileSystem;
    std::size_t fCapacity = engine::TPager::CacheCapacity();
};

struct TRecordName {
    std::string fType;  // four bytes
    std::int32_t fID = 0;
    bool operator<(const TRecordName& other) const {
        return std::tie(fType, fID) < std::tie(other.fType, other.fID);
    }
};

inline std::string RecordNameText(const TRecordName& name) {
    return "'" + name.fType + "' " + std::to_string(name.fID);
}

// One add, rewrite or delete, or a close and reopen of the database (which
// checkpoints). A rewrite or delete names its record by type and ID (it is
// made current through the number index first); a rewrite may give it a new
// ID and name. Data is made from a seed, so the operation fits in a line and
// can be redone by whoever reads the line.
struct TOperation {
    enum Kind : char { kAdd = 'A', kRewrite = 'W', kDelete = 'D', kReopen = 'R' };
    Kind fKind = kAdd;
    std::string fType = "MDUM";
    std::int32_t fID = 0;
    std::int32_t fNewID = 0;  // rewrites only
    std::string fName;        // adds and rewrites; Encode needs it without blanks
    std::uint32_t fSeed = 0;
    std::uint32_t fSize = 0;

    // The record an add or rewrite writes. Its data comes from the seed:
    // mt19937's sequence is fixed by the language, so every platform makes
    // the same bytes.
    Bytes Record() const {
        Bytes record = MakeRecord(fType.c_str(), fKind == kAdd ? fID : fNewID, fName, Bytes(fSize));
        std::mt19937 random(fSeed);
        for (std::size_t i = kFixedLength; i < record.size(); ++i)
            record[i] = static_cast<std::uint8_t>(random() >> 24);
        return record;
    }
    // A blank in a type is written as '_' (the types used have no '_').
    std::string Encode() const {
        std::string type = fType.substr(0, 4);
        std::replace(type.begin(), type.end(), ' ', '_');
        return std::string(1, fKind) + ' ' + type + ' ' + std::to_string(fID) + ' ' + std::to_string(fNewID) +
               ' ' + (fName.empty() ? "-" : fName) + ' ' + std::to_string(fSeed) + ' ' +
               std::to_string(fSize);
    }
    static bool Decode(const std::string& line, TOperation* op) {
        std::istringstream in(line);
        char kind = 0;
        if (!(in >> kind >> op->fType >> op->fID >> op->fNewID >> op->fName >> op->fSeed >> op->fSize) ||
            std::string("AWDR").find(kind) == std::string::npos || op->fType.size() != 4)
            return false;
        std::replace(op->fType.begin(), op->fType.end(), '_', ' ');
        if (op->fName == "-") op->fName.clear();
        op->fKind = static_cast<Kind>(kind);
        return true;
    }
};

// The record's name as stored in its fixed part.
inline std::string StoredName(const Bytes& record) {
    std::size_t length = 0;
    while (length < 32 && 8 + length < record.size() && record[8 + length] != 0) ++length;
    return std::string(reinterpret_cast<const char*>(record.data()) + 8, length);
}

// The records a sequence of operations leaves (each whole, fixed part
// included), and what the engine must answer to each operation.
class TRecordModel {
public:
    const std::map<TRecordName, std::shared_ptr<const Bytes>>& Records() const { return fRecords; }
    std::size_t Size() const { return fRecords.size(); }
    bool Has(const TRecordName& name) const { return fRecords.count(name) != 0; }

    // kEngineNoError, kKeyExists for a clash of number or name with another
    // record, kEngineKeyNotFound when a rewrite or delete finds no record.
    std::int16_t Expected(const TOperation& op) const {
        const TRecordName target{op.fType, op.fID};
        if (op.fKind == TOperation::kReopen) return kEngineNoError;
        if (op.fKind == TOperation::kAdd)
            return Has(target) || NameHolder(op.fType, op.fName) != nullptr ? kKeyExists : kEngineNoError;
        if (!Has(target)) return kEngineKeyNotFound;
        if (op.fKind == TOperation::kDelete) return kEngineNoError;
        if (op.fNewID != op.fID && Has(TRecordName{op.fType, op.fNewID})) return kKeyExists;
        const TRecordName* holder = NameHolder(op.fType, op.fName);
        return holder != nullptr && holder->fID != op.fID ? kKeyExists : kEngineNoError;
    }

    // Only for operations whose expected answer is kEngineNoError.
    void Apply(const TOperation& op) {
        if (op.fKind == TOperation::kReopen) return;
        const TRecordName target{op.fType, op.fID};
        if (op.fKind != TOperation::kAdd) fRecords.erase(target);
        if (op.fKind == TOperation::kDelete) return;
        const TRecordName stored{op.fType, op.fKind == TOperation::kAdd ? op.fID : op.fNewID};
        fRecords[stored] = std::make_shared<const Bytes>(op.Record());
    }

    // A random operation, mostly one that succeeds: adds of new records,
    // rewrites and deletes of existing ones, now and then a clash, and a
    // close and reopen one time in fourteen or so. Sizes run from empty to
    // long records that spill into overflow pages; a few are very long.
    TOperation RandomOperation(std::mt19937& random, int idRange = 300) const {
        static const char* const kTypes[] = {"MDUM", "path", "SEEN", "DVC "};
        TOperation op;
        op.fSeed = static_cast<std::uint32_t>(random());
        const unsigned sizeDie = random() % 200;
        op.fSize = sizeDie < 2    ? 90000 + random() % 20000
                   : sizeDie < 20 ? 1000 + random() % 12000
                                  : random() % 400;
        const auto someName = [&]() { return "n" + std::to_string(random() % (2 * idRange)); };
        const unsigned kindDie = random() % 100;
        if (fRecords.empty() || kindDie < 40) {
            op.fType = kTypes[random() % 4];
            op.fID = static_cast<std::int32_t>(random() % idRange) - idRange / 5;
            op.fName = someName();
            return op;
        }
        auto it = fRecords.begin();
        std::advance(it, random() % fRecords.size());
        op.fType = it->first.fType;
        op.fID = it->first.fID;
        op.fKind = kindDie < 47   ? TOperation::kReopen
                   : kindDie < 70 ? TOperation::kDelete
                                  : TOperation::kRewrite;
        if (op.fKind != TOperation::kRewrite) return op;
        op.fNewID = random() % 4 == 0 ? static_cast<std::int32_t>(random() % idRange) - idRange / 5 : op.fID;
        op.fName = random() % 4 == 0 ? someName() : StoredName(*it->second);
        return op;
    }

private:
    const TRecordName* NameHolder(const std::string& type, const std::string& name) const {
        const std::string stored = name.substr(0, 31);
        for (const auto& [key, record] : fRecords) {
            if (key.fType == type && StoredName(*record) == stored) return &key;
        }
        return nullptr;
    }

    std::map<TRecordName, std::shared_ptr<const Bytes>> fRecords;
};

// Performs an operation through the engine's calls, as the record manager
// would: a rewrite or delete first makes its record current by number.
inline std::int16_t PerformOperation(TTestDatabase& db, const TOperation& op) {
    if (op.fKind == TOperation::kReopen) {
        const std::int16_t error = db.Close();
        return error != kEngineNoError ? error : db.Open();
    }
    const Bytes record = op.Record();
    if (op.fKind == TOperation::kAdd)
        return AddVarRecord(db.Data(), record.data(), static_cast<std::uint32_t>(record.size()));
    const Bytes key = NumberKey(op.fType.c_str(), op.fID);
    std::uint8_t fixed[kFixedLength];
    const std::int16_t error = GetRecordByKey(db.NumberIndex(), key.data(), fixed);
    if (error != kEngineNoError) return error;
    if (op.fKind == TOperation::kDelete) return DeleteVarRecord(db.Data());
    return ReWriteVarRecord(db.Data(), record.data(), static_cast<std::uint32_t>(record.size()));
}

// A database's content as the engine's calls show it.
struct TContent {
    std::map<TRecordName, Bytes> fRecords;
    std::int16_t fError = kEngineNoError;  // the engine's answer when a call failed
    std::string fProblem;                  // what was wrong, when a call failed or disagreed
};

// Walks the number index and reads every record it names, then walks the
// name index and checks that it names the same records, each under its own
// name, in order; each walk must come to its index's count (a walk longer
// than that is cut short). Records longer than maxRecord are not read (a
// damaged length).
inline TContent ReadContent(const TTestDatabase& db, std::uint32_t maxRecord = 1u << 20) {
    TContent content;
    const auto fail = [&](const std::string& what, std::int16_t error = kEngineNoError) {
        content.fError = error;
        content.fProblem = what + " (engine error " + std::to_string(error) + ")";
        return content;
    };
    std::vector<std::pair<std::uint32_t, Bytes>> walks[2];
    for (int byName = 0; byName < 2; ++byName) {
        const std::int16_t index = byName ? db.NameIndex() : db.NumberIndex();
        const std::string which = byName ? "the name index" : "the number index";
        const std::uint32_t claimed = CountIndexEntries(index);
        if (EngineError() != kEngineNoError) return fail("counting " + which, EngineError());
        std::uint8_t key[36];
        for (std::uint32_t p = FirstKey(index, key); p != 0; p = NextKey(index, key)) {
            if (walks[byName].size() == claimed) return fail(which + " walks past its count");
            walks[byName].emplace_back(p, Bytes(key, key + (byName ? 36 : 8)));
        }
        if (EngineError() != kEngineNoError) return fail("walking " + which, EngineError());
        if (walks[byName].size() != claimed) return fail(which + " walks short of its count");
    }

    std::map<std::uint32_t, TRecordName> byPosition;
    for (const auto& [position, indexKey] : walks[0]) {
        const std::string record = "record " + std::to_string(position);
        std::uint8_t fixed[kFixedLength];
        std::int16_t error = ReadFixedAt(db.Data(), position, fixed);
        if (error != kEngineNoError) return fail("reading " + record, error);
        const std::uint32_t length = VarRecordLength(db.Data());
        if (EngineError() != kEngineNoError) return fail("sizing " + record, EngineError());
        if (length < kFixedLength || length > maxRecord)
            return fail(record + " is " + std::to_string(length) + " bytes");
        Bytes bytes(length);
        error = ReadVarRecord(db.Data(), bytes.data(), length);
        if (error != kEngineNoError) return fail("reading " + record + " whole", error);
        if (!std::equal(fixed, fixed + kFixedLength, bytes.begin()))
            return fail(record + ": its fixed part differs");
        TRecordName name{std::string(reinterpret_cast<const char*>(bytes.data()), 4), 0};
        std::memcpy(&name.fID, bytes.data() + 4, 4);
        Bytes stored = NumberKey(name.fType.c_str(), name.fID);
        TransformKey(db.NumberIndex(), stored.data());
        if (stored != indexKey) return fail(record + " is under another record's number");
        if (!content.fRecords.emplace(name, std::move(bytes)).second)
            return fail("two records " + RecordNameText(name));
        byPosition[position] = name;
    }

    if (walks[1].size() != byPosition.size()) return fail("the name index has another count of records");
    for (std::size_t i = 0; i < walks[1].size(); ++i) {
        const auto& [position, walked] = walks[1][i];
        const auto found = byPosition.find(position);
        if (found == byPosition.end())
            return fail("the name index names record " + std::to_string(position) + ", unknown by number");
        Bytes stored = NameKey(found->second.fType.c_str(), StoredName(content.fRecords.at(found->second)));
        TransformKey(db.NameIndex(), stored.data());
        if (stored != walked) return fail("record " + std::to_string(position) + " is under another name");
        if (i > 0 && !(walks[1][i - 1].second < walked)) return fail("the name index is out of order");
    }
    return content;
}

// The least k >= least for which the content holds exactly the records of
// base followed by the first k operations, or -1 and the first difference
// at k = least in *difference. After the records at k = least have been
// compared, only those each further operation touches are.
inline int FindPrefix(TRecordModel model, const std::vector<TOperation>& ops, const TContent& content,
                      std::size_t least, std::string* difference) {
    *difference = content.fProblem;
    if (!content.fProblem.empty()) return -1;
    std::set<TRecordName> differing;
    const auto compare = [&](const TRecordName& name) {
        const auto held = model.Records().find(name);
        const auto found = content.fRecords.find(name);
        const bool inModel = held != model.Records().end();
        const bool inContent = found != content.fRecords.end();
        if (inModel == inContent && (!inModel || *held->second == found->second)) {
            differing.erase(name);
            return;
        }
        if (difference->empty())
            *difference = "record " + RecordNameText(name) +
                          (!inContent ? " is missing"
                           : !inModel ? " should not be there"
                                      : " has other bytes");
        differing.insert(name);
    };
    for (std::size_t k = 0; k < least; ++k) model.Apply(ops[k]);
    for (const auto& [name, unused] : model.Records()) compare(name);
    for (const auto& [name, unused] : content.fRecords) compare(name);
    for (std::size_t k = least;; ++k) {
        if (differing.empty()) {
            difference->clear();
            return static_cast<int>(k);
        }
        if (k == ops.size()) return -1;
        model.Apply(ops[k]);
        compare(TRecordName{ops[k].fType, ops[k].fID});
        compare(TRecordName{ops[k].fType, ops[k].fNewID});
    }
}

// The check of a file after its ending, through a started engine: the
// whole-file check finds nothing, and the file opens (read-only when asked;
// it stays open) and holds as many records as the check counted, those of
// base followed by the first k operations for some k >= least. Returns k, or
// -1 and what was wrong in *problem.
inline int CheckSoundFile(TTestDatabase& db, bool readOnly, const TRecordModel& base,
                          const std::vector<TOperation>& ops, std::size_t least, std::string* problem) {
    TIntegrityReport report;
    std::int16_t error = CheckHostFile(db.Path().c_str(), &report);
    if (error == kEngineNoError) error = db.Open(readOnly);
    *problem = error != kEngineNoError     ? "the check or the open answered " + std::to_string(error)
               : !report.fProblems.empty() ? "the check found: " + report.fProblems.front()
                                           : "";
    if (!problem->empty()) return -1;
    const TContent content = ReadContent(db);
    const int k = FindPrefix(base, ops, content, least, problem);
    if (k >= 0 && report.fRecords != content.fRecords.size())
        *problem = "the check counted " + std::to_string(report.fRecords) + " records";
    return problem->empty() ? k : -1;
}

}  // namespace kavotest

#endif  // KAVO_TESTS_ENGINE_CAMPAIGNSUPPORT_H
