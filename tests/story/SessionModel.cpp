#include "tests/story/SessionModel.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>

#include "include/kavoDVDBClasses.h"

namespace kavotest {
namespace {

// Perform's answer when the library's list differs from the model's.
constexpr std::int16_t kModelDiffers = -32000;

bool SameTimeCode(const TimeCodeRecord& a, const TimeCodeRecord& b) {
    return a.hours == b.hours && a.minutes == b.minutes && a.seconds == b.seconds && a.frames == b.frames;
}

bool StoresTimeCodes(const std::string& kind) { return kind == "?MED" || kind == "aMED"; }

std::string RandomText(std::mt19937& random, std::size_t least, std::size_t most) {
    std::string text(least + random() % (most - least + 1), ' ');
    for (char& c : text) c = static_cast<char>(' ' + random() % 95);
    return text;
}

std::uint8_t Byte(std::mt19937& random) { return static_cast<std::uint8_t>(random()); }

void RandomFields(TMediumState* medium, std::mt19937& random, bool all) {
    if (all || random() % 2) medium->fTitle = RandomText(random, 0, 31);
    if (all || random() % 3 == 0) medium->fDescription = RandomText(random, 0, random() % 8 == 0 ? 2000 : 60);
    if (all || random() % 4 == 0) medium->fFlags = static_cast<std::uint32_t>(random());
    if (StoresTimeCodes(medium->fKind) && (all || random() % 2))
        for (TimeCodeRecord& code : medium->fTimeCodes) code = {Byte(random), Byte(random), Byte(random), Byte(random)};
    if (all || random() % 4 == 0)
        medium->fCreateDate = {static_cast<std::uint16_t>(random()), Byte(random), Byte(random),
                               Byte(random), Byte(random), Byte(random)};
}

template <typename TMap>
std::int32_t NextID(const TMap& map) {
    return map.empty() ? 1 : map.rbegin()->first + 1;
}

template <typename TMap>
std::int32_t AnyID(const TMap& map, std::mt19937& random) {
    auto at = map.begin();
    std::advance(at, random() % map.size());
    return at->first;
}

// The list operations as the library's rules have them; moving forward
// lands before the element that stood at the target.
void ApplyStep(std::vector<std::int32_t>* list, const TListStep& step) {
    auto& l = *list;
    switch (step.fKind) {
        case 'a': l.push_back(step.fFirst); break;
        case 'i': l.insert(l.begin() + step.fSecond, step.fFirst); break;
        case 's': std::swap(l[step.fFirst], l[step.fSecond]); break;
        case 'd': l.erase(l.begin() + step.fFirst); break;
        case 'c': l[step.fSecond] = step.fFirst; break;
        case 'm': {
            std::size_t from = step.fFirst, to = step.fSecond;
            if (from == to) break;
            if (to > from) --to;
            const std::int32_t id = l[from];
            l.erase(l.begin() + from);
            l.insert(l.begin() + to, id);
            break;
        }
        default: break;
    }
}

// Valid steps only (every index in range), so that none is refused.
std::vector<TListStep> RandomSteps(std::vector<std::int32_t> list, std::mt19937& random,
                                   const std::vector<std::int32_t>& candidates) {
    std::vector<TListStep> steps;
    const int count = 1 + static_cast<int>(random() % 5);
    for (int i = 0; i < count; ++i) {
        const std::int32_t id = candidates.empty() || random() % 6 == 0
                                    ? static_cast<std::int32_t>(1 + random() % 500)
                                    : candidates[random() % candidates.size()];
        const auto n = static_cast<std::int32_t>(list.size());
        TListStep step{'a', id, 0};
        switch (n == 0 ? 0 : random() % 6) {
            case 0: step = {'a', id, 0}; break;
            case 1: step = {'i', id, static_cast<std::int32_t>(random() % (n + 1))}; break;
            case 2: step = {'m', static_cast<std::int32_t>(random() % n), static_cast<std::int32_t>(random() % n)}; break;
            case 3: step = {'s', static_cast<std::int32_t>(random() % n), static_cast<std::int32_t>(random() % n)}; break;
            case 4: step = {'d', static_cast<std::int32_t>(random() % n), 0}; break;
            default: step = {'c', id, static_cast<std::int32_t>(random() % n)}; break;
        }
        if (list.size() >= 40 && (step.fKind == 'a' || step.fKind == 'i')) step = {'d', 0, 0};
        ApplyStep(&list, step);
        steps.push_back(step);
    }
    return steps;
}

std::string Hex(const std::string& text) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out = "x";
    for (unsigned char c : text) {
        out += kDigits[c >> 4];
        out += kDigits[c & 15];
    }
    return out;
}

bool Unhex(const std::string& token, std::string* text) {
    if (token.empty() || token[0] != 'x' || token.size() % 2 != 1) return false;
    text->clear();
    for (std::size_t i = 1; i < token.size(); i += 2) text->push_back(static_cast<char>(std::stoi(token.substr(i, 2), nullptr, 16)));
    return true;
}

void WriteMedium(std::ostream& out, const TMediumState& m) {
    out << ' ' << Hex(m.fKind) << ' ' << Hex(m.fTitle) << ' ' << Hex(m.fDescription) << ' ' << m.fFlags;
    for (const TimeCodeRecord& c : m.fTimeCodes)
        out << ' ' << int{c.hours} << ' ' << int{c.minutes} << ' ' << int{c.seconds} << ' ' << int{c.frames};
    const DateTimeRecord& d = m.fCreateDate;
    out << ' ' << d.year << ' ' << int{d.month} << ' ' << int{d.day} << ' ' << int{d.hour} << ' '
        << int{d.minute} << ' ' << int{d.second};
}

bool ReadMedium(std::istream& in, TMediumState* m) {
    std::string kind, title, description;
    in >> kind >> title >> description >> m->fFlags;
    for (TimeCodeRecord& c : m->fTimeCodes) {
        int h, mi, s, f;
        in >> h >> mi >> s >> f;
        c = {static_cast<std::uint8_t>(h), static_cast<std::uint8_t>(mi), static_cast<std::uint8_t>(s),
             static_cast<std::uint8_t>(f)};
    }
    int year, month, day, hour, minute, second;
    in >> year >> month >> day >> hour >> minute >> second;
    m->fCreateDate = {static_cast<std::uint16_t>(year), static_cast<std::uint8_t>(month),
                      static_cast<std::uint8_t>(day), static_cast<std::uint8_t>(hour),
                      static_cast<std::uint8_t>(minute), static_cast<std::uint8_t>(second)};
    return Unhex(kind, &m->fKind) && Unhex(title, &m->fTitle) && Unhex(description, &m->fDescription);
}

void WriteList(std::ostream& out, const std::vector<std::int32_t>& list) {
    out << ' ' << list.size();
    for (std::int32_t id : list) out << ' ' << id;
}

void ReadList(std::istream& in, std::vector<std::int32_t>* list) {
    std::size_t n = 0;
    in >> n;
    list->assign(n, 0);
    for (std::int32_t& id : *list) in >> id;
}

// --- Reading the database back.

// The medium of the ID as the flat functions show it, or nothing.
std::optional<TMediumState> LoadedMedium(std::int16_t refNum, std::int32_t id, const std::string& name,
                                         std::string* problem) {
    TMedium* medium = MediumLoadByID(refNum, id);
    if (medium == nullptr) return std::nullopt;
    TMediumState state;
    MediumKind kind;
    MediumGetKind(medium, &kind);
    state.fKind.assign(kind.code, 4);
    if (MediumGetRezName(medium) != name || MediumGetRezID(medium) != id)
        *problem = "medium " + std::to_string(id) + " is named " + MediumGetRezName(medium);
    char title[64] = {};
    MediumGetTitle(medium, title);
    state.fTitle = title;
    std::string description(static_cast<std::size_t>(MediumDescriptionSize(medium)) + 1, '\0');
    MediumGetDescription(medium, &description[0]);
    description.pop_back();
    state.fDescription = description;
    MediumGetFlags(medium, &state.fFlags);
    TMedium* m = medium;
    MediumGetTrimStart(m, &state.fTimeCodes[0]);
    MediumGetTrimEnd(m, &state.fTimeCodes[1]);
    MediumGetTrimDuration(m, &state.fTimeCodes[2]);
    std::uint16_t a, b, c, d;
    const auto clip = [&](int i) {
        state.fTimeCodes[i] = {static_cast<std::uint8_t>(a), static_cast<std::uint8_t>(b),
                               static_cast<std::uint8_t>(c), static_cast<std::uint8_t>(d)};
    };
    VBMediumGetClipStart(m, &a, &b, &c, &d);
    clip(3);
    VBMediumGetClipEnd(m, &a, &b, &c, &d);
    clip(4);
    VBMediumGetClipDuration(m, &a, &b, &c, &d);
    clip(5);
    MediumGetCreateDate(m, &state.fCreateDate);
    MediumDestroy(medium);
    return state;
}

std::optional<std::string> StoredPath(std::int16_t refNum, const std::string& name) {
    MSHandle data = nullptr;
    if (RMReadRecordByName(refNum, name.c_str(), "path", &data) != kNoError) return std::nullopt;
    std::string text(MSGetHandleSize(data), '\0');
    void* address = nullptr;
    MSLockHandle(data, &address);
    std::memcpy(&text[0], address, text.size());
    MSUnlockHandle(data);
    RMReleaseRecord(data);
    if (!text.empty() && text.back() == '\0') text.pop_back();
    return text;
}

std::optional<TSceneState> LoadedScene(std::int16_t refNum, std::int32_t id, std::string* problem) {
    TScene scene;
    scene.ChangeRezID(id);
    if (scene.UnpackFromDB(refNum) != kNoError) return std::nullopt;
    TSceneState state;
    CString title;
    scene.GetTitle(&title);
    state.fTitle = title.Text();
    for (std::uint16_t i = 0; i < scene.NumTakes(); ++i) {
        std::int32_t take = 0;
        scene.GetNthTakeID(i, &take);
        state.fTakes.push_back(take);
    }
    state.fCurrent = scene.GetCurrentTakeIndex();
    char name[kNameLength];
    scene.GetRezName(name);
    if (SceneName(id) != name) *problem = "scene " + std::to_string(id) + " is named " + name;
    return state;
}

std::uint32_t CountOf(std::int16_t refNum, const char* type) {
    std::uint32_t count = 0;
    RMCountRecordsOfType(refNum, type, &count);
    return count;
}

// Each record of a map: found as the model has it, or (with an operation
// under way) as the operation leaves it, in which case the model follows.
template <typename TValue, typename TLoad>
std::string CheckRecords(const char* what, std::map<std::int32_t, TValue>* expected,
                         const std::map<std::int32_t, TValue>& after, bool underWay, TLoad load) {
    std::set<std::int32_t> ids;
    for (const auto& entry : *expected) ids.insert(entry.first);
    for (const auto& entry : after) ids.insert(entry.first);
    for (std::int32_t id : ids) {
        std::string problem;
        const std::optional<TValue> found = load(id, &problem);
        if (!problem.empty()) return problem;
        const auto now = expected->find(id);
        const std::optional<TValue> was = now != expected->end() ? std::optional<TValue>(now->second) : std::nullopt;
        if (found == was) continue;
        const auto then = after.find(id);
        const std::optional<TValue> will = then != after.end() ? std::optional<TValue>(then->second) : std::nullopt;
        if (underWay && found == will) {
            if (found) (*expected)[id] = *found; else expected->erase(id);
            continue;
        }
        return std::string(what) + " " + std::to_string(id) + (found ? " differs" : " is missing") +
               (was ? "" : " (the model has none)");
    }
    return "";
}

}  // namespace

