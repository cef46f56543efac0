// The engine's calls over its process-wide tables of file numbers.
#include "engine/Engine.h"

#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "engine/EngineState.h"
#include "engine/HostFile.h"
#include "engine/StatusLog.h"

using engine::ClearError;
using engine::Fail;
using engine::FindMode;
using engine::THostFile;

namespace {

enum class SlotKind { kFree, kHost, kData, kIndex };

struct TSlot {
    SlotKind fKind = SlotKind::kFree;
    THostFile* fHost = nullptr;
    std::unique_ptr<THostFile> fOwnedHost;  // host slots only
    std::uint8_t fMember = 0;
    std::int16_t fDataSlot = -1;  // index slots: their data file's number
    std::uint32_t fCurrent = 0;   // data slots: the current record
    std::vector<std::uint8_t> fLastKey;  // index slots: the tree key last found
};

struct TEngineState {
    bool fInitialised = false;
    bool fKeysTransformed = false;
    std::vector<TSlot> fSlots;
    std::int16_t fBuffers = 0;
    std::int16_t fDataBuffers = 0;
    std::int16_t fNodeSectors = 0;
    std::int16_t fProfile = 0;
    // Key buffers reused by every call.
    std::vector<std::uint8_t> fKey;
    std::vector<std::uint8_t> fHighKey;
    std::vector<std::uint8_t> fFoundKey;
    // Why the last open refused a file it found.
    std::string fOpenProblem;
};

TEngineState gEngine;

bool InRange(std::int16_t number) {
    return number >= 0 && static_cast<std::size_t>(number) < gEngine.fSlots.size();
}

// The slot of an open file of the wanted kind, or null (kFileNotActive).
TSlot* SlotOf(std::int16_t number, SlotKind kind) {
    if (!gEngine.fInitialised || !InRange(number) || gEngine.fSlots[number].fKind != kind) {
        Fail(kFileNotActive, number);
        return nullptr;
    }
    return &gEngine.fSlots[number];
}

std::int16_t Result(std::int16_t error, std::int16_t number) {
    return error == kEngineNoError ? kEngineNoError : Fail(error, number);
}

// "<host file>!<member>": the host file's name and the member's.
bool SplitMemberName(const char* name, std::string* host, std::string* member) {
    if (name == nullptr) return false;
    const std::string full(name);
    const std::size_t bang = full.rfind('!');
    if (bang == std::string::npos || bang == 0 || bang + 1 == full.size()) return false;
    *host = full.substr(0, bang);
    *member = full.substr(bang + 1);
    return true;
}

THostFile* OpenHostNamed(const std::string& path) {
    for (TSlot& slot : gEngine.fSlots) {
        if (slot.fKind == SlotKind::kHost && slot.fHost->Path() == path) return slot.fHost;
    }
    return nullptr;
}

// The first data file number of a definition: the one asked for, or the
// first run of free numbers long enough.
std::int16_t ChooseNumbers(const FileDefinition& definition, std::int16_t* first) {
    const std::size_t needed = 1 + static_cast<std::size_t>(definition.fIndexCount);
    const auto freeRun = [&](std::size_t from) {
        if (from + needed > gEngine.fSlots.size()) return false;
        for (std::size_t i = from; i < from + needed; ++i) {
            if (gEngine.fSlots[i].fKind != SlotKind::kFree) return false;
        }
        return true;
    };
    if (definition.fDataFileNumber >= 0) {
        if (!freeRun(static_cast<std::size_t>(definition.fDataFileNumber))) return kFileNumberInUse;
        *first = definition.fDataFileNumber;
        return kEngineNoError;
    }
    for (std::size_t from = 0; from < gEngine.fSlots.size(); ++from) {
        if (freeRun(from)) {
            *first = static_cast<std::int16_t>(from);
            return kEngineNoError;
        }
    }
    return kFileNumberInUse;
}

// Gives the definition's members their file numbers.
std::int16_t OpenMembers(FileDefinition* definition, THostFile* host, const std::string& dataName) {
    // The caller sizes its record and key buffers by its definition and the
    // engine fills them by the stored lengths: the two must agree.
    std::uint8_t data = 0;
    if (host->FindMember(dataName, &data) != kEngineNoError || !host->Member(data).fIsData ||
        host->Member(data).fFixedLength != definition->fFixedLength)
        return kFileNotOpened;
    std::vector<std::uint8_t> indexes;
    for (int i = 0; i < definition->fIndexCount; ++i) {
        std::uint8_t index = 0;
        const char* name = definition->fIndexes[i].fName;
        if (name == nullptr || host->FindMember(name, &index) != kEngineNoError ||
            host->Member(index).fIsData || host->Member(index).fOwner != data ||
            host->Member(index).fKeyLength != definition->fIndexes[i].fKeyLength)
            return kFileNotOpened;
        indexes.push_back(index);
    }
    std::int16_t first = 0;
    const std::int16_t error = ChooseNumbers(*definition, &first);
    if (error != kEngineNoError) return error;
    TSlot& dataSlot = gEngine.fSlots[first];
    dataSlot = TSlot{};
    dataSlot.fKind = SlotKind::kData;
    dataSlot.fHost = host;
    dataSlot.fMember = data;
    for (std::size_t i = 0; i < indexes.size(); ++i) {
        TSlot& slot = gEngine.fSlots[first + 1 + i];
        slot = TSlot{};
        slot.fKind = SlotKind::kIndex;
        slot.fHost = host;
        slot.fMember = indexes[i];
        slot.fDataSlot = first;
    }
    definition->fChosenDataFileNumber = first;
    return kEngineNoError;
}

bool ValidDefinition(const FileDefinition* definition) {
    return definition != nullptr && definition->fDataFileName != nullptr && definition->fIndexCount >= 0 &&
           definition->fIndexCount < 64 && (definition->fIndexCount == 0 || definition->fIndexes != nullptr);
}

// The stored form of a caller's key, in one of the engine's key buffers.
const std::vector<std::uint8_t>& StoredKey(const TSlot& index, const void* key, std::vector<std::uint8_t>* stored) {
    const THostFile* host = index.fHost;
    const auto length = static_cast<std::size_t>(host->Member(index.fMember).fKeyLength);
    const auto* bytes = static_cast<const std::uint8_t*>(key);
    stored->assign(bytes, bytes + length);
    if (!gEngine.fKeysTransformed) host->TransformKey(index.fMember, stored->data());
    return *stored;
}

// Makes the record current in its data file and reads its fixed part.
std::int16_t ReadFixedPart(TSlot& data, std::uint32_t record, void* buffer, std::uint32_t hint = 0) {
    THostFile* host = data.fHost;
    std::uint32_t length = 0;
    bool found = false;
    const std::int16_t error = host->ReadRecordUpTo(data.fMember, record, host->Member(data.fMember).fFixedLength,
                                                    static_cast<std::uint8_t*>(buffer), &length, &found, hint);
    if (error != kEngineNoError) return error;
    if (!found) return kBadRecordPosition;
    data.fCurrent = record;
    return kEngineNoError;
}

std::int16_t FindRecordByKey(std::int16_t indexFile, const void* key, void* recordBuffer, FindMode mode) {
    ClearError();
    TSlot* index = SlotOf(indexFile, SlotKind::kIndex);
    if (index == nullptr) return engine::gErrorState.fError;
    if (key == nullptr || recordBuffer == nullptr) return Fail(kBadArgument, indexFile);
    const std::vector<std::uint8_t>& stored = StoredKey(*index, key, &gEngine.fKey);
    std::uint32_t record = 0;
    bool found = false;
    std::vector<std::uint8_t>& foundKey = gEngine.fFoundKey;
    foundKey.resize(stored.size());
    std::uint32_t hint = 0;
    std::int16_t error =
        index->fHost->FindKey(index->fMember, mode, stored.data(), foundKey.data(), &record, &found, &hint);
    if (error != kEngineNoError) return Fail(error, indexFile);
    if (!found) return Fail(kEngineKeyNotFound, indexFile);
    index->fHost->MakeTreeKey(index->fMember, foundKey.data(), record, &index->fLastKey);
    error = ReadFixedPart(gEngine.fSlots[index->fDataSlot], record, recordBuffer, hint);
    return Result(error, index->fDataSlot);
}

// Memory ran out inside a call: the call answers it, and changed nothing
// (a host file undoes its own changes before the exception gets here). Every
// call below that can allocate is a function-try-block, so that no exception
// ever leaves the engine.
std::int16_t OutOfMemory() { return Fail(kEngineOutOfMemory, 0); }

void CopyKey(const TSlot& index, const std::uint8_t* key, void* keyBuffer) {
    if (keyBuffer == nullptr) return;
    std::memcpy(keyBuffer, key, static_cast<std::size_t>(index.fHost->Member(index.fMember).fKeyLength));
}

}  // namespace

