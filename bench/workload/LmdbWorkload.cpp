// The record-store workload on LMDB: one environment with two named
// databases, "by_id" (type + ID -> name length, name, data) and "by_name"
// (type + name -> ID). By default the environment runs with MDB_NOSYNC and
// without MDB_WRITEMAP: every commit writes its pages and meta page to the
// file before it returns, and nothing is synced.
#include <lmdb.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Workload.h"

namespace {

using namespace kavo_workload;

constexpr std::size_t kIDKeySize = sizeof kRecordType + 4;
constexpr std::size_t kNameKeySize = sizeof kRecordType + kNameBufferSize;

enum class ESyncMode { kNoSync, kNoMetaSync, kSync };

ESyncMode gSyncMode = ESyncMode::kNoSync;

// The ID in 4 big-endian bytes with the sign bit flipped, so that byte order
// is signed numeric order. The by_name value uses the same 4 bytes, so that
// the by_id key of a name is the type followed by that value.
void EncodeID(std::int32_t id, std::uint8_t bytes[4]) {
    const std::uint32_t flipped = static_cast<std::uint32_t>(id) ^ 0x80000000u;
    bytes[0] = static_cast<std::uint8_t>(flipped >> 24);
    bytes[1] = static_cast<std::uint8_t>(flipped >> 16);
    bytes[2] = static_cast<std::uint8_t>(flipped >> 8);
    bytes[3] = static_cast<std::uint8_t>(flipped);
}

std::int32_t DecodeID(const std::uint8_t bytes[4]) {
    const std::uint32_t flipped = (static_cast<std::uint32_t>(bytes[0]) << 24) |
                                  (static_cast<std::uint32_t>(bytes[1]) << 16) |
                                  (static_cast<std::uint32_t>(bytes[2]) << 8) | bytes[3];
    return static_cast<std::int32_t>(flipped ^ 0x80000000u);
}

bool HasRecordType(const MDB_val& key) {
    return key.mv_size >= sizeof kRecordType && std::memcmp(key.mv_data, kRecordType, sizeof kRecordType) == 0;
}

class CLmdbEngine : public CWorkloadEngine {
public:
    CLmdbEngine(ESyncMode syncMode, std::int32_t recordCount);
    ~CLmdbEngine() override { CloseDatabase(); }

    const char* EngineName() const override { return "lmdb"; }
    std::string EngineVersion() const override;
    std::string EngineSettings() const override;

    bool CreateDatabase(const std::string& directory) override {
        fPath = directory + "/workload.mdb";
        return OpenEnvironment(true);
    }
    bool ReopenDatabase() override { return OpenEnvironment(false); }
    bool CloseDatabase() override;

    bool AddRecord(std::int32_t id, const char* name, const std::uint8_t* data) override;
    bool ReadRecordByID(std::int32_t id, TReadResult& result) override;
    bool ReadRecordByName(const char* name, TReadResult& result) override;
    bool RemoveRecordByName(const char* name) override;
    bool RemoveRecordByID(std::int32_t id) override;
    bool CountRecordsOfType(std::uint32_t& count) override;
    bool ReadNthRecordOfType(std::uint32_t index, TReadResult& result) override;
    bool NextRecordID(std::int32_t& id) override;

private:
    bool OpenEnvironment(bool create);
    bool FailLmdb(const std::string& what, int code) { return Fail(what + ": " + mdb_strerror(code)); }
    bool BeginRead(const char* what);
    bool CopyRecordData(const MDB_val& value, TReadResult& result);
    bool ReadDataByIDKey(const std::uint8_t* idKey, const char* what, TReadResult& result);
    MDB_val MakeIDKey(std::int32_t id);
    MDB_val MakeNameKey(const char* name);
    bool RemoveBothKeys(MDB_txn* transaction, MDB_val& idKey, MDB_val& nameKey, const char* what);

