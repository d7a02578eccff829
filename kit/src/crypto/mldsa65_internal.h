// ML-DSA-65 entry points below the public API, for known-answer tests that
// are written against FIPS 204's internal functions.
#ifndef TOLVANGER_KIT_SRC_CRYPTO_MLDSA65_INTERNAL_H_
#define TOLVANGER_KIT_SRC_CRYPTO_MLDSA65_INTERNAL_H_

#include "tolvanger/kit/bytes.h"

namespace tolvanger::crypto {

// ML-DSA.Verify_internal: checks `signature` over the already formatted
// message M' (no domain separator or context is added). False on any
// mismatch, malformed key or malformed signature.
bool mldsa65VerifyInternal(ByteView publicKeyRaw, ByteView formattedMessage,
                           ByteView signature);

}  // namespace tolvanger::crypto

#endif  // TOLVANGER_KIT_SRC_CRYPTO_MLDSA65_INTERNAL_H_
