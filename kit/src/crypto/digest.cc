#include "tolvanger/kit/crypto/digest.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>

#include <memory>
#include <stdexcept>

#include "crypto/ossl.h"

namespace tolvanger::crypto {
namespace {

struct KdfFree {
  void operator()(EVP_KDF* p) const { EVP_KDF_free(p); }
};
struct KdfCtxFree {
  void operator()(EVP_KDF_CTX* p) const { EVP_KDF_CTX_free(p); }
};

Digest32 digest32(const EVP_MD* md, ByteView data, const char* name) {
  Digest32 out{};
  unsigned int length = 0;
  if (EVP_Digest(data.data(), data.size(), out.data(), &length, md, nullptr) !=
          1 ||
      length != out.size()) {
    ossl::fail(name);
  }
  return out;
}

// Runs OpenSSL's HKDF-SHA256 in the given mode ("EXTRACT_ONLY" or
// "EXPAND_ONLY"). `key` is the input keying material or the PRK; `saltOrInfo`
// goes under `saltOrInfoName` and is left out when empty (an absent salt is
// HashLen zero bytes, which HMAC treats the same as an empty one).
SecretBytes hkdf(const char* mode, ByteView key, const char* saltOrInfoName,
                 ByteView saltOrInfo, size_t length) {
  std::unique_ptr<EVP_KDF, KdfFree> kdf(
      EVP_KDF_fetch(nullptr, "HKDF", nullptr));
  if (!kdf) ossl::fail("HKDF fetch");
  std::unique_ptr<EVP_KDF_CTX, KdfCtxFree> ctx(EVP_KDF_CTX_new(kdf.get()));
  if (!ctx) ossl::fail("HKDF context");
  char digestName[] = "SHA256";
  OSSL_PARAM params[5];
  size_t n = 0;
  params[n++] =
      OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digestName, 0);
  params[n++] = OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_MODE,
                                                 const_cast<char*>(mode), 0);
  params[n++] = ossl::octets(OSSL_KDF_PARAM_KEY, key);
  if (!saltOrInfo.empty()) {
    params[n++] = ossl::octets(saltOrInfoName, saltOrInfo);
  }
  params[n] = OSSL_PARAM_construct_end();
  SecretBytes out(length);
  if (EVP_KDF_derive(ctx.get(), out.mutableData(), length, params) != 1) {
    ossl::fail("HKDF derive");
  }
  return out;
}

}  // namespace

Digest32 sha256(ByteView data) {
  return digest32(EVP_sha256(), data, "SHA-256");
}

std::string sha256Hex(ByteView data) { return toHex(sha256(data)); }

Digest32 sha3_256(ByteView data) {
  return digest32(EVP_sha3_256(), data, "SHA3-256");
}

Bytes shake256(ByteView data, size_t outLength) {
  Bytes out(outLength);
  ossl::MdCtx ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_shake256(), nullptr) != 1 ||
      EVP_DigestUpdate(ctx.get(), data.data(), data.size()) != 1 ||
      (outLength > 0 &&
       EVP_DigestFinalXOF(ctx.get(), out.data(), outLength) != 1)) {
    ossl::fail("SHAKE256");
  }
  return out;
}

SecretBytes hkdfExtract(ByteView salt, ByteView ikm) {
  return hkdf("EXTRACT_ONLY", ikm, OSSL_KDF_PARAM_SALT, salt, 32);
}

SecretBytes hkdfExpand(ByteView prk, ByteView info, size_t length) {
  if (length > 255 * 32) {
    throw std::invalid_argument("HKDF-Expand length above 255 * 32");
  }
  if (length == 0) return SecretBytes();
  return hkdf("EXPAND_ONLY", prk, OSSL_KDF_PARAM_INFO, info, length);
}

void releaseThreadState() { OPENSSL_thread_stop(); }

}  // namespace tolvanger::crypto
