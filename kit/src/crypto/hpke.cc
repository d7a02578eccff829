#include "tolvanger/kit/crypto/hpke.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include <cstring>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "crypto/ossl.h"
#include "tolvanger/kit/crypto/digest.h"

namespace tolvanger::crypto::hpke {
namespace {

constexpr uint8_t kModeBase = 0x00;
constexpr size_t kNonceSize = 12;
constexpr size_t kTagSize = 16;
constexpr size_t kHashSize = 32;
constexpr std::string_view kVersionLabel = "HPKE-v1";

void append(Bytes& out, ByteView part) {
  out.insert(out.end(), part.begin(), part.end());
}

void appendU16(Bytes& out, uint16_t v) {
  out.push_back(static_cast<uint8_t>(v >> 8));
  out.push_back(static_cast<uint8_t>(v));
}

// "HPKE" || I2OSP(kem, 2) || I2OSP(kdf, 2) || I2OSP(aead, 2).
Bytes suiteId(uint16_t kem, uint16_t aead) {
  Bytes id = toBytes("HPKE");
  appendU16(id, kem);
  appendU16(id, kKdfHkdfSha256);
  appendU16(id, aead);
  return id;
}

SecretBytes labeledExtract(ByteView suite, ByteView salt,
                           std::string_view label, ByteView ikm) {
  SecretBytes input(kVersionLabel.size() + suite.size() + label.size() +
                    ikm.size());
  uint8_t* p = input.mutableData();
  for (ByteView part : {asBytes(kVersionLabel), suite, asBytes(label), ikm}) {
    if (!part.empty()) std::memcpy(p, part.data(), part.size());
    p += part.size();
  }
  return hkdfExtract(salt, input.reveal());
}

// The info of LabeledExpand carries no secrets in this schedule (contexts
// and exporter contexts), so a plain buffer holds it.
SecretBytes labeledExpand(ByteView suite, ByteView prk, std::string_view label,
                          ByteView info, size_t length) {
  Bytes labeledInfo;
  appendU16(labeledInfo, static_cast<uint16_t>(length));
  append(labeledInfo, asBytes(kVersionLabel));
  append(labeledInfo, suite);
  append(labeledInfo, asBytes(label));
  append(labeledInfo, info);
  return hkdfExpand(prk, labeledInfo, length);
}

const EVP_CIPHER* cipherFor(uint16_t aead) {
  switch (aead) {
    case kAeadAes128Gcm:
      return EVP_aes_128_gcm();
    case kAeadAes256Gcm:
      return EVP_aes_256_gcm();
    case kAeadChaCha20Poly1305:
      return EVP_chacha20_poly1305();
    default:
      throw std::invalid_argument("unsupported HPKE AEAD");
  }
}

size_t keySizeFor(uint16_t aead) { return aead == kAeadAes128Gcm ? 16 : 32; }

ossl::CipherCtx aeadInit(uint16_t aead, ByteView key, ByteView nonce,
                         bool encrypt) {
  ossl::CipherCtx ctx(EVP_CIPHER_CTX_new());
  if (!ctx ||
      EVP_CipherInit_ex(ctx.get(), cipherFor(aead), nullptr, nullptr, nullptr,
                        encrypt ? 1 : 0) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_SET_IVLEN, kNonceSize,
                          nullptr) != 1 ||
      EVP_CipherInit_ex(ctx.get(), nullptr, nullptr, key.data(), nonce.data(),
                        encrypt ? 1 : 0) != 1) {
    ossl::fail("AEAD setup");
  }
  return ctx;
}

// Feeds the associated data; an empty one is simply not fed.
bool aeadAad(EVP_CIPHER_CTX* ctx, ByteView aad) {
  int ignored = 0;
  return aad.empty() || EVP_CipherUpdate(ctx, nullptr, &ignored, aad.data(),
                                         static_cast<int>(aad.size())) == 1;
}

}  // namespace

Context Context::fromSharedSecret(uint16_t kem, uint16_t aead,
                                  ByteView sharedSecret, ByteView info) {
  cipherFor(aead);  // refuses an unknown AEAD before any work
  Bytes suite = suiteId(kem, aead);
  SecretBytes pskIdHash = labeledExtract(suite, {}, "psk_id_hash", {});
  SecretBytes infoHash = labeledExtract(suite, {}, "info_hash", info);
  Bytes context;
  context.push_back(kModeBase);
  append(context, pskIdHash.reveal());
  append(context, infoHash.reveal());
  // Base mode: no PSK, so the secret is extracted with an empty ikm.
  SecretBytes secret = labeledExtract(suite, sharedSecret, "secret", {});

  Context out;
  out.kem_ = kem;
  out.aead_ = aead;
  out.key_ =
      labeledExpand(suite, secret.reveal(), "key", context, keySizeFor(aead));
  out.baseNonce_ =
      labeledExpand(suite, secret.reveal(), "base_nonce", context, kNonceSize);
  out.exporterSecret_ =
      labeledExpand(suite, secret.reveal(), "exp", context, kHashSize);
  return out;
}

