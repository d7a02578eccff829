// Fuzz target for the edits of the agent clients' configuration files.
//
// For any TOML text: adding the entry either refuses or gives a text whose
// entry is found; in a text that had none, removing it again finds none, and
// removing from such a text gives it back as it was. For any JSON bytes: adding
// either refuses with a sentence or gives a file that has the entry, and
// removing it gives one that has not.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tolvanger/appcore/wiring.h"

namespace {
void check(bool ok) {
  if (!ok) std::abort();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tolvanger::app;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::vector<std::string> args = {"mcp", "--client", "codex"};
  const bool had = Edit::span(input, "tolvanger").has_value();
  if (!had) check(Edit::tomlWithout(input, "tolvanger") == input);
  try {
    const std::string added = Edit::toml(input, "/s \"q\"", args, "tolvanger");
    check(Edit::span(added, "tolvanger").has_value());
    if (!had) {
      check(!Edit::span(Edit::tomlWithout(added, "tolvanger"), "tolvanger"));
    }
  } catch (const WiringError& e) {
    check(!had && e.what()[0] != '\0');
  }
  try {
    const std::string added = Edit::json(input, "/s", args, "tolvanger");
    check(Edit::jsonHas(added, "tolvanger"));
    check(!Edit::jsonHas(Edit::jsonWithout(added, "tolvanger"), "tolvanger"));
  } catch (const WiringError& e) {
    check(e.what()[0] != '\0');
  }
  return 0;
}
