// The computer's side of making a phone trusted: the pairing window, and the
// recovery road by which a phone that lost its keys takes its slot back.
//
// The operator opens a window (`open`), which gives a pair link to show as a
// QR code. The phone reads it and offers its keys (`offer`); the computer
// shows the right two-digit code on its terminal (`status`) while the phone
// shows three numbers, and the person taps the one that matches
// (`confirm`). The computer then stores the `Device` and answers with a proof
// that ties its own two public keys to the very keys the phone offered,
// signed by both. `recover` spends a recovery code instead, with no window.
//
// Every refusal is a `ServiceError::refused` whose sentence goes to the phone
// or the terminal as it stands. Every failure of recovery reads the same, so
// that a guesser learns nothing from the reply.
//
// Thread safety: every member of `Pairing` may be called from any thread.
// One lock guards the window and the blind-recovery counters; it is taken
// before the `Devices` lock (in `offer`, to count the phones), never after
// it, and it is released before the registry is written and before anything
// is signed. `PairSession`, `OfferedKeys`, `PairOpened`, `PairOffer` and
// `PairResult` are plain values.
#ifndef TOLVANGER_SERVICE_PAIRING_H_
#define TOLVANGER_SERVICE_PAIRING_H_

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/service/config.h"
#include "tolvanger/service/devices.h"
#include "tolvanger/service/identity.h"

namespace tolvanger::service {

// One pairing window, held only in memory.
struct PairSession {
  static constexpr std::string_view kOpen = "open";
  static constexpr std::string_view kOffered = "offered";

  // 32 lowercase hexadecimal digits; the capability in the pair link.
  std::string token;
  // Seconds since 1970.
  int64_t opensAt = 0;
  int64_t expiresAt = 0;
  // kOpen or kOffered.
  std::string state;
  // The right two-digit code; empty until a phone has offered.
  std::string code;
  // The three numbers the phone shows; empty until a phone has offered.
  std::vector<std::string> choices;
  // Of the offering phone; empty until it has offered.
  std::string deviceID;
  std::string name;
  Bytes spki;
  std::optional<Bytes> pq;
  std::optional<Bytes> cloudKey;
};

// The public keys a phone offers, checked.
struct OfferedKeys {
  // P-256, always DER SubjectPublicKeyInfo.
  Bytes spki;
  // ML-DSA-65, raw.
  std::optional<Bytes> pq;
  // X-Wing, raw.
  std::optional<Bytes> cloudKey;

  // Checks the keys. `spki` may be DER or a 65-byte uncompressed X9.63
  // point; it is kept as DER either way. Refuses with "that is not a P-256
  // public key", "that is not an ML-DSA-65 public key" or "that is not an
  // X-Wing public key".
  static OfferedKeys make(ByteView spki, std::optional<Bytes> pq,
                          std::optional<Bytes> cloudKey);

  // Reads "public_key" (Base64 text, required: else "that offer has no
  // public key"), "public_key_pq" and "cloud_public_key" (each absent unless
  // Base64 text) from a phone's body, then checks them as `make` does.
  static OfferedKeys fromBody(const nlohmann::json& body);
};

// What `open` gives: the link to show, and what the terminal says beside it.
struct PairOpened {
  std::string url;
  std::string host;
  // Of the computer's P-256 key (of empty bytes if it cannot be had).
  std::string fingerprint;
  int64_t expiresAt = 0;

  // {"ok": true, "url", "host", "fingerprint"}.
  nlohmann::json toJSON() const;
};

// What `offer` gives the phone.
struct PairOffer {
  // Of the offered P-256 key, and of the ML-DSA-65 key if one was offered.
  std::string fingerprint;
  std::optional<std::string> fingerprintPQ;
  std::vector<std::string> choices;

  // {"ok": true, "fingerprint", "choices", and "fingerprint_pq" if any}.
  nlohmann::json toJSON() const;
};

// What `confirm` and `recover` give: the answer for the phone (to be sealed
// to `device.cloudKey` before it leaves) and the device as stored. The
// payload holds the device secret, and after `confirm` the plain recovery
// codes; it must go nowhere but to the phone.
struct PairResult {
  nlohmann::json payload;
  Device device;
};

class Pairing {
 public:
  // The current time in whole seconds since 1970.
  using Clock = tolvanger::Clock;
  static int64_t systemNow();