bool TMediumState::operator==(const TMediumState& other) const {
    if (fKind != other.fKind || fTitle != other.fTitle || fDescription != other.fDescription ||
        fFlags != other.fFlags)
        return false;
    for (int i = 0; i < 6; ++i)
        if (!SameTimeCode(fTimeCodes[i], other.fTimeCodes[i])) return false;
    const DateTimeRecord &a = fCreateDate, &b = other.fCreateDate;
    return a.year == b.year && a.month == b.month && a.day == b.day && a.hour == b.hour &&
           a.minute == b.minute && a.second == b.second;
}

std::string MediumName(std::int32_t id) { return "clip " + std::to_string(id); }
std::string SceneName(std::int32_t id) { return "scene " + std::to_string(id); }

TSessionOp RandomOperation(const TSessionState& state, std::mt19937& random, bool withCopies) {
    TSessionOp op;
    const int roll = static_cast<int>(random() % 100);
    std::vector<std::int32_t> mediaIDs;
    for (const auto& entry : state.fMedia) mediaIDs.push_back(entry.first);
    std::vector<std::int32_t> sceneIDs;
    for (const auto& entry : state.fScenes) sceneIDs.push_back(entry.first);

    if (state.fMedia.empty() || (roll < 18 && state.fMedia.size() < 80)) {
        static const char* const kArguments[] = {"mMED", "pMED", "DVC ", "?MED", "aMED", "junk"};
        op.fKind = TSessionOp::kNewMedium;
        op.fID = NextID(state.fMedia);
        op.fKindArgument = kArguments[random() % 6];
        op.fMedium.fKind = op.fKindArgument == "DVC " ? "aMED"
                           : op.fKindArgument == "mMED" || op.fKindArgument == "pMED" ? op.fKindArgument
                                                                                      : "?MED";
        RandomFields(&op.fMedium, random, true);
        if (random() % 10 < 7) op.fNewPath = RandomText(random, 1, 255);
    } else if (roll < 40) {
        op.fKind = TSessionOp::kEditMedium;
        op.fID = AnyID(state.fMedia, random);
        op.fMedium = state.fMedia.at(op.fID);
        RandomFields(&op.fMedium, random, false);
        if (random() % 10 < 4) op.fNewPath = RandomText(random, 1, 255);
    } else if (roll < 46) {
        op.fKind = TSessionOp::kRemoveMedium;
        op.fID = AnyID(state.fMedia, random);
    } else if (roll < 50 && withCopies) {
        op.fKind = TSessionOp::kCopyMedium;
        op.fID = AnyID(state.fMedia, random);
        op.fMedium = state.fMedia.at(op.fID);
        // Copied as far as its first missing side record: the poster, or
        // the path when it has none.
        op.fExpected = kRecordNotFound;
    } else if (roll < 75 || state.fScenes.empty()) {
        op.fKind = TSessionOp::kSaveScene;
        op.fNewScene = state.fScenes.empty() || (state.fScenes.size() < 20 && random() % 3 == 0);
        op.fID = op.fNewScene ? NextID(state.fScenes) : AnyID(state.fScenes, random);
        op.fScene = op.fNewScene ? TSceneState{"Blank Scene", {}, 0} : state.fScenes.at(op.fID);
        if (op.fNewScene || random() % 3 == 0) op.fScene.fTitle = RandomText(random, 0, 40);
        op.fSteps = RandomSteps(op.fScene.fTakes, random, mediaIDs);
        for (const TListStep& step : op.fSteps) ApplyStep(&op.fScene.fTakes, step);
        // The current take is set whenever there are takes (and must then
        // be one of them).
        if (!op.fScene.fTakes.empty() && (op.fScene.fCurrent >= op.fScene.fTakes.size() || random() % 2))
            op.fScene.fCurrent = static_cast<std::uint16_t>(random() % op.fScene.fTakes.size());
    } else if (roll < 93) {
        op.fKind = TSessionOp::kSaveBoard;
        op.fBoard = state.fBoard;
        op.fSteps = RandomSteps(op.fBoard, random, sceneIDs);
        for (const TListStep& step : op.fSteps) ApplyStep(&op.fBoard, step);
    } else {
        op.fKind = TSessionOp::kTapeName;
        op.fText = RandomText(random, 0, 40);
    }
    return op;
}

