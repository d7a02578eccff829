// The services a person can sign into from the phone, and the recipes for
// services whose tokens are pasted by hand.
//
// `OAuthProvider` says how to run OAuth against one service and breaks what
// it offers into abilities: each names the scopes to ask for and the access
// rules that the resulting credential is pinned to, so a token granted for
// mail can only go to the mail API. `TokenPreset` is the recipe for a token
// made on the service's own page: what kind of secret it is and which rules
// each ability gets. Both are compiled in and the same everywhere.
//
// Hosts and client identifiers are not part of the catalogue: they belong to
// the deployment. The compiled-in data names hosts by role ("{auth}",
// "{token}", "{api}", ...); `OAuthDeployment` reads the file that gives each
// role its host and each provider its client id, and `resolve` gives a
// provider or preset with real hosts. A role the file does not name leaves
// the provider unusable with a sentence that says which role is missing.
//
// Thread safety: plain values and pure functions over constant data.
#ifndef TOLVANGER_PHONE_OAUTH_CATALOGUE_H_
#define TOLVANGER_PHONE_OAUTH_CATALOGUE_H_

#include <cstddef>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/access_rule.h"

namespace tolvanger::phone {

// One named grant a person can tick.
struct Ability {
  std::string id;
  std::string name;
  std::string about;
  std::vector<std::string> scopes;
  std::vector<AccessRule> rules;

  bool operator==(const Ability&) const = default;
};

// Where the provider sends the person back.
struct Redirect {
  enum class Kind { kScheme, kReversedClientID };
  Kind kind = Kind::kScheme;
  // The custom scheme, for kScheme.
  std::string scheme;

  static constexpr std::string_view kGooglePrefix =
      "com.googleusercontent.apps.";

  // The redirect URI for `clientID` and the provider `providerID`: for a
  // scheme "<scheme>://oauth/<provider id>"; for the reversed client id
  // "com.googleusercontent.apps.<client id without
  // .apps.googleusercontent.com>:/oauth2redirect".
  std::string uri(std::string_view clientID, std::string_view providerID) const;
  // The URI scheme of `uri(...)`, which a callback must carry.
  std::string schemeFor(std::string_view clientID) const;
};

// How the client identifies itself at the token endpoint.
enum class ClientAuth {
  // client_id in the form.
  kForm,
  // "authorization: Basic base64(client_id + ":")", an empty password.
  kBasic,
};

struct Grant {
  enum class Kind { kCode, kDevice };
  Kind kind = Kind::kCode;
  // The device authorisation endpoint, for kDevice.
  std::string deviceURL;
};

struct OAuthProvider {
  std::string id;
  std::string name;
  std::string authorizationURL;
  std::string tokenURL;
  std::vector<std::string> baseScopes;
  std::vector<Ability> abilities;
  // Extra query items of the authorisation URL, in this order.
  std::vector<std::pair<std::string, std::string>> authorizationExtras;
  Redirect redirect;
  ClientAuth clientAuth = ClientAuth::kForm;
  Grant grant;
  std::string symbol;

  // The compiled-in catalogue, in its fixed order, hosts still as roles.
  static const std::vector<OAuthProvider>& all();
  static const OAuthProvider* named(std::string_view id);

  // `baseScopes` followed by the scopes of `chosen`, each once, in order of
  // first appearance.
  std::vector<std::string> scopes(const std::vector<Ability>& chosen) const;
  const std::vector<Ability>& allAbilities() const { return abilities; }
  const Ability* ability(std::string_view abilityID) const;
};

// A recipe for a token the person makes on the service's page.
struct TokenPreset {
  struct Host {
    enum class Kind { kSite, kFixed };
    Kind kind = Kind::kFixed;
    // For kSite: the fixed suffix joined to the person's site name, and the
    // label of the field that asks for that name.
    std::string suffix;
    std::string label;
  };

  std::string id;
  std::string name;
  std::string symbol;
  std::string tokenPage;
  std::string instruction;
  // "bearer", "basic" or "api_key".
  std::string kind;
  std::optional<std::string> emailLabel;
  Host host;
  std::vector<Ability> abilities;

  static const std::vector<TokenPreset>& all();
  static const TokenPreset* named(std::string_view id);

  // The abilities with "{site}" in their rules' hosts replaced by `site`
  // joined to the suffix (for Host::kSite). Throws Refusal for a site name
  // that is not a plain DNS label.
  std::vector<Ability> abilitiesFor(std::string_view site) const;
};

// The deployment's hosts and client identifiers, from a JSON file:
//
//   {"providers": {"<id>": {"client_id": "...",
//                           "hosts": {"auth": "...", "api": "...", ...}}},
//    "presets":   {"<id>": {"hosts": {"api": "...", "page": "...", ...}}},
//    "ca_file": "/optional/extra/ca.pem"}
//
// A host is lower-cased and may carry ":port". The role "token" falls back
// to "auth" when not given.
class OAuthDeployment {
 public:
  // Far above any real deployment file.
  static constexpr size_t kMaxFile = 64 << 10;

  // Reads the file's text. Throws Refusal ("The OAuth configuration ...")
  // when it is no JSON object, a client id is no text, or a host is not a
  // plain host name.
  static OAuthDeployment parse(std::string_view text);
  // Reads `path`; an absent file is an empty deployment.
  static OAuthDeployment load(const std::string& path);

  // The provider `id` with its hosts filled in. Throws Refusal when the
  // catalogue has no such provider, or the file names no client id or no
  // host for one of its roles.
  OAuthProvider provider(std::string_view id) const;
  // The client id registered with provider `id`. Throws Refusal when absent.
  std::string clientID(std::string_view id) const;
  // The preset `id` with its hosts filled in; throws as `provider`.
  TokenPreset preset(std::string_view id) const;

  // An extra CA file to trust besides the system's, for a test deployment.
  const std::optional<std::string>& caFile() const { return caFile_; }

 private:
  struct Entry {
    std::optional<std::string> clientID;
    std::map<std::string, std::string> hosts;
  };
  std::map<std::string, Entry, std::less<>> providers_;
  std::map<std::string, Entry, std::less<>> presets_;
  std::optional<std::string> caFile_;
};

}  // namespace tolvanger::phone

#endif  // TOLVANGER_PHONE_OAUTH_CATALOGUE_H_
