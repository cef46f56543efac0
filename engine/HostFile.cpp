#include "engine/HostFile.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <set>

#include "engine/Bytes.h"
#include "engine/EngineErrors.h"
#include "engine/StatusLog.h"

namespace engine {
namespace {

constexpr std::uint8_t kMemberData = 1;
constexpr std::uint8_t kMemberIndex = 2;
// Removals outnumbering adds by this many since the last checkpoint make a
// shrinking file, whose freed pages are worth an early checkpoint.
constexpr std::int64_t kShrinkingRecords = 64;

class TCatalogWriter {
public:
    explicit TCatalogWriter(std::vector<std::uint8_t>* out) : fOut(out) {}
    void U8(std::uint32_t v) { fOut->push_back(static_cast<std::uint8_t>(v)); }
    void U16(std::uint32_t v) {
        U8(v);
        U8(v >> 8);
    }
    void U32(std::uint32_t v) {
        U16(v);
        U16(v >> 16);
    }
    void Text(const std::string& s) {
        U8(static_cast<std::uint32_t>(s.size()));
        fOut->insert(fOut->end(), s.begin(), s.end());
    }

private:
    std::vector<std::uint8_t>* fOut;
};

class TCatalogReader {
public:
    TCatalogReader(const std::uint8_t* p, std::size_t n) : fAt(p), fLeft(n) {}
    bool Ok() const { return fOk; }
    std::uint32_t U8() {
        if (fLeft < 1) return Fail();
        --fLeft;
        return *fAt++;
    }
    std::uint32_t U16() {
        const std::uint32_t low = U8();
        return low | U8() << 8;
    }
    std::uint32_t U32() {
        const std::uint32_t low = U16();
        return low | U16() << 16;
    }
    std::string Text() {
        const std::uint32_t n = U8();
        if (fLeft < n) return Fail(), std::string();
        std::string s(reinterpret_cast<const char*>(fAt), n);
        fAt += n;
        fLeft -= n;
        return s;
    }

private:
    std::uint32_t Fail() {
        fOk = false;
        fLeft = 0;
        return 0;
    }
    const std::uint8_t* fAt;
    std::size_t fLeft;
    bool fOk = true;
};

bool ValidIndexDefinition(const IndexDefinition& index) {
    if (index.fName == nullptr || index.fName[0] == '\0' || std::strlen(index.fName) > 255) return false;
    const int extra = index.fDuplicates != 0 ? 4 : 0;
    if (index.fKeyLength <= 0 || index.fKeyLength + extra > kMaxKeyLength) return false;
    if (index.fSegmentCount < 0 || index.fSegmentCount > kMaxKeySegments) return false;
    if (index.fSegmentCount > 0 && index.fSegments == nullptr) return false;
    int total = 0;
    for (int i = 0; i < index.fSegmentCount; ++i) {
        const KeySegment& s = index.fSegments[i];
        if (s.fOffset < 0) break;
        if (s.fLength <= 0) return false;
        total += s.fLength;
    }
    return total <= index.fKeyLength;
}

}  // namespace

std::uint32_t TMember::KeySpan() const {
    std::uint32_t span = 0;
    for (const KeySegment& s : fSegments) {
        if (s.fOffset < 0) break;
        span = std::max<std::uint32_t>(span, std::uint32_t(s.fOffset) + std::uint32_t(s.fLength));
    }
    return span;
}

THostFile::~THostFile() = default;

// ---------------------------------------------------------------------------
// The catalog

std::vector<std::uint8_t> THostFile::SaveCatalog() const {
    std::vector<std::uint8_t> bytes;
    TCatalogWriter out(&bytes);
    out.U16(static_cast<std::uint32_t>(fMembers.size()));
    for (const TMember& m : fMembers) {
        out.U8(m.fIsData ? kMemberData : kMemberIndex);
        out.Text(m.fName);
        out.U32(m.fTree.fRoot);
        out.U32(m.fTree.fCount);
        out.U8(m.fTree.fHeight);
        out.U16(m.fTree.fKeyLength);
        out.U16(m.fExtension);
        out.U16(m.fMode);
        if (m.fIsData) {
            out.U16(m.fFixedLength);
            out.U32(m.fNextRecord);
            out.U8(static_cast<std::uint32_t>(m.fIndexes.size()));
            for (std::uint8_t index : m.fIndexes) out.U8(index);
        } else {
            out.U8(m.fOwner);
            out.U16(static_cast<std::uint16_t>(m.fKeyLength));
            out.U16(static_cast<std::uint16_t>(m.fKeyType));
            out.U16(static_cast<std::uint16_t>(m.fDuplicates));
            out.U16(static_cast<std::uint16_t>(m.fNullKey));
            out.U16(static_cast<std::uint16_t>(m.fPadding));
            out.U8(static_cast<std::uint32_t>(m.fSegments.size()));
            for (const KeySegment& s : m.fSegments) {
                out.U16(static_cast<std::uint16_t>(s.fOffset));
                out.U16(static_cast<std::uint16_t>(s.fLength));
                out.U16(static_cast<std::uint16_t>(s.fMode));
            }
        }
    }
    return bytes;
}

std::int16_t THostFile::LoadCatalog(const std::vector<std::uint8_t>& bytes) {
    fMembers.clear();
    if (bytes.empty()) return kEngineNoError;
    TCatalogReader in(bytes.data(), bytes.size());
    const std::uint32_t count = in.U16();
    if (count > kMaxMembers) return kFileNotOpened;
    for (std::uint32_t i = 0; i < count && in.Ok(); ++i) {
        TMember m;
        const std::uint32_t kind = in.U8();
        m.fIsData = kind == kMemberData;
        if (kind != kMemberData && kind != kMemberIndex) return kFileNotOpened;
        m.fName = in.Text();
        m.fTree.fMember = static_cast<std::uint8_t>(i);
        m.fTree.fIsData = m.fIsData;
        m.fTree.fRoot = in.U32();
        m.fTree.fCount = in.U32();
        m.fTree.fHeight = static_cast<std::uint8_t>(in.U8());
        m.fTree.fKeyLength = static_cast<std::uint16_t>(in.U16());
        m.fExtension = static_cast<std::uint16_t>(in.U16());
        m.fMode = static_cast<std::uint16_t>(in.U16());
        if (m.fIsData) {
            m.fFixedLength = static_cast<std::uint16_t>(in.U16());
            m.fNextRecord = in.U32();
            const std::uint32_t indexes = in.U8();
            for (std::uint32_t j = 0; j < indexes; ++j) m.fIndexes.push_back(static_cast<std::uint8_t>(in.U8()));
        } else {
            m.fOwner = static_cast<std::uint8_t>(in.U8());
            m.fKeyLength = static_cast<std::int16_t>(in.U16());
            m.fKeyType = static_cast<std::int16_t>(in.U16());
            m.fDuplicates = static_cast<std::int16_t>(in.U16());
            m.fNullKey = static_cast<std::int16_t>(in.U16());
            m.fPadding = static_cast<std::int16_t>(in.U16());
            const std::uint32_t segments = in.U8();
            if (segments > kMaxKeySegments) return kFileNotOpened;
            for (std::uint32_t j = 0; j < segments; ++j) {
                KeySegment s;
                s.fOffset = static_cast<std::int16_t>(in.U16());
                s.fLength = static_cast<std::int16_t>(in.U16());
                s.fMode = static_cast<std::int16_t>(in.U16());
                m.fSegments.push_back(s);
            }
        }
        fMembers.push_back(std::move(m));
    }
    if (!in.Ok()) return kFileNotOpened;
    // Every value is checked before anything follows it.
    std::set<std::string> names;
    for (std::size_t i = 0; i < fMembers.size(); ++i) {
        const TMember& m = fMembers[i];
        const TTreeInfo& t = m.fTree;
        if (m.fName.empty() || !names.insert(m.fName).second) return kFileNotOpened;
        if (t.fRoot == 0 || t.fRoot >= fPager->PageCount() || t.fHeight == 0 || t.fHeight > kMaxTreeHeight) return kFileNotOpened;
        if (m.fIsData) {
            if (t.fKeyLength != 4 || m.fNextRecord == 0) return kFileNotOpened;
            for (std::uint8_t index : m.fIndexes) {
                if (index >= fMembers.size() || fMembers[index].fIsData || fMembers[index].fOwner != i)
                    return kFileNotOpened;
            }
        } else {
            const int extra = m.fDuplicates != 0 ? 4 : 0;
            if (m.fKeyLength <= 0 || m.fKeyLength + extra > kMaxKeyLength || t.fKeyLength != m.fKeyLength + extra)
                return kFileNotOpened;
            if (m.fOwner >= fMembers.size() || !fMembers[m.fOwner].fIsData) return kFileNotOpened;
            const auto& siblings = fMembers[m.fOwner].fIndexes;
            if (std::find(siblings.begin(), siblings.end(), i) == siblings.end()) return kFileNotOpened;
            int total = 0;
            for (const KeySegment& s : m.fSegments) {
                if (s.fOffset < 0) break;
                if (s.fLength <= 0) return kFileNotOpened;
                total += s.fLength;
            }
            if (total > m.fKeyLength) return kFileNotOpened;
        }
    }
    return kEngineNoError;
}

// ---------------------------------------------------------------------------
// Opening and closing

std::int16_t THostFile::Create(const std::string& path, std::unique_ptr<THostFile>* host) {
    std::unique_ptr<TPager> pager;
    const std::int16_t error = TPager::Create(path, &pager);
    if (error != kEngineNoError) return error;
    host->reset(new THostFile(std::move(pager)));
    return kEngineNoError;
}

std::int16_t THostFile::Open(const std::string& path, bool readOnly, std::unique_ptr<THostFile>* host,
                             std::string* problem) {
    std::string ignored;
    if (problem == nullptr) problem = &ignored;
    std::unique_ptr<TPager> pager;
    std::int16_t error = TPager::Open(path, readOnly, &pager, problem);
    if (error != kEngineNoError) return error;
    std::unique_ptr<THostFile> made(new THostFile(std::move(pager)));
    if (made->LoadCatalog(made->fPager->StoredCatalog()) != kEngineNoError) {
        *problem = "damaged: its catalog does not hold";
        return kFileNotOpened;
    }
    if ((error = made->Replay()) != kEngineNoError) {
        if (error == kEngineOutOfMemory) return error;
        *problem = "damaged: its log cannot be redone";
        return kFileNotOpened;
    }
    const TReplayReport& replay = made->fPager->LastReplay();
    if (replay.fStoppedAtDamage) {
        const std::string text = path + ": " + replay.Describe();
        LogStatus(text.c_str(), kPageDamaged);
    }
    // The redone operations (and the extents their log took) reach the file
    // at once.
    if (!readOnly && made->fPager->HasChanges() &&
        (error = made->fPager->Checkpoint(made->SaveCatalog())) != kEngineNoError) {
        if (error == kEngineOutOfMemory) return error;
        *problem = "its log could not be written into it";
        return kFileNotOpened;
    }
    *host = std::move(made);
    return kEngineNoError;
}

std::int16_t THostFile::Close() {
    std::vector<std::uint8_t> catalog;
    try {
        if (!fPager->ReadOnly() && fPager->Poisoned() == 0 &&
            fPager->Checkpoint(SaveCatalog()) == kEngineNoError)
            MoveDownTheEnd();
        catalog = SaveCatalog();
    } catch (const std::bad_alloc&) {
        // Closed all the same, without writing: the log holds every change.
        fPager->CloseWithoutWriting();
        return kEngineOutOfMemory;
    }
    return fPager->Close(catalog);
}

void THostFile::MoveDownTheEnd() {
    const std::vector<std::uint32_t> pages = fPager->PagesHoldingTheEnd(16);
    if (pages.empty()) return;
    fPager->BeginOperation();
    std::int16_t error = kEngineNoError;
    try {
        for (std::size_t i = 0; i < pages.size() && error == kEngineNoError; ++i) {
            TPage* page = nullptr;
            if ((error = fPager->Fetch(pages[i], &page)) != kEngineNoError) break;
            const std::uint32_t owner = Get32(page->fData + kPageOwnerAt);
            fPager->Unpin(page);
            bool moved = false;
            if (owner < fMembers.size())
                error = TTree(fPager.get(), &fMembers[owner].fTree).MovePathDown(pages[i], &moved);
        }
    } catch (const std::bad_alloc&) {
        error = kEngineOutOfMemory;
    }
    // Nothing is lost when the moves are undone: the file just stays long.
    if (error != kEngineNoError && fPager->OperationChanged()) Recover(error);
}

std::int16_t THostFile::ApplyFrame(const TLogFrame& frame) {
    if (frame.fMember >= fMembers.size() || !fMembers[frame.fMember].fIsData) return kFileNotOpened;
    switch (frame.fKind) {
        case kFrameAdd:
            return ApplyAdd(frame.fMember, frame.fAux, *frame.fPayload, frame.fLength, true);
        case kFrameRewrite:
            return ApplyRewrite(frame.fMember, frame.fAux, *frame.fPayload, frame.fLength, true);
        case kFrameDelete:
            return ApplyDelete(frame.fMember, frame.fAux);
        default:
            return kFileNotOpened;
    }
}

std::int16_t THostFile::Replay() {
    fReplaying = true;
    const std::int16_t error = fPager->ReplayLog([this](const TLogFrame& frame) { return ApplyFrame(frame); });
    fReplaying = false;
    return error;
}

bool THostFile::sGroupOpen = false;

std::int16_t THostFile::Recover(std::int16_t error) {
    // The group's frames so far are dropped by the replay (no end follows
    // them), and so undone with the rest.
    fGroupBegun = false;
    fGroupRecords = 0;
    try {
        fPager->ResetToCheckpoint();
        if (LoadCatalog(fPager->StoredCatalog()) == kEngineNoError && Replay() == kEngineNoError) return error;
    } catch (const std::exception&) {
    }
    fReplaying = false;
    fPager->Poison(error);
    return error;
}

// ---------------------------------------------------------------------------
// Members

std::int16_t THostFile::FindMember(const std::string& name, std::uint8_t* member) const {
    for (std::size_t i = 0; i < fMembers.size(); ++i) {
        if (fMembers[i].fName == name) {
            *member = static_cast<std::uint8_t>(i);
            return kEngineNoError;
        }
    }
    return kMemberNotFound;
}

std::int16_t THostFile::CreateMembers(const FileDefinition& definition, const std::string& dataName) {
    if (const std::int16_t refused = Refusal()) return refused;
    if (dataName.empty() || dataName.size() > 255 || definition.fIndexCount < 0 ||
        (definition.fIndexCount > 0 && definition.fIndexes == nullptr))
        return kBadArgument;
    if (fMembers.size() + 1 + std::size_t(definition.fIndexCount) > kMaxMembers) return kFileFull;
    std::set<std::string> names;
    names.insert(dataName);
    for (int i = 0; i < definition.fIndexCount; ++i) {
        if (!ValidIndexDefinition(definition.fIndexes[i])) return kBadArgument;
        if (!names.insert(definition.fIndexes[i].fName).second) return kBadArgument;
    }
    for (const std::string& name : names) {
        std::uint8_t existing = 0;
        if (FindMember(name, &existing) == kEngineNoError) return kFileNotCreated;
    }
    const auto first = static_cast<std::uint8_t>(fMembers.size());
    std::vector<TMember> added;
    TMember data;
    data.fName = dataName;
    data.fIsData = true;
    data.fFixedLength = definition.fFixedLength;
    data.fExtension = definition.fDataExtension;
    data.fMode = definition.fDataMode;
    data.fTree.fIsData = true;
    data.fTree.fKeyLength = 4;
    data.fTree.fMember = first;
    added.push_back(data);
    for (int i = 0; i < definition.fIndexCount; ++i) {
        const IndexDefinition& d = definition.fIndexes[i];
        TMember index;
        index.fName = d.fName;
        index.fOwner = first;
        index.fKeyLength = d.fKeyLength;
        index.fKeyType = d.fKeyType;
        index.fDuplicates = d.fDuplicates;
        index.fNullKey = d.fNullKey;
        index.fPadding = d.fPadding;
        index.fExtension = definition.fIndexExtension;
        index.fMode = definition.fIndexMode;
        for (int s = 0; s < d.fSegmentCount; ++s) index.fSegments.push_back(d.fSegments[s]);
        index.fTree.fMember = static_cast<std::uint8_t>(first + 1 + i);
        index.fTree.fKeyLength = static_cast<std::uint16_t>(d.fKeyLength + (d.fDuplicates != 0 ? 4 : 0));
        added[0].fIndexes.push_back(static_cast<std::uint8_t>(first + 1 + i));
        added.push_back(index);
    }
    fMembers.insert(fMembers.end(), added.begin(), added.end());
    if (SaveCatalog().size() > kCatalogCapacity) {
        fMembers.resize(first);
        return kFileFull;
    }
    // New members are made durable at once: creation is all or nothing.
    std::int16_t error = kEngineNoError;
    fPager->BeginOperation();
    try {
        for (std::size_t i = first; i < fMembers.size() && error == kEngineNoError; ++i)
            error = TTree::CreateEmpty(fPager.get(), &fMembers[i].fTree);
        if (error == kEngineNoError) error = fPager->Checkpoint(SaveCatalog());
    } catch (const std::bad_alloc&) {
        error = kEngineOutOfMemory;
    }
    if (error != kEngineNoError) {
        Recover(error);
        fMembers.resize(first);
    }
    return error;
}

// ---------------------------------------------------------------------------
// Keys

void THostFile::TransformKey(std::uint8_t index, std::uint8_t* key) const {
    const TMember& m = fMembers[index];
    std::size_t at = 0;
    for (const KeySegment& s : m.fSegments) {
        if (s.fOffset < 0) break;
        std::uint8_t* bytes = key + at;
        const std::size_t length = static_cast<std::size_t>(s.fLength);
        if (s.fMode == kSegmentSignedInt && (length == 1 || length == 2 || length == 4 || length == 8)) {
            // The machine's signed integer becomes big-endian with its sign bit
            // flipped, so that the bytes order as the numbers do.
            std::int64_t value = 0;
            if (length == 1) {
                value = static_cast<std::int8_t>(bytes[0]);
            } else if (length == 2) {
                std::int16_t v;
                std::memcpy(&v, bytes, 2);
                value = v;
            } else if (length == 4) {
                std::int32_t v;
                std::memcpy(&v, bytes, 4);
                value = v;
            } else {
                std::memcpy(&value, bytes, 8);
            }
            std::uint64_t ordered = static_cast<std::uint64_t>(value) ^ (std::uint64_t{1} << (8 * length - 1));
            for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<std::uint8_t>(ordered >> (8 * (length - 1 - i)));
        } else if (s.fMode == kSegmentString) {
            // After its terminator a string is padding, whatever was there.
            std::size_t i = 0;
            while (i < length && bytes[i] != 0) ++i;
            for (; i < length; ++i) bytes[i] = static_cast<std::uint8_t>(m.fPadding);
        }
        at += length;
    }
}

void THostFile::BuildKey(std::uint8_t index, const std::uint8_t* record, std::uint32_t length,
                         std::uint8_t* key) const {
    const TMember& m = fMembers[index];
    std::memset(key, static_cast<std::uint8_t>(m.fPadding), static_cast<std::size_t>(m.fKeyLength));
    std::size_t at = 0;
    for (const KeySegment& s : m.fSegments) {
        if (s.fOffset < 0) break;
        // Bytes beyond the record's end stay padding.
        const auto offset = static_cast<std::uint32_t>(s.fOffset);
        if (offset < length) std::memcpy(key + at, record + offset, std::min<std::uint32_t>(s.fLength, length - offset));
        at += static_cast<std::size_t>(s.fLength);
    }
    TransformKey(index, key);
}

void THostFile::MakeTreeKey(std::uint8_t index, const std::uint8_t* key, std::uint32_t record,
                             std::vector<std::uint8_t>* treeKey) const {
    const TMember& m = fMembers[index];
    treeKey->assign(key, key + m.fKeyLength);
    if (m.fDuplicates != 0) {
        treeKey->resize(treeKey->size() + 4);
        PutBig32(treeKey->data() + m.fKeyLength, record);
    }
}

std::int16_t THostFile::FindKey(std::uint8_t index, FindMode mode, const std::uint8_t* key,
                                std::uint8_t* foundKey, std::uint32_t* record, bool* found, std::uint32_t* hint) {
    TMember& m = fMembers[index];
    *found = false;
    if (const std::int16_t refused = fPager->Poisoned()) return refused;
    const bool low = mode == FindMode::kEqual || mode == FindMode::kAtOrAfter;
    std::vector<std::uint8_t>& treeKey = fSearchKey;
    MakeTreeKey(index, key, low ? 0 : UINT32_MAX, &treeKey);
    FindMode treeMode = mode;
    if (m.fDuplicates != 0 && mode == FindMode::kEqual) treeMode = FindMode::kAtOrAfter;
    std::vector<std::uint8_t>& foundTreeKey = fFoundKey;
    foundTreeKey.resize(m.fTree.fKeyLength);
    TTree tree(fPager.get(), &m.fTree);
    const std::int16_t error = tree.IndexFind(treeMode, treeKey.data(), foundTreeKey.data(), record, found, hint);
    if (error != kEngineNoError) return error;
    if (*found && mode == FindMode::kEqual && std::memcmp(foundTreeKey.data(), key, m.fKeyLength) != 0)
        *found = false;
    if (*found && foundKey != nullptr) std::memcpy(foundKey, foundTreeKey.data(), m.fKeyLength);
    return kEngineNoError;
}

std::int16_t THostFile::FindAfterTreeKey(std::uint8_t index, const std::vector<std::uint8_t>& treeKey,
                                         std::uint8_t* foundKey, std::uint32_t* record, bool* found,
                                         std::vector<std::uint8_t>* nextTreeKey) {
    TMember& m = fMembers[index];
    *found = false;
    if (const std::int16_t refused = fPager->Poisoned()) return refused;
    if (treeKey.size() != m.fTree.fKeyLength) return kBadArgument;
    nextTreeKey->assign(m.fTree.fKeyLength, 0);
    TTree tree(fPager.get(), &m.fTree);
    const std::int16_t error = tree.IndexFind(FindMode::kAfter, treeKey.data(), nextTreeKey->data(), record, found);
    if (error == kEngineNoError && *found && foundKey != nullptr)
        std::memcpy(foundKey, nextTreeKey->data(), m.fKeyLength);
    return error;
}

std::int16_t THostFile::SelectKey(std::uint8_t index, std::uint32_t n, std::uint8_t* foundKey,
                                  std::uint32_t* record, bool* found, std::vector<std::uint8_t>* treeKey) {
    TMember& m = fMembers[index];
    *found = false;
    if (const std::int16_t refused = fPager->Poisoned()) return refused;
    treeKey->assign(m.fTree.fKeyLength, 0);
    TTree tree(fPager.get(), &m.fTree);
    const std::int16_t error = tree.IndexSelect(n, treeKey->data(), record, found);
    if (error == kEngineNoError && *found && foundKey != nullptr) std::memcpy(foundKey, treeKey->data(), m.fKeyLength);
    return error;
}

std::int16_t THostFile::CountBelow(std::uint8_t index, const std::uint8_t* key, bool inclusive,
                                   std::uint32_t* count) {
    TMember& m = fMembers[index];
    *count = 0;
    if (const std::int16_t refused = fPager->Poisoned()) return refused;
    MakeTreeKey(index, key, inclusive ? UINT32_MAX : 0, &fSearchKey);
    TTree tree(fPager.get(), &m.fTree);
    return tree.IndexRank(fSearchKey.data(), inclusive, count);
}

// ---------------------------------------------------------------------------
// Records

std::int16_t THostFile::Refusal() const {
    if (fPager->ReadOnly()) return kNoWritePermission;
    return fPager->Poisoned();
}


// After each change: a checkpoint or write-back when one is due. A failure
// leaves the file as it was; it is tried again later. A checkpoint always
// comes after the change it follows is logged, so that it makes everything
// up to that change durable.
void THostFile::Upkeep(int records) {
    // Records added less those removed since the last checkpoint: a file
    // losing records is shrinking.
    if (fPager->Stats().fCheckpoints != fCheckpointsSeen) {
        fCheckpointsSeen = fPager->Stats().fCheckpoints;
        fRecordsSinceCheckpoint = 0;
    }
    fRecordsSinceCheckpoint += records;
    try {
        if (fPager->CheckpointDue() || fPager->ReclaimDue(fRecordsSinceCheckpoint <= -kShrinkingRecords)) {
            fPager->Checkpoint(SaveCatalog());
        } else if (fPager->WriteBackDue()) {
            fPager->WriteBack();
        }
    } catch (const std::bad_alloc&) {
    }
}

std::int16_t THostFile::FinishChange(std::int16_t error, std::uint8_t kind, std::uint8_t data, std::uint32_t record,
                                     const TMemoryBytes& bytes) {
    const int records = kind == kFrameAdd ? 1 : kind == kFrameDelete ? -1 : 0;
    if (error == kEngineNoError) {
        try {
            if (sGroupOpen && !fGroupBegun) {
                error = fPager->AppendLog(kFrameGroupBegin, 0, 0, TMemoryBytes(nullptr, 0));
                fGroupBegun = error == kEngineNoError;
            }
            if (error == kEngineNoError)
                error = fPager->AppendLog(kind, data, record, bytes, sGroupOpen ? kFrameHeld : 0);
        } catch (const std::bad_alloc&) {
            error = kEngineOutOfMemory;  // a log extent half chained is undone with the rest
        }
    }
    if (error != kEngineNoError) {
        if (fGroupBegun) return Recover(error);  // the group so far goes too
        return fPager->OperationChanged() ? Recover(error) : error;
    }
    if (sGroupOpen) {
        fGroupRecords += records;  // the upkeep waits for the group's end
    } else {
        Upkeep(records);
    }
    return kEngineNoError;
}

std::int16_t THostFile::EndGroup(bool keep) {
    if (!fGroupBegun) return kEngineNoError;  // nothing of the group reached this file
    std::int16_t error = kEngineNoError;
    if (keep) {
        try {
            error = fPager->AppendLog(kFrameGroupEnd, 0, 0, TMemoryBytes(nullptr, 0));
        } catch (const std::bad_alloc&) {
            error = kEngineOutOfMemory;
        }
    }
    if (!keep || error != kEngineNoError) return Recover(error);
    fGroupBegun = false;
    const int records = fGroupRecords;
    fGroupRecords = 0;
    Upkeep(records);
    return kEngineNoError;
}

std::int16_t THostFile::RecordKeys(std::uint8_t data, std::uint32_t record,
                                   std::vector<std::vector<std::uint8_t>>* keys) {
    const TMember& m = fMembers[data];
    std::uint32_t span = 0;
    for (std::uint8_t index : m.fIndexes) span = std::max(span, fMembers[index].KeySpan());
    std::uint32_t length = 0;
    bool found = false;
    TTree tree(fPager.get(), &fMembers[data].fTree);
    std::int16_t error = tree.DataLength(record, &length, &found);
    if (error != kEngineNoError) return error;
    if (!found) return kBadRecordPosition;
    std::vector<std::uint8_t> bytes(std::min(span, length));
    if (!bytes.empty() && (error = tree.DataRead(record, 0, bytes.data(), static_cast<std::uint32_t>(bytes.size()))) !=
                              kEngineNoError)
        return error;
    keys->resize(m.fIndexes.size());
    for (std::size_t i = 0; i < m.fIndexes.size(); ++i) {
        const std::uint8_t index = m.fIndexes[i];
        (*keys)[i].resize(static_cast<std::size_t>(fMembers[index].fKeyLength));
        BuildKey(index, bytes.data(), static_cast<std::uint32_t>(bytes.size()), (*keys)[i].data());
    }
    return kEngineNoError;
}

std::int16_t THostFile::ReadKeyBytes(std::uint8_t data, const TByteSource& bytes, std::uint32_t length) {
    std::uint32_t span = 0;
    for (std::uint8_t index : fMembers[data].fIndexes) span = std::max(span, fMembers[index].KeySpan());
    fKeyBytes.resize(std::min(span, length));
    if (!fKeyBytes.empty() && !bytes.Read(0, fKeyBytes.data(), static_cast<std::uint32_t>(fKeyBytes.size())))
        return kPageDamaged;
    return kEngineNoError;
}

std::int16_t THostFile::ApplyAdd(std::uint8_t data, std::uint32_t record, const TByteSource& bytes,
                                 std::uint32_t length, bool checkKeys) {
    TMember& m = fMembers[data];
    std::int16_t error = ReadKeyBytes(data, bytes, length);
    if (error != kEngineNoError) return error;
    std::vector<std::vector<std::uint8_t>>& keys = fNewKeys;
    keys.resize(m.fIndexes.size());
    for (std::size_t i = 0; i < m.fIndexes.size(); ++i) {
        const std::uint8_t index = m.fIndexes[i];
        std::vector<std::uint8_t>& key = keys[i];
        key.resize(static_cast<std::size_t>(fMembers[index].fKeyLength));
        BuildKey(index, fKeyBytes.data(), static_cast<std::uint32_t>(fKeyBytes.size()), key.data());
        if (checkKeys && fMembers[index].fDuplicates == 0) {
            std::uint32_t other = 0;
            bool found = false;
            error = FindKey(index, FindMode::kEqual, key.data(), nullptr, &other, &found);
            if (error != kEngineNoError) return error;
            if (found) return kKeyExists;
        }
    }
    std::uint32_t where = 0;
    if ((error = TTree(fPager.get(), &m.fTree).DataInsert(record, bytes, length, &where)) != kEngineNoError)
        return error;
    for (std::size_t i = 0; i < m.fIndexes.size(); ++i) {
        const std::uint8_t index = m.fIndexes[i];
        MakeTreeKey(index, keys[i].data(), record, &fTreeKey);
        error = TTree(fPager.get(), &fMembers[index].fTree).IndexInsert(fTreeKey.data(), record, where);
        if (error != kEngineNoError) return error;
    }
    if (record >= m.fNextRecord) m.fNextRecord = record + 1;
    return kEngineNoError;
}

std::int16_t THostFile::ApplyRewrite(std::uint8_t data, std::uint32_t record, const TByteSource& bytes,
                                     std::uint32_t length, bool checkKeys) {
    TMember& m = fMembers[data];
    std::vector<std::vector<std::uint8_t>>& oldKeys = fRecordKeys;
    std::int16_t error = RecordKeys(data, record, &oldKeys);
    if (error != kEngineNoError) return error;
    if ((error = ReadKeyBytes(data, bytes, length)) != kEngineNoError) return error;
    std::vector<std::vector<std::uint8_t>>& newKeys = fNewKeys;
    newKeys.resize(m.fIndexes.size());
    for (std::size_t i = 0; i < m.fIndexes.size(); ++i) {
        const std::uint8_t index = m.fIndexes[i];
        std::vector<std::uint8_t>& key = newKeys[i];
        key.resize(static_cast<std::size_t>(fMembers[index].fKeyLength));
        BuildKey(index, fKeyBytes.data(), static_cast<std::uint32_t>(fKeyBytes.size()), key.data());
        if (checkKeys && fMembers[index].fDuplicates == 0 && key != oldKeys[i]) {
            std::uint32_t other = 0;
            bool found = false;
            error = FindKey(index, FindMode::kEqual, key.data(), nullptr, &other, &found);
            if (error != kEngineNoError) return error;
            if (found && other != record) return kKeyExists;
        }
    }
    TTree tree(fPager.get(), &m.fTree);
    bool found = false;
    if ((error = tree.DataDelete(record, &found)) != kEngineNoError) return error;
    if (!found) return kBadRecordPosition;
    std::uint32_t where = 0;
    if ((error = tree.DataInsert(record, bytes, length, &where)) != kEngineNoError) return error;
    for (std::size_t i = 0; i < m.fIndexes.size(); ++i) {
        if (newKeys[i] == oldKeys[i]) continue;
        const std::uint8_t index = m.fIndexes[i];
        TTree indexTree(fPager.get(), &fMembers[index].fTree);
        MakeTreeKey(index, oldKeys[i].data(), record, &fTreeKey);
        if ((error = indexTree.IndexDelete(fTreeKey.data(), &found)) != kEngineNoError) return error;
        if (!found) return kKeyNotDeleted;
        MakeTreeKey(index, newKeys[i].data(), record, &fTreeKey);
        if ((error = indexTree.IndexInsert(fTreeKey.data(), record, where)) != kEngineNoError) return error;
    }
    return kEngineNoError;
}

std::int16_t THostFile::ApplyDelete(std::uint8_t data, std::uint32_t record) {
    TMember& m = fMembers[data];
    std::vector<std::vector<std::uint8_t>>& keys = fRecordKeys;
    std::int16_t error = RecordKeys(data, record, &keys);
    if (error != kEngineNoError) return error;
    bool found = false;
    if ((error = TTree(fPager.get(), &m.fTree).DataDelete(record, &found)) != kEngineNoError) return error;
    if (!found) return kBadRecordPosition;
    for (std::size_t i = 0; i < m.fIndexes.size(); ++i) {
        const std::uint8_t index = m.fIndexes[i];
        MakeTreeKey(index, keys[i].data(), record, &fTreeKey);
        if ((error = TTree(fPager.get(), &fMembers[index].fTree).IndexDelete(fTreeKey.data(), &found)) !=
            kEngineNoError)
            return error;
        if (!found) return kKeyNotDeleted;
    }
    return kEngineNoError;
}

// Each change: the checks that refuse it without changing anything, the
// change in the cache, its frame in the log; a failure once something has
// changed is undone (FinishChange). Memory that runs out anywhere in it is a
// failure like any other.
std::int16_t THostFile::AddRecord(std::uint8_t data, const TMemoryBytes& bytes, std::uint32_t* record) {
    if (const std::int16_t refused = Refusal()) return refused;
    TMember& m = fMembers[data];
    const std::uint32_t length = bytes.Length();
    if (length < m.fFixedLength || length > kMaxRecordLength) return kBadArgument;
    if (m.fNextRecord == 0 || m.fNextRecord == UINT32_MAX) return kFileFull;
    *record = m.fNextRecord;
    if (const std::int16_t error = fPager->RenewLog()) return error;
    fPager->BeginOperation();
    std::int16_t error = kEngineNoError;
    try {
        error = ApplyAdd(data, *record, bytes, length, true);
    } catch (const std::bad_alloc&) {
        error = kEngineOutOfMemory;
    }
    return FinishChange(error, kFrameAdd, data, *record, bytes);
}

std::int16_t THostFile::RewriteRecord(std::uint8_t data, std::uint32_t record, const TMemoryBytes& bytes) {
    if (const std::int16_t refused = Refusal()) return refused;
    const TMember& m = fMembers[data];
    const std::uint32_t length = bytes.Length();
    if (length < m.fFixedLength || length > kMaxRecordLength) return kBadArgument;
    if (const std::int16_t error = fPager->RenewLog()) return error;
    fPager->BeginOperation();
    std::int16_t error = kEngineNoError;
    try {
        error = ApplyRewrite(data, record, bytes, length, true);
    } catch (const std::bad_alloc&) {
        error = kEngineOutOfMemory;
    }
    return FinishChange(error, kFrameRewrite, data, record, bytes);
}

std::int16_t THostFile::DeleteRecord(std::uint8_t data, std::uint32_t record) {
    if (const std::int16_t refused = Refusal()) return refused;
    if (const std::int16_t error = fPager->RenewLog()) return error;
    fPager->BeginOperation();
    std::int16_t error = kEngineNoError;
    try {
        error = ApplyDelete(data, record);
    } catch (const std::bad_alloc&) {
        error = kEngineOutOfMemory;
    }
    return FinishChange(error, kFrameDelete, data, record, TMemoryBytes(nullptr, 0));
}

std::int16_t THostFile::RecordLength(std::uint8_t data, std::uint32_t record, std::uint32_t* length, bool* found) {
    *found = false;
    if (const std::int16_t refused = fPager->Poisoned()) return refused;
    return TTree(fPager.get(), &fMembers[data].fTree).DataLength(record, length, found);
}

std::int16_t THostFile::ReadRecord(std::uint8_t data, std::uint32_t record, std::uint32_t offset, std::uint8_t* out,
                                   std::uint32_t length) {
    if (const std::int16_t refused = fPager->Poisoned()) return refused;
    return TTree(fPager.get(), &fMembers[data].fTree).DataRead(record, offset, out, length);
}

std::int16_t THostFile::ReadRecordUpTo(std::uint8_t data, std::uint32_t record, std::uint32_t limit,
                                      std::uint8_t* out, std::uint32_t* length, bool* found, std::uint32_t hint) {
    *found = false;
    if (const std::int16_t refused = fPager->Poisoned()) return refused;
    return TTree(fPager.get(), &fMembers[data].fTree).DataReadUpTo(record, limit, out, length, found, hint);
}

// ---------------------------------------------------------------------------
// Compaction

std::int16_t THostFile::Compact() {
    if (const std::int16_t refused = Refusal()) return refused;
    // From a checkpoint every page in use is the last state's, and every
    // free page is free now.
    std::int16_t error = fPager->Checkpoint(SaveCatalog());
    for (int round = 0; round < 8 && error == kEngineNoError; ++round) {
        const std::uint32_t before = fPager->PageCount();
        const std::uint32_t inUse = before - fPager->FreePageCount();
        if (inUse >= before) break;
        fPager->BeginOperation();
        try {
            for (std::size_t i = 0; i < fMembers.size() && error == kEngineNoError; ++i)
                error = TTree(fPager.get(), &fMembers[i].fTree).Relocate(inUse);
        } catch (const std::bad_alloc&) {
            error = kEngineOutOfMemory;
        }
        if (error != kEngineNoError) return Recover(error);
        if ((error = fPager->Checkpoint(SaveCatalog())) != kEngineNoError) break;
        if (fPager->PageCount() >= before) break;
    }
    return error;
}

// ---------------------------------------------------------------------------
// The whole-file check

namespace {

class TPageAccount : public TTree::TVisitor {
public:
    TPageAccount(std::vector<std::uint8_t>* used, TIntegrityReport* report, const TProgress& progress,
                 std::uint32_t total)
        : fUsed(used), fReport(report), fProgress(progress), fTotal(total) {}

