#include "tools/DatabaseFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "Pack/Pack.h"
#include "engine/Engine.h"
#include "kavoDVDB.h"
#include "tools/ToolExit.h"

namespace {

constexpr char kFileInfoType[] = "NFO!";
constexpr char kFileInfoName[] = "_File_Info_";
// Creator, file type and the platform string's count come first.
constexpr std::uint32_t kFileInfoFixedBytes = 12;
// The library keeps at most this many characters of the platform string.
constexpr std::uint32_t kPlatformLength = 31;
// The manager and the database take file names of 1 to 255 characters.
constexpr std::size_t kMaxFileNameLength = 255;
// A record name field: the name and its NUL, or 32 characters when damaged.
constexpr std::size_t kNameFieldLength = 32;

// The characters before the first NUL, at most bound of them.
std::size_t BoundedLength(const char* text, std::size_t bound) {
    const void* nul = std::memchr(text, '\0', bound);
    return nul == nullptr ? bound : static_cast<std::size_t>(static_cast<const char*>(nul) - text);
}

constexpr char kVerifyHint[] = "; the file may be damaged (kavodvdb verify checks it)";

std::string CodeText(std::int16_t result) {
    return "the library answered " + std::to_string(result);
}

// Copies a handle's bytes out; the handle stays as it was.
bool CopyHandleBytes(MSHandle handle, std::vector<unsigned char>* bytes) {
    const std::uint32_t size = MSGetHandleSize(handle);
    void* address = nullptr;
    if (MSLockHandle(handle, &address) != kNoError) return false;
    const auto* first = static_cast<const unsigned char*>(address);
    bytes->assign(first, first + size);
    MSUnlockHandle(handle);
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------

TRecordManagerSession::TRecordManagerSession() : fStarted(InitRMRezManager() == kNoError) {}

TRecordManagerSession::~TRecordManagerSession() {
    if (fStarted) KillRMRezManager();
}

std::string DescribeRecordKey(const TRecordKey& key) {
    const std::string which =
        key.fByName ? "\"" + EscapeForTerminal(key.fName) + "\"" : std::to_string(key.fID);
    return QuoteRecordType(key.fType) + " " + which;
}

int ProbeFile(const std::string& path, bool forWriting) {
    if (path.empty()) {
        Complain("the file name is empty");
        return kExitUsage;
    }
    if (path.size() > kMaxFileNameLength) {
        Complain("cannot open " + path + ": the name is longer than 255 characters");
        return kExitCannotOpen;
    }
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) {
        Complain("cannot open " + path + ": it is a directory");
        return kExitCannotOpen;
    }
    std::FILE* probe = std::fopen(path.c_str(), forWriting ? "r+b" : "rb");
    if (probe == nullptr) {
        const int reason = errno;
        Complain("cannot open " + path + ": " +
                 (reason == ENOENT ? std::string("no such file") : std::string(std::strerror(reason))));
        return kExitCannotOpen;
    }
    std::fclose(probe);
    return kExitOK;
}

std::uint64_t FileSizeOf(const std::string& path) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    return error ? 0 : static_cast<std::uint64_t>(size);
}

// The engine says why when it found the file and refused it (another format
// version, damage it can name, another program holding it).
std::string WhyNotADatabase(const std::string& path) {
    if (FileSizeOf(path) == 0) return "the file is empty, not a database";
    const std::string problem = EngineOpenProblem();
    if (!problem.empty()) return problem;
    return "not a database file, or damaged, or in use by another program";
}

// ---------------------------------------------------------------------------

CDatabaseFile::~CDatabaseFile() {
    Close();
}

int CDatabaseFile::Open(bool forWriting) {
    const int probed = ProbeFile(fPath, forWriting);
    if (probed != kExitOK) return probed;
    const std::int16_t result =
        RMOpen(fPath.c_str(), forWriting ? kPermissionReadWrite : kPermissionReadOnly, &fRefNum);
    if (result == kCannotOpenFiles) {
        Complain("cannot open " + fPath + ": " + WhyNotADatabase(fPath));
        return kExitDamaged;
    }
    if (result != kNoError) {
        Complain("cannot open " + fPath + ": " + CodeText(result));
        return kExitFailed;
    }
    fOpen = true;
    return kExitOK;
}

