#include "tests/fuzz/MediaFuzzDatabase.h"

#include <cstring>

#include "engine/FaultFileIO.h"
#include "engine/FileIO.h"

namespace kavofuzz {

namespace {

constexpr const char* kDatabaseName = "media-fuzz.kdb";

}  // namespace

std::string EncodeMediaFuzzInput(const TMediaFuzzInput& input) {
    std::string bytes(1, static_cast<char>(input.fFlags));
    bytes.append(input.fBytes.begin(), input.fBytes.end());
    return bytes;
}

TMediaFuzzInput DecodeMediaFuzzInput(const std::uint8_t* data, std::size_t size) {
    TMediaFuzzInput input;
    if (size == 0) return input;
    input.fFlags = data[0];
    input.fBytes.assign(data + 1, data + size);
    return input;
}

std::int16_t MediaFuzzDatabase() {
    // Never destroyed: the database stays open in it until the process ends.
    static engine::TFaultFileSystem* const fileSystem = [] {
        auto* made = new engine::TFaultFileSystem;
        engine::InstallFileSystem(made);
        return made;
    }();
    static const std::int16_t refNum = [] {
        std::int16_t opened = 0;
        if (InitRMRezManager() != kNoError || RMCreate(kDatabaseName, 0x4B41564F, 0x4D444941) != kNoError ||
            RMOpen(kDatabaseName, kPermissionReadWrite, &opened) != kNoError ||
            RMSetCurrentDB(opened) != kNoError)
            return std::int16_t{0};
        return opened;
    }();
    (void)fileSystem;
    return refNum;
}

MSHandle NewHandleWith(const Bytes& bytes) {
    MSHandle handle = nullptr;
    if (MSNewHandle(&handle, static_cast<std::uint32_t>(bytes.size())) != kNoError) return nullptr;
    if (!bytes.empty()) {
        void* address = nullptr;
        if (MSLockHandle(handle, &address) != kNoError) {
            MSDisposeHandle(handle);
            return nullptr;
        }
        std::memcpy(address, bytes.data(), bytes.size());
        MSUnlockHandle(handle);
    }
    return handle;
}

Bytes HandleBytes(MSHandle handle) {
    Bytes bytes(MSGetHandleSize(handle));
    void* address = nullptr;
    if (bytes.empty() || MSLockHandle(handle, &address) != kNoError) return bytes;
    std::memcpy(bytes.data(), address, bytes.size());
    MSUnlockHandle(handle);
    return bytes;
}

std::int16_t PutRecord(std::int16_t refNum, const char* type, const char* name, std::int32_t id,
                       const Bytes& bytes) {
    RMRemoveNamedRecord(refNum, name, type);
    MSHandle data = NewHandleWith(bytes);
    if (data == nullptr) return kOutOfMemory;
    const std::int16_t error = RMAddNewRecord(refNum, type, name, id, data);
    if (error != kNoError) {
        MSDisposeHandle(data);
        return error;
    }
    return RMReleaseRecord(data);
}

Bytes RecordBytes(std::int16_t refNum, const char* type, const char* name) {
    MSHandle data = nullptr;
    if (RMReadRecordByName(refNum, name, type, &data) != kNoError) return {};
    Bytes bytes = HandleBytes(data);
    RMReleaseRecord(data);
    return bytes;
}

}  // namespace kavofuzz
