// Test support: a temporary home and a phone made of software keys that
// pairs with a `Service` in the same process, signs approvals and seals
// credentials for it, the way the phone's own code would.
#ifndef TOLVANGER_SERVICE_TESTING_PAIRED_PHONE_H_
#define TOLVANGER_SERVICE_TESTING_PAIRED_PHONE_H_

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "testing/service_internals.h"
#include "testing/temp_home.h"
#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/crypto/xwing.h"
#include "tolvanger/kit/pair_link.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {

// A phone made of software keys.
struct Phone {
  std::string id = "phone-1";
  crypto::P256PrivateKey key = crypto::P256PrivateKey::generate();
  crypto::MLDSA65PrivateKey pq = crypto::MLDSA65PrivateKey::generate();
  crypto::XWingPrivateKey cloud = crypto::XWingPrivateKey::generate();
  std::string secret;

  // Pairs through the window as the pair routes would drive it.
  void pair(Service& service) {
    const PairOpened opened =
        ServiceInternals::pairing(service).open(std::string("127.0.0.1"));
    const auto link = PairURL::parse(opened.url);
    ASSERT_TRUE(link.has_value());
    const nlohmann::json offered =
        ServiceInternals::pairing(service).offer(nlohmann::json{
            {"token", link->token},
            {"device_id", id},
            {"name", "Test Phone"},
            {"public_key", toBase64(key.publicKey().der())},
            {"public_key_pq", toBase64(pq.publicKey().raw())},
            {"cloud_public_key", toBase64(cloud.publicKey().raw())}});
    ASSERT_EQ(offered["ok"], true) << offered;
    const std::string code =
        ServiceInternals::pairing(service).status()["code"];
    const PairResult result = ServiceInternals::pairing(service).confirm(
        nlohmann::json{{"token", link->token}, {"code", code}});
    secret = result.device.secret;
  }

  Approval approve(Service& service, const StoredRequest& r) const {
    const std::string bound = service.binding(r);
    Approval a;
    a.requestID = r.id;
    a.deviceID = id;
    a.digest = r.digest;
    a.signatureBase64 = toBase64(key.sign(asBytes(bound)));
    a.pqSignatureBase64 = toBase64(pq.sign(asBytes(bound)));
    a.road = "lan";
    return a;
  }

  static nlohmann::json credential(const Service& service,
                                   const std::string& requestID,
                                   nlohmann::json offer) {
    const std::string text = offer.dump();
    return CloudSeal::seal(asBytes(text), service.cloudKey().publicKey(),
                           "cred", requestID)
        .asDictionary();
  }

  // Approves `r` with `value` sealed as the credential it names.
  Approval approveWith(Service& service, const StoredRequest& r,
                       const std::string& kind, const std::string& value,
                       nlohmann::json& envelope) const {
    Approval a = approve(service, r);
    envelope =
        credential(service, r.id,
                   nlohmann::json{{"request_id", r.id},
                                  {"name", r.credentialName.value_or("")},
                                  {"kind", kind},
                                  {"value", value}});
    a.credentialEnvelope = &envelope;
    return a;
  }
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_TESTING_PAIRED_PHONE_H_
