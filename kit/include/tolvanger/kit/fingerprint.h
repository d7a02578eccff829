// The short form of a public key that a person compares by eye: SHA-256 of
// the key's wire bytes, the first 16 lowercase hexadecimal digits, in four
// groups of four joined by "-" (19 characters, e.g. "a1b2-c3d4-e5f6-0718").
// Phone and computer use this same function.
//
// Thread safety: pure function.
#ifndef TOLVANGER_KIT_FINGERPRINT_H_
#define TOLVANGER_KIT_FINGERPRINT_H_

#include <string>

#include "tolvanger/kit/bytes.h"

namespace tolvanger::Fingerprint {

// `data` is exactly what goes on the wire: DER for a P-256 key, raw for an
// ML-DSA-65 or X-Wing key. Empty input gives "e3b0-c442-98fc-1c14".
std::string of(ByteView data);

}  // namespace tolvanger::Fingerprint

#endif  // TOLVANGER_KIT_FINGERPRINT_H_