int CDatabaseFile::Close() {
    if (!fOpen) return kExitOK;
    fOpen = false;
    const std::int16_t result = RMClose(fRefNum);
    if (result != kNoError) {
        Complain("cannot close " + fPath + ": " + CodeText(result));
        return kExitFailed;
    }
    return kExitOK;
}

int CDatabaseFile::ReadFailed(const std::string& what, std::int16_t result) {
    Complain("cannot read " + what + " of " + fPath + ": " + CodeText(result) + kVerifyHint);
    return kExitDamaged;
}

int CDatabaseFile::VisitRecords(const TRecordType* onlyType,
                                const std::function<void(const TRecordInfo&)>& visit) {
    for (std::uint32_t index = 0;; ++index) {
        TRecordInfo info;
        char name[kNameFieldLength] = {};
        std::int16_t result;
        if (onlyType != nullptr) {
            info.fType = *onlyType;
            result = RMGetInfoOfNthRecordOfType(fRefNum, index, onlyType->data(), name, &info.fID);
        } else {
            result = RMGetInfoOfNthRecord(fRefNum, index, info.fType.data(), name, &info.fID);
        }
        if (result == kRecordNotFound) return kExitOK;
        if (result != kNoError) return ReadFailed("record " + std::to_string(index), result);
        info.fName.assign(name, BoundedLength(name, sizeof name));
        result = RMGetSizeOfNumberedRecord(fRefNum, info.fID, info.fType.data(), &info.fSize);
        if (result != kNoError) return ReadFailed("the size of record " + std::to_string(index), result);
        visit(info);
    }
}

int CDatabaseFile::ReadFileInfo(TFileInfo* info) {
    *info = TFileInfo{};
    const TRecordKey key{{{'N', 'F', 'O', '!'}}, true, 0, kFileInfoName};
    std::vector<unsigned char> image;
    MSHandle handle = nullptr;
    const std::int16_t result = RMReadRecordByName(fRefNum, kFileInfoName, kFileInfoType, &handle);
    if (result == kRecordNotFound) return kExitOK;
    if (result != kNoError) return ReadFailed("the file-info record", result);
    const bool copied = CopyHandleBytes(handle, &image);
    RMReleaseRecord(handle);
    if (!copied) return ReadFailed(DescribeRecordKey(key), kGeneralError);

    // A record too short for its own layout counts as missing, as it does
    // for the library.
    if (image.size() < kFileInfoFixedBytes) return kExitOK;
    std::uint32_t creator = 0;
    std::uint32_t fileType = 0;
    std::uint32_t count = 0;
    UnpackLong(image.data(), &creator);
    UnpackLong(image.data() + 4, &fileType);
    UnpackLong(image.data() + 8, &count);
    if (count > image.size() - kFileInfoFixedBytes) return kExitOK;
    info->fPresent = true;
    // The codes are packed big-endian: their first character is the high byte.
    for (std::size_t i = 0; i < kRecordTypeLength; ++i) {
        info->fCreator[i] = static_cast<char>(creator >> (24 - 8 * i));
        info->fFileType[i] = static_cast<char>(fileType >> (24 - 8 * i));
    }
    const char* platform = reinterpret_cast<const char*>(image.data() + kFileInfoFixedBytes);
    info->fPlatform.assign(platform,
                           BoundedLength(platform, count < kPlatformLength ? count : kPlatformLength));
    return kExitOK;
}

int CDatabaseFile::ReadRecord(const TRecordKey& key, std::vector<unsigned char>* data) {
    MSHandle handle = nullptr;
    const std::int16_t result =
        key.fByName ? RMReadRecordByName(fRefNum, key.fName.c_str(), key.fType.data(), &handle)
                    : RMReadRecordByNumber(fRefNum, key.fID, key.fType.data(), &handle);
    if (result == kRecordNotFound) {
        Complain(fPath + " has no record " + DescribeRecordKey(key));
        return kExitNotFound;
    }
    if (result != kNoError) return ReadFailed("record " + DescribeRecordKey(key), result);
    const bool copied = CopyHandleBytes(handle, data);
    RMReleaseRecord(handle);
    if (!copied) return ReadFailed("record " + DescribeRecordKey(key), kGeneralError);
    return kExitOK;
}

