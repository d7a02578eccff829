// Where the software phone keeps the tokens of its OAuth sign-ins so that
// they outlive the process without ever being written in clear: one file in
// the phone's home, "oauth-tokens.sealed" (mode 0600), sealed under the
// person's passphrase with scrypt and AES-256-GCM (kit/crypto/passphrase.h).
//
// Each `OAuthCredential` is a secret of the phone's list: its name, the
// provider and abilities it was granted with (from which its access rules
// come), and the tokens. `accessToken` refreshes the tokens when they have
// run out and keeps the new ones.
//
// Thread safety: `TokenVault` holds the home's path and the passphrase; it is
// for one thread at a time, and is not guarded against another process
// writing the same file at once.
#ifndef TOLVANGER_PHONE_TOKEN_VAULT_H_
#define TOLVANGER_PHONE_TOKEN_VAULT_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/passphrase.h"
#include "tolvanger/phone/oauth_catalogue.h"
#include "tolvanger/phone/oauth_flow.h"
#include "tolvanger/phone/phone_home.h"

namespace tolvanger::phone {

struct OAuthCredential {
  // The secret's name in the phone's list.
  std::string name;
  std::string provider;
  std::vector<std::string> abilities;
  OAuthTokens tokens;

  // The entry the phone announces: kind bearer, the abilities' rules and
  // their hosts. Throws Refusal when `provider` lacks one of the abilities.
  SecretEntry entry(const OAuthProvider& provider) const;
};

class TokenVault {
 public:
  static constexpr const char* kFile = "oauth-tokens.sealed";
  // A sealed file larger than this is refused unread.
  static constexpr size_t kMaxFile = 1 << 20;
  // A token this close to its end counts as run out.
  static constexpr int64_t kRefreshMargin = 60;

  // `passphrase` opens and seals the file; it is kept, wiped with the vault.
  // The cost is for tests, which need not spend 32 MiB on every seal.
  TokenVault(PhoneHome home, SecretBytes passphrase,
             crypto::ScryptCost cost = {});

  // Every credential kept; empty when there is no file. Throws Refusal
  // ("The passphrase does not open <file>.") for a wrong passphrase or a
  // damaged file.
  std::vector<OAuthCredential> load() const;
  // Seals and writes the whole list.
  void save(const std::vector<OAuthCredential>& credentials) const;
  // Adds or replaces the credential of that name.
  void put(OAuthCredential credential) const;
  // The credential named `name`, or nothing.
  std::optional<OAuthCredential> find(std::string_view name) const;

  // The access token of `name`, refreshed through `flow` first when it has
  // run out at `now` (the new tokens are kept). Throws Refusal when there is
  // no such credential, and as the flow does.
  std::string accessToken(std::string_view name, const OAuthFlow& flow,
                          int64_t now) const;

 private:
  PhoneHome home_;
  SecretBytes passphrase_;
  crypto::ScryptCost cost_;
};

}  // namespace tolvanger::phone

#endif  // TOLVANGER_PHONE_TOKEN_VAULT_H_