// ---------------------------------------------------------------------------
// Start and stop

std::int16_t EngineInit(std::int16_t buffers, std::int16_t fileSlots, std::int16_t nodeSectors,
                        std::int16_t dataBuffers, std::int16_t profileWord) try {
    ClearError();
    if (gEngine.fInitialised || fileSlots <= 0) return Fail(IINT_ERR, 0);
    gEngine.fSlots.clear();
    gEngine.fSlots.resize(static_cast<std::size_t>(fileSlots));
    gEngine.fBuffers = buffers;
    gEngine.fDataBuffers = dataBuffers;
    gEngine.fNodeSectors = nodeSectors;
    gEngine.fProfile = profileWord;
    gEngine.fKeysTransformed = false;
    gEngine.fInitialised = true;
    return kEngineNoError;
} catch (const std::exception&) {
    return OutOfMemory();
}

std::int16_t EngineStop() try {
    ClearError();
    if (!gEngine.fInitialised) return kEngineNoError;
    for (std::size_t i = 0; i < gEngine.fSlots.size(); ++i) {
        TSlot& slot = gEngine.fSlots[i];
        if (slot.fKind == SlotKind::kHost) slot.fHost->Close();
    }
    gEngine.fSlots.clear();
    gEngine.fInitialised = false;
    THostFile::SetGroupOpen(false);
    return kEngineNoError;
} catch (const std::exception&) {
    return OutOfMemory();
}

