// The registry of paired phones, and the recovery codes that let a phone that
// lost its keys take its own slot back.
//
// A `Device` is one paired phone: its public keys, the bearer secret of its
// calls and the salted hashes of its unused recovery codes. `Devices` keeps
// them in memory and in `devices.json` in the home, rewriting the whole file
// on every change. `Recovery` makes, normalises, hashes and matches codes;
// plain codes are never stored.
//
// Thread safety: `Device` is a plain value. Every member of `Devices` may be
// called from any thread; one lock guards the map and is never held across a
// file write, so two quick changes may reach the disk in either order, though
// an older snapshot never overwrites a newer one. `Recovery` is pure.
#ifndef TOLVANGER_SERVICE_DEVICES_H_
#define TOLVANGER_SERVICE_DEVICES_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/service/home.h"

namespace tolvanger::service {

struct Device {
  // An id by Ids::isID.
  std::string deviceID;
  // What the phone calls itself, at most 64 characters.
  std::string name;
  // The phone's P-256 public key, DER SubjectPublicKeyInfo.
  Bytes spki;
  // The phone's ML-DSA-65 public key, raw.
  std::optional<Bytes> pq;
  // The bearer secret of the phone's calls, 48 hexadecimal digits.
  std::string secret;
  // The phone's X-Wing public key, raw; absent, nothing can be sealed to it.
  std::optional<Bytes> cloudKey;
  // The highest sequence number of a secret announcement taken from it.
  std::optional<int64_t> announceSeq;
  // Seconds since 1970.
  int64_t pairedAt = 0;
  // Hashes of the unused recovery codes, each "<salt>:<hex>".
  std::vector<std::string> recovery;
  // Wrong codes tried against this device by name.
  int64_t recoveryFailures = 0;

  std::string fingerprint() const;
  // Nothing without a post-quantum key.
  std::optional<std::string> pqFingerprint() const;
  // Nothing if `spki` does not parse.
  std::optional<crypto::P256PublicKey> publicKey() const;
  // Nothing if `pq` is absent or does not parse.
  std::optional<crypto::MLDSA65PublicKey> pqPublicKey() const;

  // The stored form: an object keyed by the field names, byte fields in
  // Base64, absent optionals left out.
  nlohmann::json coded() const;
  // Reads the stored form. Nothing if a required field is missing, a field
  // has the wrong type or a byte field is not Base64.
  static std::optional<Device> fromCoded(const nlohmann::json& value);

  bool operator==(const Device&) const = default;
};

class Devices {
 public:
  static constexpr const char* kFile = "devices.json";

  // Loads `devices.json`. A file that is missing, unreadable or not wholly of
  // the right form gives an empty registry without complaint. Throws
  // std::runtime_error naming the file if two entries share a deviceID.
  explicit Devices(Home home);

  Devices(const Devices&) = delete;
  Devices& operator=(const Devices&) = delete;

  // Copies of every device, oldest pairing first.
  std::vector<Device> all() const;
  // A number that changes with every change to the registry, so a reader
  // can keep what it derived from `all()` until it moves.
  uint64_t version() const;
  // A copy of one device.
  std::optional<Device> device(std::string_view id) const;
  size_t count() const;
  bool empty() const;

  // Stores `device` under its deviceID, replacing any entry, then writes the
  // file. A failed write is swallowed: memory stands and the file catches up
  // at the next change.
  void put(Device device);

  // Applies `change` to a copy of the device, stores it and writes the file.
  // Returns false, changing nothing, for an unknown id. `change` runs under
  // the registry's lock and must not call back into it; its changes to
  // `deviceID` are ignored. If it throws, nothing is stored.
  bool edit(std::string_view id, const std::function<void(Device&)>& change);

  // `edit` in two halves, for a caller that must make the change one step
  // with changes elsewhere under a lock of its own but write no file under
  // it: the change in memory, and then the file as the registry stands
  // (unless a newer state was written already).
  bool editInMemory(std::string_view id,
                    const std::function<void(Device&)>& change);
  void writeFile();

  // Removes a device and writes the file; false (and no write) if unknown.
  bool forget(std::string_view id);

  // The device, if it is known and `secret` equals its stored secret,
  // compared in constant time.
  std::optional<Device> authenticate(std::string_view deviceID,
                                     std::string_view secret) const;

 private:
  // Writes `list` unless a newer snapshot has already been written.
  void persist(const std::vector<Device>& list, uint64_t version);
  std::vector<Device> sortedLocked() const REQUIRES(mu_);

  const Home home_;
  mutable Mutex mu_;
  std::map<std::string, Device, std::less<>> byID_ GUARDED_BY(mu_);
  uint64_t version_ GUARDED_BY(mu_) = 0;
  // Orders writes of the file only (the home's scratch file is shared by all
  // writers of one name); never held together with `mu_`.
  Mutex writeMu_;
  uint64_t written_ GUARDED_BY(writeMu_) = 0;
};

namespace Recovery {

// Digits without 0 and 1, lower-case letters without i, l and o.
inline constexpr std::string_view kAlphabet = "23456789abcdefghjkmnpqrstuvwxyz";
// Codes in a set.
inline constexpr size_t kSetSize = 10;

// A new set of codes, each "xxxxx-xxxxx" from the alphabet. The caller owns
// them and wipes them once they have gone to the phone.
std::vector<std::string> mint();

// Lower-cases ASCII letters and removes every "-" and white-space character.
std::string normalise(std::string_view code);

// salt + ":" + the hexadecimal SHA-256 of salt + "|" + normalise(code).
std::string hash(std::string_view code, std::string_view salt);

// A hash of each code, each under its own fresh 16-digit salt, in order.
std::vector<std::string> hashes(const std::vector<std::string>& codes);

// The index of the first stored hash the code fits; entries that are not
// "<salt>:<hex>" are skipped.
std::optional<size_t> match(std::string_view code,
                            const std::vector<std::string>& stored);

}  // namespace Recovery

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_DEVICES_H_
