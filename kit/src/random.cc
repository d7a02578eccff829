#include "tolvanger/kit/random.h"

#include <openssl/rand.h>

#include <cstdio>
#include <cstdlib>

namespace tolvanger::Random {

Bytes bytes(size_t n) {
  Bytes out(n);
  if (n > 0 && RAND_bytes(out.data(), static_cast<int>(n)) != 1) {
    std::fputs("the system's random generator failed\n", stderr);
    std::abort();
  }
  return out;
}

std::string hex(size_t n) { return toHex(bytes(n)); }

}  // namespace tolvanger::Random