void EngineReleaseMemory() { engine::TPager::ReleaseFramePool(); }

std::int16_t EngineBeginGroup() {
    ClearError();
    if (!gEngine.fInitialised) return Fail(kFileNotActive, 0);
    if (THostFile::GroupOpen()) return Fail(kBadArgument, 0);
    THostFile::SetGroupOpen(true);
    return kEngineNoError;
}

// Every host file's end; the first failure is answered (each failing file
// has undone the group).
std::int16_t EngineEndGroup(bool keep) {
    ClearError();
    if (!THostFile::GroupOpen()) return Fail(kBadArgument, 0);
    THostFile::SetGroupOpen(false);
    std::int16_t first = kEngineNoError;
    for (std::size_t i = 0; i < gEngine.fSlots.size(); ++i) {
        TSlot& slot = gEngine.fSlots[i];
        if (slot.fKind != SlotKind::kHost) continue;
        const std::int16_t error = slot.fHost->EndGroup(keep);
        if (error != kEngineNoError && first == kEngineNoError) first = Fail(error, static_cast<std::int16_t>(i));
    }
    return first;
}

bool EngineIsInitialised() { return gEngine.fInitialised; }

void SetKeysArriveTransformed(bool transformed) { gEngine.fKeysTransformed = transformed; }

// ---------------------------------------------------------------------------
// Host files

