// Fuzz target for reading journal lines in plain English.
//
// Any bytes read as a line: the raw text is kept whole, a line with a clock
// has a clock of at most five characters, and a line that is not an event
// reads as itself.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "tolvanger/appcore/reading.h"

namespace {
void check(bool ok) {
  if (!ok) std::abort();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view line(reinterpret_cast<const char*>(data), size);
  const auto r = tolvanger::app::Reading::of(line);
  check(r.raw == line);
  check(r.clock.size() <= 8);
  if (r.clock.empty()) check(r.plain == r.raw && r.house);
  return 0;
}
