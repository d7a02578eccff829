// Fuzz target for the profile reader: the JSON of a behaviour profile as
// `inspect` reads it, with the scoring of its check rows.
//
// A refusal is the only failure allowed. An accepted profile must have
// reproduced every one of its check rows, carry the fingerprint of exactly
// the bytes given, and score each row's message again without failing, to
// the same verdict twice.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "tolvanger/kit/service_error.h"
#include "tolvanger/service/scoring.h"
#include "tolvanger/service/tripwire.h"

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using tolvanger::ServiceError;
  using tolvanger::service::Inspected;
  using tolvanger::service::Tripwire;
  namespace Scoring = tolvanger::service::Scoring;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  Inspected got;
  try {
    got = Tripwire::inspect(input);
  } catch (const ServiceError& e) {
    check(e.isRefused());
    return 0;
  }
  check(got.checked == static_cast<int64_t>(got.profile.checks.size()));
  check(got.checked >= 1);
  check(got.fingerprint == Tripwire::digest(input));
  for (const Scoring::Check& row : got.profile.checks) {
    const double s = Scoring::score(got.profile, row.msg);
    check(s > 0 && s < 1);
    check(Scoring::verdict(got.profile, s) ==
          Scoring::verdict(got.profile, Scoring::score(got.profile, row.msg)));
  }
  return 0;
}
