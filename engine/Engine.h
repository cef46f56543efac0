// The keyed file engine: data files of variable-length records with unique
// B+tree indexes over them, kept as member files inside one host file.
//
// All state is process-wide and unguarded (one thread at a time), held in
// tables indexed by small file numbers. A data file with n indexes occupies
// n + 1 consecutive numbers: the data file, then its indexes in definition
// order.
//
// Every operation clears the operation error when it starts; on failure it
// sets the operation error and the number of the file it concerns, and
// returns the error. Operations that return a position or a count return 0 on
// failure and leave the error in the error state. Error numbers are in
// engine/EngineErrors.h.
//
// A record position names a record (it is its record number, not a byte
// offset); 0 means no record. Positions are never reused within a file.
//
// Durability: every mutating call is all-or-nothing. Once it has returned,
// its effect survives the end of the process at any instant; a loss of power
// may lose the operations since the last checkpoint or close but never leaves
// a damaged file. A call that fails (a refused write, a damaged page) changes
// nothing, and the file goes on; only a failed sync leaves it refusing every
// call until it is opened again.
//
// No call throws: memory that runs out anywhere inside one is answered with
// kEngineOutOfMemory, and the call changes nothing.
#ifndef KAVO_ENGINE_ENGINE_H
#define KAVO_ENGINE_ENGINE_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "engine/EngineErrors.h"

// One piece of an index key, taken from the record: the bytes at fOffset of
// length fLength, transformed by fMode (see TransformKey).
struct KeySegment {
    std::int16_t fOffset;  // a negative offset ends the list early
    std::int16_t fLength;
    std::int16_t fMode;
};

constexpr int kMaxKeySegments = 12;

struct IndexDefinition {
    std::int16_t fKeyLength;     // total key bytes: the sum of the segment lengths
    std::int16_t fKeyType;       // recorded; every key compares as bytes
    std::int16_t fDuplicates;    // 0: unique
    std::int16_t fNullKey;       // recorded; every key is indexed, null keys too
    std::int16_t fPadding;       // byte that fills a string segment after its NUL
    std::int16_t fSegmentCount;  // at most kMaxKeySegments
    const KeySegment* fSegments;
    const char* fName;           // the index's member name inside the host file
    const char* fAltName;        // unused (null)
    const void* fAltCollation;   // unused (null)
    const void* fReserved;       // unused (null)
};

struct FileDefinition {
    const char* fDataFileName;      // "<host file name>!<member>"
    std::int16_t fDataFileNumber;   // -1: the engine chooses
    std::uint16_t fFixedLength;     // bytes of every record's fixed part
    std::uint16_t fDataExtension;   // recorded; space grows by pages
    std::uint16_t fDataMode;        // recorded
    std::int16_t fIndexCount;
    std::uint16_t fIndexExtension;  // recorded
    std::uint16_t fIndexMode;       // recorded
    const IndexDefinition* fIndexes;
    const void* fFields1;           // unused (null)
    const void* fFields2;           // unused (null)
    std::int16_t fChosenDataFileNumber;  // written by Create/OpenFilesFromDefinition
};

// Segment modes. Keys are stored in a form that compares byte by byte.
constexpr std::int16_t kSegmentBytes = 0;      // raw bytes, as they are
constexpr std::int16_t kSegmentString = 2;     // NUL-terminated: after the NUL, padding bytes
constexpr std::int16_t kSegmentSignedInt = 8;  // signed integer (1, 2 or 4 bytes) in the
                                               // machine's order; orders as a signed number

// Host file modes.
constexpr std::uint16_t kHostCreateMode = 0x206;
constexpr std::uint16_t kHostOpenReadWrite = 0x42;
constexpr std::uint16_t kHostOpenReadOnly = 10;
constexpr std::uint16_t kHostReadOnlyBit = 0x08;  // any mode with this bit opens read-only

// ---------------------------------------------------------------------------
// Start and stop

// buffers, dataBuffers, nodeSectors and profileWord are accepted and recorded
// (the engine sizes its own page cache); fileSlots bounds the file numbers.
// IINT_ERR when already initialised or fileSlots is not in 1 .. 32767.
std::int16_t EngineInit(std::int16_t buffers, std::int16_t fileSlots, std::int16_t nodeSectors,
                        std::int16_t dataBuffers = 0, std::int16_t profileWord = 33);
