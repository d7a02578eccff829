// The software phone's home: the private directory that keeps its keys, what
// pairing left and the list of secrets it announces, read and written here
// and nowhere else.
//
// The home is $TOLVANGER_PHONE_HOME, else "$XDG_DATA_HOME/Tolvanger Phone",
// else ~/.local/share/tolvanger-phone, made with mode 0700. It holds the
// signer's keys (signer.bin, signer-pq.bin), the phone's X-Wing seed
// (cloud-key.bin), the pairing (pairing.json, which holds the device secret)
// and the list of secrets (secrets.json: names, kinds and hosts, never a
// value). Every file has mode 0600 and is replaced through a temporary name
// and a rename, so a crash leaves the old file or the new one. A file that is
// present but cannot be read as what it should be is refused with a sentence
// that names it, and never silently replaced.
//
// `Refusal` is a failure already worded for the person; the phone's commands
// show it as it stands.
//
// Thread safety: `PhoneHome` holds only its path and may be shared; its
// reads and writes are not guarded against another process writing the same
// home at once. `SavedPairing` (move-only: it holds the device secret),
// `SecretEntry` and `SecretList` are plain values.
#ifndef TOLVANGER_PHONE_PHONE_HOME_H_
#define TOLVANGER_PHONE_PHONE_HOME_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/access_rule.h"
#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/xwing.h"
#include "tolvanger/kit/sign_in.h"
#include "tolvanger/phone/signer.h"

namespace tolvanger::phone {

// A failure worded for the person, shown as it stands.
class Refusal : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What pairing left on this phone: how to reach the Mac, this device's id
// and secret, and the Mac's keys pinned at pairing. The device secret is
// wiped when the value dies.
struct SavedPairing {
  // The base URL of the Mac's phone routes, "http://<host>:<port>".
  std::string address;
  std::string deviceID;
  std::string deviceName;
  std::string deviceSecret;
  std::string daemonID;
  std::string daemonHost;
  std::string daemonFingerprint;
  // DER SubjectPublicKeyInfo of the Mac's P-256 key.
  Bytes daemonSPKI;
  // The Mac's raw ML-DSA-65 key, when it has one.
  std::optional<Bytes> daemonPQ;
  bool cloud = false;
  // Whole seconds since 1970.
  int64_t pairedAt = 0;

  SavedPairing() = default;
  SavedPairing(SavedPairing&&) = default;
  SavedPairing& operator=(SavedPairing&&) = default;
  SavedPairing(const SavedPairing&) = delete;
  SavedPairing& operator=(const SavedPairing&) = delete;
  ~SavedPairing();
};

// One secret the phone holds, as the Mac may know it: never its value.
struct SecretEntry {
  std::string name;
  // "bearer", "basic", "api_key" or "cookie".
  std::string kind;
  std::vector<std::string> hosts;
  // For a site session: when it was signed in, and the browser that did it.
  std::optional<int64_t> signedInAt;
  std::optional<std::string> userAgent;
  // Finer rules, for a credential granted with an ability: where and how it
  // may be used. Empty means anywhere on `hosts`.
  std::vector<AccessRule> rules;

  // A host as a person typed it, lower-cased (ASCII only). Throws Refusal
  // ("That is not a host: "<text>".") when it is empty or holds "/", a
  // blank or a control character.
  static std::string normalHost(std::string_view text);

  // Throws Refusal unless the name is an id (Ids::isID) and the kind one of
  // the four.
  void check() const;
};

// The list of secrets this phone announces, with the sequence number of the
// last announcement.
struct SecretList {
  int64_t seq = 0;
  // Sorted by name, one entry a name.
  std::vector<SecretEntry> entries;

  // The entry named `name`, or null.
  const SecretEntry* find(std::string_view name) const;
  // The kind of the secret named `name`; "bearer" when there is none.
  std::string kindOf(std::string_view name) const;
  // Adds `entry`, in place of one of the same name if there is one.
  void put(SecretEntry entry);
  // Removes the entry named `name`; false when there was none.
  bool remove(std::string_view name);

  // Throws Refusal ("This phone already holds <name> as a <kind> secret, so
  // nothing was signed.") when the sign-in would replace a secret that is
  // not a session.
  void checkSession(const SignInAsk& ask) const;
  // Records the session of a sign-in as a "cookie" secret for its host.
  void putSession(const SignInAsk& ask, int64_t now);

  // The list as the Mac reads it: objects with "name", "kind", "hosts",
  // "rules" when there are any and, for a session, "signed_in_at" and
  // "user_agent".
  nlohmann::json announcement() const;
};

class PhoneHome {
 public:
  static constexpr const char* kPairingFile = "pairing.json";
  static constexpr const char* kSecretsFile = "secrets.json";
  static constexpr const char* kCloudKeyFile = "cloud-key.bin";
  // Far above any file the phone writes; a larger one is refused unread.
  static constexpr size_t kMaxFile = 1 << 20;

  // Where the home is, from the environment as described above. Throws
  // Refusal when no home directory can be found.
  static std::string defaultPath();

  // Makes the home at `path` and any missing parent (each 0700), and gives
  // the home mode 0700 whatever the umask. Throws Refusal when it cannot.
  static PhoneHome open(const std::string& path);
  // The home at `defaultPath()`.
  static PhoneHome open() { return open(defaultPath()); }

  const std::string& path() const { return path_; }
  // The path of the file `name` in the home.
  std::string file(std::string_view name) const;

  // The pairing kept here; null when this phone has not paired. Throws
  // Refusal ("<file> is damaged; pair this phone again.") when the file
  // lacks the address, the device's id or secret, or the Mac's key.
  std::unique_ptr<SavedPairing> pairing() const;
  // As `pairing`, but throws Refusal ("This phone is not paired; run
  // tolvanger-phone pair <link> first.") when there is none.
  std::unique_ptr<SavedPairing> requirePairing() const;
  void savePairing(const SavedPairing& pairing) const;

  // The list of secrets; empty when none was kept. Throws Refusal
  // ("<file> is damaged; ...") when the file is no list.
  SecretList secrets() const;
  void saveSecrets(const SecretList& list) const;

  // This phone's X-Wing key, drawn and kept on first use. Throws Refusal
  // ("<file> does not hold a key.") for a file that holds none.
  crypto::XWingPrivateKey cloudKey() const;
  // The signer whose keys are kept here (SoftwareSigner::open).
  SoftwareSigner signer() const;

 private:
  // The vault keeps its sealed file through the home's reads and writes.
  friend class TokenVault;
  friend void rememberOAuthName(const PhoneHome&, std::string_view,
                                std::string_view);

  explicit PhoneHome(std::string path) : path_(std::move(path)) {}

  // A file's bytes in wipeable memory; nothing if it does not exist.
  std::optional<SecretBytes> read(std::string_view name) const;
  void write(std::string_view name, ByteView data) const;

  std::string path_;
};

}  // namespace tolvanger::phone

#endif  // TOLVANGER_PHONE_PHONE_HOME_H_