int CDatabaseFile::AboutTextSize(bool* present, std::uint32_t* size) {
    *present = false;
    *size = 0;
    const std::int16_t result = RMAboutSize(fRefNum, size);
    if (result == kRecordNotFound) return kExitOK;
    if (result != kNoError) return ReadFailed("the about text", result);
    *present = true;
    return kExitOK;
}

int CDatabaseFile::ReadAboutText(std::string* text) {
    bool present = false;
    std::uint32_t size = 0;
    const int sized = AboutTextSize(&present, &size);
    if (sized != kExitOK) return sized;
    if (!present) {
        Complain(fPath + " has no about text");
        return kExitNotFound;
    }
    // One byte more than the record, so that a text stored without its NUL
    // still ends.
    std::vector<char> buffer(static_cast<std::size_t>(size) + 1, '\0');
    const std::int16_t result = RMGetAboutFile(fRefNum, buffer.data());
    if (result != kNoError) return ReadFailed("the about text", result);
    text->assign(buffer.data(), BoundedLength(buffer.data(), size));
    return kExitOK;
}

int CDatabaseFile::AddRecord(const TRecordType& type, std::int32_t id, const std::string& name,
                             const std::vector<unsigned char>& data) {
    const TRecordKey key{type, false, id, name};
    MSHandle handle = nullptr;
    std::int16_t result = MSNewHandle(&handle, 0);
    if (result == kNoError && !data.empty())
        result = MSCopyBlockToHandle(data.data(), &handle, static_cast<std::uint32_t>(data.size()));
    if (result != kNoError) {
        if (handle != nullptr) MSDisposeHandle(handle);
        Complain("cannot add record " + DescribeRecordKey(key) + " to " + fPath + ": out of memory");
        return kExitFailed;
    }
    result = RMAddNewRecord(fRefNum, type.data(), name.c_str(), id, handle);
    if (result != kNoError) {
        MSDisposeHandle(handle);
        if (result == kDuplicateRecord) {
            Complain("cannot add record " + QuoteRecordType(type) + " " + std::to_string(id) + " \"" +
                     EscapeForTerminal(name) + "\" to " + fPath +
                     ": a record of that type with that ID or that name exists already");
        } else if (result == kNoPermission) {
            Complain("cannot add to " + fPath + ": the file is open read-only");
        } else {
            Complain("cannot add record " + DescribeRecordKey(key) + " to " + fPath + ": " +
                     CodeText(result) + kVerifyHint);
        }
        return kExitFailed;
    }
    // The database owns the handle now; releasing it frees the memory only.
    RMReleaseRecord(handle);
    return kExitOK;
}

std::int16_t CDatabaseFile::RemoveByKey(const TRecordKey& key) {
    return key.fByName ? RMRemoveNamedRecord(fRefNum, key.fName.c_str(), key.fType.data())
                       : RMRemoveNumberedRecord(fRefNum, key.fID, key.fType.data());
}

int CDatabaseFile::RemoveRecord(const TRecordKey& key) {
    const std::int16_t result = RemoveByKey(key);
    if (result == kKeyNotFound || result == kRecordNotFound) {
        Complain(fPath + " has no record " + DescribeRecordKey(key));
        return kExitNotFound;
    }
    if (result != kNoError) {
        Complain("cannot remove record " + DescribeRecordKey(key) + " from " + fPath + ": " +
                 CodeText(result) + kVerifyHint);
        return kExitFailed;
    }
    return kExitOK;
}

int CDatabaseFile::RemoveRecordIfPresent(const TRecordKey& key) {
    const std::int16_t result = RemoveByKey(key);
    if (result == kNoError || result == kKeyNotFound || result == kRecordNotFound) return kExitOK;
    Complain("cannot remove record " + DescribeRecordKey(key) + " from " + fPath + ": " + CodeText(result) +
             kVerifyHint);
    return kExitFailed;
}