  // Wrong codes on the blind road before it pauses, and for how long; wrong
  // codes against one named device before its recovery is locked for good.
  static constexpr int64_t kBlindLimit = 10;
  static constexpr int64_t kBlindPauseSeconds = 900;
  static constexpr int64_t kNamedLimit = 10;

  // `devices` and `identity` must outlive the object. `now` is consulted
  // under the lock and must not call back into it.
  Pairing(Devices& devices, Identity& identity, Config config,
          Clock now = systemNow);

  Pairing(const Pairing&) = delete;
  Pairing& operator=(const Pairing&) = delete;

  // Opens a new window for `seconds` (default `pairWindowSeconds`),
  // replacing any earlier one, and gives its link with `host` and the
  // configured port. Without a host the link names "127.0.0.1"; callers pass
  // the address a phone can reach. Refuses when the computer already has as
  // many phones as it may; the present window then stays.
  PairOpened open(std::optional<std::string> host,
                  std::optional<int64_t> seconds = std::nullopt);

  // The window, unless there is none or it has expired.
  std::optional<PairSession> session() const;
  // The admin's view: {"ok": true, "state", "expires_at", "code",
  // "device_id", "name"}, or {"ok": true, "state": "none"}.
  nlohmann::json status() const;
  // Closes the window, if any.
  void cancel();

  // A phone offers its keys on the open window. The same phone offering the
  // same key again gets the same three numbers. Refuses with "no pairing
  // window is open", "that token is not the one on the screen", "a pairing
  // is already waiting to be confirmed", "that is not a device id", "that
  // offer carries no key to seal the answer to", or the phone limit.
  PairOffer offer(std::string_view token, std::string_view deviceID,
                  std::string_view name, const OfferedKeys& keys);
  // The same from a phone's body ("token", "device_id", "name" and keys);
  // refuses with "that offer is missing something" if token or id is not
  // text. Gives `PairOffer::toJSON()`.
  nlohmann::json offer(const nlohmann::json& body);

  // The person's pick. A right one stores the device and gives the answer
  // with ten fresh recovery codes under "recovery_codes"; a wrong one closes
  // the window ("that is not the code on the terminal"). Refuses with "no
  // pairing is waiting to be confirmed" and leaves the window when there is
  // no offered window or the token differs. Throws
  // ServiceError::internalFailure if the proof cannot be signed; the device
  // stays stored then.
  PairResult confirm(std::string_view token, std::string_view code);
  // The same from a phone's body ("token", "code"); refuses with "that
  // confirmation is missing something" if either is not text.
  PairResult confirm(const nlohmann::json& body);

  // Spends a recovery code: the device named by `deviceID`, or with none
  // (or an empty one) the first device the code fits. The device takes the
  // new keys and a new secret and keeps its other codes; the answer has
  // "recovery_left". Every failure is "that code will not open this Mac".
  // Ten wrong codes against a named device lock its recovery by name for
  // good; ten wrong codes with none named pause the blind road for 900
  // seconds. Throws ServiceError::internalFailure if the proof cannot be
  // signed.
  PairResult recover(std::string_view code, std::string_view name,
                     const OfferedKeys& keys,
                     std::optional<std::string_view> deviceID);
  // The same from a phone's body ("code", optional "name", keys, optional
  // "device_id"); refuses with "that recovery is missing something" if the
  // code is not text, and with the key sentences of `OfferedKeys`.
  PairResult recover(const nlohmann::json& body);

  // The bytes both computer keys sign when a phone is paired:
  // "tolvanger-paired-v1|<daemon>|<device>|<fp spki>|<fp pq or ->|-|<fp
  // cloud key or ->".
  static Bytes proof(std::string_view daemonID, const Device& device);

 private:
  // Refuses when the registry is full.
  void room() const;
  // The answer that ends pairing and recovery, signed.
  nlohmann::json paired(const Device& device);
  std::optional<Device> takeOver(std::string_view id, std::string_view code,
                                 std::string_view name, const OfferedKeys& keys,
                                 bool named);

  Devices& devices_;
  Identity& identity_;
  const Config config_;
  const Clock now_;

  mutable Mutex mu_;
  std::optional<PairSession> current_ GUARDED_BY(mu_);
  int64_t blindFailures_ GUARDED_BY(mu_) = 0;
  int64_t blindPausedUntil_ GUARDED_BY(mu_) = 0;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_PAIRING_H_