    bool Page(std::uint32_t number) override {
        if (number >= fUsed->size()) {
            Problem("page " + std::to_string(number) + " lies beyond the file's pages");
            return false;
        }
        if ((*fUsed)[number] != 0) {
            Problem("page " + std::to_string(number) + " is used twice");
            return false;
        }
        (*fUsed)[number] = 1;
        if (++fDone % 1024 == 0 && fProgress) fProgress(fDone, fTotal);
        return true;
    }
    void Problem(const std::string& text) override {
        if (fReport->fProblems.size() < 200) fReport->fProblems.push_back(text);
    }
    void IndexEntry(const std::uint8_t*, std::uint32_t) override { ++fReport->fKeys; }
    void DataRecord(std::uint32_t record, std::uint32_t length) override {
        ++fReport->fRecords;
        fRecords.emplace_back(record, length);
    }

    std::vector<std::pair<std::uint32_t, std::uint32_t>> fRecords;
    std::uint32_t fDone = 0;

private:
    std::vector<std::uint8_t>* fUsed;
    TIntegrityReport* fReport;
    const TProgress& fProgress;
    std::uint32_t fTotal;
};

}  // namespace

std::int16_t THostFile::Check(TIntegrityReport* report, const TProgress& progress) {
    const std::uint32_t pages = fPager->PageCount();
    report->fPages = pages;
    std::vector<std::uint8_t> used(pages, 0);
    for (std::uint32_t slot = 0; slot < kFirstDataPage && slot < pages; ++slot) used[slot] = 1;
    TPageAccount account(&used, report, progress, pages);
    account.fDone = kFirstDataPage;
    for (const TLogExtent& extent : fPager->LogExtents()) {
        for (std::uint32_t number = extent.fStart; number < extent.End(); ++number) account.Page(number);
    }
    const TReplayReport& replay = fPager->LastReplay();
    report->fLogFrames = replay.fFrames;
    report->fLogNote = replay.Describe();

    for (std::uint32_t number : fPager->FreeListPages()) account.Page(number);
    const std::vector<std::uint32_t> free = fPager->FreePages();
    report->fFreePages = static_cast<std::uint32_t>(free.size());
    for (std::uint32_t number : free) account.Page(number);

    for (std::size_t i = 0; i < fMembers.size(); ++i) {
        TMember& m = fMembers[i];
        account.fRecords.clear();
        TTree(fPager.get(), &m.fTree).Walk(&account);
        if (!m.fIsData) continue;
        // Every record has exactly its keys, and every index as many keys as
        // there are records; with the keys found, that is one to one.
        const auto member = static_cast<std::uint8_t>(i);
        for (const auto& [record, length] : account.fRecords) {
            if (record >= m.fNextRecord)
                account.Problem(m.fName + ": record " + std::to_string(record) + " beyond the next record number");
            if (length < m.fFixedLength)
                account.Problem(m.fName + ": record " + std::to_string(record) + " shorter than its fixed part");
            std::vector<std::vector<std::uint8_t>> keys;
            if (RecordKeys(member, record, &keys) != kEngineNoError) {
                account.Problem(m.fName + ": record " + std::to_string(record) + " cannot be read");
                continue;
            }
            for (std::size_t k = 0; k < m.fIndexes.size(); ++k) {
                const std::uint8_t index = m.fIndexes[k];
                std::uint32_t holder = 0;
                bool found = false;
                const std::vector<std::uint8_t> treeKey = TreeKey(index, keys[k].data(), record);
                TTree tree(fPager.get(), &fMembers[index].fTree);
                std::vector<std::uint8_t> foundKey(treeKey.size());
                if (tree.IndexFind(FindMode::kEqual, treeKey.data(), foundKey.data(), &holder, &found) !=
                        kEngineNoError ||
                    !found || holder != record)
                    account.Problem(fMembers[index].fName + ": no key for record " + std::to_string(record));
            }
        }
        for (std::uint8_t index : m.fIndexes) {
            if (fMembers[index].fTree.fCount != m.fTree.fCount)
                account.Problem(fMembers[index].fName + ": " + std::to_string(fMembers[index].fTree.fCount) +
                                " keys for " + std::to_string(m.fTree.fCount) + " records");
        }
    }
    std::uint32_t unaccounted = 0;
    for (std::uint32_t number = 0; number < pages; ++number) {
        if (used[number] == 0 && unaccounted++ < 10)
            account.Problem("page " + std::to_string(number) + " is neither used nor free");
    }
    if (unaccounted > 10) account.Problem(std::to_string(unaccounted) + " pages in all are neither used nor free");
    if (progress) progress(pages, pages);
    return kEngineNoError;
}

}  // namespace engine
