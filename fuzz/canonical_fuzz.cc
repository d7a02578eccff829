// Fuzz target for the canonical text and the fields gate.
//
// For any input that re-encodes, checks that re-encoding is idempotent and
// yields valid UTF-8, that Fields::from refuses exactly what the canonical
// text cannot carry (and, where it accepts, gives the same canonical text),
// and that quoting a text succeeds exactly when the text is valid UTF-8.
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "tolvanger/kit/canonical.h"
#include "tolvanger/kit/fields.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/text.h"

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using tolvanger::CanonicalError;
  using tolvanger::Fields;
  using tolvanger::ServiceError;
  namespace Canonical = tolvanger::Canonical;
  namespace Text = tolvanger::Text;

  const std::string_view input(reinterpret_cast<const char*>(data), size);

  bool quoted = true;
  try {
    Canonical::string(input);
  } catch (const CanonicalError&) {
    quoted = false;
  }
  check(quoted == Text::isValidUTF8(input));

  const nlohmann::json parsed =
      nlohmann::json::parse(input.begin(), input.end(), nullptr, false);
  if (parsed.is_discarded()) {
    bool threw = false;
    try {
      Canonical::reencode(input);
    } catch (const nlohmann::json::exception&) {
      threw = true;
    }
    check(threw);
    return 0;
  }

  std::string once;
  bool encodable = true;
  try {
    once = Canonical::reencode(input);
  } catch (const CanonicalError&) {
    encodable = false;
  }
  if (encodable) {
    check(Canonical::reencode(once) == once);
    check(Text::isValidUTF8(once));
  }

  try {
    const Fields fields = Fields::from(&parsed);
    check(encodable);
    check(Canonical::encode(fields.any()) == once);
  } catch (const ServiceError& e) {
    check(e.isRefused());
  }
  return 0;
}
