#include "tolvanger/kit/crypto/p256.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/param_build.h>
#include <openssl/x509.h>

#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "crypto/ossl.h"

namespace tolvanger::crypto {

struct P256PublicKey::Impl {
  ossl::SharedPkey pkey;
  Bytes der;
};

struct P256PrivateKey::Impl {
  ossl::SharedPkey pkey;
  std::shared_ptr<const P256PublicKey::Impl> publicKey;
};

namespace {

constexpr size_t kScalarSize = 32;
constexpr size_t kPointSize = 65;  // 0x04 || x || y
constexpr size_t kSpkiSize = 91;   // the DER SPKI around an uncompressed point
constexpr char kGroupName[] = "prime256v1";

struct GroupFree {
  void operator()(EC_GROUP* p) const { EC_GROUP_free(p); }
};
struct PointFree {
  void operator()(EC_POINT* p) const { EC_POINT_free(p); }
};
struct BnCtxFree {
  void operator()(BN_CTX* p) const { BN_CTX_free(p); }
};
struct ParamBldFree {
  void operator()(OSSL_PARAM_BLD* p) const { OSSL_PARAM_BLD_free(p); }
};
struct ParamsFree {
  void operator()(OSSL_PARAM* p) const { OSSL_PARAM_free(p); }
};
struct SigFree {
  void operator()(ECDSA_SIG* p) const { ECDSA_SIG_free(p); }
};

std::unique_ptr<EC_GROUP, GroupFree> p256Group() {
  std::unique_ptr<EC_GROUP, GroupFree> group(
      EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1));
  if (!group) ossl::fail("P-256 group");
  return group;
}

// Builds an EC key on P-256 from an uncompressed point and, if given, the
// private scalar.
ossl::Pkey keyFromParts(ByteView point, const BIGNUM* scalar) {
  std::unique_ptr<OSSL_PARAM_BLD, ParamBldFree> bld(OSSL_PARAM_BLD_new());
  if (!bld ||
      OSSL_PARAM_BLD_push_utf8_string(bld.get(), OSSL_PKEY_PARAM_GROUP_NAME,
                                      kGroupName, 0) != 1 ||
      OSSL_PARAM_BLD_push_octet_string(bld.get(), OSSL_PKEY_PARAM_PUB_KEY,
                                       point.data(), point.size()) != 1 ||
      (scalar != nullptr &&
       OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_PRIV_KEY, scalar) !=
           1)) {
    ossl::fail("P-256 key parameters");
  }
  std::unique_ptr<OSSL_PARAM, ParamsFree> params(
      OSSL_PARAM_BLD_to_param(bld.get()));
  ossl::PkeyCtx ctx(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
  EVP_PKEY* raw = nullptr;
  if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
      EVP_PKEY_fromdata(
          ctx.get(), &raw,
          scalar != nullptr ? EVP_PKEY_KEYPAIR : EVP_PKEY_PUBLIC_KEY,
          params.get()) != 1) {
    ossl::fail("P-256 key import");
  }
  return ossl::Pkey(raw);
}

Bytes encodedPoint(EVP_PKEY* pkey) {
  Bytes point(kPointSize);
  size_t length = 0;
  if (EVP_PKEY_get_octet_string_param(pkey, OSSL_PKEY_PARAM_PUB_KEY,
                                      point.data(), point.size(),
                                      &length) != 1 ||
      length != kPointSize || point[0] != 0x04) {
    ossl::fail("P-256 public point");
  }
  return point;
}

std::shared_ptr<const P256PublicKey::Impl> publicImpl(ossl::Pkey pkey) {
  unsigned char* der = nullptr;
  int length = i2d_PUBKEY(pkey.get(), &der);
  if (length <= 0) ossl::fail("P-256 public key encoding");
  Bytes out(der, der + length);
  OPENSSL_free(der);
  return std::make_shared<const P256PublicKey::Impl>(
      P256PublicKey::Impl{ossl::share(std::move(pkey)), std::move(out)});
}

// True when the point's y is at most p - y, so x alone (with that rule)
// names the point.
bool isCompactRepresentable(ByteView point) {
  static constexpr uint8_t kFieldPrime[kScalarSize] = {
      0xff, 0xff, 0xff, 0xff, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00,
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xff, 0xff,
      0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
  ossl::Bignum p(BN_bin2bn(kFieldPrime, kScalarSize, nullptr));
  ossl::Bignum y(
      BN_bin2bn(point.data() + 1 + kScalarSize, kScalarSize, nullptr));
  ossl::Bignum negY(BN_new());
  if (!p || !y || !negY || BN_sub(negY.get(), p.get(), y.get()) != 1) {
    ossl::fail("P-256 point arithmetic");
  }
  return BN_cmp(y.get(), negY.get()) <= 0;
}

}  // namespace

std::optional<P256PublicKey> P256PublicKey::fromDER(ByteView spki) {
  if (spki.size() != kSpkiSize) return std::nullopt;
  const unsigned char* cursor = spki.data();
  ossl::Pkey pkey(d2i_PUBKEY(nullptr, &cursor, static_cast<long>(spki.size())));
  char group[32] = {};
  size_t groupLength = 0;
  if (!pkey || cursor != spki.data() + spki.size() ||
      !EVP_PKEY_is_a(pkey.get(), "EC") ||
      EVP_PKEY_get_group_name(pkey.get(), group, sizeof group, &groupLength) !=
          1 ||
      std::string_view(group, groupLength) != kGroupName) {
    ERR_clear_error();
    return std::nullopt;
  }
  auto impl = publicImpl(std::move(pkey));
  // Only the one canonical encoding: named curve, uncompressed point, DER.
  if (impl->der.size() != spki.size() ||
      std::memcmp(impl->der.data(), spki.data(), spki.size()) != 0) {
    return std::nullopt;
  }
  return P256PublicKey(std::move(impl));
}