std::int16_t CreateHostFile(std::int16_t fileNumber, const char* name, std::int32_t, std::int32_t, std::uint16_t) try {
    ClearError();
    if (!gEngine.fInitialised || !InRange(fileNumber)) return Fail(kFileNotActive, fileNumber);
    if (gEngine.fSlots[fileNumber].fKind != SlotKind::kFree) return Fail(kFileNumberInUse, fileNumber);
    if (name == nullptr || name[0] == '\0') return Fail(kFileNotCreated, fileNumber);
    std::unique_ptr<THostFile> host;
    const std::int16_t error = THostFile::Create(name, &host);
    if (error != kEngineNoError) return Fail(kFileNotCreated, fileNumber);
    TSlot& slot = gEngine.fSlots[fileNumber];
    slot = TSlot{};
    slot.fKind = SlotKind::kHost;
    slot.fHost = host.get();
    slot.fOwnedHost = std::move(host);
    return kEngineNoError;
} catch (const std::exception&) {
    return OutOfMemory();
}

std::int16_t OpenHostFile(std::int16_t fileNumber, const char* name, std::uint16_t mode) try {
    ClearError();
    if (!gEngine.fInitialised || !InRange(fileNumber)) return Fail(kFileNotActive, fileNumber);
    if (gEngine.fSlots[fileNumber].fKind != SlotKind::kFree) return Fail(kFileNumberInUse, fileNumber);
    if (name == nullptr || name[0] == '\0') return Fail(kFileNotOpened, fileNumber);
    std::unique_ptr<THostFile> host;
    gEngine.fOpenProblem.clear();
    const std::int16_t error = THostFile::Open(name, (mode & kHostReadOnlyBit) != 0, &host, &gEngine.fOpenProblem);
    if (error == kEngineOutOfMemory) return Fail(error, fileNumber);
    if (error != kEngineNoError) return Fail(kFileNotOpened, fileNumber);
    TSlot& slot = gEngine.fSlots[fileNumber];
    slot = TSlot{};
    slot.fKind = SlotKind::kHost;
    slot.fHost = host.get();
    slot.fOwnedHost = std::move(host);
    return kEngineNoError;
} catch (const std::exception&) {
    return OutOfMemory();
}

std::int16_t CloseHostFile(std::int16_t fileNumber, std::uint16_t) try {
    ClearError();
    if (!InRange(fileNumber)) FatalError(kFatalBadHostFileNumber);
    TSlot* slot = SlotOf(fileNumber, SlotKind::kHost);
    if (slot == nullptr) return engine::gErrorState.fError;
    // Its members close with it.
    for (TSlot& member : gEngine.fSlots) {
        if (member.fKind != SlotKind::kHost && member.fHost == slot->fHost) member = TSlot{};
    }
    const std::int16_t error = slot->fHost->Close();
    *slot = TSlot{};
    return Result(error, fileNumber);
} catch (const std::exception&) {
    return OutOfMemory();
}

const engine::TPagerStats* HostFileStats(std::int16_t fileNumber) {
    if (!gEngine.fInitialised || !InRange(fileNumber) || gEngine.fSlots[fileNumber].fKind != SlotKind::kHost)
        return nullptr;
    return &gEngine.fSlots[fileNumber].fHost->Stats();
}

// ---------------------------------------------------------------------------
// Member files

std::int16_t CreateFilesFromDefinition(FileDefinition* definition) try {
    ClearError();
    if (!gEngine.fInitialised) return Fail(kFileNotActive, 0);
    if (!ValidDefinition(definition)) return Fail(kBadArgument, 0);
    std::string hostName;
    std::string dataName;
    if (!SplitMemberName(definition->fDataFileName, &hostName, &dataName)) return Fail(kBadArgument, 0);
    THostFile* host = OpenHostNamed(hostName);
    if (host == nullptr) return Fail(kFileNotActive, 0);
    std::int16_t first = 0;
    std::int16_t error = ChooseNumbers(*definition, &first);
    if (error != kEngineNoError) return Fail(error, definition->fDataFileNumber);
    error = host->CreateMembers(*definition, dataName);
    if (error != kEngineNoError) return Fail(error, first);
    return Result(OpenMembers(definition, host, dataName), first);
} catch (const std::exception&) {
    return OutOfMemory();
}

