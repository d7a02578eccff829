// The phone's two signing keys, behind one interface. A phone approves a
// request by signing its binding twice: with P-256 (DER ECDSA signature) and
// with ML-DSA-65 (raw signature). `RequestSigner` is what the rest of the
// phone's code holds; `SoftwareSigner` keeps both keys in memory and, when
// asked, in a private directory; `EnclaveSigner` stands for keys held in
// secure hardware behind the owner's face, which this build has none of.
//
// The key blobs are what a phone stores to find its keys again: the P-256
// blob is the raw 32-byte scalar; the post-quantum blob is one tag byte
// (1: a hardware key, 2: a seed) followed by the key's stored form.
//
// Thread safety: signers are immutable once made; one signer may sign from
// many threads at once. Saving and opening a key directory is not guarded
// against a second process doing the same.
#ifndef TOLVANGER_PHONE_SIGNER_H_
#define TOLVANGER_PHONE_SIGNER_H_

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"

namespace tolvanger::phone {

// Why a signer could not be made, opened or used. `what()` is the
// description: the text itself for kAccessControl and kSign, "could not
// create the key: <text>", "could not open the key: <text>", or "this device
// has no Secure Enclave — approvals cannot be signed here".
class SignerError : public std::runtime_error {
 public:
  enum class Kind { kAccessControl, kCreate, kRestore, kSign, kNoEnclave };

  static SignerError accessControl(std::string text);
  static SignerError create(std::string text);
  static SignerError restore(std::string text);
  static SignerError sign(std::string text);
  static SignerError noEnclave();

  Kind kind() const { return kind_; }

 private:
  SignerError(Kind kind, std::string description)
      : std::runtime_error(std::move(description)), kind_(kind) {}
  Kind kind_;
};

class RequestSigner {
 public:
  virtual ~RequestSigner() = default;

  // The P-256 public key, DER SubjectPublicKeyInfo.
  virtual Bytes publicKeyDER() const = 0;
  // The ML-DSA-65 public key, raw.
  virtual Bytes pqPublicKey() const = 0;
  // A DER ECDSA P-256 signature over SHA-256(data); throws SignerError.
  virtual Bytes signature(ByteView data) const = 0;
  // A raw ML-DSA-65 signature over data, empty context; throws SignerError.
  virtual Bytes pqSignature(ByteView data) const = 0;
};

// Both keys in software: for simulators, trials without biometrics and the
// software phone.
class SoftwareSigner final : public RequestSigner {
 public:
  static constexpr uint8_t kEnclaveTag = 1;
  static constexpr uint8_t kSeedTag = 2;
  // The files of a key directory: the P-256 blob and the post-quantum blob.
  static constexpr std::string_view kKeyFile = "signer.bin";
  static constexpr std::string_view kPQKeyFile = "signer-pq.bin";

  // Draws two new keys.
  SoftwareSigner();

  // Rebuilds a signer from its blobs. No `pqBlob` at all draws a new
  // post-quantum key. Throws SignerError::restore: "the P-256 key blob is
  // unreadable", "no post-quantum key stored" (an empty pqBlob), "the
  // post-quantum key blob is unreadable" (a tag other than 2, or a seed of
  // the wrong length).
  static SoftwareSigner restore(ByteView blob, std::optional<ByteView> pqBlob);

  // Opens the signer kept in `directory`, making the directory (mode 0700)
  // and whichever key is missing as needed; a key that is drawn here is
  // saved at once. A key file that is present but unreadable is not
  // replaced: the phone's pairing rests on it. Throws SignerError::create
  // when the directory or a file cannot be written, SignerError::restore
  // when a file cannot be read or holds no key.
  static SoftwareSigner open(const std::string& directory);

  // Writes both blobs into `directory` (made with mode 0700 if missing),
  // each file with mode 0600, through a temporary name and a rename, so
  // that a crash leaves the old file or the new one. Throws
  // SignerError::create.
  void save(const std::string& directory) const;

  // The raw 32-byte P-256 scalar.
  SecretBytes blob() const;
  // kSeedTag followed by the 32-byte seed.
  SecretBytes pqBlob() const;

  Bytes publicKeyDER() const override;
  Bytes pqPublicKey() const override;
  Bytes signature(ByteView data) const override;
  Bytes pqSignature(ByteView data) const override;

 private:
  SoftwareSigner(crypto::P256PrivateKey key, crypto::MLDSA65PrivateKey pq)
      : key_(std::move(key)), pq_(std::move(pq)) {}

  crypto::P256PrivateKey key_;
  crypto::MLDSA65PrivateKey pq_;
};

// Keys held in secure hardware behind Face ID. This build has no such
// hardware: `isAvailable()` is false and every way of making one throws
// SignerError::noEnclave(), so no instance ever exists.
class EnclaveSigner final : public RequestSigner {
 public:
  static bool isAvailable() { return false; }

  // A new pair of hardware keys; `reason` is what the face prompt says.
  static EnclaveSigner create(std::string_view reason);
  // The keys behind stored blobs.
  static EnclaveSigner restore(ByteView blob, std::optional<ByteView> pqBlob,
                               std::string_view reason);

  Bytes blob() const;
  Bytes pqBlob() const;

  Bytes publicKeyDER() const override;
  Bytes pqPublicKey() const override;
  Bytes signature(ByteView data) const override;
  Bytes pqSignature(ByteView data) const override;

 private:
  EnclaveSigner() = default;
};

}  // namespace tolvanger::phone

#endif  // TOLVANGER_PHONE_SIGNER_H_
