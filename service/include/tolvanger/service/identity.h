// The keys by which this computer proves itself to its phones.
//
// `Identity` holds the P-256 and ML-DSA-65 signing keys, kept in
// `identity.bin` (the raw 32-byte P-256 scalar) and `identity-pq.bin` (the
// 32-byte ML-DSA-65 seed), and an X-Wing key that phones seal envelopes to.
// The X-Wing key lives only in memory and is new with every object, so every
// start of the service has a new one.
//
// The constructor does no file work. The first use of a signing key loads both
// files, or draws and writes whichever is missing or unreadable (silently: a
// broken key file is replaced, which in effect unpairs the phones that pinned
// it). Only a failed write is loud.
//
// Thread safety: all members may be called from any thread. `mu_` is held for
// the whole of `ensure()`, file work included, so two threads never draw two
// keys; signing happens outside it on a copy of the key.
#ifndef TOLVANGER_SERVICE_IDENTITY_H_
#define TOLVANGER_SERVICE_IDENTITY_H_

#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/crypto/xwing.h"
#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/service/home.h"

namespace tolvanger::service {

// The failure of the key files. `what()` is "the Mac's identity key: " and
// the reason.
class IdentityError : public std::runtime_error {
 public:
  static IdentityError unreadable(const std::string& text) {
    return IdentityError("the Mac's identity key: " + text);
  }

 private:
  using std::runtime_error::runtime_error;
};

class Identity {
 public:
  static constexpr const char* kKeyFile = "identity.bin";
  static constexpr const char* kPQKeyFile = "identity-pq.bin";

  // Draws the in-memory X-Wing key; throws crypto::CryptoError if that fails.
  explicit Identity(Home home);

  // Loads or makes both signing keys and returns the P-256 one. Throws
  // IdentityError if a key file cannot be written; nothing is cached then.
  crypto::P256PrivateKey ensure();
  // The ML-DSA-65 key, through `ensure()`. Throws IdentityError.
  crypto::MLDSA65PrivateKey pqKey();

  // Public forms; empty (and the fingerprint of nothing) if the keys cannot
  // be had.
  Bytes spki();
  std::string spkiBase64();
  Bytes pqPublicKey();
  std::string pqBase64();
  std::string fingerprint();
  std::string pqFingerprint();

  // ECDSA P-256 over `data`, DER. Throws IdentityError.
  Bytes sign(ByteView data);
  // ML-DSA-65 over `data`, empty context, raw. Throws IdentityError.
  Bytes signPQ(ByteView data);

  const crypto::XWingPrivateKey& cloudKey() const { return cloudKey_; }

  // The signed card that publishes the cloud key: compact JSON with both
  // signatures over "tolvanger-cloud-card|<daemonID>|<key>|<now>". Throws
  // IdentityError if the signing keys cannot be had.
  std::string cloudCard();
  // The card as a JSON object with "ok": true, as the card route answers.
  // Throws ServiceError "the card did not encode" if it does not parse back.
  nlohmann::json cardOffer();

  // The daemon id, copied in once from the configuration when the service is
  // composed; read without a lock afterwards.
  std::string daemonID;

 private:
  const Home home_;
  Mutex mu_;
  std::optional<crypto::P256PrivateKey> signing_ GUARDED_BY(mu_);
  std::optional<crypto::MLDSA65PrivateKey> signingPQ_ GUARDED_BY(mu_);
  // The public forms, made once the keys are had: they never change after,
  // and status asks for them on every hello.
  struct Published {
    Bytes spki, pq;
    std::string fingerprint, pqFingerprint;
  };
  std::optional<Published> published_ GUARDED_BY(mu_);
  // The public forms; throws IdentityError as `ensure()` does.
  Published published();
  const crypto::XWingPrivateKey cloudKey_;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_IDENTITY_H_