void Apply(TSessionState* state, const TSessionOp& op) {
    switch (op.fKind) {
        case TSessionOp::kNewMedium:
        case TSessionOp::kEditMedium:
            state->fMedia[op.fID] = op.fMedium;
            if (op.fNewPath) state->fPaths[op.fID] = *op.fNewPath;
            break;
        case TSessionOp::kRemoveMedium:
            state->fMedia.erase(op.fID);
            state->fPaths.erase(op.fID);
            break;
        case TSessionOp::kCopyMedium: {
            const std::int32_t id = NextID(state->fCopies);
            state->fCopies[id] = op.fMedium;
            const auto path = state->fPaths.find(op.fID);
            if (path != state->fPaths.end()) state->fCopyPaths[id] = path->second;
            break;
        }
        case TSessionOp::kSaveScene: state->fScenes[op.fID] = op.fScene; break;
        case TSessionOp::kSaveBoard: state->fBoard = op.fBoard; break;
        case TSessionOp::kTapeName: state->fTapeName = op.fText; break;
    }
}

namespace {

std::int16_t SetFields(TMedium* m, const TSessionOp& op) {
    const TMediumState& s = op.fMedium;
    std::int16_t error = kNoError;
    if (!error) error = MediumChangeTitle(m, s.fTitle.c_str());
    if (!error) error = MediumChangeDescription(m, s.fDescription.c_str());
    if (!error) error = MediumChangeFlags(m, s.fFlags);
    if (!error && StoresTimeCodes(s.fKind)) {
        TimeCodeRecord codes[3] = {s.fTimeCodes[0], s.fTimeCodes[1], s.fTimeCodes[2]};
        if (!error) error = MediumChangeTrimStart(m, &codes[0]);
        if (!error) error = MediumChangeTrimEnd(m, &codes[1]);
        if (!error) error = MediumChangeTrimDuration(m, &codes[2]);
        const auto clip = [&](auto change, const TimeCodeRecord& c) {
            if (!error) error = change(m, c.hours, c.minutes, c.seconds, c.frames);
        };
        clip(VBMediumChangeClipStart, s.fTimeCodes[3]);
        clip(VBMediumChangeClipEnd, s.fTimeCodes[4]);
        clip(VBMediumChangeClipDuration, s.fTimeCodes[5]);
    }
    const DateTimeRecord& d = s.fCreateDate;
    // The date is stored and answered -1, as hosts know it.
    if (!error && VBMediumChangeCreateDate(m, d.year, d.month, d.day, d.hour, d.minute, d.second) != kGeneralError)
        error = kModelDiffers;
    if (!error && op.fNewPath) error = MediumChangePathName(m, op.fNewPath->c_str());
    return error;
}

template <typename TStep>
std::int16_t RunSteps(const std::vector<TListStep>& steps, TStep step) {
    for (const TListStep& s : steps) {
        const std::int16_t error = step(s);
        if (error != kNoError) return error;
    }
    return kNoError;
}

}  // namespace

