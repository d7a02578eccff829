// Small helpers shared by the crypto sources: owning handles for OpenSSL
// objects and parameter construction from byte views.
#ifndef TOLVANGER_KIT_SRC_CRYPTO_OSSL_H_
#define TOLVANGER_KIT_SRC_CRYPTO_OSSL_H_

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <memory>
#include <string>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/digest.h"

namespace tolvanger::crypto::ossl {

struct PkeyFree {
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
struct PkeyCtxFree {
  void operator()(EVP_PKEY_CTX* p) const { EVP_PKEY_CTX_free(p); }
};
struct MdCtxFree {
  void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }
};
struct CipherCtxFree {
  void operator()(EVP_CIPHER_CTX* p) const { EVP_CIPHER_CTX_free(p); }
};
struct BnClearFree {
  void operator()(BIGNUM* p) const { BN_clear_free(p); }
};

using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
using PkeyCtx = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree>;
using MdCtx = std::unique_ptr<EVP_MD_CTX, MdCtxFree>;
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree>;
using Bignum = std::unique_ptr<BIGNUM, BnClearFree>;

// Shared ownership of a key, for the immutable key objects of the public API.
using SharedPkey = std::shared_ptr<EVP_PKEY>;
inline SharedPkey share(Pkey key) {
  return SharedPkey(key.release(), PkeyFree{});
}

// Throws `CryptoError` naming what failed; used where only an OpenSSL fault
// (not the caller's input) can lead.
[[noreturn]] inline void fail(const std::string& what) {
  throw CryptoError("OpenSSL failed: " + what);
}

// An octet-string parameter over `data`. OpenSSL treats a null pointer as
// "absent", so an empty view points at a harmless static byte instead.
inline OSSL_PARAM octets(const char* name, ByteView data) {
  static unsigned char kEmpty = 0;
  void* p = data.empty() ? static_cast<void*>(&kEmpty)
                         : const_cast<uint8_t*>(data.data());
  return OSSL_PARAM_construct_octet_string(name, p, data.size());
}

}  // namespace tolvanger::crypto::ossl

#endif  // TOLVANGER_KIT_SRC_CRYPTO_OSSL_H_