// Closes every open file and frees the engine's state. The page frames of
// closed files are kept for the next files opened (a close and an open cost
// a third less than with the memory given back and taken again).
std::int16_t EngineStop();
bool EngineIsInitialised();
// Frees the page frames kept for later files: for a host done with its
// databases for now.
void EngineReleaseMemory();

// Groups of changes. The changes made between EngineBeginGroup and
// EngineEndGroup reach each host file as one: whatever instant the process
// ends at, a host file holds all of them or none. EngineEndGroup(false)
// abandons the group: its changes are undone. A change that fails or is
// refused inside a group undoes the group's earlier changes too (the group
// goes on, empty).
// Groups do not nest (kBadArgument); no checkpoint is taken inside one.
std::int16_t EngineBeginGroup();
std::int16_t EngineEndGroup(bool keep);

// ---------------------------------------------------------------------------
// Host files

// Creates a new, empty host file under the number and opens it for writing.
// kFileNumberInUse when the number is in use; kFileNotCreated when the file exists or
// cannot be made.
std::int16_t CreateHostFile(std::int16_t fileNumber, const char* name, std::int32_t size1,
                            std::int32_t size2, std::uint16_t mode);
// Opens an existing host file (kHostOpenReadWrite or kHostOpenReadOnly).
// kFileNumberInUse when the number is in use; kFileNotOpened when the file is missing,
// held by another open, not a host file of this engine, or damaged.
std::int16_t OpenHostFile(std::int16_t fileNumber, const char* name, std::uint16_t mode);
// When the last OpenHostFile, CheckHostFile or CompactHostFile answered
// kFileNotOpened for a file that exists: why it was refused ("database
// format version 1; this library reads version 2", "damaged: ...", "in use
// by another program"); otherwise empty.
const char* EngineOpenProblem();
// Checkpoints and closes.
// A number outside 0 .. fileSlots - 1 is the fatal internal error 22.
std::int16_t CloseHostFile(std::int16_t fileNumber, std::uint16_t mode);

// ---------------------------------------------------------------------------
// Member files of a definition

// Creates the data file and its indexes inside the open host file named by
// the part of fDataFileName before its last '!', and opens them.
std::int16_t CreateFilesFromDefinition(FileDefinition* definition);
// Opens them; writes the chosen data file number into the definition.
std::int16_t OpenFilesFromDefinition(FileDefinition* definition);
std::int16_t CloseFilesFromDefinition(FileDefinition* definition);
// A two-byte setting of an open member file; 0 is accepted and changes nothing.
std::int16_t SetFileWord(std::int16_t fileNumber, const void* twoBytes);

// ---------------------------------------------------------------------------
// Records

// Adds a record (at least the fixed length) and one key per index.
// kKeyExists when a unique key exists already; kNoWritePermission on a read-only file.
std::int16_t AddVarRecord(std::int16_t dataFile, const void* buffer, std::uint32_t length);
// The same with the record in two runs, a fixed part and the rest, so that a
// caller need not copy a long record to put the two together.
std::int16_t AddVarRecordParts(std::int16_t dataFile, const void* first, std::uint32_t firstLength,
                               const void* second, std::uint32_t secondLength);
// Finds the key equal to key (transformed first unless keys arrive
// transformed), makes its record the data file's current record and reads the
// fixed part into recordBuffer. kEngineKeyNotFound when no key is equal.
std::int16_t GetRecordByKey(std::int16_t indexFile, const void* key, void* recordBuffer);
// The same with the last key less than or equal to key.
std::int16_t GetRecordAtOrBefore(std::int16_t indexFile, const void* key, void* recordBuffer);
// First key greater than or equal to key: its record position, the key copied
// into keyBuffer; 0 and kEngineKeyNotFound when there is none.
std::uint32_t FindKeyAtOrAfter(std::int16_t indexFile, const void* key, void* keyBuffer);
// First key of the index; 0 when the index is empty (error 0).
std::uint32_t FirstKey(std::int16_t indexFile, void* keyBuffer);
// The key after the last one found on this index; 0 at the end (error 0).
std::uint32_t NextKey(std::int16_t indexFile, void* keyBuffer);
// The key at rank n (from 0) in O(log n); 0 when n is past the end (error 0).
// It becomes the last key found, so NextKey continues after it.
std::uint32_t NthKey(std::int16_t indexFile, std::uint32_t n, void* keyBuffer);
// Reads the fixed part of the record at position and makes it current.
// kBadRecordPosition when position names no record.
std::int16_t ReadFixedAt(std::int16_t dataFile, std::uint32_t position, void* buffer);
// Total length of the current record; 0 on failure (low-level error
// kLowNoCurrentRecord, operation error kNoCurrentRecord, when there is none).
std::uint32_t VarRecordLength(std::int16_t dataFile);
// Reads the whole current record. kBufferTooSmall when the buffer is too small.
std::int16_t ReadVarRecord(std::int16_t dataFile, void* buffer, std::uint32_t bufferLength);
// Replaces the current record and every key that changed. kKeyExists when a
// new unique key belongs to another record.
std::int16_t ReWriteVarRecord(std::int16_t dataFile, const void* buffer, std::uint32_t length);
std::int16_t ReWriteVarRecordParts(std::int16_t dataFile, const void* first, std::uint32_t firstLength,
                                   const void* second, std::uint32_t secondLength);