std::int16_t Perform(const TSessionOp& op, std::int16_t refNum, std::int16_t copyRefNum) {
    switch (op.fKind) {
        case TSessionOp::kNewMedium:
        case TSessionOp::kEditMedium: {
            TMedium* m = op.fKind == TSessionOp::kNewMedium
                             ? MediumCreateNew(0, op.fKindArgument.c_str(), MediumName(op.fID).c_str(), op.fID)
                             : MediumLoadByID(refNum, op.fID);
            if (m == nullptr) return kGeneralError;
            std::int16_t error = SetFields(m, op);
            if (!error) error = MediumSaveToDB(m, refNum);
            MediumDestroy(m);
            return error;
        }
        case TSessionOp::kRemoveMedium: {
            TMedium* m = MediumLoadByID(refNum, op.fID);
            if (m == nullptr) return kGeneralError;
            const std::int16_t error = MediumRemoveFromDB(m, refNum);
            MediumDestroy(m);
            return error;
        }
        case TSessionOp::kCopyMedium: {
            TMedium* m = MediumLoadByID(refNum, op.fID);
            if (m == nullptr) return kGeneralError;
            std::int32_t newID = 0;
            const std::int16_t error = MediumCopyAllToNewDB(m, refNum, copyRefNum, &newID);
            MediumDestroy(m);
            return error;
        }
        case TSessionOp::kSaveScene: {
            TScene scene;
            std::int16_t error = scene.ChangeRezID(op.fID);
            if (!error) error = op.fNewScene ? scene.ChangeRezName(SceneName(op.fID).c_str()) : scene.UnpackFromDB(refNum);
            const CString title(op.fScene.fTitle.c_str());
            if (!error) error = scene.ChangeTitle(&title);
            if (!error) {
                error = RunSteps(op.fSteps, [&](const TListStep& s) -> std::int16_t {
                    const auto first = static_cast<std::uint16_t>(s.fFirst);
                    const auto second = static_cast<std::uint16_t>(s.fSecond);
                    switch (s.fKind) {
                        case 'a': return scene.AppendTake(s.fFirst);
                        case 'i': return scene.InsertTakeAt(s.fFirst, second);
                        case 'm': return scene.MoveTakeWithinList(first, second);
                        case 's': return scene.SwapTakes(first, second);
                        case 'd': return scene.DeleteEntryFromList(first);
                        default: return scene.ChangeTakeAt(s.fFirst, second);
                    }
                });
            }
            if (!error && !op.fScene.fTakes.empty()) error = scene.ChangeCurrentTakeIndex(op.fScene.fCurrent);
            std::vector<std::int32_t> takes;
            for (std::uint16_t i = 0; i < scene.NumTakes(); ++i) {
                std::int32_t id = 0;
                scene.GetNthTakeID(i, &id);
                takes.push_back(id);
            }
            if (!error && takes != op.fScene.fTakes) error = kModelDiffers;
            if (!error) error = scene.SaveAllToDB(refNum);
            return error;
        }
        case TSessionOp::kSaveBoard: {
            TStoryBoard* story = StoryOpen(refNum);
            if (story == nullptr) return kGeneralError;
            std::int16_t error = RunSteps(op.fSteps, [&](const TListStep& s) -> std::int16_t {
                const auto first = static_cast<std::uint16_t>(s.fFirst);
                const auto second = static_cast<std::uint16_t>(s.fSecond);
                switch (s.fKind) {
                    case 'a': return StoryAppendScene(story, s.fFirst);
                    case 'i': return StoryInsertSceneAt(story, s.fFirst, second);
                    case 'm': return StoryMoveSceneWithinList(story, first, second);
                    case 's': return StorySwapScenes(story, first, second);
                    case 'd': return StoryDeleteFromListSceneAt(story, first);
                    default: return StoryChangeSceneAt(story, s.fFirst, second);
                }
            });
            if (!error) error = StorySave(story, refNum);
            StoryDestroy(story);
            return error;
        }
        case TSessionOp::kTapeName: return TapeChangeName(refNum, op.fText.c_str());
    }
    return kGeneralError;
}

