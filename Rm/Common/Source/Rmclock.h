// The runtime's clock in whole seconds, from which new reference numbers are
// drawn. It is the record manager's only use of the clock.
//
// Internal to the library: hosts never see it. Tests replace it so that they
// never wait for the clock.
#ifndef KAVO_RM_RMCLOCK_H
#define KAVO_RM_RMCLOCK_H

#include <cstdint>

namespace rm {

using TClock = std::uint32_t (*)();

// The current time in seconds, truncated to 32 bits.
std::uint32_t ClockSeconds();

// For tests: installs a clock (null restores the runtime's) and returns the
// previous one.
TClock SetClockForTests(TClock clock);

}  // namespace rm

#endif  // KAVO_RM_RMCLOCK_H
