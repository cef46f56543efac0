// Random editing sessions through the flat functions (and the scene class):
// media of every kind created, changed, copied into a second database and
// removed, scenes built and rearranged, the story board reordered, the tape
// header renamed, both databases closed and reopened now and then, and
// everything compared with the model as it goes.
#include <random>
#include <string>

#include "tests/media/MediaTestSupport.h"
#include "tests/story/SessionModel.h"

namespace {

using kavotest::TSessionOp;
using kavotest::TSessionState;

class SessionModelTest : public kavotest::MediaTest {};

TEST_F(SessionModelTest, RandomSessionsAgreeWithTheModelAcrossReopenings) {
    for (std::uint32_t seed : {11u, 12u, 13u}) {
        StartAfresh("session " + std::to_string(seed) + ".kdb");
        const std::string copies = "copies " + std::to_string(seed) + ".kdb";
        std::int16_t copyRefNum = OpenAnother(copies);
        TSessionState state;
        ASSERT_EQ(kavotest::StartSession(fRefNum, &state), kNoError);
        std::mt19937 random(seed);
        int reopenings = 0;
        for (int step = 0; step < 2000; ++step) {
            const TSessionOp op = kavotest::RandomOperation(state, random, true);
            SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step) + ": " + op.Encode());
            ASSERT_EQ(kavotest::Perform(op, fRefNum, copyRefNum), op.fExpected);
            kavotest::Apply(&state, op);
            if (random() % 60 == 0) {
                Reopen();
                ASSERT_EQ(RMClose(copyRefNum), kNoError);
                ASSERT_EQ(RMOpen(copies.c_str(), kPermissionReadWrite, &copyRefNum), kNoError);
                ++reopenings;
            }
            if (step % 20 == 19) {
                ASSERT_EQ(kavotest::CheckSession(fRefNum, copyRefNum, &state, nullptr), "");
            }
        }
        ASSERT_EQ(kavotest::CheckSession(fRefNum, copyRefNum, &state, nullptr), "");
        std::printf("seed %u: %zu media, %zu scenes, %zu on the board, %zu copies, %d reopenings\n", seed,
                    state.fMedia.size(), state.fScenes.size(), state.fBoard.size(), state.fCopies.size(),
                    reopenings);
        ASSERT_EQ(RMClose(copyRefNum), kNoError);
    }
}

}  // namespace
