#include "tolvanger/service/device_keys.h"

namespace tolvanger::service {

DeviceKeys::Parsed DeviceKeys::of(const Device& device) {
  {
    MutexLock lock(mu_);
    const auto it = entries_.find(device.deviceID);
    if (it != entries_.end() && it->second.spki == device.spki &&
        it->second.pq == device.pq) {
      return it->second.parsed;
    }
  }
  Parsed parsed{device.publicKey(), device.pqPublicKey()};
  MutexLock lock(mu_);
  entries_[device.deviceID] = Entry{device.spki, device.pq, parsed};
  return parsed;
}

}  // namespace tolvanger::service
