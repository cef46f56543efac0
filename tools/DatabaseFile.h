// One database file as kavodvdb sees it, through the flat record functions.
//
// Every operation that can fail returns one of the exit codes of
// tools/ToolExit.h and has already complained, naming the file and what went
// wrong; kExitOK means it did what it says.
#ifndef KAVO_TOOLS_DATABASEFILE_H
#define KAVO_TOOLS_DATABASEFILE_H

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tools/RecordText.h"

// The record manager for the life of the object: InitRMRezManager when made,
// KillRMRezManager when destroyed. Databases must be closed before it goes.
class TRecordManagerSession {
public:
    TRecordManagerSession();
    ~TRecordManagerSession();
    TRecordManagerSession(const TRecordManagerSession&) = delete;
    TRecordManagerSession& operator=(const TRecordManagerSession&) = delete;

    bool Started() const { return fStarted; }

private:
    bool fStarted;
};

struct TRecordInfo {
    TRecordType fType;
    std::int32_t fID;
    std::string fName;
    std::uint32_t fSize;
};

// What the "NFO!" "_File_Info_" record says; a file without a readable one
// has "????" codes and platform "?OS", as the library reports it.
struct TFileInfo {
    bool fPresent = false;
    TRecordType fCreator{{'?', '?', '?', '?'}};
    TRecordType fFileType{{'?', '?', '?', '?'}};
    std::string fPlatform = "?OS";
};

// Either an ID or a name picks the record of a type.
struct TRecordKey {
    TRecordType fType;
    bool fByName;
    std::int32_t fID;
    std::string fName;
};

// The text of a key for messages: 'MDUM' 12 or 'MDUM' "Clip 1".
std::string DescribeRecordKey(const TRecordKey& key);

// Says whether the file can be opened at all, before the library is asked:
// kExitCannotOpen (with a complaint) when it is missing, a directory, or
// refused by the system.
int ProbeFile(const std::string& path, bool forWriting);

// The file's size in bytes, or 0 when it cannot be had.
std::uint64_t FileSizeOf(const std::string& path);

// What to say of a file that exists but cannot be opened as a database: the
// engine's reason when it gave one (another format version, damage it can
// name, another program holding the file), so it is asked right after the
// refused open, before the engine opens anything else.
std::string WhyNotADatabase(const std::string& path);

class CDatabaseFile {
public:
    explicit CDatabaseFile(std::string path) : fPath(std::move(path)), fRefNum(0), fOpen(false) {}
    ~CDatabaseFile();
    CDatabaseFile(const CDatabaseFile&) = delete;
    CDatabaseFile& operator=(const CDatabaseFile&) = delete;

    // Read-only unless forWriting. kExitCannotOpen for a file that is missing
    // or refused by the system, kExitDamaged for one that is not a database.
    int Open(bool forWriting);
    int Close();

    // Calls visit for every record, or every record of one type, in the
    // file's order (the order of the "Nth" functions).
    int VisitRecords(const TRecordType* onlyType, const std::function<void(const TRecordInfo&)>& visit);

    int ReadFileInfo(TFileInfo* info);
    int ReadRecord(const TRecordKey& key, std::vector<unsigned char>* data);
    // kExitNotFound when the file has no about text.
    int ReadAboutText(std::string* text);
    // Sets present to whether there is an about text and size to its bytes
    // with the NUL; no complaint when there is none.
    int AboutTextSize(bool* present, std::uint32_t* size);

    // kExitFailed when a record of the type with the ID or the name exists.
    int AddRecord(const TRecordType& type, std::int32_t id, const std::string& name,
                  const std::vector<unsigned char>& data);
    // kExitNotFound when there is no such record.
    int RemoveRecord(const TRecordKey& key);
    // Removes the record if there is one.
    int RemoveRecordIfPresent(const TRecordKey& key);

    const std::string& Path() const { return fPath; }

private:
    int ReadFailed(const std::string& what, std::int16_t result);
    std::int16_t RemoveByKey(const TRecordKey& key);

    std::string fPath;
    std::int16_t fRefNum;
    bool fOpen;
};

#endif  // KAVO_TOOLS_DATABASEFILE_H