std::int16_t OpenFilesFromDefinition(FileDefinition* definition) try {
    ClearError();
    if (!gEngine.fInitialised) return Fail(kFileNotActive, 0);
    if (!ValidDefinition(definition)) return Fail(kBadArgument, 0);
    std::string hostName;
    std::string dataName;
    if (!SplitMemberName(definition->fDataFileName, &hostName, &dataName)) return Fail(kFileNotOpened, 0);
    THostFile* host = OpenHostNamed(hostName);
    if (host == nullptr) return Fail(kFileNotOpened, 0);
    return Result(OpenMembers(definition, host, dataName), definition->fDataFileNumber);
} catch (const std::exception&) {
    return OutOfMemory();
}

std::int16_t CloseFilesFromDefinition(FileDefinition* definition) try {
    ClearError();
    if (!ValidDefinition(definition)) return Fail(kBadArgument, 0);
    const std::int16_t first = definition->fChosenDataFileNumber;
    if (SlotOf(first, SlotKind::kData) == nullptr) return engine::gErrorState.fError;
    gEngine.fSlots[first] = TSlot{};
    for (int i = 0; i < definition->fIndexCount; ++i) {
        const auto number = static_cast<std::int16_t>(first + 1 + i);
        if (InRange(number) && gEngine.fSlots[number].fKind == SlotKind::kIndex &&
            gEngine.fSlots[number].fDataSlot == first)
            gEngine.fSlots[number] = TSlot{};
    }
    return kEngineNoError;
} catch (const std::exception&) {
    return OutOfMemory();
}

std::int16_t SetFileWord(std::int16_t fileNumber, const void* twoBytes) try {
    ClearError();
    if (!gEngine.fInitialised || !InRange(fileNumber) || gEngine.fSlots[fileNumber].fKind == SlotKind::kFree ||
        gEngine.fSlots[fileNumber].fKind == SlotKind::kHost)
        return Fail(kFileNotActive, fileNumber);
    if (twoBytes == nullptr) return Fail(kBadArgument, fileNumber);
    // The setting is accepted and changes nothing this engine relies on.
    return kEngineNoError;
} catch (const std::exception&) {
    return OutOfMemory();
}

// ---------------------------------------------------------------------------
// Records

std::int16_t AddVarRecordParts(std::int16_t dataFile, const void* first, std::uint32_t firstLength,
                               const void* second, std::uint32_t secondLength) try {
    ClearError();
    TSlot* data = SlotOf(dataFile, SlotKind::kData);
    if (data == nullptr) return engine::gErrorState.fError;
    if ((first == nullptr && firstLength != 0) || (second == nullptr && secondLength != 0) ||
        firstLength > UINT32_MAX - secondLength)
        return Fail(kBadArgument, dataFile);
    const engine::TMemoryBytes bytes(static_cast<const std::uint8_t*>(first), firstLength,
                                     static_cast<const std::uint8_t*>(second), secondLength);
    std::uint32_t record = 0;
    const std::int16_t error = data->fHost->AddRecord(data->fMember, bytes, &record);
    if (error != kEngineNoError) return Fail(error, dataFile);
    data->fCurrent = record;
    return kEngineNoError;
} catch (const std::exception&) {
    return OutOfMemory();
}

std::int16_t AddVarRecord(std::int16_t dataFile, const void* buffer, std::uint32_t length) try {
    if (buffer == nullptr) {
        ClearError();
        return Fail(SlotOf(dataFile, SlotKind::kData) == nullptr ? kFileNotActive : kBadArgument, dataFile);
    }
    return AddVarRecordParts(dataFile, buffer, length, nullptr, 0);
} catch (const std::exception&) {
    return OutOfMemory();
}

std::int16_t GetRecordByKey(std::int16_t indexFile, const void* key, void* recordBuffer) try {
    return FindRecordByKey(indexFile, key, recordBuffer, FindMode::kEqual);
} catch (const std::exception&) {
    return OutOfMemory();
}

