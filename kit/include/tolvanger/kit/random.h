// The one source of random ids and tokens: the system's secure generator
// (OpenSSL's DRBG, seeded from the kernel).
//
// Thread safety: may be called from any thread.
#ifndef TOLVANGER_KIT_RANDOM_H_
#define TOLVANGER_KIT_RANDOM_H_

#include <cstddef>
#include <string>

#include "tolvanger/kit/bytes.h"

namespace tolvanger::Random {

// `n` random bytes. Aborts the process if the generator fails, since nothing
// that needs randomness can go on safely without it.
Bytes bytes(size_t n);

// `n` random bytes as 2n lowercase hexadecimal digits.
std::string hex(size_t n);

}  // namespace tolvanger::Random

#endif  // TOLVANGER_KIT_RANDOM_H_
