#include "tolvanger/phone/token_vault.h"

#include <algorithm>

#include "tolvanger/kit/secret_json.h"

namespace tolvanger::phone {

using nlohmann::json;

SecretEntry OAuthCredential::entry(const OAuthProvider& p) const {
  SecretEntry e;
  e.name = name;
  e.kind = "bearer";
  for (const std::string& id : abilities) {
    const Ability* a = p.ability(id);
    if (!a) {
      throw Refusal(p.name + " has no ability called " + id + ".");
    }
    for (const AccessRule& rule : a->rules) {
      if (std::find(e.rules.begin(), e.rules.end(), rule) == e.rules.end()) {
        e.rules.push_back(rule);
      }
      for (const std::string& host : rule.hosts) {
        if (std::find(e.hosts.begin(), e.hosts.end(), host) == e.hosts.end()) {
          e.hosts.push_back(host);
        }
      }
    }
  }
  return e;
}

TokenVault::TokenVault(PhoneHome home, SecretBytes passphrase,
                       crypto::ScryptCost cost)
    : home_(std::move(home)), passphrase_(std::move(passphrase)), cost_(cost) {}

std::vector<OAuthCredential> TokenVault::load() const {
  std::vector<OAuthCredential> out;
  const std::optional<SecretBytes> sealed = home_.read(kFile);
  if (!sealed) return out;
  const std::optional<SecretBytes> plain =
      crypto::openWithPassphrase(passphrase_.reveal(), sealed->reveal());
  const auto refuse = [this] {
    return Refusal("The passphrase does not open " + home_.file(kFile) +
                   ", or the file is damaged.");
  };
  if (!plain) throw refuse();
  const ByteView view = plain->reveal();
  json root = json::parse(view.begin(), view.end(), nullptr, false);
  const auto list = root.is_object() ? root.find("credentials") : root.end();
  if (!root.is_object() || list == root.end() || !list->is_array()) {
    throw refuse();
  }
  for (const json& item : *list) {
    const std::string* name = PhoneJSON::text(item, "name");
    const std::string* provider = PhoneJSON::text(item, "provider");
    const auto tokens = item.find("tokens");
    if (!name || !provider || tokens == item.end()) continue;
    std::optional<OAuthTokens> parsed = OAuthTokens::fromJSON(*tokens);
    if (!parsed) continue;
    OAuthCredential c{*name, *provider, {}, std::move(*parsed)};
    if (const auto abilities = item.find("abilities");
        abilities != item.end() && abilities->is_array()) {
      for (const json& a : *abilities) {
        if (a.is_string()) c.abilities.push_back(a.get<std::string>());
      }
    }
    out.push_back(std::move(c));
  }
  // The parsed tree held the tokens too.
  for (json& item : (*list)) {
    const auto tokens = item.find("tokens");
    if (tokens == item.end() || !tokens->is_object()) continue;
    for (auto& [key, value] : tokens->items()) {
      if (value.is_string()) wipe(value.get_ref<std::string&>());
    }
  }
  return out;
}

void TokenVault::save(const std::vector<OAuthCredential>& credentials) const {
  json list = json::array();
  for (const OAuthCredential& c : credentials) {
    list.push_back({{"name", c.name},
                    {"provider", c.provider},
                    {"abilities", c.abilities},
                    {"tokens", c.tokens.toJSON()}});
  }
  std::string text = json{{"credentials", std::move(list)}}.dump();
  const Bytes sealed =
      crypto::sealWithPassphrase(passphrase_.reveal(), asBytes(text), cost_);
  wipe(text);
  home_.write(kFile, sealed);
}

void TokenVault::put(OAuthCredential credential) const {
  std::vector<OAuthCredential> all = load();
  std::erase_if(
      all, [&](const OAuthCredential& c) { return c.name == credential.name; });
  all.push_back(std::move(credential));
  std::sort(all.begin(), all.end(),
            [](const auto& a, const auto& b) { return a.name < b.name; });
  save(all);
}

std::optional<OAuthCredential> TokenVault::find(std::string_view name) const {
  for (OAuthCredential& c : load()) {
    if (c.name == name) return std::move(c);
  }
  return std::nullopt;
}

std::string TokenVault::accessToken(std::string_view name,
                                    const OAuthFlow& flow, int64_t now) const {
  std::optional<OAuthCredential> c = find(name);
  if (!c) {
    throw Refusal("This phone holds no sign-in called " + std::string(name) +
                  ".");
  }
  if (c->tokens.expiresAt - kRefreshMargin <= now) {
    c->tokens = flow.refresh(c->tokens);
    put(*c);
  }
  return c->tokens.accessToken;
}

}  // namespace tolvanger::phone
