// Test access to a Service's registries. Product code changes state only
// through Service's own methods; tests use this to set a scene (a paired
// device, announced secrets) or to look behind the door.
#ifndef TOLVANGER_SERVICE_TESTING_SERVICE_INTERNALS_H_
#define TOLVANGER_SERVICE_TESTING_SERVICE_INTERNALS_H_

#include "tolvanger/service/service.h"

namespace tolvanger::service {

struct ServiceInternals {
  static Identity& identity(Service& s) { return s.identity_; }
  static Devices& devices(Service& s) { return s.devices_; }
  static Pairing& pairing(Service& s) { return s.pairing_; }
  static Store& store(Service& s) { return s.store_; }
  static Credentials& credentials(Service& s) { return s.credentials_; }
  static SecretNames& secrets(Service& s) { return s.secrets_; }
  static Journal& journal(Service& s) { return s.journal_; }
  static Nudges& nudges(Service& s) { return s.nudges_; }
  static Callers& callers(Service& s) { return s.callers_; }
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_TESTING_SERVICE_INTERNALS_H_