std::int16_t GetRecordAtOrBefore(std::int16_t indexFile, const void* key, void* recordBuffer) try {
    return FindRecordByKey(indexFile, key, recordBuffer, FindMode::kAtOrBefore);
} catch (const std::exception&) {
    return OutOfMemory();
}

std::uint32_t FindKeyAtOrAfter(std::int16_t indexFile, const void* key, void* keyBuffer) try {
    ClearError();
    TSlot* index = SlotOf(indexFile, SlotKind::kIndex);
    if (index == nullptr) return 0;
    if (key == nullptr) return Fail(kBadArgument, indexFile), 0;
    const std::vector<std::uint8_t>& stored = StoredKey(*index, key, &gEngine.fKey);
    std::vector<std::uint8_t>& found = gEngine.fFoundKey;
    found.resize(stored.size());
    std::uint32_t record = 0;
    bool any = false;
    const std::int16_t error =
        index->fHost->FindKey(index->fMember, FindMode::kAtOrAfter, stored.data(), found.data(), &record, &any);
    if (error != kEngineNoError) return Fail(error, indexFile), 0;
    if (!any) return Fail(kEngineKeyNotFound, indexFile), 0;
    index->fHost->MakeTreeKey(index->fMember, found.data(), record, &index->fLastKey);
    CopyKey(*index, found.data(), keyBuffer);
    return record;
} catch (const std::exception&) {
    return OutOfMemory(), 0;
}

std::uint32_t NthKey(std::int16_t indexFile, std::uint32_t n, void* keyBuffer) try {
    ClearError();
    TSlot* index = SlotOf(indexFile, SlotKind::kIndex);
    if (index == nullptr) return 0;
    std::vector<std::uint8_t> treeKey;
    std::uint32_t record = 0;
    bool found = false;
    const std::int16_t error = index->fHost->SelectKey(index->fMember, n, nullptr, &record, &found, &treeKey);
    if (error != kEngineNoError) return Fail(error, indexFile), 0;
    if (!found) return 0;  // past the end: not an error
    index->fLastKey = treeKey;
    CopyKey(*index, treeKey.data(), keyBuffer);
    return record;
} catch (const std::exception&) {
    return OutOfMemory(), 0;
}

std::uint32_t FirstKey(std::int16_t indexFile, void* keyBuffer) { return NthKey(indexFile, 0, keyBuffer); }

std::uint32_t NextKey(std::int16_t indexFile, void* keyBuffer) try {
    ClearError();
    TSlot* index = SlotOf(indexFile, SlotKind::kIndex);
    if (index == nullptr) return 0;
    if (index->fLastKey.empty()) return Fail(kNoCurrentRecord, indexFile), 0;
    std::vector<std::uint8_t> next;
    std::uint32_t record = 0;
    bool found = false;
    const std::int16_t error =
        index->fHost->FindAfterTreeKey(index->fMember, index->fLastKey, nullptr, &record, &found, &next);
    if (error != kEngineNoError) return Fail(error, indexFile), 0;
    if (!found) return 0;  // the end: not an error
    index->fLastKey = next;
    CopyKey(*index, next.data(), keyBuffer);
    return record;
} catch (const std::exception&) {
    return OutOfMemory(), 0;
}

std::int16_t ReadFixedAt(std::int16_t dataFile, std::uint32_t position, void* buffer) try {
    ClearError();
    TSlot* data = SlotOf(dataFile, SlotKind::kData);
    if (data == nullptr) return engine::gErrorState.fError;
    if (buffer == nullptr) return Fail(kBadArgument, dataFile);
    if (position == 0) return Fail(kBadRecordPosition, dataFile);
    return Result(ReadFixedPart(*data, position, buffer), dataFile);
} catch (const std::exception&) {
    return OutOfMemory();
}

std::uint32_t VarRecordLength(std::int16_t dataFile) try {
    ClearError();
    TSlot* data = SlotOf(dataFile, SlotKind::kData);
    if (data == nullptr) return 0;
    std::uint32_t length = 0;
    bool found = false;
    const std::int16_t error =
        data->fCurrent == 0 ? kEngineNoError : data->fHost->RecordLength(data->fMember, data->fCurrent, &length, &found);
    if (error != kEngineNoError) return Fail(error, dataFile), 0;
    if (!found) {
        engine::SetLowError(kLowNoCurrentRecord);
        return Fail(kNoCurrentRecord, dataFile), 0;
    }
    return length;
} catch (const std::exception&) {
    return OutOfMemory(), 0;
}

