#include "tolvanger/kit/crypto/mldsa65.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <memory>
#include <utility>

#include "crypto/mldsa65_internal.h"
#include "crypto/ossl.h"

namespace tolvanger::crypto {

struct MLDSA65PublicKey::Impl {
  ossl::SharedPkey pkey;
  Bytes raw;
};

struct MLDSA65PrivateKey::Impl {
  ossl::SharedPkey pkey;
  SecretBytes seed;
  std::shared_ptr<const MLDSA65PublicKey::Impl> publicKey;
};

namespace {

constexpr char kAlgorithm[] = "ML-DSA-65";
constexpr size_t kMaxContextSize = 255;

struct SignatureFree {
  void operator()(EVP_SIGNATURE* p) const { EVP_SIGNATURE_free(p); }
};
using Signature = std::unique_ptr<EVP_SIGNATURE, SignatureFree>;

Signature fetchSignature() {
  Signature alg(EVP_SIGNATURE_fetch(nullptr, kAlgorithm, nullptr));
  if (!alg) ossl::fail("ML-DSA-65 fetch");
  return alg;
}

std::shared_ptr<const MLDSA65PublicKey::Impl> publicImpl(ByteView raw) {
  ossl::Pkey pkey(EVP_PKEY_new_raw_public_key_ex(nullptr, kAlgorithm, nullptr,
                                                 raw.data(), raw.size()));
  if (!pkey) {
    ERR_clear_error();
    return nullptr;
  }
  return std::make_shared<const MLDSA65PublicKey::Impl>(MLDSA65PublicKey::Impl{
      ossl::share(std::move(pkey)), Bytes(raw.begin(), raw.end())});
}

// Verifies with the message-level interface. `params` selects the context
// or the internal (pre-formatted) message encoding.
bool verifyWith(EVP_PKEY* pkey, ByteView message, ByteView signature,
                const OSSL_PARAM* params) {
  if (signature.size() != MLDSA65PublicKey::kSignatureSize) return false;
  Signature alg = fetchSignature();
  ossl::PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, pkey, nullptr));
  if (!ctx) ossl::fail("ML-DSA-65 context");
  if (EVP_PKEY_verify_message_init(ctx.get(), alg.get(), params) != 1) {
    ossl::fail("ML-DSA-65 verify setup");
  }
  bool ok = EVP_PKEY_verify(ctx.get(), signature.data(), signature.size(),
                            message.data(), message.size()) == 1;
  if (!ok) ERR_clear_error();
  return ok;
}

}  // namespace

std::optional<MLDSA65PublicKey> MLDSA65PublicKey::fromRaw(ByteView raw) {
  if (raw.size() != kSize) return std::nullopt;
  auto impl = publicImpl(raw);
  if (!impl) return std::nullopt;
  return MLDSA65PublicKey(std::move(impl));
}

Bytes MLDSA65PublicKey::raw() const { return impl_->raw; }

bool MLDSA65PublicKey::verify(ByteView message, ByteView signature) const {
  return verify(message, signature, {});
}

bool MLDSA65PublicKey::verify(ByteView message, ByteView signature,
                              ByteView context) const {
  if (context.size() > kMaxContextSize) return false;
  OSSL_PARAM params[2] = {OSSL_PARAM_construct_end(),
                          OSSL_PARAM_construct_end()};
  if (!context.empty()) {
    params[0] = ossl::octets(OSSL_SIGNATURE_PARAM_CONTEXT_STRING, context);
  }
  return verifyWith(impl_->pkey.get(), message, signature, params);
}

bool mldsa65VerifyInternal(ByteView publicKeyRaw, ByteView formattedMessage,
                           ByteView signature) {
  if (publicKeyRaw.size() != MLDSA65PublicKey::kSize) return false;
  auto impl = publicImpl(publicKeyRaw);
  if (!impl) return false;
  int encoding = 0;  // the message is M' itself
  OSSL_PARAM params[2] = {OSSL_PARAM_construct_int(
                              OSSL_SIGNATURE_PARAM_MESSAGE_ENCODING, &encoding),
                          OSSL_PARAM_construct_end()};
  return verifyWith(impl->pkey.get(), formattedMessage, signature, params);
}

MLDSA65PrivateKey MLDSA65PrivateKey::generate() {
  SecretBytes seed(kSeedSize);
  if (RAND_priv_bytes(seed.mutableData(), static_cast<int>(kSeedSize)) != 1) {
    ossl::fail("random seed");
  }
  return *fromSeed(seed.reveal());
}

std::optional<MLDSA65PrivateKey> MLDSA65PrivateKey::fromSeed(ByteView seed) {
  if (seed.size() != kSeedSize) return std::nullopt;
  ossl::PkeyCtx ctx(EVP_PKEY_CTX_new_from_name(nullptr, kAlgorithm, nullptr));
  OSSL_PARAM params[2] = {ossl::octets(OSSL_PKEY_PARAM_ML_DSA_SEED, seed),
                          OSSL_PARAM_construct_end()};
  EVP_PKEY* raw = nullptr;
  if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1 ||
      EVP_PKEY_CTX_set_params(ctx.get(), params) != 1 ||
      EVP_PKEY_generate(ctx.get(), &raw) != 1) {
    ossl::fail("ML-DSA-65 key from seed");
  }
  ossl::Pkey pkey(raw);
  Bytes pub(MLDSA65PublicKey::kSize);
  size_t length = 0;
  if (EVP_PKEY_get_octet_string_param(pkey.get(), OSSL_PKEY_PARAM_PUB_KEY,
                                      pub.data(), pub.size(), &length) != 1 ||
      length != pub.size()) {
    ossl::fail("ML-DSA-65 public key");
  }
  auto publicKey = publicImpl(pub);
  if (!publicKey) ossl::fail("ML-DSA-65 public key");
  return MLDSA65PrivateKey(std::make_shared<const Impl>(Impl{
      ossl::share(std::move(pkey)), SecretBytes(seed), std::move(publicKey)}));
}

SecretBytes MLDSA65PrivateKey::seed() const {
  return SecretBytes(impl_->seed.reveal());
}

MLDSA65PublicKey MLDSA65PrivateKey::publicKey() const {
  return MLDSA65PublicKey(impl_->publicKey);
}

Bytes MLDSA65PrivateKey::sign(ByteView message) const {
  Signature alg = fetchSignature();
  ossl::PkeyCtx ctx(
      EVP_PKEY_CTX_new_from_pkey(nullptr, impl_->pkey.get(), nullptr));
  Bytes sig(MLDSA65PublicKey::kSignatureSize);
  size_t length = sig.size();
  if (!ctx || EVP_PKEY_sign_message_init(ctx.get(), alg.get(), nullptr) != 1 ||
      EVP_PKEY_sign(ctx.get(), sig.data(), &length, message.data(),
                    message.size()) != 1 ||
      length != sig.size()) {
    ossl::fail("ML-DSA-65 sign");
  }
  return sig;
}

}  // namespace tolvanger::crypto
