// Approval from the service's side: a software phone with real keys pairs
// through the window, and its approvals are checked to the last byte.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "testing/paired_phone.h"
#include "testing/service_internals.h"
#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/crypto/xwing.h"
#include "tolvanger/kit/pair_link.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

class ApprovalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    service = std::make_unique<Service>(Home(home.path));
    phone.pair(*service);
    ASSERT_FALSE(phone.secret.empty());
    ServiceInternals::secrets(*service).replace(
        {SecretName{"sheets", "bearer", {"api.example"}, {}, 1}});
  }
  StoredRequest raise(std::optional<std::string> credential = std::nullopt) {
    Fields fields;
    fields.set("client", std::string("claude"));
    RaiseOptions options;
    options.credentialName = credential;
    return service->raise("deploy", fields, options);
  }
  void expectRefused(const Approval& a, const std::string& sentence) {
    try {
      service->approve(a);
      ADD_FAILURE() << "approved, expected: " << sentence;
    } catch (const ServiceError& e) {
      EXPECT_EQ(std::string(e.what()), sentence);
    }
  }
  std::string journal() {
    std::ifstream in(home.path + "/journal.log");
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  TempHome home;
  std::unique_ptr<Service> service;
  Phone phone;
};

TEST_F(ApprovalTest, AGoodApprovalSettlesTheRequestOnce) {
  std::vector<json> events;
  service->subscribe([&](const json& e) { events.push_back(e); });
  const StoredRequest r = raise();
  const StoredRequest approved = service->approve(phone.approve(*service, r));
  EXPECT_EQ(approved.state, RequestState::kApproved);
  EXPECT_EQ(approved.deviceID, phone.id);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0], (json{{"event", "decided"},
                             {"request_id", r.id},
                             {"state", "approved"},
                             {"credential", false}}));
  EXPECT_NE(journal().find(" approved client=claude credential=- "
                           "device=phone-1 request=" +
                           r.id + " road=lan\n"),
            std::string::npos);
  expectRefused(phone.approve(*service, r),
                "that request was already approved");
}

// Every refusal leaves the request pending, so a good approval still follows.
TEST_F(ApprovalTest, EachWrongApprovalIsRefusedAndAGoodOneStillPasses) {
  const StoredRequest r = raise();
  const Approval good = phone.approve(*service, r);
  Phone stranger;
  stranger.id = phone.id;

  Approval a = good;
  a.requestID = "r0000000000000000";
  expectRefused(a, "no such request");
  a = good;
  a.deviceID = "phone-2";
  expectRefused(a, "that device is not paired here");
  a = good;
  a.digest = std::string(64, '0');
  expectRefused(a, "that is not this request's digest");
  a = good;
  a.signatureBase64 = "not base64!";
  expectRefused(a, "that signature is not this device's");
  a = good;
  a.signatureBase64 = stranger.approve(*service, r).signatureBase64;
  expectRefused(a, "that signature is not this device's");
  // A signature by the right key over another service's binding.
  a = good;
  std::string foreign = service->binding(r);
  foreign.replace(foreign.find(service->config.daemonID),
                  service->config.daemonID.size(), "tolvanger-00000000");
  a.signatureBase64 = toBase64(phone.key.sign(asBytes(foreign)));
  expectRefused(a, "that signature is not this device's");
  a = good;
  a.pqSignatureBase64.reset();
  expectRefused(a, "that approval lacks this device's post-quantum signature");
  a = good;
  a.pqSignatureBase64 = stranger.approve(*service, r).pqSignatureBase64;
  expectRefused(a, "that approval lacks this device's post-quantum signature");
  // A good envelope on a request that asks for no credential.
  const json envelope = Phone::credential(*service, r.id,
                                          {{"request_id", r.id},
                                           {"name", "sheets"},
                                           {"kind", "bearer"},
                                           {"value", "v"}});
  a = good;
  a.credentialEnvelope = &envelope;
  expectRefused(a, "that credential is not the one asked for");

  EXPECT_EQ(ServiceInternals::store(*service).get(r.id)->state,
            RequestState::kPending);
  const std::string j = journal();
  EXPECT_NE(
      j.find(" refused device=phone-1 request=" + r.id + " why=signature\n"),
      std::string::npos);
  EXPECT_NE(
      j.find(" refused device=phone-1 request=" + r.id + " why=pq-signature\n"),
      std::string::npos);
  EXPECT_EQ(service->approve(good).state, RequestState::kApproved);
}

