#include "tolvanger/kit/crypto/xwing.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

#include "crypto/ossl.h"

namespace tolvanger::crypto {

struct XWingPublicKey::Impl {
  ossl::SharedPkey mlkem;
  ossl::SharedPkey x25519;
  Bytes raw;  // ML-KEM-768 encapsulation key || X25519 public key
};

struct XWingPrivateKey::Impl {
  ossl::SharedPkey mlkem;
  ossl::SharedPkey x25519;
  SecretBytes seed;
  std::shared_ptr<const XWingPublicKey::Impl> publicKey;
};

namespace {

constexpr char kMlKem[] = "ML-KEM-768";
constexpr char kX25519[] = "X25519";
constexpr size_t kMlKemPublicSize = 1184;
constexpr size_t kMlKemCiphertextSize = 1088;
constexpr size_t kMlKemSeedSize = 64;  // d || z
constexpr size_t kX25519Size = 32;
constexpr size_t kEseedSize = 64;
constexpr size_t kSharedSecretSize = 32;
// The combiner's domain label, the ASCII art "\.//^\".
constexpr uint8_t kLabel[] = {0x5c, 0x2e, 0x2f, 0x2f, 0x5e, 0x5c};

static_assert(kMlKemPublicSize + kX25519Size == XWingPublicKey::kSize);
static_assert(kMlKemCiphertextSize + kX25519Size ==
              XWingPublicKey::kCiphertextSize);

ossl::Pkey x25519Public(ByteView raw) {
  return ossl::Pkey(EVP_PKEY_new_raw_public_key_ex(nullptr, kX25519, nullptr,
                                                   raw.data(), raw.size()));
}

Bytes x25519PublicBytes(EVP_PKEY* key) {
  Bytes out(kX25519Size);
  size_t length = out.size();
  if (EVP_PKEY_get_raw_public_key(key, out.data(), &length) != 1 ||
      length != kX25519Size) {
    ossl::fail("X25519 public key");
  }
  return out;
}

// X25519(own, peer). Nothing when the result is all zero (a low-order peer
// point), which OpenSSL refuses.
std::optional<SecretBytes> x25519(EVP_PKEY* own, EVP_PKEY* peer) {
  ossl::PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, own, nullptr));
  if (!ctx || EVP_PKEY_derive_init(ctx.get()) != 1) ossl::fail("X25519 setup");
  SecretBytes out(kSharedSecretSize);
  size_t length = out.size();
  if (EVP_PKEY_derive_set_peer(ctx.get(), peer) != 1 ||
      EVP_PKEY_derive(ctx.get(), out.mutableData(), &length) != 1 ||
      length != kSharedSecretSize) {
    ERR_clear_error();
    return std::nullopt;
  }
  return out;
}

// SHA3-256(ss_M || ss_X || ct_X || pk_X || label).
SecretBytes combine(ByteView ssM, ByteView ssX, ByteView ctX, ByteView pkX) {
  SecretBytes input(ssM.size() + ssX.size() + ctX.size() + pkX.size() +
                    sizeof kLabel);
  uint8_t* p = input.mutableData();
  for (ByteView part : {ssM, ssX, ctX, pkX, ByteView(kLabel)}) {
    std::memcpy(p, part.data(), part.size());
    p += part.size();
  }
  Digest32 digest = sha3_256(input.reveal());
  SecretBytes out(digest);
  wipe(digest.data(), digest.size());
  return out;
}

}  // namespace

