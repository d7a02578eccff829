#include "tolvanger/service/secret_names.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "tolvanger/kit/ids.h"
#include "tolvanger/kit/json_fields.h"
#include "tolvanger/kit/service_error.h"

namespace tolvanger::service {

using nlohmann::json;

namespace {

constexpr size_t kMaxHosts = 32;
constexpr size_t kMaxRules = 16;
constexpr size_t kMaxUserAgent = 512;

const json* member(const json& object, const char* key) {
  auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

// An integer above zero under `key`; anything else is absent.
std::optional<int64_t> positive(const json& object, const char* key) {
  const json* v = member(object, key);
  if (v == nullptr) return std::nullopt;
  auto i = JsonFields::integer(*v);
  if (!i || *i <= 0) return std::nullopt;
  return i;
}

std::optional<std::string> userAgentOf(const json& object) {
  const json* v = member(object, "user_agent");
  if (v == nullptr || !v->is_string()) return std::nullopt;
  const auto& text = v->get_ref<const std::string&>();
  if (text.empty() || text.size() > kMaxUserAgent) return std::nullopt;
  for (unsigned char c : text) {
    if (c < 32 || c > 126) return std::nullopt;
  }
  return text;
}

// The stored form of a rule: all three lists required, taken as they stand.
std::optional<AccessRule> ruleFromCoded(const json& v) {
  if (!v.is_object()) return std::nullopt;
  const json* hosts = member(v, "hosts");
  const json* methods = member(v, "methods");
  const json* paths = member(v, "paths");
  if (hosts == nullptr || methods == nullptr || paths == nullptr) {
    return std::nullopt;
  }
  auto h = JsonFields::texts(*hosts), m = JsonFields::texts(*methods),
       p = JsonFields::texts(*paths);
  if (!h || !m || !p) return std::nullopt;
  return AccessRule{std::move(*h), std::move(*m), std::move(*p)};
}

}  // namespace

// ---- SecretName ------------------------------------------------------------

json SecretName::asDictionary() const {
  json out = {{"name", name},
              {"kind", kind},
              {"hosts", hosts},
              {"updated_at", updatedAt}};
  if (!rules.empty()) out["rules"] = AccessRule::asList(rules);
  if (signedInAt) out["signed_in_at"] = *signedInAt;
  if (expiresBy) out["expires_by"] = *expiresBy;
  return out;
}

json SecretName::coded() const {
  json list = json::array();
  for (const AccessRule& rule : rules) list.push_back(rule.asDictionary());
  json out = {{"name", name},
              {"kind", kind},
              {"hosts", hosts},
              {"rules", list},
              {"updatedAt", updatedAt}};
  if (signedInAt) out["signedInAt"] = *signedInAt;
  if (expiresBy) out["expiresBy"] = *expiresBy;
  if (userAgent) out["userAgent"] = *userAgent;
  return out;
}

std::optional<SecretName> SecretName::fromCoded(const json& value) {
  if (!value.is_object()) return std::nullopt;
  const json* name = member(value, "name");
  const json* kind = member(value, "kind");
  const json* hosts = member(value, "hosts");
  const json* rules = member(value, "rules");
  const json* updatedAt = member(value, "updatedAt");
  if (name == nullptr || !name->is_string() || kind == nullptr ||
      !kind->is_string() || hosts == nullptr || rules == nullptr ||
      !rules->is_array() || updatedAt == nullptr) {
    return std::nullopt;
  }
  SecretName out;
  out.name = name->get<std::string>();
  out.kind = kind->get<std::string>();
  auto hostList = JsonFields::texts(*hosts);
  auto updated = JsonFields::integer(*updatedAt);
  if (!hostList || !updated) return std::nullopt;
  out.hosts = std::move(*hostList);
  out.updatedAt = *updated;
  for (const json& r : *rules) {
    auto rule = ruleFromCoded(r);
    if (!rule) return std::nullopt;
    out.rules.push_back(std::move(*rule));
  }

  // Optionals: absent or null is "not there"; another type spoils the entry.
  for (auto [key, field] : {std::pair{"signedInAt", &out.signedInAt},
                            std::pair{"expiresBy", &out.expiresBy}}) {
    const json* v = member(value, key);
    if (v == nullptr || v->is_null()) continue;
    *field = JsonFields::integer(*v);
    if (!*field) return std::nullopt;
  }
  if (const json* v = member(value, "userAgent"); v && !v->is_null()) {
    if (!v->is_string()) return std::nullopt;
    out.userAgent = v->get<std::string>();
  }
  return out;
}

// ---- Building from an announcement -----------------------------------------

std::vector<SecretName> buildSecretNames(const json& secretsList, int64_t now) {
  if (!secretsList.is_array()) {
    throw ServiceError::refused("no list of secrets in that");
  }
  if (secretsList.size() > kMaxAnnouncedSecrets) {
    throw ServiceError::refused("that is more secrets than this Mac will list");
  }

  std::vector<SecretName> out;
  out.reserve(secretsList.size());
  for (const json& entry : secretsList) {
    const json* name = entry.is_object() ? member(entry, "name") : nullptr;
    if (name == nullptr || !name->is_string() ||
        !Ids::isID(name->get_ref<const std::string&>())) {
      throw ServiceError::refused("a secret has no usable name");
    }

    SecretName secret;
    secret.name = name->get<std::string>();

    if (const json* hosts = member(entry, "hosts")) {
      for (std::string& host :
           JsonFields::texts(*hosts).value_or(std::vector<std::string>{})) {
        if (secret.hosts.size() == kMaxHosts) break;
        if (host.empty() || host.find('\n') != std::string::npos) continue;
        secret.hosts.push_back(std::move(host));
      }
    }

    if (const json* rules = member(entry, "rules");
        rules && rules->is_array()) {
      const size_t read = std::min(rules->size(), kMaxRules);
      for (size_t i = 0; i < read; ++i) {
        if (auto rule = AccessRule::parse((*rules)[i])) {
          secret.rules.push_back(std::move(*rule));
        }
      }
    }
    // The rules' hosts join the list after the cut, so it may pass 32.
    for (const AccessRule& rule : secret.rules) {
      for (const std::string& host : rule.hosts) {
        if (std::find(secret.hosts.begin(), secret.hosts.end(), host) ==
            secret.hosts.end()) {
          secret.hosts.push_back(host);
        }
      }
    }

    const json* kind = member(entry, "kind");
    secret.kind = kind != nullptr && kind->is_string()
                      ? kind->get<std::string>()
                      : "bearer";
    secret.updatedAt = now;
    secret.signedInAt = positive(entry, "signed_in_at");
    secret.expiresBy = positive(entry, "expires_by");
    secret.userAgent = userAgentOf(entry);
    out.push_back(std::move(secret));
  }
  return out;
}

// ---- SecretNames -----------------------------------------------------------

SecretNames::SecretNames(Home home) : home_(std::move(home)) {
  const auto text = home_.read(kFile);
  if (!text) return;
  const json parsed = json::parse(*text, nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_array()) return;
  std::map<std::string, SecretName, std::less<>> loaded;
  for (const json& entry : parsed) {
    auto secret = SecretName::fromCoded(entry);
    if (!secret) return;
    std::string name = secret->name;
    loaded.insert_or_assign(std::move(name), std::move(*secret));
  }
  MutexLock lock(mu_);
  names_ = std::move(loaded);
}

std::vector<SecretName> SecretNames::all() const {
  MutexLock lock(mu_);
  std::vector<SecretName> out;
  out.reserve(names_.size());
  for (const auto& [name, secret] : names_) out.push_back(secret);
  return out;
}

std::optional<SecretName> SecretNames::get(std::string_view name) const {
  MutexLock lock(mu_);
  auto it = names_.find(name);
  if (it == names_.end()) return std::nullopt;
  return it->second;
}

bool SecretNames::has(std::string_view name) const {
  MutexLock lock(mu_);
  return names_.find(name) != names_.end();
}

std::vector<std::string> SecretNames::replace(std::vector<SecretName> list) {
  std::vector<std::string> added = replaceInMemory(std::move(list));
  writeFile();
  return added;
}

void SecretNames::writeFile() {
  std::vector<SecretName> snapshot;
  uint64_t version;
  {
    MutexLock lock(mu_);
    snapshot.reserve(names_.size());
    for (const auto& [name, secret] : names_) snapshot.push_back(secret);
    version = version_;
  }
  persist(snapshot, version);
}

std::vector<std::string> SecretNames::replaceInMemory(
    std::vector<SecretName> list) {
  std::map<std::string, SecretName, std::less<>> fresh;
  for (SecretName& secret : list) {
    std::string name = secret.name;
    fresh.insert_or_assign(std::move(name), std::move(secret));
  }

  std::vector<std::string> added;
  MutexLock lock(mu_);
  for (const auto& [name, secret] : fresh) {
    if (names_.find(name) == names_.end()) added.push_back(name);
  }
  names_ = std::move(fresh);
  ++version_;
  return added;
}

void SecretNames::persist(const std::vector<SecretName>& list,
                          uint64_t version) {
  MutexLock lock(writeMu_);
  if (version <= written_) return;
  written_ = version;
  try {
    json array = json::array();
    for (const SecretName& secret : list) array.push_back(secret.coded());
    // nlohmann's objects keep their keys sorted, so the dump is sorted too.
    home_.writeAtomically(array.dump(), kFile);
  } catch (const std::exception&) {
    // The memory copy serves until the next announcement writes again.
  }
}

}  // namespace tolvanger::service