TEST_F(ApprovalTest, TheCredentialIsCheckedHeldAndFoundNowhereElse) {
  const std::string canary = "canary-" + Random::hex(16);
  const StoredRequest r = raise("sheets");
  const Approval good = phone.approve(*service, r);
  expectRefused(
      good,
      "this request asks for a credential and none came with the approval");

  const auto offer = [&](json changes) {
    json o = {{"request_id", r.id},
              {"name", "sheets"},
              {"kind", "bearer"},
              {"value", canary}};
    if (changes.is_object()) o.update(changes);
    return Phone::credential(*service, r.id, o);
  };
  const std::vector<std::pair<json, std::string>> wrong = {
      {Phone::credential(*service, "r1111111111111111",
                         {{"request_id", r.id},
                          {"name", "sheets"},
                          {"kind", "bearer"},
                          {"value", canary}}),
       "that is not a credential for this request"},
      {json{{"v", 2}}, "that is not a credential for this request"},
      {offer({{"request_id", "r1111111111111111"}}),
       "that credential is for another request"},
      {offer({{"name", "mail"}}), "that credential is not the one asked for"},
      {offer({{"value", ""}}), "that credential has no value in it"},
      {offer({{"kind", "password"}}),
       "that credential's kind is not one this Mac knows"},
      // Sealed to this service for this request, but as another kind of
      // envelope: a reply is not a credential.
      {CloudSeal::seal(asBytes(json{{"request_id", r.id},
                                    {"name", "sheets"},
                                    {"kind", "bearer"},
                                    {"value", canary}}
                                   .dump()),
                       service->cloudKey().publicKey(), "reply", r.id)
           .asDictionary(),
       "that is not a credential for this request"},
  };
  for (const auto& [envelope, sentence] : wrong) {
    Approval a = good;
    a.credentialEnvelope = &envelope;
    expectRefused(a, sentence);
  }
  json tampered = offer(json::object());
  tampered["box"] = toBase64(Random::bytes(1100));
  Approval a = good;
  a.credentialEnvelope = &tampered;
  expectRefused(a, "the credential did not open");

  const json envelope =
      offer({{"expires_at", 4102444800}, {"hold_seconds", 0}});
  a = good;
  a.credentialEnvelope = &envelope;
  EXPECT_EQ(service->approve(a).state, RequestState::kApproved);
  EXPECT_TRUE(service->credentialWaiting(r.id));
  const json status = service->status();
  EXPECT_EQ(status["credentials_held"], 1);

  const auto spent = ServiceInternals::credentials(*service).take(r.id);
  ASSERT_TRUE(spent.has_value());
  EXPECT_EQ(toString(spent->value.reveal()), canary);
  // Held no longer than the ceiling, whatever the phone said.
  EXPECT_LE(spent->expiresAt, static_cast<int64_t>(time(nullptr)) +
                                  service->config.credentialTTLSeconds);
  for (const auto& entry : fs::recursive_directory_iterator(home.path)) {
    if (!entry.is_regular_file()) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    const std::string content(std::istreambuf_iterator<char>(in), {});
    EXPECT_EQ(content.find(canary), std::string::npos) << entry.path();
  }
  EXPECT_EQ(status.dump().find(canary), std::string::npos);
}

// The parsed keys are kept between approvals; when one of a device's keys
// changes and the other stays, the next approval is held to the new one.
TEST_F(ApprovalTest, AChangedKeyIsTheOneCheckedNext) {
  EXPECT_EQ(service->approve(phone.approve(*service, raise())).state,
            RequestState::kApproved);
  Phone renewed;
  ASSERT_TRUE(ServiceInternals::devices(*service).edit(
      phone.id, [&](Device& d) { d.pq = renewed.pq.publicKey().raw(); }));
  StoredRequest r = raise();
  expectRefused(phone.approve(*service, r),
                "that approval lacks this device's post-quantum signature");
  Approval a = phone.approve(*service, r);
  a.pqSignatureBase64 = renewed.approve(*service, r).pqSignatureBase64;
  EXPECT_EQ(service->approve(a).state, RequestState::kApproved);

  ASSERT_TRUE(ServiceInternals::devices(*service).edit(
      phone.id, [&](Device& d) { d.spki = renewed.key.publicKey().der(); }));
  r = raise();
  a = phone.approve(*service, r);
  a.pqSignatureBase64 = renewed.approve(*service, r).pqSignatureBase64;
  expectRefused(a, "that signature is not this device's");
  EXPECT_EQ(service->approve(renewed.approve(*service, r)).state,
            RequestState::kApproved);
}

TEST_F(ApprovalTest, OfTwoApprovalsRacingExactlyOnePasses) {
  for (int round = 0; round < 20; ++round) {
    const StoredRequest r = raise();
    const Approval a = phone.approve(*service, r);
    std::atomic<int> passed{0}, refused{0};
    std::thread t1([&] {
      try {
        service->approve(a);
        ++passed;
      } catch (const ServiceError&) {
        ++refused;
      }
    });
    try {
      service->approve(a);
      ++passed;
    } catch (const ServiceError&) {
      ++refused;
    }
    t1.join();
    EXPECT_EQ(passed.load(), 1);
    EXPECT_EQ(refused.load(), 1);
  }
}

}  // namespace
}  // namespace tolvanger::service