std::optional<XWingPublicKey> XWingPublicKey::fromRaw(ByteView raw) {
  if (raw.size() != kSize) return std::nullopt;
  ByteView ek = raw.first(kMlKemPublicSize);
  ByteView pkX = raw.subspan(kMlKemPublicSize);
  ossl::Pkey mlkem(EVP_PKEY_new_raw_public_key_ex(nullptr, kMlKem, nullptr,
                                                  ek.data(), ek.size()));
  ossl::Pkey x(x25519Public(pkX));
  if (!mlkem || !x) {
    ERR_clear_error();
    return std::nullopt;
  }
  // A low-order X25519 point gives an all-zero secret with every clamped
  // scalar; refusing it here keeps encapsulation free of that failure.
  static constexpr uint8_t kProbe[kX25519Size] = {1};
  ossl::Pkey probe(EVP_PKEY_new_raw_private_key_ex(nullptr, kX25519, nullptr,
                                                   kProbe, sizeof kProbe));
  if (!probe) ossl::fail("X25519 key");
  if (!x25519(probe.get(), x.get())) return std::nullopt;
  return XWingPublicKey(std::make_shared<const Impl>(
      Impl{ossl::share(std::move(mlkem)), ossl::share(std::move(x)),
           Bytes(raw.begin(), raw.end())}));
}

Bytes XWingPublicKey::raw() const { return impl_->raw; }

XWingEncapsulation XWingPublicKey::encapsulate() const {
  SecretBytes eseed(kEseedSize);
  if (RAND_priv_bytes(eseed.mutableData(), static_cast<int>(kEseedSize)) != 1) {
    ossl::fail("random encapsulation seed");
  }
  return encapsulateDerand(eseed.reveal());
}

XWingEncapsulation XWingPublicKey::encapsulateDerand(ByteView eseed) const {
  if (eseed.size() != kEseedSize) {
    throw std::invalid_argument("X-Wing encapsulation seed must be 64 bytes");
  }
  // ML-KEM-768 with the given randomness m.
  ossl::PkeyCtx ctx(
      EVP_PKEY_CTX_new_from_pkey(nullptr, impl_->mlkem.get(), nullptr));
  OSSL_PARAM params[2] = {ossl::octets(OSSL_KEM_PARAM_IKME, eseed.first(32)),
                          OSSL_PARAM_construct_end()};
  Bytes ciphertext(kCiphertextSize);
  SecretBytes ssM(kSharedSecretSize);
  size_t ctLength = kMlKemCiphertextSize;
  size_t ssLength = ssM.size();
  if (!ctx || EVP_PKEY_encapsulate_init(ctx.get(), params) != 1 ||
      EVP_PKEY_encapsulate(ctx.get(), ciphertext.data(), &ctLength,
                           ssM.mutableData(), &ssLength) != 1 ||
      ctLength != kMlKemCiphertextSize || ssLength != kSharedSecretSize) {
    ossl::fail("ML-KEM-768 encapsulation");
  }

  // X25519 with the ephemeral secret eseed[32..64).
  ByteView ekX = eseed.subspan(32);
  ossl::Pkey ephemeral(EVP_PKEY_new_raw_private_key_ex(
      nullptr, kX25519, nullptr, ekX.data(), ekX.size()));
  if (!ephemeral) ossl::fail("X25519 ephemeral key");
  Bytes ctX = x25519PublicBytes(ephemeral.get());
  std::memcpy(ciphertext.data() + kMlKemCiphertextSize, ctX.data(),
              kX25519Size);
  auto ssX = x25519(ephemeral.get(), impl_->x25519.get());
  // fromRaw refused low-order points, so this cannot fail on good input.
  if (!ssX) ossl::fail("X25519 derivation");

  ByteView pkX = ByteView(impl_->raw).subspan(kMlKemPublicSize);
  return XWingEncapsulation{combine(ssM.reveal(), ssX->reveal(), ctX, pkX),
                            std::move(ciphertext)};
}

XWingPrivateKey XWingPrivateKey::generate() {
  SecretBytes seed(kSeedSize);
  if (RAND_priv_bytes(seed.mutableData(), static_cast<int>(kSeedSize)) != 1) {
    ossl::fail("random seed");
  }
  return *fromSeed(seed.reveal());
}

