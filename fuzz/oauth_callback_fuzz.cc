// Fuzz target for reading the code from an OAuth callback address.
//
// The input's first line is the state this attempt expects, the rest the
// address. Reading either gives a code or throws OAuthError; nothing else
// escapes. A code that was read must come back unchanged from an address
// built around it, and with another state the same address is refused.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tolvanger/phone/oauth_flow.h"

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  namespace FormEncoding = tolvanger::phone::FormEncoding;
  using tolvanger::phone::OAuthError;
  using tolvanger::phone::OAuthFlow;

  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t newline = input.find('\n');
  const std::string_view state =
      newline == std::string_view::npos ? "" : input.substr(0, newline);
  const std::string_view url =
      newline == std::string_view::npos ? input : input.substr(newline + 1);
  std::string code;
  try {
    code = OAuthFlow::code(url, state);
  } catch (const OAuthError& error) {
    check(error.what()[0] != '\0');
    return 0;
  }
  check(!code.empty());
  const std::string rebuilt =
      "tolvanger://oauth/x?state=" + FormEncoding::encode(state) +
      "&code=" + FormEncoding::encode(code);
  if (rebuilt.size() <= OAuthFlow::kMaxCallback) {
    check(OAuthFlow::code(rebuilt, state) == code);
  }
  try {
    OAuthFlow::code(url, std::string(state) + "x");
    check(false);
  } catch (const OAuthError& error) {
    check(error.kind() == OAuthError::Kind::kMalformed);
  }
  return 0;
}
