#include "tolvanger/kit/fingerprint.h"

#include "tolvanger/kit/crypto/digest.h"

namespace tolvanger::Fingerprint {

std::string of(ByteView data) {
  const std::string hex = crypto::sha256Hex(data);
  return hex.substr(0, 4) + "-" + hex.substr(4, 4) + "-" + hex.substr(8, 4) +
         "-" + hex.substr(12, 4);
}

}  // namespace tolvanger::Fingerprint
