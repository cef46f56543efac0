// Random sequences of creations, changes, saves, loads (by ID, by name, by
// position), path loads, copies, removals and reopenings of media of every
// kind, through the flat functions, checked at every step against a model
// of what each object in memory holds and what the database holds. The
// model knows the contract's odd corners: movies and pictures ignore time
// code changes, a flags change marks nothing dirty and so is saved only
// with another change, a loaded medium's dirty word is 0 less 32 per class,
// and a side record is written only when its own bit is set.
#include <array>
#include <cstring>
#include <map>
#include <optional>
#include <random>
#include <string>

#include "tests/media/MediaTestSupport.h"

namespace {

struct TState {
    std::string fKind;  // the kind code: "?MED", "mMED", "pMED", "aMED"
    std::int32_t fID = 0;
    std::string fName;
    std::string fTitle;
    std::string fDescription;
    std::uint32_t fFlags = 0;
    // Trim start, end, duration; clip start, end, duration.
    std::array<TimeCodeRecord, 6> fTimeCodes{};
    DateTimeRecord fCreateDate{};
    std::optional<std::string> fPath;  // the path the object holds
};

struct TLive {
    TMedium* fMedium = nullptr;
    TState fState;
    std::uint32_t fDirty = 0;
    bool fPathLoaded = false;
};

bool StoresTimeCodes(const std::string& kind) { return kind == "?MED" || kind == "aMED"; }

bool operator==(const TimeCodeRecord& a, const TimeCodeRecord& b) {
    return a.hours == b.hours && a.minutes == b.minutes && a.seconds == b.seconds && a.frames == b.frames;
}

class MediumModelTest : public kavotest::MediaTest {
protected:
    std::string RandomText(std::size_t most) {
        std::uniform_int_distribution<std::size_t> length(0, most);
        std::uniform_int_distribution<int> letter(' ', '~');
        std::string text(length(fRandom), ' ');
        for (char& c : text) c = static_cast<char>(letter(fRandom));
        return text;
    }
    std::uint8_t RandomByte() { return static_cast<std::uint8_t>(fRandom()); }
    TimeCodeRecord RandomTimeCode() { return {RandomByte(), RandomByte(), RandomByte(), RandomByte()}; }

    // Every field the flat functions show, against the model.
    void Check(const TLive& live) {
        TMedium* m = live.fMedium;
        const TState& s = live.fState;
        MediumKind kind;
        ASSERT_EQ(MediumGetKind(m, &kind), kNoError);
        EXPECT_EQ(std::string(kind.code, 4), s.fKind);
        EXPECT_EQ(MediumGetRezID(m), s.fID);
        EXPECT_EQ(std::string(MediumGetRezName(m)), s.fName);
        char title[64] = {};
        ASSERT_EQ(MediumGetTitle(m, title), kNoError);
        EXPECT_EQ(std::string(title), s.fTitle);
        ASSERT_EQ(MediumDescriptionSize(m), static_cast<std::int32_t>(s.fDescription.size()));
        std::string description(s.fDescription.size() + 1, '\0');
        ASSERT_EQ(MediumGetDescription(m, description.data()), kNoError);
        EXPECT_EQ(description.c_str(), s.fDescription);
        std::uint32_t value = 0;
        ASSERT_EQ(MediumGetFlags(m, &value), kNoError);
        EXPECT_EQ(value, s.fFlags);
        ASSERT_EQ(MediumGetDirtyFlags(m, &value), kNoError);
        EXPECT_EQ(value, live.fDirty);
        EXPECT_EQ(MediumIsDirty(m), live.fDirty != 0 ? 1 : 0);

        TimeCodeRecord code{};
        MediumGetTrimStart(m, &code);
        EXPECT_TRUE(code == s.fTimeCodes[0]);
        MediumGetTrimEnd(m, &code);
        EXPECT_TRUE(code == s.fTimeCodes[1]);
        MediumGetTrimDuration(m, &code);
        EXPECT_TRUE(code == s.fTimeCodes[2]);
        std::uint16_t a, b, c, d;
        for (int i = 3; i < 6; ++i) {
            const auto get = i == 3 ? VBMediumGetClipStart : i == 4 ? VBMediumGetClipEnd : VBMediumGetClipDuration;
            EXPECT_EQ(get(m, &a, &b, &c, &d), s.fTimeCodes[i].frames);
            EXPECT_TRUE((TimeCodeRecord{static_cast<std::uint8_t>(a), static_cast<std::uint8_t>(b),
                                        static_cast<std::uint8_t>(c), static_cast<std::uint8_t>(d)}) ==
                        s.fTimeCodes[i]);
        }
        DateTimeRecord date{};
        ASSERT_EQ(MediumGetCreateDate(m, &date), kNoError);
        EXPECT_TRUE(date.year == s.fCreateDate.year && date.month == s.fCreateDate.month &&
                    date.day == s.fCreateDate.day && date.hour == s.fCreateDate.hour &&
                    date.minute == s.fCreateDate.minute && date.second == s.fCreateDate.second);
        if (s.fKind != "?MED") {
            TimeCodeRecord duration{};
            ASSERT_EQ(MediumGetDuration(m, &duration), kNoError);
            EXPECT_TRUE((duration == TimeCodeRecord{0, 0, 0, 1}));
        }
        EXPECT_EQ(MediumHasPathNameLoaded(m), live.fPathLoaded ? 1 : 0);
        if (live.fPathLoaded) {
            char path[257] = {};
            ASSERT_EQ(MediumGetPathName(m, path), kNoError);
            EXPECT_EQ(std::string(path), *s.fPath);
        }
    }

