// The computer's copy of the phone's list of secrets: names, kinds and where
// each may be sent, never values.
//
// `SecretName` is one announced secret as the service keeps it. `SecretNames`
// holds the whole list in memory and in `secrets.json` in the home; every
// announcement replaces it whole. `buildSecretNames` turns the list a phone
// sent into `SecretName`s, refusing the whole list if one entry is unusable.
//
// Thread safety: `SecretName` is a plain value and `buildSecretNames` is
// pure. Every member of `SecretNames` may be called from any thread; one lock
// guards the map, readers get copies, and the file is written after the lock
// is released (an older snapshot never overwrites a newer one).
#ifndef TOLVANGER_SERVICE_SECRET_NAMES_H_
#define TOLVANGER_SERVICE_SECRET_NAMES_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/access_rule.h"
#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/service/home.h"

namespace tolvanger::service {

struct SecretName {
  std::string name;
  // "bearer", "basic", "api_key" or "cookie".
  std::string kind;
  // The announced hosts, followed by every rule's hosts not among them.
  std::vector<std::string> hosts;
  std::vector<AccessRule> rules;
  // Whole seconds since 1970 when this copy was taken.
  int64_t updatedAt = 0;
  // For a site session: signed in, cookies run out, browser identification.
  std::optional<int64_t> signedInAt;
  std::optional<int64_t> expiresBy;
  std::optional<std::string> userAgent;

  // What an agent is shown: name, kind, hosts, updated_at; rules when not
  // empty; signed_in_at and expires_by when present. Never the user agent.
  nlohmann::json asDictionary() const;

  // The stored form, keyed by the field names (updatedAt, signedInAt, ...);
  // absent optionals are left out.
  nlohmann::json coded() const;
  // Reads the stored form; nothing if a field is missing or of the wrong type.
  static std::optional<SecretName> fromCoded(const nlohmann::json& value);

  bool operator==(const SecretName&) const = default;
};

// The most secrets one announcement may hold.
inline constexpr size_t kMaxAnnouncedSecrets = 128;

// Builds the names of an announced list of secret objects, in order, taken at
// `now` (whole seconds). Hosts are kept as sent, without empty entries or
// ones holding a line feed, at most 32; of the rules, the first 16 are read
// and those that do not parse are dropped; the rules' hosts are then added.
// Throws ServiceError::refused with "that is more secrets than this Mac will
// list" above 128 entries, and "a secret has no usable name" when any entry's
// name is missing or not an id; nothing of the list is kept then.
std::vector<SecretName> buildSecretNames(const nlohmann::json& secretsList,
                                         int64_t now);

class SecretNames {
 public:
  static constexpr const char* kFile = "secrets.json";

  // Loads `secrets.json`; a file that is missing or does not decode gives an
  // empty registry without complaint.
  explicit SecretNames(Home home);

  SecretNames(const SecretNames&) = delete;
  SecretNames& operator=(const SecretNames&) = delete;

  // Copies, sorted by name.
  std::vector<SecretName> all() const;
  std::optional<SecretName> get(std::string_view name) const;
  bool has(std::string_view name) const;

  // Replaces the whole registry with `list` (where a name stands twice, the
  // later entry wins) and writes the file; a failed write is swallowed and
  // the memory copy stands. Returns the names that were not there before,
  // sorted.
  std::vector<std::string> replace(std::vector<SecretName> list);

  // `replace` in two halves, for a caller that must make the change one step
  // with changes elsewhere under a lock of its own but write no file under
  // it: the change in memory, returning the new names, and then the file as
  // the registry stands (unless a newer state was written already).
  std::vector<std::string> replaceInMemory(std::vector<SecretName> list);
  void writeFile();

 private:
  void persist(const std::vector<SecretName>& list, uint64_t version);

  const Home home_;
  mutable Mutex mu_;
  std::map<std::string, SecretName, std::less<>> names_ GUARDED_BY(mu_);
  uint64_t version_ GUARDED_BY(mu_) = 0;
  // Orders writes of the file only; never held together with `mu_`.
  Mutex writeMu_;
  uint64_t written_ GUARDED_BY(writeMu_) = 0;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_SECRET_NAMES_H_
