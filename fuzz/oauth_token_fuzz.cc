// Fuzz target for the answers of a provider's token and device endpoints.
//
// The first byte picks the reader: a token answer, a device-code answer, or
// a device poll. Each gives its value or throws OAuthError, never anything
// else. Tokens that were read have an access token, a lifetime from `now`
// and a refresh token (the answer's or the previous one), and survive the
// vault's coding unchanged.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "tolvanger/phone/oauth_flow.h"

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

constexpr int64_t kNow = 1'700'000'000;

void checkTokens(const tolvanger::phone::OAuthTokens& tokens) {
  using tolvanger::phone::OAuthTokens;
  check(!tokens.accessToken.empty());
  check(tokens.expiresAt >= kNow);
  check(tokens.refreshToken.has_value() && !tokens.refreshToken->empty());
  const auto again = OAuthTokens::fromJSON(tokens.toJSON());
  check(again.has_value());
  check(again->toJSON() == tokens.toJSON());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using tolvanger::phone::DeviceCode;
  using tolvanger::phone::DevicePoll;
  using tolvanger::phone::OAuthError;
  using tolvanger::phone::OAuthFlow;
  using tolvanger::phone::OAuthTokens;

  if (size == 0) return 0;
  const std::string_view answer(reinterpret_cast<const char*>(data) + 1,
                                size - 1);
  try {
    switch (data[0] % 3) {
      case 0:
        checkTokens(OAuthTokens::parse(answer, "previous", kNow, "Test"));
        break;
      case 1: {
        const DeviceCode code = DeviceCode::parse(answer, kNow);
        check(!code.deviceCode.empty() && !code.userCode.empty());
        check(code.verificationURL.starts_with("https"));
        check(code.expiresAt > kNow);
        check(code.interval >= 1);
        break;
      }
      default: {
        const DevicePoll poll = OAuthFlow::devicePoll(answer, kNow, "Test");
        check(poll.tokens.has_value() ==
              (poll.kind == DevicePoll::Kind::kTokens));
        if (poll.tokens) {
          check(!poll.tokens->accessToken.empty());
          check(poll.tokens->expiresAt >= kNow);
        }
        break;
      }
    }
  } catch (const OAuthError& error) {
    check(error.what()[0] != '\0');
  }
  return 0;
}