std::int16_t StartSession(std::int16_t refNum, TSessionState* state) {
    const PlugKind dvc = {{'D', 'V', 'C', ' '}};
    std::int16_t error = TapeSaveInfo(refNum, "Tape 1", 1, 0, "", "", "", &dvc);
    if (error != kNoError) return error;
    state->fTapeName = "Tape 1";
    TStoryBoard* story = StoryCreateNew(refNum);
    error = StorySave(story, refNum);
    StoryDestroy(story);
    return error;
}

std::string TSessionOp::Encode() const {
    std::ostringstream out;
    out << int{fKind} << ' ' << fID << ' ' << Hex(fKindArgument);
    WriteMedium(out, fMedium);
    out << ' ' << (fNewPath ? Hex(*fNewPath) : "-") << ' ' << int{fNewScene} << ' ' << Hex(fScene.fTitle);
    WriteList(out, fScene.fTakes);
    out << ' ' << fScene.fCurrent;
    WriteList(out, fBoard);
    out << ' ' << Hex(fText) << ' ' << fExpected;
    return out.str();
}

bool TSessionOp::Decode(const std::string& text, TSessionOp* op) {
    std::istringstream in(text);
    int kind = 0, newScene = 0;
    std::string argument, path, title, tape;
    in >> kind >> op->fID >> argument;
    if (!in || kind < kNewMedium || kind > kTapeName || !Unhex(argument, &op->fKindArgument)) return false;
    op->fKind = static_cast<TKind>(kind);
    if (!ReadMedium(in, &op->fMedium)) return false;
    in >> path >> newScene >> title;
    op->fNewPath.reset();
    if (path != "-") {
        std::string p;
        if (!Unhex(path, &p)) return false;
        op->fNewPath = p;
    }
    op->fNewScene = newScene != 0;
    ReadList(in, &op->fScene.fTakes);
    in >> op->fScene.fCurrent;
    ReadList(in, &op->fBoard);
    in >> tape >> op->fExpected;
    return in && Unhex(title, &op->fScene.fTitle) && Unhex(tape, &op->fText);
}