std::optional<XWingPrivateKey> XWingPrivateKey::fromSeed(ByteView seed) {
  if (seed.size() != kSeedSize) return std::nullopt;
  Bytes expandedBytes = shake256(seed, kMlKemSeedSize + kX25519Size);
  SecretBytes expanded(expandedBytes);
  wipe(expandedBytes);
  ByteView mlkemSeed = expanded.reveal().first(kMlKemSeedSize);
  ByteView skX = expanded.reveal().subspan(kMlKemSeedSize);

  ossl::PkeyCtx ctx(EVP_PKEY_CTX_new_from_name(nullptr, kMlKem, nullptr));
  OSSL_PARAM params[2] = {ossl::octets(OSSL_PKEY_PARAM_ML_KEM_SEED, mlkemSeed),
                          OSSL_PARAM_construct_end()};
  EVP_PKEY* rawMlkem = nullptr;
  if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1 ||
      EVP_PKEY_CTX_set_params(ctx.get(), params) != 1 ||
      EVP_PKEY_generate(ctx.get(), &rawMlkem) != 1) {
    ossl::fail("ML-KEM-768 key from seed");
  }
  ossl::Pkey mlkem(rawMlkem);
  ossl::Pkey x(EVP_PKEY_new_raw_private_key_ex(nullptr, kX25519, nullptr,
                                               skX.data(), skX.size()));
  if (!x) ossl::fail("X25519 key");

  Bytes raw(XWingPublicKey::kSize);
  size_t length = 0;
  if (EVP_PKEY_get_octet_string_param(mlkem.get(), OSSL_PKEY_PARAM_PUB_KEY,
                                      raw.data(), kMlKemPublicSize,
                                      &length) != 1 ||
      length != kMlKemPublicSize) {
    ossl::fail("ML-KEM-768 public key");
  }
  Bytes pkX = x25519PublicBytes(x.get());
  std::memcpy(raw.data() + kMlKemPublicSize, pkX.data(), kX25519Size);
  auto publicKey = XWingPublicKey::fromRaw(raw);
  // Our own X25519 key is never of low order, so this always succeeds.
  if (!publicKey) ossl::fail("X-Wing public key");

  return XWingPrivateKey(std::make_shared<const Impl>(
      Impl{ossl::share(std::move(mlkem)), ossl::share(std::move(x)),
           SecretBytes(seed), publicKey->impl_}));
}

SecretBytes XWingPrivateKey::seed() const {
  return SecretBytes(impl_->seed.reveal());
}

XWingPublicKey XWingPrivateKey::publicKey() const {
  return XWingPublicKey(impl_->publicKey);
}

std::optional<SecretBytes> XWingPrivateKey::decapsulate(
    ByteView ciphertext) const {
  if (ciphertext.size() != XWingPublicKey::kCiphertextSize) return std::nullopt;
  ByteView ctM = ciphertext.first(kMlKemCiphertextSize);
  ByteView ctX = ciphertext.subspan(kMlKemCiphertextSize);

  ossl::PkeyCtx ctx(
      EVP_PKEY_CTX_new_from_pkey(nullptr, impl_->mlkem.get(), nullptr));
  SecretBytes ssM(kSharedSecretSize);
  size_t ssLength = ssM.size();
  if (!ctx || EVP_PKEY_decapsulate_init(ctx.get(), nullptr) != 1 ||
      EVP_PKEY_decapsulate(ctx.get(), ssM.mutableData(), &ssLength, ctM.data(),
                           ctM.size()) != 1 ||
      ssLength != kSharedSecretSize) {
    ossl::fail("ML-KEM-768 decapsulation");
  }

  ossl::Pkey peer(x25519Public(ctX));
  if (!peer) {
    ERR_clear_error();
    return std::nullopt;
  }
  auto ssX = x25519(impl_->x25519.get(), peer.get());
  if (!ssX) return std::nullopt;
  ByteView pkX = ByteView(impl_->publicKey->raw).subspan(kMlKemPublicSize);
  return combine(ssM.reveal(), ssX->reveal(), ctX, pkX);
}

}  // namespace tolvanger::crypto