// Deletes the current record and its keys; no record is current afterwards.
std::int16_t DeleteVarRecord(std::int16_t dataFile);

// ---------------------------------------------------------------------------
// Keys and counts

// Number of keys k with lowKey <= k <= highKey, in O(log n).
std::uint32_t CountKeyRange(std::int16_t indexFile, const void* lowKey, const void* highKey);
// Number of keys less than key (its rank), in O(log n).
std::uint32_t CountKeysBelow(std::int16_t indexFile, const void* key);
// Number of keys in the index; 0 and kFileNotActive when it is not open.
std::uint32_t CountIndexEntries(std::int16_t indexFile);
// Rewrites the key in place into its stored form, segment by segment.
std::int16_t TransformKey(std::int16_t indexFile, void* key);
// When set, the search operations take their keys as already transformed.
void SetKeysArriveTransformed(bool transformed);

// ---------------------------------------------------------------------------
// Error state

std::int16_t EngineError();        // operation error of the last call
std::int16_t EngineErrorFile();    // the file number it concerns
std::int16_t EngineLowError();     // low-level error
// The operation error word itself, for callers that keep a pointer to it.
const std::int16_t* EngineErrorWord();

// ---------------------------------------------------------------------------
// Integrity

struct TIntegrityReport {
    std::uint64_t fFileBytes = 0;
    std::uint32_t fPages = 0;
    std::uint32_t fFreePages = 0;
    std::uint32_t fRecords = 0;     // over every data file of the host
    std::uint32_t fKeys = 0;        // over every index
    std::vector<std::string> fProblems;  // empty: the file is sound
    // Operations the file's log held beyond its last checkpoint (redone in
    // memory for the check), and what stopped the log's replay early when a
    // frame was damaged or cut short (the file is then sound, but the
    // operations after that frame are lost: a loss of power can do that).
    std::uint32_t fLogFrames = 0;
    std::string fLogNote;
};

// Called now and then with the pages checked so far and the total.
using TProgress = std::function<void(std::uint32_t done, std::uint32_t total)>;

// Opens the host file read-only on its own (no file number, no engine
// initialisation needed), walks it whole and reports what it found:
// checksums, B+tree order and counts, every record with exactly its keys and
// every key with its record, every page used once or free. Returns
// kEngineNoError when the file could be examined (sound or not: see
// fProblems), kFileNotOpened when it could not be opened at all.
std::int16_t CheckHostFile(const char* name, TIntegrityReport* report, const TProgress& progress = {});

struct TCompactReport {
    std::uint64_t fBytesBefore = 0;
    std::uint64_t fBytesAfter = 0;
};

// Opens the host file for writing on its own (it must not be open), moves
// its pages down into the free pages below them and gives back the end of the
// file, round by round, each round a checkpoint: the file is sound and whole
// at every instant, and held against every other open throughout.
// kFileNotOpened when it cannot be opened for writing; kWriteFailed when a
// round could not be written (the rounds before it stand).
std::int16_t CompactHostFile(const char* name, TCompactReport* report);

// What an open host file's pager has done since it was opened (pages
// visited, allocated, read and written, log bytes, checkpoints, syncs), for
// benchmarks; null when the number names no open host file.
namespace engine {
struct TPagerStats;
}
const engine::TPagerStats* HostFileStats(std::int16_t fileNumber);

#endif  // KAVO_ENGINE_ENGINE_H
