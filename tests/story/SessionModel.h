// A model of an editing session kept in one database, for random sequences
// driven through the flat functions (and the scene class, which has no flat
// functions of its own): media of every kind with their path records,
// scenes with their takes, the story board's order, the tape header's name,
// and media copied into a second database.
//
// The model holds what the database should hold, record by record. An
// operation carries the state it brings its records to (so that a process
// that watches another one do it, and may see it killed half way, can
// apply it or check it), and the steps by which it gets there through the
// library (list operations in random order, which the model follows with
// its own reading of the rules).
#ifndef KAVO_TESTS_STORY_SESSIONMODEL_H
#define KAVO_TESTS_STORY_SESSIONMODEL_H

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "kavoDVDB.h"

namespace kavotest {

struct TMediumState {
    std::string fKind;  // the stored kind code
    std::string fTitle;
    std::string fDescription;
    std::uint32_t fFlags = 0;
    // Trim start, end, duration; clip start, end, duration.
    std::array<TimeCodeRecord, 6> fTimeCodes{};
    DateTimeRecord fCreateDate{};
    bool operator==(const TMediumState& other) const;
};

struct TSceneState {
    std::string fTitle;
    std::vector<std::int32_t> fTakes;
    std::uint16_t fCurrent = 0;
    bool operator==(const TSceneState& other) const {
        return fTitle == other.fTitle && fTakes == other.fTakes && fCurrent == other.fCurrent;
    }
};

// One list operation: kind and two arguments.
struct TListStep {
    char fKind;  // 'a'ppend, 'i'nsert (id, index), 'm'ove within (from, to), 's'wap, 'd'elete entry, 'c'hange at
    std::int32_t fFirst;
    std::int32_t fSecond;
};

struct TSessionState {
    std::map<std::int32_t, TMediumState> fMedia;  // "MDUM" records by ID, named "clip <ID>"
    std::map<std::int32_t, std::string> fPaths;   // "path" records by their medium's ID
    std::map<std::int32_t, TSceneState> fScenes;  // "SEEN" records by ID, named "scene <ID>"
    std::vector<std::int32_t> fBoard;             // the "STRY" record's scene IDs
    std::string fTapeName;                        // the tape header's name
    std::map<std::int32_t, TMediumState> fCopies;  // "MDUM" records of the second database
    std::map<std::int32_t, std::string> fCopyPaths;
};

struct TSessionOp {
    enum TKind { kNewMedium, kEditMedium, kRemoveMedium, kCopyMedium, kSaveScene, kSaveBoard, kTapeName };
    TKind fKind = kNewMedium;
    std::int32_t fID = 0;  // the medium or scene
    std::string fKindArgument;
    TMediumState fMedium;                 // new and edited media, and copies
    std::optional<std::string> fNewPath;  // a path given (new and edited media)
    bool fNewScene = false;
    TSceneState fScene;
    std::vector<TListStep> fSteps;  // the scene's takes or the board's scenes
    std::vector<std::int32_t> fBoard;
    std::string fText;               // the tape name
    std::int16_t fExpected = kNoError;  // what the operation answers

    std::string Encode() const;
    static bool Decode(const std::string& text, TSessionOp* op);
};

std::string MediumName(std::int32_t id);
std::string SceneName(std::int32_t id);

// The next operation on a database holding state; copies only when
// withCopies (a second database is open).
TSessionOp RandomOperation(const TSessionState& state, std::mt19937& random, bool withCopies);
// Brings the model's records to the operation's end.
void Apply(TSessionState* state, const TSessionOp& op);
// Carries the operation out on refNum (copies go to copyRefNum): the first
// failing answer, or 0.
std::int16_t Perform(const TSessionOp& op, std::int16_t refNum, std::int16_t copyRefNum);

// Writes the board and the tape header that every session starts with.
std::int16_t StartSession(std::int16_t refNum, TSessionState* state);

// Compares refNum (which must be current) and copyRefNum (when not 0) with
// the model, record by record. With an operation under way, each record it
// touches may be found as it was or as the operation leaves it; the model is
// brought to what was found. Returns what differs, or "".
std::string CheckSession(std::int16_t refNum, std::int16_t copyRefNum, TSessionState* state,
                         const TSessionOp* underWay);

}  // namespace kavotest

#endif  // KAVO_TESTS_STORY_SESSIONMODEL_H
