#include "tolvanger/service/config.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>

#include "tolvanger/kit/json_fields.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/port/system.h"

namespace tolvanger::service {

namespace {

using nlohmann::json;

const json* member(const json& object, const char* key) {
  auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

// Thrown inside the strict decode when a key is missing or mistyped.
struct Mismatch {};

class Strict {
 public:
  explicit Strict(const json& object) : object_(object) {}

  const json& required(const char* key) const {
    const json* value = member(object_, key);
    if (value == nullptr) throw Mismatch{};
    return *value;
  }
  // An optional key: absent or null leaves `out` as it is.
  template <typename T, typename Read>
  void optional(const char* key, T& out, Read read) const {
    const json* value = member(object_, key);
    if (value == nullptr || value->is_null()) return;
    out = read(*value);
  }

 private:
  const json& object_;
};

std::string text(const json& v) {
  if (!v.is_string()) throw Mismatch{};
  return v.get<std::string>();
}
int64_t integer(const json& v) {
  auto i = JsonFields::integer(v);
  if (!i) throw Mismatch{};
  return *i;
}
bool flag(const json& v) {
  if (!v.is_boolean()) throw Mismatch{};
  return v.get<bool>();
}
std::vector<std::string> textList(const json& v) {
  auto list = JsonFields::texts(v);
  if (!list) throw Mismatch{};
  return *list;
}

// Every top-level key required with its exact type; inside `cloud` and
// `tripwire` each key is optional. Values are taken as they stand. Keys the
// file has beyond these are ignored.
std::optional<Config> decodeStrictly(const json& root) {
  if (!root.is_object()) return std::nullopt;
  try {
    Strict top(root);
    Config c;
    c.daemonID = text(top.required("daemon_id"));
    c.host = text(top.required("host"));
    c.listen = textList(top.required("listen"));
    c.listenPort = integer(top.required("listen_port"));
    c.expirySeconds = integer(top.required("expiry_s"));
    c.minExpirySeconds = integer(top.required("min_expiry_s"));
    c.maxExpirySeconds = integer(top.required("max_expiry_s"));
    c.pairWindowSeconds = integer(top.required("pair_window_s"));
    c.redeemGraceSeconds = integer(top.required("redeem_grace_s"));
    c.credentialTTLSeconds = integer(top.required("credential_ttl_s"));
    c.requireSealed = flag(top.required("require_sealed"));
    c.maxPhones = integer(top.required("max_phones"));

    const json& cloud = top.required("cloud");
    if (!cloud.is_object()) return std::nullopt;
    Strict cloudKeys(cloud);
    cloudKeys.optional("enabled", c.cloud.enabled, flag);
    cloudKeys.optional("container", c.cloud.container, text);

    const json& tripwire = top.required("tripwire");
    if (!tripwire.is_object()) return std::nullopt;
    Strict tripwireKeys(tripwire);
    tripwireKeys.optional("enabled", c.tripwire.enabled, flag);
    tripwireKeys.optional("stale_days", c.tripwire.staleDays, integer);
    tripwireKeys.optional("window_s", c.tripwire.windowSeconds, integer);
    return c;
  } catch (const Mismatch&) {
    return std::nullopt;
  }
}

void rescueText(const json& object, const char* key, std::string& out) {
  const json* v = member(object, key);
  if (v != nullptr && v->is_string() &&
      !v->get_ref<const std::string&>().empty()) {
    out = v->get<std::string>();
  }
}
void rescueInteger(const json& object, const char* key, int64_t& out) {
  const json* v = member(object, key);
  if (v == nullptr) return;
  if (auto i = JsonFields::integer(*v)) out = *i;
}
void rescueFlag(const json& object, const char* key, bool& out) {
  const json* v = member(object, key);
  if (v != nullptr && v->is_boolean()) out = v->get<bool>();
}

// Starts from the defaults and takes each key that still reads by itself,
// silently passing over what is missing or of another type.
Config rescue(const json& root) {
  Config c = Config::defaults();
  if (!root.is_object()) return c;

  rescueText(root, "daemon_id", c.daemonID);
  rescueText(root, "host", c.host);
  if (const json* listen = member(root, "listen")) {
    if (auto list = JsonFields::texts(*listen); list && !list->empty()) {
      c.listen = std::move(*list);
    }
    // A single text stands for a list of one, even an empty one.
    if (listen->is_string()) c.listen = {listen->get<std::string>()};
  }
  rescueInteger(root, "listen_port", c.listenPort);
  rescueInteger(root, "expiry_s", c.expirySeconds);
  rescueInteger(root, "min_expiry_s", c.minExpirySeconds);
  rescueInteger(root, "max_expiry_s", c.maxExpirySeconds);
  rescueInteger(root, "pair_window_s", c.pairWindowSeconds);
  rescueInteger(root, "redeem_grace_s", c.redeemGraceSeconds);
  rescueInteger(root, "credential_ttl_s", c.credentialTTLSeconds);
  rescueFlag(root, "require_sealed", c.requireSealed);
  if (const json* v = member(root, "max_phones")) {
    if (auto i = JsonFields::integer(*v); i && *i >= 1) c.maxPhones = *i;
  }
  if (const json* cloud = member(root, "cloud"); cloud && cloud->is_object()) {
    rescueFlag(*cloud, "enabled", c.cloud.enabled);
    rescueText(*cloud, "container", c.cloud.container);
  }
  if (const json* tripwire = member(root, "tripwire");
      tripwire && tripwire->is_object()) {
    rescueFlag(*tripwire, "enabled", c.tripwire.enabled);
    rescueInteger(*tripwire, "stale_days", c.tripwire.staleDays);
    rescueInteger(*tripwire, "window_s", c.tripwire.windowSeconds);
  }
  return c;
}

}  // namespace

Config Config::defaults() {
  Config c;
  c.daemonID = "tolvanger-" + Random::hex(4);
  c.host = machineName();
  return c;
}

std::string Config::machineName() {
  std::string name = port::hostName();
  constexpr std::string_view suffix = ".local";
  if (name.size() >= suffix.size() &&
      name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
    name.resize(name.size() - suffix.size());
  }
  return name.empty() ? "Mac" : name;
}

Config Config::load(const Home& home) {
  std::optional<std::string> bytes = home.read(fileName);
  if (!bytes) return defaults();
  json root = json::parse(*bytes, nullptr, /*allow_exceptions=*/false);
  if (root.is_discarded()) return defaults();
  if (auto strict = decodeStrictly(root)) return std::move(*strict);
  return rescue(root);
}

void Config::save(const Home& home) const {
  // nlohmann's objects keep their keys sorted.
  json root = {
      {"daemon_id", daemonID},
      {"host", host},
      {"listen", listen},
      {"listen_port", listenPort},
      {"expiry_s", expirySeconds},
      {"min_expiry_s", minExpirySeconds},
      {"max_expiry_s", maxExpirySeconds},
      {"pair_window_s", pairWindowSeconds},
      {"redeem_grace_s", redeemGraceSeconds},
      {"credential_ttl_s", credentialTTLSeconds},
      {"require_sealed", requireSealed},
      {"max_phones", maxPhones},
      {"cloud", {{"enabled", cloud.enabled}, {"container", cloud.container}}},
      {"tripwire",
       {{"enabled", tripwire.enabled},
        {"stale_days", tripwire.staleDays},
        {"window_s", tripwire.windowSeconds}}},
  };
  // A host name that is not UTF-8 is written with replacement characters
  // rather than failing the save.
  home.writeAtomically(
      root.dump(2, ' ', false, json::error_handler_t::replace) + "\n",
      fileName);
}

int64_t Config::window(std::optional<int64_t> requested) const {
  return std::min(std::max(requested.value_or(expirySeconds), minExpirySeconds),
                  maxExpirySeconds);
}

}  // namespace tolvanger::service