    const ESyncMode fSyncMode;
    const std::size_t fMapSize;
    std::string fPath;
    MDB_env* fEnvironment = nullptr;
    MDB_dbi fByID = 0;
    MDB_dbi fByName = 0;
    // Reads run in this one read-only transaction, renewed before each
    // operation and reset after it.
    MDB_txn* fReadTransaction = nullptr;
    std::uint8_t fIDKey[kIDKeySize];
    std::uint8_t fNameKey[kNameKeySize];
    std::vector<std::uint8_t> fValue;
    // Data read is copied out of the map, as the store hands it back in a handle.
    std::vector<std::uint8_t> fBuffer;
};

CLmdbEngine::CLmdbEngine(ESyncMode syncMode, std::int32_t recordCount)
    : fSyncMode(syncMode),
      fMapSize(std::max<std::size_t>(std::size_t(1) << 30, static_cast<std::size_t>(recordCount) * 8192)) {
    fValue.resize(1 + kNameBufferSize + kDataSize);
    fBuffer.resize(kDataSize);
}

std::string CLmdbEngine::EngineVersion() const {
    int major = 0, minor = 0, patch = 0;
    mdb_version(&major, &minor, &patch);
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
}

std::string CLmdbEngine::EngineSettings() const {
    const char* sync = fSyncMode == ESyncMode::kNoSync       ? "MDB_NOSYNC"
                       : fSyncMode == ESyncMode::kNoMetaSync ? "MDB_NOMETASYNC"
                                                             : "synced commits";
    return std::string(sync) + ", no MDB_WRITEMAP, MDB_NOSUBDIR, map " + std::to_string(fMapSize >> 20) +
           " MiB, one write transaction per write";
}

bool CLmdbEngine::OpenEnvironment(bool create) {
    int code = mdb_env_create(&fEnvironment);
    if (code != 0) {
        fEnvironment = nullptr;
        return FailLmdb("mdb_env_create", code);
    }
    if ((code = mdb_env_set_mapsize(fEnvironment, fMapSize)) != 0) return FailLmdb("mdb_env_set_mapsize", code);
    if ((code = mdb_env_set_maxdbs(fEnvironment, 2)) != 0) return FailLmdb("mdb_env_set_maxdbs", code);
    unsigned int flags = MDB_NOSUBDIR;
    if (fSyncMode == ESyncMode::kNoSync) flags |= MDB_NOSYNC;
    if (fSyncMode == ESyncMode::kNoMetaSync) flags |= MDB_NOMETASYNC;
    if ((code = mdb_env_open(fEnvironment, fPath.c_str(), flags, 0644)) != 0) {
        return FailLmdb("mdb_env_open " + fPath, code);
    }
    MDB_txn* transaction = nullptr;
    if ((code = mdb_txn_begin(fEnvironment, nullptr, 0, &transaction)) != 0) return FailLmdb("mdb_txn_begin", code);
    const unsigned int dbFlags = create ? MDB_CREATE : 0;
    if ((code = mdb_dbi_open(transaction, "by_id", dbFlags, &fByID)) != 0 ||
        (code = mdb_dbi_open(transaction, "by_name", dbFlags, &fByName)) != 0) {
        mdb_txn_abort(transaction);
        return FailLmdb("mdb_dbi_open", code);
    }
    if ((code = mdb_txn_commit(transaction)) != 0) return FailLmdb("mdb_txn_commit (open)", code);
    if ((code = mdb_txn_begin(fEnvironment, nullptr, MDB_RDONLY, &fReadTransaction)) != 0) {
        fReadTransaction = nullptr;
        return FailLmdb("mdb_txn_begin (read)", code);
    }
    mdb_txn_reset(fReadTransaction);
    return true;
}

bool CLmdbEngine::CloseDatabase() {
    if (fReadTransaction != nullptr) mdb_txn_abort(fReadTransaction);
    fReadTransaction = nullptr;
    if (fEnvironment != nullptr) mdb_env_close(fEnvironment);
    fEnvironment = nullptr;
    return true;
}

MDB_val CLmdbEngine::MakeIDKey(std::int32_t id) {
    std::memcpy(fIDKey, kRecordType, sizeof kRecordType);
    EncodeID(id, fIDKey + sizeof kRecordType);
    return MDB_val{kIDKeySize, fIDKey};
}

MDB_val CLmdbEngine::MakeNameKey(const char* name) {
    const std::size_t length = std::strlen(name);
    std::memcpy(fNameKey, kRecordType, sizeof kRecordType);
    std::memcpy(fNameKey + sizeof kRecordType, name, length);
    return MDB_val{sizeof kRecordType + length, fNameKey};
}

bool CLmdbEngine::AddRecord(std::int32_t id, const char* name, const std::uint8_t* data) {
    MDB_val idKey = MakeIDKey(id);
    MDB_val nameKey = MakeNameKey(name);
    const std::size_t nameLength = nameKey.mv_size - sizeof kRecordType;
    fValue[0] = static_cast<std::uint8_t>(nameLength);
    std::memcpy(&fValue[1], name, nameLength);
    std::memcpy(&fValue[1 + nameLength], data, kDataSize);
    MDB_val value{1 + nameLength + kDataSize, fValue.data()};
    MDB_val idValue{4, fIDKey + sizeof kRecordType};

    MDB_txn* transaction = nullptr;
    int code = mdb_txn_begin(fEnvironment, nullptr, 0, &transaction);
    if (code != 0) return FailLmdb("mdb_txn_begin", code);
    // MDB_NOOVERWRITE: a duplicate ID or name is refused, as the store and
    // SQLite refuse it.
    if ((code = mdb_put(transaction, fByID, &idKey, &value, MDB_NOOVERWRITE)) != 0) {
        mdb_txn_abort(transaction);
        return FailLmdb("mdb_put by_id", code);
    }
    if ((code = mdb_put(transaction, fByName, &nameKey, &idValue, MDB_NOOVERWRITE)) != 0) {
        mdb_txn_abort(transaction);
        return FailLmdb("mdb_put by_name", code);
    }
    if ((code = mdb_txn_commit(transaction)) != 0) return FailLmdb("mdb_txn_commit", code);
    return true;
}

bool CLmdbEngine::BeginRead(const char* what) {
    const int code = mdb_txn_renew(fReadTransaction);
    if (code != 0) return FailLmdb(std::string(what) + ": mdb_txn_renew", code);
    return true;
}

// value is a by_id value: name length, name, data.
bool CLmdbEngine::CopyRecordData(const MDB_val& value, TReadResult& result) {
    const auto* bytes = static_cast<const std::uint8_t*>(value.mv_data);
    if (value.mv_size < 1 || value.mv_size < 1u + bytes[0]) return Fail("damaged by_id value");
    const std::size_t size = value.mv_size - 1 - bytes[0];
    if (fBuffer.size() < size) fBuffer.resize(size);
    if (size > 0) std::memcpy(fBuffer.data(), bytes + 1 + bytes[0], size);
    result.fSize = static_cast<std::uint32_t>(size);
    result.fFirstByte = size > 0 ? fBuffer[0] : 0;
    return true;
}

// Inside a renewed read transaction: the data under the by_id key made of the
// type and the 4 encoded ID bytes.
bool CLmdbEngine::ReadDataByIDKey(const std::uint8_t* idBytes, const char* what, TReadResult& result) {
    std::memcpy(fIDKey, kRecordType, sizeof kRecordType);
    std::memcpy(fIDKey + sizeof kRecordType, idBytes, 4);
    MDB_val key{kIDKeySize, fIDKey};
    MDB_val value;
    const int code = mdb_get(fReadTransaction, fByID, &key, &value);
    if (code != 0) return FailLmdb(std::string(what) + ": mdb_get by_id", code);
    return CopyRecordData(value, result);
}

bool CLmdbEngine::ReadRecordByID(std::int32_t id, TReadResult& result) {
    if (!BeginRead("read by ID")) return false;
    MDB_val key = MakeIDKey(id);
    MDB_val value;
    const int code = mdb_get(fReadTransaction, fByID, &key, &value);
    const bool ok = code == 0 ? CopyRecordData(value, result) : FailLmdb("read by ID: mdb_get by_id", code);
    mdb_txn_reset(fReadTransaction);
    return ok;
}

bool CLmdbEngine::ReadRecordByName(const char* name, TReadResult& result) {
    if (!BeginRead("read by name")) return false;
    MDB_val key = MakeNameKey(name);
    MDB_val idValue;
    const int code = mdb_get(fReadTransaction, fByName, &key, &idValue);
    bool ok = false;
    if (code != 0) {
        FailLmdb("read by name: mdb_get by_name", code);
    } else if (idValue.mv_size != 4) {
        Fail("read by name: damaged by_name value");
    } else {
        ok = ReadDataByIDKey(static_cast<const std::uint8_t*>(idValue.mv_data), "read by name", result);
    }
    mdb_txn_reset(fReadTransaction);
    return ok;
}

bool CLmdbEngine::RemoveBothKeys(MDB_txn* transaction, MDB_val& idKey, MDB_val& nameKey, const char* what) {
    int code = mdb_del(transaction, fByName, &nameKey, nullptr);
    if (code == 0) code = mdb_del(transaction, fByID, &idKey, nullptr);
    if (code != 0) {
        mdb_txn_abort(transaction);
        return FailLmdb(std::string(what) + ": mdb_del", code);
    }
    if ((code = mdb_txn_commit(transaction)) != 0) return FailLmdb(std::string(what) + ": mdb_txn_commit", code);
    return true;
}

bool CLmdbEngine::RemoveRecordByName(const char* name) {
    MDB_txn* transaction = nullptr;
    int code = mdb_txn_begin(fEnvironment, nullptr, 0, &transaction);
    if (code != 0) return FailLmdb("remove by name: mdb_txn_begin", code);
    MDB_val nameKey = MakeNameKey(name);
    MDB_val idValue;
    if ((code = mdb_get(transaction, fByName, &nameKey, &idValue)) != 0 || idValue.mv_size != 4) {
        mdb_txn_abort(transaction);
        return code != 0 ? FailLmdb("remove by name: mdb_get by_name", code)
                         : Fail("remove by name: damaged by_name value");
    }
    // The value lives in the map until the transaction writes; copy it first.
    std::memcpy(fIDKey, kRecordType, sizeof kRecordType);
    std::memcpy(fIDKey + sizeof kRecordType, idValue.mv_data, 4);
    MDB_val idKey{kIDKeySize, fIDKey};
    return RemoveBothKeys(transaction, idKey, nameKey, "remove by name");
}

bool CLmdbEngine::RemoveRecordByID(std::int32_t id) {
    MDB_txn* transaction = nullptr;
    int code = mdb_txn_begin(fEnvironment, nullptr, 0, &transaction);
    if (code != 0) return FailLmdb("remove by ID: mdb_txn_begin", code);
    MDB_val idKey = MakeIDKey(id);
    MDB_val value;
    if ((code = mdb_get(transaction, fByID, &idKey, &value)) != 0) {
        mdb_txn_abort(transaction);
        return FailLmdb("remove by ID: mdb_get by_id", code);
    }
    const auto* bytes = static_cast<const std::uint8_t*>(value.mv_data);
    if (value.mv_size < 1u + bytes[0] || bytes[0] >= kNameBufferSize) {
        mdb_txn_abort(transaction);
        return Fail("remove by ID: damaged by_id value");
    }
    std::memcpy(fNameKey, kRecordType, sizeof kRecordType);
    std::memcpy(fNameKey + sizeof kRecordType, bytes + 1, bytes[0]);
    MDB_val nameKey{sizeof kRecordType + bytes[0], fNameKey};
    return RemoveBothKeys(transaction, idKey, nameKey, "remove by ID");
}

// LMDB keeps no counts per key range. When the first and the last key of
// by_id both have the type, every entry has it and the database's entry count
// is the answer; otherwise a cursor walks the type's keys.
bool CLmdbEngine::CountRecordsOfType(std::uint32_t& count) {
    if (!BeginRead("count")) return false;
    MDB_cursor* cursor = nullptr;
    int code = mdb_cursor_open(fReadTransaction, fByID, &cursor);
    if (code != 0) {
        mdb_txn_reset(fReadTransaction);
        return FailLmdb("count: mdb_cursor_open", code);
    }
    MDB_val key, value;
    bool allOfType = mdb_cursor_get(cursor, &key, &value, MDB_FIRST) == 0 && HasRecordType(key);
    allOfType = allOfType && mdb_cursor_get(cursor, &key, &value, MDB_LAST) == 0 && HasRecordType(key);
    bool ok = true;
    if (allOfType) {
        MDB_stat stat;
        code = mdb_stat(fReadTransaction, fByID, &stat);
        if (code == 0) {
            count = static_cast<std::uint32_t>(stat.ms_entries);
        } else {
            ok = FailLmdb("count: mdb_stat", code);
        }
    } else {
        std::uint8_t first[kIDKeySize];
        std::memcpy(first, kRecordType, sizeof kRecordType);
        std::memset(first + sizeof kRecordType, 0, 4);  // the lowest ID
        key = MDB_val{kIDKeySize, first};
        std::uint32_t walked = 0;
        for (code = mdb_cursor_get(cursor, &key, &value, MDB_SET_RANGE); code == 0 && HasRecordType(key);
             code = mdb_cursor_get(cursor, &key, &value, MDB_NEXT)) {
            ++walked;
        }
        if (code != 0 && code != MDB_NOTFOUND) {
            ok = FailLmdb("count: mdb_cursor_get", code);
        } else {
            count = walked;
        }
    }
    mdb_cursor_close(cursor);
    mdb_txn_reset(fReadTransaction);
    return ok;
}

// A cursor on by_name from the type's first key, index steps, then the data
// by ID.
bool CLmdbEngine::ReadNthRecordOfType(std::uint32_t index, TReadResult& result) {
    if (!BeginRead("read nth")) return false;
    MDB_cursor* cursor = nullptr;
    int code = mdb_cursor_open(fReadTransaction, fByName, &cursor);
    if (code != 0) {
        mdb_txn_reset(fReadTransaction);
        return FailLmdb("read nth: mdb_cursor_open", code);
    }
    MDB_val key{sizeof kRecordType, const_cast<char*>(kRecordType)};
    MDB_val value;
    code = mdb_cursor_get(cursor, &key, &value, MDB_SET_RANGE);
    for (std::uint32_t step = 0; step < index && code == 0 && HasRecordType(key); ++step) {
        code = mdb_cursor_get(cursor, &key, &value, MDB_NEXT);
    }
    bool ok = false;
    if (code == MDB_NOTFOUND || (code == 0 && !HasRecordType(key))) {
        Fail("read nth: index past the type's last record");
    } else if (code != 0) {
        FailLmdb("read nth: mdb_cursor_get", code);
    } else if (value.mv_size != 4) {
        Fail("read nth: damaged by_name value");
    } else {
        ok = ReadDataByIDKey(static_cast<const std::uint8_t*>(value.mv_data), "read nth", result);
    }
    mdb_cursor_close(cursor);
    mdb_txn_reset(fReadTransaction);
    return ok;
}

// The cursor goes to the last key at or below (type, 2^31-1); its ID + 1
// when it has the type, else 1.
bool CLmdbEngine::NextRecordID(std::int32_t& id) {
    if (!BeginRead("next ID")) return false;
    MDB_cursor* cursor = nullptr;
    int code = mdb_cursor_open(fReadTransaction, fByID, &cursor);
    if (code != 0) {
        mdb_txn_reset(fReadTransaction);
        return FailLmdb("next ID: mdb_cursor_open", code);
    }
    std::uint8_t last[kIDKeySize];
    std::memcpy(last, kRecordType, sizeof kRecordType);
    EncodeID(INT32_MAX, last + sizeof kRecordType);
    MDB_val key{kIDKeySize, last};
    MDB_val value;
    code = mdb_cursor_get(cursor, &key, &value, MDB_SET_RANGE);
    if (code == MDB_NOTFOUND) {
        code = mdb_cursor_get(cursor, &key, &value, MDB_LAST);
    } else if (code == 0 && !(key.mv_size == kIDKeySize && std::memcmp(key.mv_data, last, kIDKeySize) == 0)) {
        code = mdb_cursor_get(cursor, &key, &value, MDB_PREV);
    }
    bool ok = true;
    if (code == 0 && HasRecordType(key) && key.mv_size == kIDKeySize) {
        id = DecodeID(static_cast<const std::uint8_t*>(key.mv_data) + sizeof kRecordType) + 1;
    } else if (code == 0 || code == MDB_NOTFOUND) {
        id = 1;
    } else {
        ok = FailLmdb("next ID: mdb_cursor_get", code);
    }
    mdb_cursor_close(cursor);
    mdb_txn_reset(fReadTransaction);
    return ok;
}

bool TakeLmdbOption(const std::string& name, const std::string& value) {
    if (name != "--lmdb-sync") return false;
    if (value == "nosync") {
        gSyncMode = ESyncMode::kNoSync;
    } else if (value == "nometasync") {
        gSyncMode = ESyncMode::kNoMetaSync;
    } else if (value == "sync") {
        gSyncMode = ESyncMode::kSync;
    } else {
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    TEngineCommandLine commandLine;
    if (!ParseEngineCommandLine(argc, argv, "[--lmdb-sync nosync|nometasync|sync] ", TakeLmdbOption, commandLine)) {
        return 2;
    }
    CLmdbEngine engine(gSyncMode, commandLine.fRecordCount);
    return RunEngineProgram(engine, commandLine);
}
