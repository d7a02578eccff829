// The one clock: the current time as whole seconds or milliseconds since the
// Unix epoch, read from the system's wall clock. Types that keep time take a
// `Clock` so that tests can set the time; an empty one means the system's.
//
// Thread safety: pure functions; safe from any thread. A Clock is called
// from whichever thread uses its owner.
#ifndef TOLVANGER_KIT_CLOCK_H_
#define TOLVANGER_KIT_CLOCK_H_

#include <cstdint>
#include <functional>

namespace tolvanger {

// Returns the current time in one unit (seconds, unless a type says
// otherwise).
using Clock = std::function<int64_t()>;

namespace SystemClock {

// Whole seconds since the Unix epoch.
int64_t seconds();

// Whole milliseconds since the Unix epoch.
int64_t milliseconds();

// `clock`, or the system's clock in seconds when `clock` is empty.
Clock orSeconds(Clock clock);

}  // namespace SystemClock

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_CLOCK_H_
