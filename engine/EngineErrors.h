// Error numbers of the keyed file engine, the status log and the fatal-error
// routine.
//
// Operation errors are what the engine's calls return and leave in its error
// state; the record manager reacts to 2, 12, 46, 54 and 101 and treats 4, 48,
// 57 and 100 as impossible. Internal error numbers are passed to FatalError,
// which ends the process: they mark states that only a fault of the engine
// itself can reach, never damage in a file (damage is detected when a page is
// read and answered with kPageDamaged).
#ifndef KAVO_ENGINE_ENGINEERRORS_H
#define KAVO_ENGINE_ENGINEERRORS_H

#include <cstdint>

// Operation errors.
constexpr std::int16_t kEngineNoError = 0;
constexpr std::int16_t kKeyExists = 2;             // a unique key exists already
constexpr std::int16_t kKeyNotDeleted = 4;         // an index lacks a key of the record
constexpr std::int16_t kFileNotOpened = 12;        // missing, held elsewhere, foreign or damaged
constexpr std::int16_t kFileNotCreated = 19;       // exists already, or could not be made
constexpr std::int16_t kPageDamaged = 36;          // a page failed its checksum or its checks
constexpr std::int16_t kWriteFailed = 37;          // the system refused a write or a sync
constexpr std::int16_t kFileNumberInUse = 46;
constexpr std::int16_t kFileNotActive = 48;        // the number names no open file of that kind
constexpr std::int16_t kNoWritePermission = 54;    // a write on a file opened read-only
constexpr std::int16_t kBadRecordPosition = 57;    // the position names no record
constexpr std::int16_t kNoCurrentRecord = 100;
constexpr std::int16_t kEngineKeyNotFound = 101;
constexpr std::int16_t kBadArgument = 116;         // null pointer, bad definition or length
constexpr std::int16_t IINT_ERR = 125;             // initialisation refused
constexpr std::int16_t kEngineOutOfMemory = 126;
constexpr std::int16_t kBufferTooSmall = 153;
constexpr std::int16_t kMemberNotFound = 160;      // the host file has no member of that name
constexpr std::int16_t kFileFull = 161;            // no page numbers or record positions left

// Low-level errors.
constexpr std::int16_t kLowNoCurrentRecord = 29;   // VarRecordLength without a current record
constexpr std::int16_t kLowNodeBeyondEnd = 519;    // a node asked for beyond the logical end

// Internal error numbers (FatalError: the process ends with this exit code).
constexpr int kFatalBadHostFileNumber = 22;  // a host file number out of range was closed
constexpr int kFatalNodeAtZero = 237;        // a B-tree node at position 0 was requested
constexpr int kFatalRangeCountLow = 7214;    // the key-range count found the tree inconsistent
constexpr int kFatalRangeCountHigh = 7215;

// Marks a status-log entry written by the fatal-error routine.
constexpr std::int16_t kFatalStatusCode = -199;

#endif  // KAVO_ENGINE_ENGINEERRORS_H
