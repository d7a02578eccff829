// Parsed public keys of the paired phones, kept so that an approval does not
// decode and validate a phone's keys from their stored bytes every time
// (validating a P-256 point and expanding an ML-DSA-65 key cost about as much
// as the signature checks themselves).
//
// An entry is used only while the device's stored key bytes are exactly the
// ones it was parsed from, so a re-paired or recovered phone's new keys are
// picked up at once.
//
// Thread safety: all members may be called from any thread; `mu_` guards the
// map and is not held while a key is parsed.
#ifndef TOLVANGER_SERVICE_DEVICE_KEYS_H_
#define TOLVANGER_SERVICE_DEVICE_KEYS_H_

#include <map>
#include <optional>
#include <string>

#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/service/devices.h"

namespace tolvanger::service {

class DeviceKeys {
 public:
  struct Parsed {
    std::optional<crypto::P256PublicKey> key;  // nothing if `spki` is unusable
    std::optional<crypto::MLDSA65PublicKey>
        pq;  // nothing if absent or unusable
  };

  // The device's keys, parsed once for each set of stored bytes.
  Parsed of(const Device& device) EXCLUDES(mu_);

 private:
  struct Entry {
    Bytes spki;
    std::optional<Bytes> pq;
    Parsed parsed;
  };
  Mutex mu_;
  std::map<std::string, Entry, std::less<>> entries_ GUARDED_BY(mu_);
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_DEVICE_KEYS_H_
