// What the crash, power-loss and corruption campaigns share: record
// operations that can be written down in one line and redone exactly, a
// reference model of the records they leave, and a reader that takes a
// database's whole content through the engine's calls and checks that its
// two indexes agree with its records.
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
#include <sstream>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include "engine/Engine.h"
#include "tests/engine/EngineFixture.h"
#include "tests/engine/TempDirectory.h"

namespace kavotest {

using Bytes = std::vector<std::uint8_t>;

// A count taken from the environment, for campaigns whose length CI and a
// developer want differently; the default when it is unset or not a number.
inline int CampaignCount(const char* variable, int fallback) {
    const char* text = std::getenv(variable);
    if (text == nullptr || *text == '\0') return fallback;
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    return (*end == '\0' && value > 0 && value < 1000000) ? static_cast<int>(value) : fallback;
}

// A fresh temporary directory that is the current one while the object
// lives: the status log the engine writes on finding damage lands there and
// goes with it.
class TWorkingDirectory {
public:
    explicit TWorkingDirectory(const std::string& tag)
        : fDirectory(tag), fPrevious(std::filesystem::current_path()) {
        std::filesystem::current_path(fDirectory.Path());
    }
    ~TWorkingDirectory() {
        std::error_code ignored;
        std::filesystem::current_path(fPrevious, ignored);
    }
    TWorkingDirectory(const TWorkingDirectory&) = delete;
    TWorkingDirectory& operator=(const TWorkingDirectory&) = delete;

    std::string File(const std::string& name) const { return fDirectory.File(name); }

private:
    TTempDirectory fDirectory;
    std::filesystem::path fPrevious;
};

// Record data from a seed: mt19937's sequence is fixed by the language, so
// every platform makes the same bytes.
inline void FillData(std::uint32_t seed, std::uint8_t* out, std::size_t size) {
    std::mt19937 random(seed);
    for (std::size_t i = 0; i < size; ++i) out[i] = static_cast<std::uint8_t>(random() >> 24);
}

inline Bytes MakeData(std::uint32_t seed, std::uint32_t size) {
    Bytes data(size);
    FillData(seed, data.data(), size);
    return data;
}

struct TRecordName {
    std::string fType;  // four bytes
    std::int32_t fID = 0;
    bool operator<(const TRecordName& other) const {
        return std::tie(fType, fID) < std::tie(other.fType, other.fID);
    }
    bool operator==(const TRecordName& other) const { return fType == other.fType && fID == other.fID; }
};

struct TStoredRecord {
    std::string fName;
    std::shared_ptr<const Bytes> fBytes;  // the whole record, fixed part included
};

// One add, rewrite or delete. A rewrite or delete names its record by type
// and ID (it is made current through the number index first); a rewrite may
// give it a new ID and name. Data is made from a seed, so the operation fits
// in a line and can be redone by whoever reads the line.
struct TOperation {
    enum Kind : char { kAdd = 'A', kRewrite = 'W', kDelete = 'D' };
    Kind fKind = kAdd;
    std::string fType = "MDUM";
    std::int32_t fID = 0;
    std::int32_t fNewID = 0;  // rewrites only
    std::string fName;        // adds and rewrites; Encode needs it without blanks
    std::uint32_t fSeed = 0;
    std::uint32_t fSize = 0;

    // The record an add or rewrite writes.
    Bytes Record() const {
        Bytes record = MakeRecord(fType.c_str(), fKind == kAdd ? fID : fNewID, fName, Bytes());
        record.resize(kFixedLength + std::size_t{fSize});
        FillData(fSeed, record.data() + kFixedLength, fSize);
        return record;
    }
    std::string Encode() const {
        std::ostringstream out;
        std::string type = fType.substr(0, 4);
        std::replace(type.begin(), type.end(), ' ', '_');
        out << static_cast<char>(fKind) << ' ' << type << ' ' << fID << ' ' << fNewID << ' '
            << (fName.empty() ? "-" : fName) << ' ' << fSeed << ' ' << fSize;
        return out.str();
    }
    // A blank in a type is written as '_' (the types used have no '_').
    static bool Decode(const std::string& line, TOperation* operation) {
        std::istringstream in(line);
        char kind = 0;
        TOperation op;
        if (!(in >> kind >> op.fType >> op.fID >> op.fNewID >> op.fName >> op.fSeed >> op.fSize))
            return false;
        if (kind != kAdd && kind != kRewrite && kind != kDelete) return false;
        if (op.fType.size() != 4) return false;
        std::replace(op.fType.begin(), op.fType.end(), '_', ' ');
        if (op.fName == "-") op.fName.clear();
        op.fKind = static_cast<Kind>(kind);
        *operation = op;
        return true;
    }
};

// The records a sequence of operations leaves, and what the engine must
// answer to each operation.
class TRecordModel {
public:
    const std::map<TRecordName, TStoredRecord>& Records() const { return fRecords; }
    std::size_t Size() const { return fRecords.size(); }
    bool Has(const TRecordName& name) const { return fRecords.count(name) != 0; }

