#include "tolvanger/kit/clock.h"

#include <chrono>
#include <utility>

namespace tolvanger::SystemClock {

int64_t seconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

int64_t milliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

Clock orSeconds(Clock clock) {
  return clock ? std::move(clock) : Clock(seconds);
}

}  // namespace tolvanger::SystemClock
