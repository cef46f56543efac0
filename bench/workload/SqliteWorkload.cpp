// The record-store workload on SQLite: one table keyed by type and ID with a
// unique index on type and name, in WAL mode with synchronous=NORMAL (every
// commit reaches the WAL before it returns; the WAL is synced at checkpoints),
// the same durability the store keeps.
#include <sqlite3.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Workload.h"

namespace {

using namespace kavo_workload;

const char* const kSchema =
    "CREATE TABLE rec(type BLOB, id INTEGER, name TEXT, data BLOB, PRIMARY KEY(type, id)) WITHOUT ROWID;"
    "CREATE UNIQUE INDEX rec_name ON rec(type, name);";

const char* const kAddSql = "INSERT INTO rec(type, id, name, data) VALUES(?1, ?2, ?3, ?4)";
const char* const kReadByIDSql = "SELECT data FROM rec WHERE type=?1 AND id=?2";
const char* const kReadByNameSql = "SELECT data FROM rec WHERE type=?1 AND name=?2";
const char* const kRemoveByNameSql = "DELETE FROM rec WHERE type=?1 AND name=?2";
const char* const kRemoveByIDSql = "DELETE FROM rec WHERE type=?1 AND id=?2";
// The count walks the covering name index.
const char* const kCountSql = "SELECT COUNT(*) FROM rec WHERE type=?1";
// The OFFSET walk stays in the covering name index and only the row found is
// looked up; the plain "ORDER BY name LIMIT 1 OFFSET ?2" would fetch the data
// of every row it skips.
const char* const kNthSql =
    "SELECT data FROM rec WHERE type=?1 AND name=(SELECT name FROM rec WHERE type=?1 ORDER BY name LIMIT 1 "
    "OFFSET ?2)";
// One search at the end of the type's range of the primary key.
const char* const kNextIDSql = "SELECT MAX(id) + 1 FROM rec WHERE type=?1";

bool gFullSync = false;

class CSqliteEngine : public CWorkloadEngine {
public:
    explicit CSqliteEngine(bool fullSync) : fFullSync(fullSync) { fBuffer.resize(kDataSize); }
    ~CSqliteEngine() override { CloseDatabase(); }

    const char* EngineName() const override { return "sqlite"; }
    std::string EngineVersion() const override { return sqlite3_libversion(); }
    std::string EngineSettings() const override {
        return std::string("WAL, synchronous=") + (fFullSync ? "FULL" : "NORMAL") +
               ", locking_mode=EXCLUSIVE, cache_size=-65536, WITHOUT ROWID, single-thread, memory statistics off";
    }

    bool CreateDatabase(const std::string& directory) override {
        fPath = directory + "/workload.sqlite";
        return OpenDatabase(true);
    }
    bool ReopenDatabase() override { return OpenDatabase(false); }
    bool CloseDatabase() override;

    bool AddRecord(std::int32_t id, const char* name, const std::uint8_t* data) override;
    bool ReadRecordByID(std::int32_t id, TReadResult& result) override {
        sqlite3_bind_int(fReadByID, 2, id);
        return StepRead(fReadByID, "read by ID", result);
    }
    bool ReadRecordByName(const char* name, TReadResult& result) override {
        sqlite3_bind_text(fReadByName, 2, name, static_cast<int>(std::strlen(name)), SQLITE_STATIC);
        return StepRead(fReadByName, "read by name", result);
    }
    bool RemoveRecordByName(const char* name) override {
        sqlite3_bind_text(fRemoveByName, 2, name, static_cast<int>(std::strlen(name)), SQLITE_STATIC);
        return StepRemove(fRemoveByName, "remove by name");
    }
    bool RemoveRecordByID(std::int32_t id) override {
        sqlite3_bind_int(fRemoveByID, 2, id);
        return StepRemove(fRemoveByID, "remove by ID");
    }
    bool CountRecordsOfType(std::uint32_t& count) override;
    bool ReadNthRecordOfType(std::uint32_t index, TReadResult& result) override {
        sqlite3_bind_int64(fNth, 2, index);
        return StepRead(fNth, "read nth", result);
    }
    bool NextRecordID(std::int32_t& id) override;

private:
    bool OpenDatabase(bool create);
    bool Execute(const char* sql, const char* expected);
    bool Prepare(const char* sql, sqlite3_stmt*& statement);
    bool StepRead(sqlite3_stmt* statement, const char* what, TReadResult& result);
    bool StepRemove(sqlite3_stmt* statement, const char* what);
    bool FailSqlite(const std::string& what, int code);

