// The phone's half of pairing: offering its keys to a computer's open
// pairing window, confirming the number the person picked, and recovering
// with a code. The computer's answer comes sealed to the X-Wing key that the
// phone offered, and it carries a proof signed by both of the computer's keys
// over this phone's own keys; `Pairing::verifiesProof` checks it, so that a
// machine in the middle that swapped keys is caught.
//
// `Pairing` is what pairing leaves the phone with: its device id and secret,
// the computer's keys to pin, and the proof. `PairingProof` gives the exact
// bytes the computer signs.
//
// Thread safety: `Pairing` is a plain value; `PairingClient` keeps no state
// between calls and is as safe to share as its transport.
#ifndef TOLVANGER_PHONE_PAIRING_CLIENT_H_
#define TOLVANGER_PHONE_PAIRING_CLIENT_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/xwing.h"
#include "tolvanger/kit/pair_link.h"
#include "tolvanger/kit/secret_json.h"
#include "tolvanger/phone/phone_client.h"

namespace tolvanger::phone {

// The bytes of the pairing proof: "tolvanger-paired-v1", the daemon id, the
// device id, the phone's P-256 fingerprint, its ML-DSA-65 fingerprint or
// "-", a "-" that always stands, and its X-Wing fingerprint or "-", joined
// with "|".
namespace PairingProof {

Bytes text(std::string_view daemonID, std::string_view deviceID,
           std::string_view fingerprint,
           std::optional<std::string_view> fingerprintPQ,
           std::optional<std::string_view> cloudFingerprint);

// As above, with Fingerprint::of each key.
Bytes text(std::string_view daemonID, std::string_view deviceID,
           ByteView publicKeyDER, std::optional<ByteView> pqPublicKey,
           std::optional<ByteView> cloudKey);

}  // namespace PairingProof

// What the computer answers to an offer: the fingerprint of the phone's key
// as it was received, and the three numbers to pick from.
struct PairOffer {
  std::string fingerprint;
  std::optional<std::string> fingerprintPQ;
  std::vector<std::string> choices;
};

// The outcome of pairing or recovery, read from the opened answer. The
// device secret and the recovery codes are wiped when the value dies.
struct Pairing {
  std::string deviceID;
  std::string fingerprint;
  std::string deviceSecret;
  // Present only in the answer to a first pairing; shown to the person once.
  std::vector<std::string> recoveryCodes;
  std::string daemonID;
  std::string daemonHost;
  // DER SubjectPublicKeyInfo of the computer's P-256 key.
  Bytes daemonSPKI;
  std::string daemonFingerprint;
  // The computer's raw ML-DSA-65 key.
  std::optional<Bytes> daemonPQ;
  std::optional<std::string> fingerprintPQ;
  bool cloud = false;
  std::optional<std::string> daemonFingerprintPQ;
  std::optional<Bytes> proof;
  std::optional<Bytes> proofPQ;
  // Present only in the answer to a recovery.
  std::optional<int64_t> recoveryLeft;

  Pairing() = default;
  Pairing(const Pairing&) = default;
  Pairing(Pairing&&) = default;
  Pairing& operator=(const Pairing&) = default;
  Pairing& operator=(Pairing&&) = default;
  ~Pairing();

  // Reads an opened answer. "device_id", "fingerprint", "device_secret" and
  // a "daemon" object with "daemon_id" and Base64 "spki_b64" are required;
  // any miss throws RequestError::malformed("the pairing reply came back
  // wrong"). Everything else is read when present and well formed.
  static Pairing from(const SecretJson& answer);

  // Whether both of the computer's signatures in the proof hold over the
  // proof built from this phone's own keys. False when the proof is
  // missing, a key does not parse, or the computer has a post-quantum key
  // and no post-quantum proof came.
  bool verifiesProof(ByteView myPublicKeyDER,
                     std::optional<ByteView> myPQPublicKey,
                     std::optional<ByteView> myCloudKey) const;
};

class PairingClient {
 public:
  explicit PairingClient(DaemonClient client) : client_(std::move(client)) {}

  // A client of the address in a pair link, "http://<host>:<port>" (an IPv6
  // host in brackets). Nothing when the link names no host.
  static std::optional<PairingClient> forLink(
      const PairURL& link, std::chrono::milliseconds timeout,
      std::shared_ptr<HTTPTransport> transport = nullptr);

  const DaemonClient& client() const { return client_; }

  // POST /v1/pair with the phone's three public keys. Throws as
  // DaemonClient::call (the computer's refusals in its own words), and
  // RequestError::malformed("the pairing offer came back wrong") unless the
  // answer holds a text "fingerprint" and exactly three text "choices".
  PairOffer pair(std::string_view token, std::string_view deviceID,
                 std::string_view name, ByteView publicKeyDER,
                 ByteView pqPublicKey, ByteView cloudPublicKey) const;

  // POST /v1/pair/confirm with the number the person picked; the sealed
  // answer is opened with `unsealWith`. Throws as `call`, `unwrap` and
  // Pairing::from.
  Pairing confirm(std::string_view token, std::string_view code,
                  std::string_view deviceID,
                  const crypto::XWingPrivateKey& unsealWith) const;

  // POST /v1/recover, spending a recovery code. `deviceID`, when known, is
  // sent and must be the one the answer names.
  Pairing recover(std::optional<std::string_view> deviceID,
                  std::string_view code, std::string_view name,
                  ByteView publicKeyDER, ByteView pqPublicKey,
                  ByteView cloudPublicKey,
                  const crypto::XWingPrivateKey& unsealWith) const;

  // Opens a sealed pairing answer. Throws RequestError::malformed with
  // "that Mac answered the pairing in the clear" (no "sealed" object),
  // "that pairing answer is not for this phone's offer" (not an envelope,
  // or not of kind "pairing" for `deviceID`), "the sealed answer did not
  // decode" (no JSON object inside), or "that pairing answer names another
  // device"; a SealedError when the box does not open. With no `deviceID`
  // (a blind recovery) the envelope's own id is taken.
  static SecretJson unwrap(const nlohmann::json& reply,
                           const crypto::XWingPrivateKey& key,
                           std::optional<std::string_view> deviceID);

 private:
  DaemonClient client_;
};

}  // namespace tolvanger::phone

#endif  // TOLVANGER_PHONE_PAIRING_CLIENT_H_