std::int16_t ReadVarRecord(std::int16_t dataFile, void* buffer, std::uint32_t bufferLength) try {
    ClearError();
    TSlot* data = SlotOf(dataFile, SlotKind::kData);
    if (data == nullptr) return engine::gErrorState.fError;
    if (buffer == nullptr) return Fail(kBadArgument, dataFile);
    if (data->fCurrent == 0) return Fail(kNoCurrentRecord, dataFile);
    std::uint32_t length = 0;
    bool found = false;
    const std::int16_t error = data->fHost->ReadRecordUpTo(data->fMember, data->fCurrent, bufferLength,
                                                           static_cast<std::uint8_t*>(buffer), &length, &found);
    if (error != kEngineNoError) return Fail(error, dataFile);
    if (!found) return Fail(kNoCurrentRecord, dataFile);
    // The buffer holds as much as fitted; the caller asked for all of it.
    if (bufferLength < length) return Fail(kBufferTooSmall, dataFile);
    return kEngineNoError;
} catch (const std::exception&) {
    return OutOfMemory();
}

std::int16_t ReWriteVarRecordParts(std::int16_t dataFile, const void* first, std::uint32_t firstLength,
                                   const void* second, std::uint32_t secondLength) try {
    ClearError();
    TSlot* data = SlotOf(dataFile, SlotKind::kData);
    if (data == nullptr) return engine::gErrorState.fError;
    if ((first == nullptr && firstLength != 0) || (second == nullptr && secondLength != 0) ||
        firstLength > UINT32_MAX - secondLength)
        return Fail(kBadArgument, dataFile);
    if (data->fCurrent == 0) return Fail(kNoCurrentRecord, dataFile);
    const engine::TMemoryBytes bytes(static_cast<const std::uint8_t*>(first), firstLength,
                                     static_cast<const std::uint8_t*>(second), secondLength);
    return Result(data->fHost->RewriteRecord(data->fMember, data->fCurrent, bytes), dataFile);
} catch (const std::exception&) {
    return OutOfMemory();
}

std::int16_t ReWriteVarRecord(std::int16_t dataFile, const void* buffer, std::uint32_t length) try {
    if (buffer == nullptr) {
        ClearError();
        return Fail(SlotOf(dataFile, SlotKind::kData) == nullptr ? kFileNotActive : kBadArgument, dataFile);
    }
    return ReWriteVarRecordParts(dataFile, buffer, length, nullptr, 0);
} catch (const std::exception&) {
    return OutOfMemory();
}

std::int16_t DeleteVarRecord(std::int16_t dataFile) try {
    ClearError();
    TSlot* data = SlotOf(dataFile, SlotKind::kData);
    if (data == nullptr) return engine::gErrorState.fError;
    if (data->fCurrent == 0) return Fail(kNoCurrentRecord, dataFile);
    const std::int16_t error = data->fHost->DeleteRecord(data->fMember, data->fCurrent);
    if (error != kEngineNoError) return Fail(error, dataFile);
    data->fCurrent = 0;
    return kEngineNoError;
} catch (const std::exception&) {
    return OutOfMemory();
}

// ---------------------------------------------------------------------------
// Keys and counts