    // kEngineNoError, kKeyExists for a clash of number or name with another
    // record, kEngineKeyNotFound when a rewrite or delete finds no record.
    std::int16_t Expected(const TOperation& op) const {
        const TRecordName target{op.fType, op.fID};
        if (op.fKind == TOperation::kAdd) {
            if (Has(target) || NameHolder(op.fType, op.fName) != nullptr) return kKeyExists;
            return kEngineNoError;
        }
        if (!Has(target)) return kEngineKeyNotFound;
        if (op.fKind == TOperation::kDelete) return kEngineNoError;
        const TRecordName moved{op.fType, op.fNewID};
        if (!(moved == target) && Has(moved)) return kKeyExists;
        const TRecordName* holder = NameHolder(op.fType, op.fName);
        if (holder != nullptr && !(*holder == target)) return kKeyExists;
        return kEngineNoError;
    }

    // Only for operations whose expected answer is kEngineNoError.
    void Apply(const TOperation& op) {
        const TRecordName target{op.fType, op.fID};
        if (op.fKind == TOperation::kDelete) {
            fRecords.erase(target);
            return;
        }
        auto bytes = std::make_shared<const Bytes>(op.Record());
        if (op.fKind == TOperation::kRewrite) fRecords.erase(target);
        const TRecordName stored{op.fType, op.fKind == TOperation::kAdd ? op.fID : op.fNewID};
        fRecords[stored] = TStoredRecord{op.fName.substr(0, 31), std::move(bytes)};
    }

    void Put(const TRecordName& name, const std::string& recordName, Bytes bytes) {
        fRecords[name] = TStoredRecord{recordName, std::make_shared<const Bytes>(std::move(bytes))};
    }

    // A random operation, mostly one that succeeds: adds of new records,
    // rewrites and deletes of existing ones, now and then a clash. Sizes run
    // from empty to long records that spill into overflow pages; a few are
    // very long.
    TOperation RandomOperation(std::mt19937& random, int idRange = 300) const {
        static const char* const kTypes[] = {"MDUM", "path", "SEEN", "DVC "};
        TOperation op;
        op.fSeed = static_cast<std::uint32_t>(random());
        const unsigned sizeDie = random() % 200;
        if (sizeDie < 2) {
            op.fSize = 90000 + random() % 20000;
        } else if (sizeDie < 20) {
            op.fSize = 1000 + random() % 12000;
        } else {
            op.fSize = random() % 400;
        }
        const auto someName = [&]() { return "n" + std::to_string(random() % (2 * idRange)); };
        const unsigned kindDie = random() % 100;
        if (fRecords.empty() || kindDie < 45) {
            op.fKind = TOperation::kAdd;
            op.fType = kTypes[random() % 4];
            op.fID = static_cast<std::int32_t>(random() % idRange) - idRange / 5;
            op.fName = someName();
            return op;
        }
        auto it = fRecords.begin();
        std::advance(it, random() % fRecords.size());
        op.fType = it->first.fType;
        op.fID = it->first.fID;
        if (kindDie < 70) {
            op.fKind = TOperation::kDelete;
            return op;
        }
        op.fKind = TOperation::kRewrite;
        op.fNewID = random() % 4 == 0 ? static_cast<std::int32_t>(random() % idRange) - idRange / 5 : op.fID;
        op.fName = random() % 4 == 0 ? someName() : it->second.fName;
        return op;
    }

private:
    const TRecordName* NameHolder(const std::string& type, const std::string& name) const {
        const std::string stored = name.substr(0, 31);
        for (const auto& [key, record] : fRecords) {
            if (key.fType == type && record.fName == stored) return &key;
        }
        return nullptr;
    }