    // A copy made by the copy constructor of the medium's own class.
    static TMedium* CopyOf(TMedium* medium) {
        if (auto* movie = dynamic_cast<TMooVMedium*>(medium)) return new TMooVMedium(*movie);
        if (auto* picture = dynamic_cast<TPictureMedium*>(medium)) return new TPictureMedium(*picture);
        if (auto* analog = dynamic_cast<TAnalogMedium*>(medium)) return new TAnalogMedium(*analog);
        return new TMedium(*medium);
    }

    void Run(std::uint32_t seed, int steps);

    std::mt19937 fRandom;
};

void MediumModelTest::Run(std::uint32_t seed, int steps) {
    fRandom.seed(seed);
    constexpr int kSlots = 24;
    std::map<int, TLive> live;      // slot -> object in memory
    std::map<int, TState> stored;        // slot -> its "MDUM" record (fPath unused)
    std::map<int, std::string> storedPath;  // slot -> its "path" record
    StartAfresh("model " + std::to_string(seed) + ".kdb");
    const char* const kKindArguments[] = {"mMED", "pMED", "DVC ", "?MED", "aMED", "junk"};

    for (int step = 0; step < steps; ++step) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step));
        const int slot = static_cast<int>(fRandom() % kSlots);
        const auto object = live.find(slot);
        const auto saved = stored.find(slot);
        const int action = static_cast<int>(fRandom() % 100);

        if (object == live.end()) {
            if (saved == stored.end()) {
                // A new medium; the analog class is chosen by "DVC ", and
                // "aMED" makes a plain medium.
                const std::string argument = kKindArguments[fRandom() % 6];
                TLive created;
                created.fState.fKind = argument == "DVC "                       ? "aMED"
                                       : argument == "mMED" || argument == "pMED" ? argument
                                                                                  : "?MED";
                created.fState.fID = slot + 1;
                created.fState.fName = "medium " + std::to_string(slot);
                created.fState.fTitle = created.fState.fName;
                created.fState.fFlags = created.fState.fKind == "aMED" ? 0x00010000 : 0;
                created.fDirty = 32;
                created.fMedium = MediumCreateNew(0, argument.c_str(), created.fState.fName.c_str(), slot + 1);
                ASSERT_NE(created.fMedium, nullptr);
                live[slot] = created;
            } else {
                // Loaded back by ID, by name or by position.
                TMedium* medium = nullptr;
                const int how = action % 3;
                if (how == 0) {
                    medium = MediumLoadByID(fRefNum, saved->second.fID);
                } else if (how == 1) {
                    medium = MediumLoadByName(fRefNum, saved->second.fName.c_str());
                } else {
                    const std::uint32_t count = CountOfType(fRefNum, "MDUM");
                    ASSERT_EQ(count, stored.size());
                    EXPECT_EQ(MediumLoadNthOne(fRefNum, count), nullptr);
                    // Some position: whichever medium it holds is checked.
                    medium = MediumLoadNthOne(fRefNum, static_cast<std::uint32_t>(fRandom() % count));
                    ASSERT_NE(medium, nullptr);
                    const int other = MediumGetRezID(medium) - 1;
                    if (live.count(other) != 0) {  // in memory already: only compared
                        TLive check{medium, stored.at(other), 0, false};
                        check.fDirty = check.fState.fKind == "?MED" ? 0u - 32 : 0u - 64;
                        Check(check);
                        MediumDestroy(medium);
                        continue;
                    }
                    TLive loaded{medium, stored.at(other), 0, false};
                    loaded.fDirty = loaded.fState.fKind == "?MED" ? 0u - 32 : 0u - 64;
                    live[other] = loaded;
                    Check(loaded);
                    continue;
                }
                ASSERT_NE(medium, nullptr);
                TLive loaded{medium, saved->second, 0, false};
                loaded.fState.fPath.reset();
                loaded.fDirty = loaded.fState.fKind == "?MED" ? 0u - 32 : 0u - 64;
                live[slot] = loaded;
            }
            Check(live[slot]);
            continue;
        }

        TLive& l = object->second;
        TMedium* m = l.fMedium;
        TState& s = l.fState;
        if (action < 10) {
            s.fTitle = RandomText(31);
            ASSERT_EQ(MediumChangeTitle(m, s.fTitle.c_str()), kNoError);
            l.fDirty |= 0x20;
        } else if (action < 18) {
            s.fDescription = RandomText(action < 12 ? 3000 : 60);
            ASSERT_EQ(MediumChangeDescription(m, s.fDescription.c_str()), kNoError);
            l.fDirty |= 0x20;
        } else if (action < 22) {
            s.fFlags = static_cast<std::uint32_t>(fRandom());
            ASSERT_EQ(MediumChangeFlags(m, s.fFlags), kNoError);  // no dirty bit
        } else if (action < 34) {
            const int which = static_cast<int>(fRandom() % 6);
            TimeCodeRecord code = RandomTimeCode();
            int16_t result = kNoError;
            switch (which) {
                case 0: result = MediumChangeTrimStart(m, &code); break;
                case 1: result = MediumChangeTrimEnd(m, &code); break;
                case 2: result = MediumChangeTrimDuration(m, &code); break;
                case 3: result = VBMediumChangeClipStart(m, code.hours, code.minutes, code.seconds, code.frames); break;
                case 4: result = VBMediumChangeClipEnd(m, code.hours, code.minutes, code.seconds, code.frames); break;
                default: result = VBMediumChangeClipDuration(m, code.hours, code.minutes, code.seconds, code.frames);
            }
            ASSERT_EQ(result, kNoError);
            if (StoresTimeCodes(s.fKind)) {
                s.fTimeCodes[which] = code;
                l.fDirty |= 0x10;
            }
        } else if (action < 38) {
            s.fCreateDate = {static_cast<std::uint16_t>(fRandom()), RandomByte(), RandomByte(),
                             RandomByte(), RandomByte(), RandomByte()};
            EXPECT_EQ(VBMediumChangeCreateDate(m, s.fCreateDate.year, s.fCreateDate.month, s.fCreateDate.day,
                                               s.fCreateDate.hour, s.fCreateDate.minute, s.fCreateDate.second),
                      kGeneralError);  // stored, and answered -1
            l.fDirty |= 0x20;
        } else if (action < 46) {
            std::string path = RandomText(255);
            if (path.empty()) path = "/";
            s.fPath = path;
            ASSERT_EQ(MediumChangePathName(m, path.c_str()), kNoError);
            l.fPathLoaded = true;
            l.fDirty |= 0x08;
        } else if (action < 52) {
            const std::int16_t result = MediumLoadPathName(m);
            if (l.fPathLoaded) {
                EXPECT_EQ(result, kNoError);
            } else if (storedPath.count(slot) != 0) {
                EXPECT_EQ(result, kNoError);
                s.fPath = storedPath.at(slot);
                l.fPathLoaded = true;
            } else {
                EXPECT_EQ(result, kRecordNotFound);
            }
        } else if (action < 68) {
            ASSERT_EQ(MediumSaveToDB(m, fRefNum), kNoError);
            if ((l.fDirty & 0x30) != 0) stored[slot] = s;
            if ((l.fDirty & 0x08) != 0 && l.fPathLoaded) storedPath[slot] = *s.fPath;
            l.fDirty = 0;
        } else if (action < 74) {
            // A copy takes the place of the original, which goes first or
            // after it: the path block they share must survive the first.
            TMedium* copy = CopyOf(m);
            if (fRandom() % 2 == 0) {
                ASSERT_EQ(MediumDestroy(m), kNoError);
            } else {
                delete m;
            }
            l.fMedium = copy;
        } else if (action < 80) {
            const std::int16_t result = MediumRemoveFromDB(m, fRefNum);
            if (saved != stored.end()) {
                EXPECT_EQ(result, kNoError);
                stored.erase(saved);
                storedPath.erase(slot);
            } else {  // the main record is missing: nothing is removed
                EXPECT_EQ(result, kKeyNotFound);
            }
        } else if (action < 95) {
            ASSERT_EQ(MediumDestroy(m), kNoError);
            live.erase(object);
            continue;
        } else {
            Reopen();
            ASSERT_EQ(CountOfType(fRefNum, "MDUM"), stored.size());
        }
        Check(l);
    }
    for (auto& [slot, l] : live) EXPECT_EQ(MediumDestroy(l.fMedium), kNoError);
    // Everything stored reads back once more from a freshly opened file.
    Reopen();
    for (const auto& [slot, state] : stored) {
        TLive loaded{MediumLoadByID(fRefNum, state.fID), state, 0, false};
        ASSERT_NE(loaded.fMedium, nullptr);
        loaded.fDirty = state.fKind == "?MED" ? 0u - 32 : 0u - 64;
        if (storedPath.count(slot) != 0) {
            ASSERT_EQ(MediumLoadPathName(loaded.fMedium), kNoError);
            loaded.fState.fPath = storedPath.at(slot);
            loaded.fPathLoaded = true;
        } else {
            EXPECT_EQ(MediumLoadPathName(loaded.fMedium), kRecordNotFound);
        }
        Check(loaded);
        MediumDestroy(loaded.fMedium);
    }
}

TEST_F(MediumModelTest, RandomSequencesAgreeWithTheModel) {
    for (std::uint32_t seed : {1u, 2u, 3u, 4u, 5u}) {
        Run(seed, 4000);
        if (HasFatalFailure()) return;
    }
}

}  // namespace