Bytes Context::nonce() const {
  Bytes nonce(baseNonce_.reveal().begin(), baseNonce_.reveal().end());
  for (size_t i = 0; i < sizeof seq_; ++i) {
    nonce[kNonceSize - 1 - i] ^= static_cast<uint8_t>(seq_ >> (8 * i));
  }
  return nonce;
}

Bytes Context::seal(ByteView aad, ByteView plaintext) {
  if (seq_ == std::numeric_limits<uint64_t>::max()) {
    throw std::overflow_error("HPKE sequence number exhausted");
  }
  ossl::CipherCtx ctx = aeadInit(aead_, key_.reveal(), nonce(), true);
  Bytes out(plaintext.size() + kTagSize);
  int length = 0;
  int finalLength = 0;
  if (!aeadAad(ctx.get(), aad) ||
      (!plaintext.empty() &&
       EVP_EncryptUpdate(ctx.get(), out.data(), &length, plaintext.data(),
                         static_cast<int>(plaintext.size())) != 1) ||
      EVP_EncryptFinal_ex(ctx.get(), out.data() + length, &finalLength) != 1 ||
      static_cast<size_t>(length + finalLength) != plaintext.size() ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_GET_TAG, kTagSize,
                          out.data() + plaintext.size()) != 1) {
    ossl::fail("AEAD seal");
  }
  ++seq_;
  return out;
}

std::optional<SecretBytes> Context::open(ByteView aad, ByteView ciphertext) {
  if (ciphertext.size() < kTagSize) return std::nullopt;
  if (seq_ == std::numeric_limits<uint64_t>::max()) {
    throw std::overflow_error("HPKE sequence number exhausted");
  }
  size_t bodySize = ciphertext.size() - kTagSize;
  ossl::CipherCtx ctx = aeadInit(aead_, key_.reveal(), nonce(), false);
  // OpenSSL only reads the tag, but its interface wants a writable buffer.
  uint8_t tag[kTagSize];
  std::memcpy(tag, ciphertext.data() + bodySize, kTagSize);
  SecretBytes plaintext(bodySize);
  int length = 0;
  int finalLength = 0;
  if (!aeadAad(ctx.get(), aad) ||
      (bodySize > 0 &&
       EVP_DecryptUpdate(ctx.get(), plaintext.mutableData(), &length,
                         ciphertext.data(), static_cast<int>(bodySize)) != 1) ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_SET_TAG, kTagSize, tag) !=
          1) {
    ossl::fail("AEAD open");
  }
  if (EVP_DecryptFinal_ex(ctx.get(), plaintext.mutableData() + length,
                          &finalLength) != 1) {
    ERR_clear_error();
    return std::nullopt;  // authentication failed; plaintext is wiped
  }
  ++seq_;
  return plaintext;
}

SecretBytes Context::exportSecret(ByteView exporterContext,
                                  size_t length) const {
  return labeledExpand(suiteId(kem_, aead_), exporterSecret_.reveal(), "sec",
                       exporterContext, length);
}

Sealed seal(const XWingPublicKey& recipient, ByteView info, ByteView aad,
            ByteView plaintext) {
  XWingEncapsulation encapsulation = recipient.encapsulate();
  Context context = Context::fromSharedSecret(
      kKemXWing, kAeadAes256Gcm, encapsulation.sharedSecret.reveal(), info);
  return Sealed{std::move(encapsulation.ciphertext),
                context.seal(aad, plaintext)};
}

std::optional<SecretBytes> open(const XWingPrivateKey& recipient,
                                ByteView encapsulatedKey, ByteView info,
                                ByteView aad, ByteView ciphertext) {
  std::optional<SecretBytes> sharedSecret =
      recipient.decapsulate(encapsulatedKey);
  if (!sharedSecret) return std::nullopt;
  Context context = Context::fromSharedSecret(kKemXWing, kAeadAes256Gcm,
                                              sharedSecret->reveal(), info);
  return context.open(aad, ciphertext);
}

}  // namespace tolvanger::crypto::hpke
