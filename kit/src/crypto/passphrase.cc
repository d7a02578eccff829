#include "tolvanger/kit/crypto/passphrase.h"

#include <openssl/core_names.h>
#include <openssl/kdf.h>

#include <cstring>

#include "crypto/ossl.h"
#include "tolvanger/kit/random.h"

namespace tolvanger::crypto {
namespace {

constexpr char kMagic[4] = {'T', 'P', 'S', '1'};
constexpr size_t kSalt = 16;
constexpr size_t kNonce = 12;
constexpr size_t kTag = 16;
constexpr size_t kHeader = sizeof kMagic + 12 + kSalt + kNonce;

void putU32(Bytes& out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    out.push_back(static_cast<uint8_t>(v >> shift));
  }
}

uint32_t getU32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) |
         (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

}  // namespace

SecretBytes scrypt(ByteView passphrase, ByteView salt, size_t length,
                   const ScryptCost& cost) {
  std::unique_ptr<EVP_KDF, decltype(&EVP_KDF_free)> kdf(
      EVP_KDF_fetch(nullptr, "SCRYPT", nullptr), EVP_KDF_free);
  if (!kdf) ossl::fail("SCRYPT is not available");
  std::unique_ptr<EVP_KDF_CTX, decltype(&EVP_KDF_CTX_free)> ctx(
      EVP_KDF_CTX_new(kdf.get()), EVP_KDF_CTX_free);
  if (!ctx) ossl::fail("EVP_KDF_CTX_new");
  uint64_t n = uint64_t{1} << cost.log2N;
  uint32_t r = cost.r;
  uint32_t p = cost.p;
  // Room for what these parameters need, and no more.
  uint64_t maxmem = 256 * n * r * p + (1 << 20);
  const OSSL_PARAM params[] = {
      ossl::octets(OSSL_KDF_PARAM_PASSWORD, passphrase),
      ossl::octets(OSSL_KDF_PARAM_SALT, salt),
      OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_SCRYPT_N, &n),
      OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_R, &r),
      OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_P, &p),
      OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_SCRYPT_MAXMEM, &maxmem),
      OSSL_PARAM_construct_end(),
  };
  SecretBytes key(length);
  if (EVP_KDF_derive(ctx.get(), key.mutableData(), length, params) != 1) {
    ossl::fail("scrypt");
  }
  return key;
}

Bytes aesGcmSeal(ByteView key, ByteView nonce, ByteView aad,
                 ByteView plaintext) {
  ossl::CipherCtx ctx(EVP_CIPHER_CTX_new());
  if (!ctx || key.size() != 32 || nonce.size() != kNonce) {
    ossl::fail("AES-GCM setup");
  }
  Bytes out(plaintext.size() + kTag);
  int n = 0;
  int total = 0;
  if (EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, key.data(),
                         nonce.data()) != 1 ||
      (!aad.empty() && EVP_EncryptUpdate(ctx.get(), nullptr, &n, aad.data(),
                                         static_cast<int>(aad.size())) != 1) ||
      EVP_EncryptUpdate(ctx.get(), out.data(), &n, plaintext.data(),
                        static_cast<int>(plaintext.size())) != 1) {
    ossl::fail("AES-GCM seal");
  }
  total = n;
  if (EVP_EncryptFinal_ex(ctx.get(), out.data() + total, &n) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, kTag,
                          out.data() + plaintext.size()) != 1) {
    ossl::fail("AES-GCM tag");
  }
  return out;
}

std::optional<SecretBytes> aesGcmOpen(ByteView key, ByteView nonce,
                                      ByteView aad, ByteView sealed) {
  if (sealed.size() < kTag || key.size() != 32 || nonce.size() != kNonce) {
    return std::nullopt;
  }
  ossl::CipherCtx ctx(EVP_CIPHER_CTX_new());
  if (!ctx) ossl::fail("AES-GCM setup");
  const size_t length = sealed.size() - kTag;
  SecretBytes out(length);
  uint8_t tag[kTag];
  std::memcpy(tag, sealed.data() + length, kTag);
  int n = 0;
  uint8_t scratch = 0;
  if (EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, key.data(),
                         nonce.data()) != 1 ||
      (!aad.empty() && EVP_DecryptUpdate(ctx.get(), nullptr, &n, aad.data(),
                                         static_cast<int>(aad.size())) != 1) ||
      (length > 0 &&
       EVP_DecryptUpdate(ctx.get(), out.mutableData(), &n, sealed.data(),
                         static_cast<int>(length)) != 1) ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, kTag, tag) != 1) {
    return std::nullopt;
  }
  if (EVP_DecryptFinal_ex(
          ctx.get(), length > 0 ? out.mutableData() + n : &scratch, &n) != 1) {
    return std::nullopt;
  }
  return out;
}

Bytes sealWithPassphrase(ByteView passphrase, ByteView plaintext,
                         const ScryptCost& cost) {
  Bytes out(kMagic, kMagic + sizeof kMagic);
  putU32(out, cost.log2N);
  putU32(out, cost.r);
  putU32(out, cost.p);
  const Bytes salt = Random::bytes(kSalt);
  const Bytes nonce = Random::bytes(kNonce);
  out.insert(out.end(), salt.begin(), salt.end());
  out.insert(out.end(), nonce.begin(), nonce.end());
  const SecretBytes key = scrypt(passphrase, salt, 32, cost);
  const Bytes sealed = aesGcmSeal(key.reveal(), nonce, out, plaintext);
  out.insert(out.end(), sealed.begin(), sealed.end());
  return out;
}

std::optional<SecretBytes> openWithPassphrase(ByteView passphrase,
                                              ByteView sealed) {
  if (sealed.size() < kHeader + kTag ||
      std::memcmp(sealed.data(), kMagic, sizeof kMagic) != 0) {
    return std::nullopt;
  }
  ScryptCost cost;
  cost.log2N = getU32(sealed.data() + 4);
  cost.r = getU32(sealed.data() + 8);
  cost.p = getU32(sealed.data() + 12);
  if (cost.log2N < 1 || cost.log2N > 20 || cost.r == 0 || cost.r > 32 ||
      cost.p == 0 || cost.p > 16) {
    return std::nullopt;
  }
  const ByteView salt = sealed.subspan(16, kSalt);
  const ByteView nonce = sealed.subspan(16 + kSalt, kNonce);
  const SecretBytes key = scrypt(passphrase, salt, 32, cost);
  return aesGcmOpen(key.reveal(), nonce, sealed.first(kHeader),
                    sealed.subspan(kHeader));
}

}  // namespace tolvanger::crypto
