// A host file: the member files (data files and their indexes) kept in one
// file, their catalog, and the record operations that keep every index in
// step with its data file.
//
// A mutating operation first checks everything that could refuse it (length,
// duplicate keys), then changes the trees in the cache, then logs itself; it
// is then done, whatever happens to the process. A failure after the first
// change (a refused write, no memory, an unreadable page) is undone: the
// trees go back to the last checkpoint and the log is redone in memory, so
// that the operation answers its error and the file goes on as it was before
// it. Only when that fails too does the host file refuse every further call
// until it is opened again.
#ifndef KAVO_ENGINE_HOSTFILE_H
#define KAVO_ENGINE_HOSTFILE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "engine/BTree.h"
#include "engine/Engine.h"
#include "engine/Pager.h"

namespace engine {

constexpr std::uint32_t kMaxRecordLength = 512u << 20;
constexpr std::size_t kMaxMembers = 32;

struct TMember {
    std::string fName;
    bool fIsData = false;
    TTreeInfo fTree;
    // Data files.
    std::uint16_t fFixedLength = 0;
    std::uint16_t fExtension = 0;
    std::uint16_t fMode = 0;
    std::uint32_t fNextRecord = 1;
    std::vector<std::uint8_t> fIndexes;  // member numbers, in definition order
    // Indexes.
    std::uint8_t fOwner = 0;  // its data file's member number
    std::int16_t fKeyLength = 0;
    std::int16_t fKeyType = 0;
    std::int16_t fDuplicates = 0;
    std::int16_t fNullKey = 0;
    std::int16_t fPadding = 0;
    std::vector<KeySegment> fSegments;
    // Bytes of a record that its keys are made of.
    std::uint32_t KeySpan() const;
};

class THostFile {
public:
    ~THostFile();

    static std::int16_t Create(const std::string& path, std::unique_ptr<THostFile>* host);
    // On kFileNotOpened, *problem (may be null) says why when the file was
    // found but refused.
    static std::int16_t Open(const std::string& path, bool readOnly, std::unique_ptr<THostFile>* host,
                             std::string* problem = nullptr);
    // Checkpoints (giving back the free pages at the end of the file) and
    // closes.
    std::int16_t Close();

    const std::string& Path() const { return fPager->Path(); }
    bool ReadOnly() const { return fPager->ReadOnly(); }
    std::int16_t Poisoned() const { return fPager->Poisoned(); }
    TPager* Pager() { return fPager.get(); }

    // Members.
    std::int16_t CreateMembers(const FileDefinition& definition, const std::string& dataName);
    // kMemberNotFound when there is none of that name.
    std::int16_t FindMember(const std::string& name, std::uint8_t* member) const;
    const TMember& Member(std::uint8_t member) const { return fMembers[member]; }
    std::size_t MemberCount() const { return fMembers.size(); }

    // Records of a data member. A record comes in one or two runs of the
    // caller's memory and is never copied whole.
    std::int16_t AddRecord(std::uint8_t data, const TMemoryBytes& bytes, std::uint32_t* record);
    std::int16_t RewriteRecord(std::uint8_t data, std::uint32_t record, const TMemoryBytes& bytes);
    std::int16_t DeleteRecord(std::uint8_t data, std::uint32_t record);
    std::int16_t RecordLength(std::uint8_t data, std::uint32_t record, std::uint32_t* length, bool* found);
    std::int16_t ReadRecord(std::uint8_t data, std::uint32_t record, std::uint32_t offset, std::uint8_t* out,
                            std::uint32_t length);
    // The record's first bytes (at most limit) and its whole length.
    std::int16_t ReadRecordUpTo(std::uint8_t data, std::uint32_t record, std::uint32_t limit, std::uint8_t* out,
                                std::uint32_t* length, bool* found, std::uint32_t hint = 0);

    // Keys of an index member. key is the stored (transformed) form, of the
    // index's key length; foundKey receives the same.
    void TransformKey(std::uint8_t index, std::uint8_t* key) const;
    void BuildKey(std::uint8_t index, const std::uint8_t* record, std::uint32_t length, std::uint8_t* key) const;
    std::int16_t FindKey(std::uint8_t index, FindMode mode, const std::uint8_t* key, std::uint8_t* foundKey,
                         std::uint32_t* record, bool* found, std::uint32_t* hint = nullptr);
    // The same, continuing after a key found before (its tree key).
    std::int16_t FindAfterTreeKey(std::uint8_t index, const std::vector<std::uint8_t>& treeKey,
                                  std::uint8_t* foundKey, std::uint32_t* record, bool* found,
                                  std::vector<std::uint8_t>* nextTreeKey);
    std::int16_t SelectKey(std::uint8_t index, std::uint32_t n, std::uint8_t* foundKey, std::uint32_t* record,
                           bool* found, std::vector<std::uint8_t>* treeKey);
    std::int16_t CountBelow(std::uint8_t index, const std::uint8_t* key, bool inclusive, std::uint32_t* count);
    std::uint32_t KeyCount(std::uint8_t index) const { return fMembers[index].fTree.fCount; }
    // The tree key (key, then the record number where keys may repeat).
    std::vector<std::uint8_t> TreeKey(std::uint8_t index, const std::uint8_t* key, std::uint32_t record) const {
        std::vector<std::uint8_t> treeKey;
        MakeTreeKey(index, key, record, &treeKey);
        return treeKey;
    }
    // The same into a buffer the caller keeps (no allocation once it is big enough).
    void MakeTreeKey(std::uint8_t index, const std::uint8_t* key, std::uint32_t record,
                     std::vector<std::uint8_t>* treeKey) const;