std::string CheckSession(std::int16_t refNum, std::int16_t copyRefNum, TSessionState* state,
                         const TSessionOp* underWay) {
    TSessionState after = *state;
    if (underWay != nullptr) Apply(&after, *underWay);
    const bool moving = underWay != nullptr;
    std::string problem = CheckRecords("medium", &state->fMedia, after.fMedia, moving,
                                       [&](std::int32_t id, std::string* p) {
                                           return LoadedMedium(refNum, id, MediumName(id), p);
                                       });
    if (problem.empty())
        problem = CheckRecords("path of medium", &state->fPaths, after.fPaths, moving,
                               [&](std::int32_t id, std::string*) { return StoredPath(refNum, MediumName(id)); });
    if (problem.empty())
        problem = CheckRecords("scene", &state->fScenes, after.fScenes, moving,
                               [&](std::int32_t id, std::string* p) { return LoadedScene(refNum, id, p); });
    if (!problem.empty()) return problem;
    if (CountOf(refNum, "MDUM") != state->fMedia.size()) return "the database holds other media";
    if (CountOf(refNum, "path") != state->fPaths.size()) return "the database holds other paths";
    if (CountOf(refNum, "SEEN") != state->fScenes.size()) return "the database holds other scenes";

    TStoryBoard* story = StoryOpen(refNum);
    std::vector<std::int32_t> board;
    for (std::uint16_t i = 0; i < StoryNumScenes(story); ++i) {
        std::int32_t id = 0;
        StoryGetNthSceneID(story, i, &id);
        board.push_back(id);
    }
    StoryDestroy(story);
    if (board != state->fBoard) {
        if (!moving || board != after.fBoard) return "the board's scenes differ";
        state->fBoard = board;
    }
    std::string name(static_cast<std::size_t>(std::max<std::int32_t>(TapeNameSize(0), 1)), '\0');
    if (TapeGetName(&name[0]) != kNoError) return "the tape header is missing";
    name.pop_back();
    if (name != state->fTapeName) {
        if (!moving || name != after.fTapeName) return "the tape name differs";
        state->fTapeName = name;
    }

    if (copyRefNum == 0) return "";
    char copyName[kNameLength];
    problem = CheckRecords("copy", &state->fCopies, after.fCopies, moving, [&](std::int32_t id, std::string* p) {
        std::snprintf(copyName, sizeof copyName, "Medium %4.4ld", static_cast<long>(id));
        return LoadedMedium(copyRefNum, id, copyName, p);
    });
    if (problem.empty())
        problem = CheckRecords("path of copy", &state->fCopyPaths, after.fCopyPaths, moving,
                               [&](std::int32_t id, std::string*) {
                                   std::snprintf(copyName, sizeof copyName, "Medium %4.4ld", static_cast<long>(id));
                                   return StoredPath(copyRefNum, copyName);
                               });
    if (problem.empty() && CountOf(copyRefNum, "MDUM") != state->fCopies.size())
        return "the second database holds other media";
    return problem;
}

}  // namespace kavotest
