// Fuzz target for the pair link parser.
//
// For any input that parses, checks that the link built from the parsed
// fields parses to the same fields and builds to the same link again, and
// that the fields keep their promises (port in range, 32-digit token, daemon
// id and fingerprint not empty). A refusal must always say why.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tolvanger/kit/pair_link.h"

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using tolvanger::PairURL;

  const std::string_view input(reinterpret_cast<const char*>(data), size);
  std::string why;
  const auto url = PairURL::parse(input, &why);
  if (!url) {
    check(!why.empty());
    return 0;
  }
  check(url->port >= 1 && url->port <= 65535);
  check(url->token.size() == 32);
  check(!url->daemonID.empty() && !url->fingerprint.empty());

  const std::string link = url->link();
  const auto again = PairURL::parse(link);
  check(again.has_value());
  check(*again == *url);
  check(again->link() == link);
  return 0;
}