Bytes P256PublicKey::der() const { return impl_->der; }

bool P256PublicKey::verify(ByteView message, ByteView derSignature) const {
  // OpenSSL's verifier also insists on DER; the check is made here so the
  // rule does not rest on a library detail.
  const unsigned char* cursor = derSignature.data();
  std::unique_ptr<ECDSA_SIG, SigFree> sig(
      d2i_ECDSA_SIG(nullptr, &cursor, static_cast<long>(derSignature.size())));
  if (!sig || cursor != derSignature.data() + derSignature.size()) {
    ERR_clear_error();
    return false;
  }
  unsigned char* reencoded = nullptr;
  int length = i2d_ECDSA_SIG(sig.get(), &reencoded);
  bool canonical = length > 0 &&
                   static_cast<size_t>(length) == derSignature.size() &&
                   std::memcmp(reencoded, derSignature.data(), length) == 0;
  OPENSSL_free(reencoded);
  if (!canonical) return false;

  ossl::MdCtx ctx(EVP_MD_CTX_new());
  if (!ctx ||
      EVP_DigestVerifyInit_ex(ctx.get(), nullptr, "SHA256", nullptr, nullptr,
                              impl_->pkey.get(), nullptr) != 1) {
    ossl::fail("ECDSA verify setup");
  }
  bool ok =
      EVP_DigestVerify(ctx.get(), derSignature.data(), derSignature.size(),
                       message.data(), message.size()) == 1;
  if (!ok) ERR_clear_error();
  return ok;
}

P256PrivateKey P256PrivateKey::generate(bool compactRepresentable) {
  for (;;) {
    ossl::Pkey pkey(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    if (!pkey) ossl::fail("P-256 key generation");
    Bytes point = encodedPoint(pkey.get());
    // Half of all keys qualify, so this ends after two draws on average.
    if (compactRepresentable && !isCompactRepresentable(point)) continue;
    auto pub = publicImpl(keyFromParts(point, nullptr));
    return P256PrivateKey(std::make_shared<const Impl>(
        Impl{ossl::share(std::move(pkey)), std::move(pub)}));
  }
}

std::optional<P256PrivateKey> P256PrivateKey::fromRaw(ByteView scalar) {
  if (scalar.size() != kScalarSize) return std::nullopt;
  auto group = p256Group();
  ossl::Bignum d(BN_secure_new());
  if (!d || BN_bin2bn(scalar.data(), kScalarSize, d.get()) == nullptr) {
    ossl::fail("P-256 scalar");
  }
  if (BN_is_zero(d.get()) ||
      BN_cmp(d.get(), EC_GROUP_get0_order(group.get())) >= 0) {
    return std::nullopt;
  }
  BN_set_flags(d.get(), BN_FLG_CONSTTIME);
  std::unique_ptr<BN_CTX, BnCtxFree> bnctx(BN_CTX_secure_new());
  std::unique_ptr<EC_POINT, PointFree> q(EC_POINT_new(group.get()));
  Bytes point(kPointSize);
  if (!bnctx || !q ||
      EC_POINT_mul(group.get(), q.get(), d.get(), nullptr, nullptr,
                   bnctx.get()) != 1 ||
      EC_POINT_point2oct(group.get(), q.get(), POINT_CONVERSION_UNCOMPRESSED,
                         point.data(), point.size(),
                         bnctx.get()) != kPointSize) {
    ossl::fail("P-256 public point");
  }
  auto pkey = keyFromParts(point, d.get());
  auto pub = publicImpl(keyFromParts(point, nullptr));
  return P256PrivateKey(std::make_shared<const Impl>(
      Impl{ossl::share(std::move(pkey)), std::move(pub)}));
}

SecretBytes P256PrivateKey::raw() const {
  BIGNUM* d = nullptr;
  if (EVP_PKEY_get_bn_param(impl_->pkey.get(), OSSL_PKEY_PARAM_PRIV_KEY, &d) !=
      1) {
    ossl::fail("P-256 private scalar");
  }
  ossl::Bignum owned(d);
  SecretBytes out(kScalarSize);
  if (BN_bn2binpad(d, out.mutableData(), kScalarSize) != kScalarSize) {
    ossl::fail("P-256 private scalar");
  }
  return out;
}

P256PublicKey P256PrivateKey::publicKey() const {
  return P256PublicKey(impl_->publicKey);
}

Bytes P256PrivateKey::sign(ByteView message) const {
  ossl::MdCtx ctx(EVP_MD_CTX_new());
  int maxLength = EVP_PKEY_get_size(impl_->pkey.get());
  if (!ctx || maxLength <= 0 ||
      EVP_DigestSignInit_ex(ctx.get(), nullptr, "SHA256", nullptr, nullptr,
                            impl_->pkey.get(), nullptr) != 1) {
    ossl::fail("ECDSA sign setup");
  }
  size_t length = static_cast<size_t>(maxLength);
  Bytes sig(length);
  if (EVP_DigestSign(ctx.get(), sig.data(), &length, message.data(),
                     message.size()) != 1) {
    ossl::fail("ECDSA sign");
  }
  sig.resize(length);
  return sig;
}

}  // namespace tolvanger::crypto
