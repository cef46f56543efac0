#include "Rm/Common/Source/Rmclock.h"

#include <ctime>

namespace rm {
namespace {

std::uint32_t RuntimeSeconds() {
    return static_cast<std::uint32_t>(std::time(nullptr));
}

TClock gClock = &RuntimeSeconds;

}  // namespace

std::uint32_t ClockSeconds() {
    return gClock();
}

TClock SetClockForTests(TClock clock) {
    const TClock previous = gClock;
    gClock = clock != nullptr ? clock : &RuntimeSeconds;
    return previous;
}

}  // namespace rm