    const bool fFullSync;
    std::string fPath;
    sqlite3* fDatabase = nullptr;
    sqlite3_stmt* fAdd = nullptr;
    sqlite3_stmt* fReadByID = nullptr;
    sqlite3_stmt* fReadByName = nullptr;
    sqlite3_stmt* fRemoveByName = nullptr;
    sqlite3_stmt* fRemoveByID = nullptr;
    sqlite3_stmt* fCount = nullptr;
    sqlite3_stmt* fNth = nullptr;
    sqlite3_stmt* fNextID = nullptr;
    // Data read is copied out of SQLite, as the store hands it back in a handle.
    std::vector<std::uint8_t> fBuffer;
};

bool CSqliteEngine::FailSqlite(const std::string& what, int code) {
    std::string message = what + ": " + sqlite3_errstr(code);
    if (fDatabase != nullptr) message += std::string(" (") + sqlite3_errmsg(fDatabase) + ")";
    return Fail(message);
}

// Runs every statement in sql; when expected is given, the first column of
// the first row must read so (the pragmas that answer with the mode they set).
bool CSqliteEngine::Execute(const char* sql, const char* expected) {
    std::string answer;
    for (const char* next = sql; *next != '\0';) {
        sqlite3_stmt* statement = nullptr;
        int code = sqlite3_prepare_v2(fDatabase, next, -1, &statement, &next);
        if (code != SQLITE_OK) return FailSqlite(sql, code);
        if (statement == nullptr) break;  // only spaces or comments were left
        while ((code = sqlite3_step(statement)) == SQLITE_ROW) {
            if (answer.empty() && sqlite3_column_type(statement, 0) != SQLITE_NULL) {
                answer = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
            }
        }
        sqlite3_finalize(statement);
        if (code != SQLITE_DONE) return FailSqlite(sql, code);
    }
    if (expected != nullptr && answer != expected) {
        return Fail(std::string(sql) + " answered \"" + answer + "\", not \"" + expected + "\"");
    }
    return true;
}

bool CSqliteEngine::Prepare(const char* sql, sqlite3_stmt*& statement) {
    const int code = sqlite3_prepare_v3(fDatabase, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    if (code != SQLITE_OK) return FailSqlite(std::string("prepare ") + sql, code);
    // The type is bound once; a reset keeps the bindings.
    sqlite3_bind_blob(statement, 1, kRecordType, sizeof kRecordType, SQLITE_STATIC);
    return true;
}

bool CSqliteEngine::OpenDatabase(bool create) {
    const int flags = SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0);
    const int code = sqlite3_open_v2(fPath.c_str(), &fDatabase, flags, nullptr);
    if (code != SQLITE_OK) {
        FailSqlite("open " + fPath, code);
        sqlite3_close(fDatabase);
        fDatabase = nullptr;
        return false;
    }
    // Exclusive locking before WAL: the WAL index then lives in the heap and
    // no file lock is taken per transaction; the store, too, holds its file
    // exclusively while it is open.
    if (!Execute("PRAGMA locking_mode=EXCLUSIVE", "exclusive") || !Execute("PRAGMA journal_mode=WAL", "wal") ||
        !Execute(fFullSync ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL", nullptr) ||
        !Execute("PRAGMA cache_size=-65536", nullptr)) {
        return false;
    }
    if (create && !Execute(kSchema, nullptr)) return false;
    return Prepare(kAddSql, fAdd) && Prepare(kReadByIDSql, fReadByID) && Prepare(kReadByNameSql, fReadByName) &&
           Prepare(kRemoveByNameSql, fRemoveByName) && Prepare(kRemoveByIDSql, fRemoveByID) &&
           Prepare(kCountSql, fCount) && Prepare(kNthSql, fNth) && Prepare(kNextIDSql, fNextID);
}

bool CSqliteEngine::CloseDatabase() {
    if (fDatabase == nullptr) return true;
    for (sqlite3_stmt** statement :
         {&fAdd, &fReadByID, &fReadByName, &fRemoveByName, &fRemoveByID, &fCount, &fNth, &fNextID}) {
        sqlite3_finalize(*statement);
        *statement = nullptr;
    }
    // Closing the last connection checkpoints the WAL into the database and
    // removes it.
    const int code = sqlite3_close(fDatabase);
    if (code != SQLITE_OK) return FailSqlite("close", code);
    fDatabase = nullptr;
    return true;
}

bool CSqliteEngine::AddRecord(std::int32_t id, const char* name, const std::uint8_t* data) {
    sqlite3_bind_int(fAdd, 2, id);
    sqlite3_bind_text(fAdd, 3, name, static_cast<int>(std::strlen(name)), SQLITE_STATIC);
    sqlite3_bind_blob(fAdd, 4, data, static_cast<int>(kDataSize), SQLITE_STATIC);
    const int code = sqlite3_step(fAdd);
    sqlite3_reset(fAdd);
    if (code != SQLITE_DONE) return FailSqlite("insert", code);
    return true;
}

bool CSqliteEngine::StepRead(sqlite3_stmt* statement, const char* what, TReadResult& result) {
    const int code = sqlite3_step(statement);
    if (code != SQLITE_ROW) {
        sqlite3_reset(statement);
        if (code == SQLITE_DONE) return Fail(std::string(what) + ": no such record");
        return FailSqlite(what, code);
    }
    const void* data = sqlite3_column_blob(statement, 0);
    const int size = sqlite3_column_bytes(statement, 0);
    if (fBuffer.size() < static_cast<std::size_t>(size)) fBuffer.resize(static_cast<std::size_t>(size));
    if (size > 0) std::memcpy(fBuffer.data(), data, static_cast<std::size_t>(size));
    sqlite3_reset(statement);
    result.fSize = static_cast<std::uint32_t>(size);
    result.fFirstByte = size > 0 ? fBuffer[0] : 0;
    return true;
}

bool CSqliteEngine::StepRemove(sqlite3_stmt* statement, const char* what) {
    const int code = sqlite3_step(statement);
    sqlite3_reset(statement);
    if (code != SQLITE_DONE) return FailSqlite(what, code);
    const int changed = sqlite3_changes(fDatabase);
    if (changed != 1) return Fail(std::string(what) + ": " + std::to_string(changed) + " rows removed, not 1");
    return true;
}

bool CSqliteEngine::CountRecordsOfType(std::uint32_t& count) {
    const int code = sqlite3_step(fCount);
    if (code != SQLITE_ROW) {
        sqlite3_reset(fCount);
        return FailSqlite("count", code);
    }
    count = static_cast<std::uint32_t>(sqlite3_column_int64(fCount, 0));
    sqlite3_reset(fCount);
    return true;
}

bool CSqliteEngine::NextRecordID(std::int32_t& id) {
    const int code = sqlite3_step(fNextID);
    if (code != SQLITE_ROW) {
        sqlite3_reset(fNextID);
        return FailSqlite("next ID", code);
    }
    // NULL: the type has no record.
    id = sqlite3_column_type(fNextID, 0) == SQLITE_NULL ? 1 : static_cast<std::int32_t>(sqlite3_column_int64(fNextID, 0));
    sqlite3_reset(fNextID);
    return true;
}

bool TakeSqliteOption(const std::string& name, const std::string& value) {
    if (name != "--sqlite-sync") return false;
    if (value == "normal") {
        gFullSync = false;
    } else if (value == "full") {
        gFullSync = true;
    } else {
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    TEngineCommandLine commandLine;
    if (!ParseEngineCommandLine(argc, argv, "[--sqlite-sync normal|full] ", TakeSqliteOption, commandLine)) return 2;
    // One thread uses the library, as with the store: no mutexes, and no
    // memory statistics, which would take a lock on every allocation.
    if (sqlite3_config(SQLITE_CONFIG_SINGLETHREAD) != SQLITE_OK ||
        sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0) != SQLITE_OK || sqlite3_initialize() != SQLITE_OK) {
        std::fprintf(stderr, "bench sqlite: the library could not be set to single-thread mode\n");
        return 1;
    }
    int status = 0;
    {
        CSqliteEngine engine(gFullSync);
        status = RunEngineProgram(engine, commandLine);
    }
    sqlite3_shutdown();
    return status;
}