    // The whole-file check.
    std::int16_t Check(TIntegrityReport* report, const TProgress& progress);
    // Moves pages down into the free pages below them and checkpoints, until
    // the file holds little more than its pages in use.
    std::int16_t Compact();
    const TReplayReport& LastReplay() const { return fPager->LastReplay(); }
    std::uint64_t FileBytes() const { return fPager->FileBytes(); }

    const TPagerStats& Stats() const { return fPager->Stats(); }

    // Groups: while one is open (process-wide, GroupOpen), the changes of
    // every host file are logged as held frames after a group-begin frame,
    // and no checkpoint is taken; EndGroup then logs the group's end, which
    // makes them count together, or (keep false) undoes them. The end of the
    // process at any instant leaves all of a group's changes to a host file,
    // or none. A change inside a group that fails is undone with everything
    // of the group before it; the group then goes on afresh.
    static void SetGroupOpen(bool open) { sGroupOpen = open; }
    static bool GroupOpen() { return sGroupOpen; }
    std::int16_t EndGroup(bool keep);

private:
    explicit THostFile(std::unique_ptr<TPager> pager) : fPager(std::move(pager)) {}

    std::vector<std::uint8_t> SaveCatalog() const;
    std::int16_t LoadCatalog(const std::vector<std::uint8_t>& bytes);
    // Redoes the log after the last checkpoint.
    std::int16_t Replay();
    std::int16_t ApplyFrame(const TLogFrame& frame);
    // Undoes a failed change: the last checkpoint, and the log redone.
    std::int16_t Recover(std::int16_t error);
    // Ends a change: logs it, or undoes it when it or its logging failed.
    std::int16_t FinishChange(std::int16_t error, std::uint8_t kind, std::uint8_t data, std::uint32_t record,
                              const TMemoryBytes& bytes);
    // `records`: the change's records added (1), removed (-1) or neither.
    void Upkeep(int records);
    std::int16_t ApplyAdd(std::uint8_t data, std::uint32_t record, const TByteSource& bytes, std::uint32_t length,
                          bool checkKeys);
    std::int16_t ApplyRewrite(std::uint8_t data, std::uint32_t record, const TByteSource& bytes,
                              std::uint32_t length, bool checkKeys);
    // The record's first bytes that its keys are taken from, into fKeyBytes.
    std::int16_t ReadKeyBytes(std::uint8_t data, const TByteSource& bytes, std::uint32_t length);
    std::int16_t ApplyDelete(std::uint8_t data, std::uint32_t record);
    std::int16_t RecordKeys(std::uint8_t data, std::uint32_t record, std::vector<std::vector<std::uint8_t>>* keys);
    std::int16_t Refusal() const;
    // After a checkpoint: moves down the few pages in use that alone keep the
    // free pages at the end of the file, so that the next checkpoint gives
    // them back.
    void MoveDownTheEnd();

    std::unique_ptr<TPager> fPager;
    std::vector<TMember> fMembers;
    bool fReplaying = false;
    // Buffers reused by every call, so that lookups allocate nothing.
    std::vector<std::uint8_t> fSearchKey;
    std::vector<std::uint8_t> fFoundKey;
    std::vector<std::vector<std::uint8_t>> fRecordKeys;
    std::vector<std::vector<std::uint8_t>> fNewKeys;
    std::vector<std::uint8_t> fTreeKey;
    std::vector<std::uint8_t> fKeyBytes;
    std::uint64_t fCheckpointsSeen = 0;
    // This host file's frames of the open group: its begin is logged, and
    // the records its changes added less those removed.
    bool fGroupBegun = false;
    int fGroupRecords = 0;
    static bool sGroupOpen;
    std::int64_t fRecordsSinceCheckpoint = 0;
};

}  // namespace engine

#endif  // KAVO_ENGINE_HOSTFILE_H