std::uint32_t CountKeyRange(std::int16_t indexFile, const void* lowKey, const void* highKey) try {
    ClearError();
    TSlot* index = SlotOf(indexFile, SlotKind::kIndex);
    if (index == nullptr) return 0;
    if (lowKey == nullptr || highKey == nullptr) return Fail(kBadArgument, indexFile), 0;
    const std::vector<std::uint8_t>& low = StoredKey(*index, lowKey, &gEngine.fKey);
    const std::vector<std::uint8_t>& high = StoredKey(*index, highKey, &gEngine.fHighKey);
    std::uint32_t below = 0;
    std::uint32_t upTo = 0;
    std::int16_t error = index->fHost->CountBelow(index->fMember, low.data(), false, &below);
    if (error == kEngineNoError) error = index->fHost->CountBelow(index->fMember, high.data(), true, &upTo);
    if (error != kEngineNoError) return Fail(error, indexFile), 0;
    const std::uint32_t total = index->fHost->KeyCount(index->fMember);
    if (below > total) FatalError(kFatalRangeCountLow);
    if (upTo > total) FatalError(kFatalRangeCountHigh);
    return upTo > below ? upTo - below : 0;
} catch (const std::exception&) {
    return OutOfMemory(), 0;
}

std::uint32_t CountKeysBelow(std::int16_t indexFile, const void* key) try {
    ClearError();
    TSlot* index = SlotOf(indexFile, SlotKind::kIndex);
    if (index == nullptr) return 0;
    if (key == nullptr) return Fail(kBadArgument, indexFile), 0;
    const std::vector<std::uint8_t>& stored = StoredKey(*index, key, &gEngine.fKey);
    std::uint32_t below = 0;
    const std::int16_t error = index->fHost->CountBelow(index->fMember, stored.data(), false, &below);
    if (error != kEngineNoError) return Fail(error, indexFile), 0;
    return below;
} catch (const std::exception&) {
    return OutOfMemory(), 0;
}

std::uint32_t CountIndexEntries(std::int16_t indexFile) try {
    ClearError();
    TSlot* index = SlotOf(indexFile, SlotKind::kIndex);
    if (index == nullptr) return 0;
    return index->fHost->KeyCount(index->fMember);
} catch (const std::exception&) {
    return OutOfMemory(), 0;
}

std::int16_t TransformKey(std::int16_t indexFile, void* key) try {
    ClearError();
    TSlot* index = SlotOf(indexFile, SlotKind::kIndex);
    if (index == nullptr) return engine::gErrorState.fError;
    if (key == nullptr) return Fail(kBadArgument, indexFile);
    index->fHost->TransformKey(index->fMember, static_cast<std::uint8_t*>(key));
    return kEngineNoError;
} catch (const std::exception&) {
    return OutOfMemory();
}

// ---------------------------------------------------------------------------
// Integrity

std::int16_t CheckHostFile(const char* name, TIntegrityReport* report, const TProgress& progress) try {
    if (name == nullptr || report == nullptr) return kBadArgument;
    *report = TIntegrityReport{};
    std::unique_ptr<THostFile> host;
    gEngine.fOpenProblem.clear();
    if (THostFile::Open(name, true, &host, &gEngine.fOpenProblem) != kEngineNoError) return kFileNotOpened;
    std::uint64_t size = 0;
    std::unique_ptr<engine::TFile> file = engine::CurrentFileSystem()->Open(name, engine::OpenMode::kReadOnly, nullptr);
    if (file) file->Size(&size);
    file.reset();
    report->fFileBytes = size;
    const std::int16_t error = host->Check(report, progress);
    host->Close();
    return error;
} catch (const std::exception&) {
    return kEngineOutOfMemory;
}

std::int16_t CompactHostFile(const char* name, TCompactReport* report) try {
    if (name == nullptr || report == nullptr) return kBadArgument;
    *report = TCompactReport{};
    std::unique_ptr<THostFile> host;
    gEngine.fOpenProblem.clear();
    if (THostFile::Open(name, false, &host, &gEngine.fOpenProblem) != kEngineNoError) return kFileNotOpened;
    report->fBytesBefore = host->FileBytes();
    std::int16_t error = host->Compact();
    report->fBytesAfter = host->FileBytes();
    const std::int16_t closed = host->Close();
    return error != kEngineNoError ? error : closed;
} catch (const std::exception&) {
    return kEngineOutOfMemory;
}

const char* EngineOpenProblem() { return gEngine.fOpenProblem.c_str(); }