    std::map<TRecordName, TStoredRecord> fRecords;
};

// Performs an operation through the engine's calls, as the record manager
// would: a rewrite or delete first makes its record current by number.
inline std::int16_t PerformOperation(const TTestDatabase& db, const TOperation& op) {
    if (op.fKind == TOperation::kAdd) {
        const Bytes record = op.Record();
        return AddVarRecord(db.Data(), record.data(), static_cast<std::uint32_t>(record.size()));
    }
    const Bytes key = NumberKey(op.fType.c_str(), op.fID);
    std::uint8_t fixed[kFixedLength];
    const std::int16_t error = GetRecordByKey(db.NumberIndex(), key.data(), fixed);
    if (error != kEngineNoError) return error;
    if (op.fKind == TOperation::kDelete) return DeleteVarRecord(db.Data());
    const Bytes record = op.Record();
    return ReWriteVarRecord(db.Data(), record.data(), static_cast<std::uint32_t>(record.size()));
}

// A database's content as the engine's calls show it.
struct TContent {
    std::map<TRecordName, Bytes> fRecords;
    std::int16_t fError = kEngineNoError;  // the engine's answer when a call failed
    std::string fProblem;                  // what was wrong, when a call failed or disagreed
};

inline std::string RecordNameText(const TRecordName& name) {
    return "'" + name.fType + "' " + std::to_string(name.fID);
}

// The record's name as stored in its fixed part.
inline std::string StoredName(const Bytes& record) {
    std::size_t length = 0;
    while (length < 32 && 8 + length < record.size() && record[8 + length] != 0) ++length;
    return std::string(reinterpret_cast<const char*>(record.data()) + 8, length);
}

// Walks the number index and reads every record it names, then walks the
// name index and checks that it names the same records, each under its own
// name, in order. Records longer than maxRecord are not read (a damaged
// length). A walk longer than the index claims is cut short.
inline TContent ReadContent(const TTestDatabase& db, std::uint32_t maxRecord = 1u << 20) {
    TContent content;
    const auto fail = [&](const std::string& what, std::int16_t error) {
        content.fError = error;
        content.fProblem = what + " (engine error " + std::to_string(error) + ")";
        return content;
    };
    const std::uint32_t claimed = CountIndexEntries(db.NumberIndex());
    if (EngineError() != kEngineNoError) return fail("counting the number index", EngineError());
    std::vector<std::pair<std::uint32_t, Bytes>> numbered;
    std::uint8_t key[36];
    for (std::uint32_t p = FirstKey(db.NumberIndex(), key); p != 0; p = NextKey(db.NumberIndex(), key)) {
        if (numbered.size() > claimed) return fail("the number index walks past its count", kEngineNoError);
        numbered.emplace_back(p, Bytes(key, key + 8));
    }
    if (EngineError() != kEngineNoError) return fail("walking the number index", EngineError());

    std::map<std::uint32_t, TRecordName> byPosition;
    for (const auto& [position, indexKey] : numbered) {
        std::uint8_t fixed[kFixedLength];
        std::int16_t error = ReadFixedAt(db.Data(), position, fixed);
        if (error != kEngineNoError) return fail("reading record " + std::to_string(position), error);
        const std::uint32_t length = VarRecordLength(db.Data());
        if (EngineError() != kEngineNoError)
            return fail("sizing record " + std::to_string(position), EngineError());
        if (length < kFixedLength || length > maxRecord)
            return fail("record " + std::to_string(position) + " is " + std::to_string(length) + " bytes",
                        kEngineNoError);
        Bytes bytes(length);
        error = ReadVarRecord(db.Data(), bytes.data(), length);
        if (error != kEngineNoError)
            return fail("reading record " + std::to_string(position) + " whole", error);
        if (!std::equal(fixed, fixed + kFixedLength, bytes.begin()))
            return fail("record " + std::to_string(position) + ": its fixed part differs", kEngineNoError);
        TRecordName name{std::string(reinterpret_cast<const char*>(bytes.data()), 4), 0};
        std::memcpy(&name.fID, bytes.data() + 4, 4);
        Bytes stored = NumberKey(name.fType.c_str(), name.fID);
        TransformKey(db.NumberIndex(), stored.data());
        if (stored != indexKey)
            return fail("record " + std::to_string(position) + " is under another record's number",
                        kEngineNoError);
        if (!content.fRecords.emplace(name, std::move(bytes)).second)
            return fail("two records " + RecordNameText(name), kEngineNoError);
        byPosition[position] = name;
    }

    std::size_t named = 0;
    Bytes previous;
    for (std::uint32_t p = FirstKey(db.NameIndex(), key); p != 0; p = NextKey(db.NameIndex(), key)) {
        if (++named > byPosition.size())
            return fail("the name index has more keys than records", kEngineNoError);
        const auto found = byPosition.find(p);
        if (found == byPosition.end())
            return fail("the name index names record " + std::to_string(p) + ", unknown by number",
                        kEngineNoError);
        Bytes stored = NameKey(found->second.fType.c_str(), StoredName(content.fRecords.at(found->second)));
        TransformKey(db.NameIndex(), stored.data());
        const Bytes walked(key, key + 36);
        if (stored != walked)
            return fail("record " + std::to_string(p) + " is under another name", kEngineNoError);
        if (!previous.empty() && !(previous < walked))
            return fail("the name index is out of order", kEngineNoError);
        previous = walked;
    }
    if (EngineError() != kEngineNoError) return fail("walking the name index", EngineError());
    if (named != byPosition.size()) return fail("the name index lacks records", kEngineNoError);
    if (CountIndexEntries(db.NameIndex()) != byPosition.size())
        return fail("the name index's count differs", kEngineNoError);
    return content;
}

// The first difference between the model and the content, or "".
inline std::string CompareContent(const TRecordModel& model, const TContent& content) {
    if (!content.fProblem.empty()) return content.fProblem;
    auto m = model.Records().begin();
    auto c = content.fRecords.begin();
    while (m != model.Records().end() || c != content.fRecords.end()) {
        if (c == content.fRecords.end() || (m != model.Records().end() && m->first < c->first))
            return "record " + RecordNameText(m->first) + " is missing";
        if (m == model.Records().end() || c->first < m->first)
            return "record " + RecordNameText(c->first) + " should not be there";
        if (*m->second.fBytes != c->second) return "record " + RecordNameText(m->first) + " has other bytes";
        ++m;
        ++c;
    }
    return "";
}

// The k in least .. ops.size() for which the content holds exactly the
// records of base followed by the first k operations, or -1. Records no
// operation touches are compared once; only the touched ones per k.
inline int FindPrefix(const TRecordModel& base, const std::vector<TOperation>& ops, const TContent& content,
                      std::size_t least = 0) {
    if (!content.fProblem.empty()) return -1;
    std::map<TRecordName, bool> touched;
    for (const TOperation& op : ops) {
        touched[TRecordName{op.fType, op.fID}] = true;
        if (op.fKind == TOperation::kRewrite) touched[TRecordName{op.fType, op.fNewID}] = true;
    }
    for (const auto& [name, record] : base.Records()) {
        if (touched.count(name) != 0) continue;
        const auto found = content.fRecords.find(name);
        if (found == content.fRecords.end() || found->second != *record.fBytes) return -1;
    }
    for (const auto& [name, bytes] : content.fRecords) {
        if (touched.count(name) == 0 && !base.Has(name)) return -1;
    }
    TRecordModel model = base;
    for (std::size_t k = 0; k <= ops.size(); ++k) {
        if (k > 0) model.Apply(ops[k - 1]);
        if (k < least) continue;
        bool same = true;
        for (const auto& [name, unused] : touched) {
            const auto held = model.Records().find(name);
            const auto found = content.fRecords.find(name);
            const bool inModel = held != model.Records().end();
            const bool inContent = found != content.fRecords.end();
            if (inModel != inContent || (inModel && *held->second.fBytes != found->second)) {
                same = false;
                break;
            }
        }
        if (same) return static_cast<int>(k);
    }
    return -1;
}

}  // namespace kavotest

#endif  // KAVO_TESTS_ENGINE_CAMPAIGNSUPPORT_H
