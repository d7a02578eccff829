// The service's cloud road on a MemoryCloud, with a paired phone made of
// software keys playing the phone's part with its own store on the cloud.
#include "tolvanger/service/cloud_road.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "testing/paired_phone.h"
#include "tolvanger/kit/fingerprint.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/service/routes.h"

namespace tolvanger::service {
namespace {

using nlohmann::json;

size_t count(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos;
       at = text.find(needle, at + 1)) {
    ++n;
  }
  return n;
}

class Road : public ::testing::Test {
 protected:
  void SetUp() override {
    service = std::make_unique<Service>(Home(home.path));
    routes = std::make_unique<Routes>(*service);
    phone.pair(*service);
    road =
        std::make_shared<CloudRoad>(*service, *routes, cloud->store(), fast());
    service->setCloudRoad(road);
    pair = service->fingerprint();
  }
  void TearDown() override {
    road->stop();
    service->setCloudRoad(nullptr);
  }

  static CloudRoad::Timing fast() {
    CloudRoad::Timing t;
    t.busyNap = t.idleNap = std::chrono::milliseconds(20);
    t.firstPause = std::chrono::milliseconds(5);
    t.longestPause = std::chrono::milliseconds(20);
    return t;
  }

  // A sealed call as the phone leaves it, under its own name or `name`,
  // asking for the reply under its cloud key or `replyTo`.
  CloudRecord call(const std::string& path,
                   std::optional<std::string> name = std::nullopt,
                   std::optional<Bytes> replyTo = std::nullopt) {
    const std::string id = Random::hex(16);
    const json inner = {
        {"device_id", phone.id},
        {"device_secret", phone.secret},
        {"method", "GET"},
        {"path", path},
        {"reply_to",
         toBase64(replyTo.value_or(phone.cloud.publicKey().raw()))}};
    const CloudEnvelope envelope = CloudSeal::seal(
        asBytes(inner.dump()), service->cloudKey().publicKey(), "call", id);
    CloudRecord record(name.value_or("call-" + id), pair, Cloud::Side::kMac,
                       Cloud::Kind::kCall, envelope.json(), 1);
    mine->put(record);
    return record;
  }

  std::string journal() {
    std::string all;
    for (const auto& line : service->journalTail(2000)) all += line + "\n";
    return all;
  }

  TempHome home;
  Phone phone;
  std::unique_ptr<Service> service;
  std::unique_ptr<Routes> routes;
  std::shared_ptr<MemoryCloud> cloud = MemoryCloud::make();
  std::shared_ptr<MemoryCloudStore> mine = cloud->store();
  std::shared_ptr<CloudRoad> road;
  std::string pair;
};

TEST_F(Road, ACallIsAnsweredOnceUntilItsReplyIsForgotten) {
  road->setUp();
  const CloudRecord first = call("/v1/health");
  const std::string id = first.name.substr(5);
  road->drain();
  const auto reply = cloud->record("reply-" + id);
  ASSERT_TRUE(reply.has_value());
  const SecretBytes opened =
      CloudSeal::open(CloudEnvelope::fromJSON(reply->body), phone.cloud);
  const json answer = json::parse(toString(opened.reveal()));
  EXPECT_EQ(answer["status"], 200);
  EXPECT_EQ(answer["payload"]["daemon_id"], service->config.daemonID);
  EXPECT_FALSE(cloud->record(first.name).has_value());

  // The same record seen again: the same reply, and the route ran once.
  cloud->remove({"reply-" + id});
  mine->put(first);
  road->drain();
  ASSERT_TRUE(cloud->record("reply-" + id).has_value());
  EXPECT_EQ(cloud->record("reply-" + id)->body, reply->body);
  EXPECT_EQ(count(journal(), " cloud call=GET%20/v1/health"), 1u);

  // 256 later calls push it out of memory; seen again, it runs again.
  for (size_t i = 0; i < CloudRoad::kRememberedReplies; ++i) call("/v1/card");
  road->drain();
  mine->put(first);
  road->drain();
  EXPECT_EQ(count(journal(), " cloud call=GET%20/v1/health"), 2u);
  EXPECT_NE(cloud->record("reply-" + id)->body, reply->body);
}

// A phone that has made a new cloud key says so in its call: the reply is
// sealed to it, and so is whatever the computer leaves for the phone later.
TEST_F(Road, ANewReplyKeyBecomesThePhonesCloudKey) {
  road->setUp();
  const auto next = crypto::XWingPrivateKey::generate();
  const CloudRecord sent =
      call("/v1/health", std::nullopt, next.publicKey().raw());
  road->drain();
  const auto reply = cloud->record("reply-" + sent.name.substr(5));
  ASSERT_TRUE(reply.has_value());
  EXPECT_NO_THROW(CloudSeal::open(CloudEnvelope::fromJSON(reply->body), next));
  EXPECT_EQ(service->device(phone.id)->cloudKey, next.publicKey().raw());
}

TEST_F(Road, MisnamedForgedAndStrangersCallsGetNoReply) {
  road->setUp();
  const CloudRecord misnamed = call("/v1/health", "call-elsewhere");
  // A call sealed to another key, and one from a device that is not paired.
  CloudRecord forged = call("/v1/health");
  const std::string forgedID = forged.name.substr(5);
  forged.body = CloudSeal::seal(asBytes(std::string("{}")),
                                crypto::XWingPrivateKey::generate().publicKey(),
                                "call", forgedID)
                    .json();
  mine->put(forged);
  phone.secret = "not-the-secret";
  const CloudRecord stranger = call("/v1/health");
  road->drain();
  const std::string log = journal();
  EXPECT_NE(log.find(" cloud-refused record=call-elsewhere why=binding"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find(" cloud-refused envelope=" + forgedID + " why=seal"),
            std::string::npos);
  EXPECT_NE(log.find(" cloud-refused envelope=" + stranger.name.substr(5) +
                     " why=device"),
            std::string::npos);
  // Every call is gone, and the only records left are the card's.
  ASSERT_EQ(cloud->count(), 1u);
  EXPECT_EQ(cloud->all()[0].kind, "card");
  (void)misnamed;
}

TEST_F(Road, NoticesAndNudgesReachEveryPhoneWithACloudKey) {
  const StoredRequest raised = [&] {
    Fields fields;
    fields.set("client", std::string("claude"));
    return service->raise("deploy", fields);
  }();
  service->nudge("secret");
  road->flush();
  const std::string tail =
      Fingerprint::of(phone.key.publicKey().der()).substr(0, 9);
  const auto notice = cloud->record("notify-" + raised.id + "-" + tail);
  ASSERT_TRUE(notice.has_value());
  EXPECT_EQ(Cloud::requestID(notice->name), raised.id);
  EXPECT_EQ(notice->expires, raised.expiresAt * 1000.0);
  const json payload = json::parse(toString(
      CloudSeal::open(CloudEnvelope::fromJSON(notice->body), phone.cloud)
          .reveal()));
  EXPECT_EQ(payload["request_payload"]["request_id"], raised.id);
  EXPECT_EQ(cloud->count(), 2u);  // the notice and the nudge

  ASSERT_TRUE(service->forgetDevice(phone.id));
  road->notify(raised);
  road->flush();
  EXPECT_NE(journal().find(" cloud kind=notify phones=none-with-a-cloud-key"),
            std::string::npos);
}

TEST_F(Road, ThePumpGoesDownOnceAndUpAgainAndSetsUpAfterAnOutage) {
  road->start();
  const auto waitFor = [&](auto done) {
    for (int i = 0; i < 500 && !done(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
  };
  ASSERT_TRUE(waitFor([&] { return road->connected(); }));
  EXPECT_TRUE(service->openedReply(StoredRequest())["push"]);
  cloud->setOutage("no network");
  ASSERT_TRUE(waitFor([&] { return !road->connected(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const json state = service->status()["cloud"];
  EXPECT_EQ(state["error"], "iCloud is unavailable: no network");
  EXPECT_EQ(state["container"], "memory");
  EXPECT_FALSE(service->openedReply(StoredRequest())["push"]);
  cloud->setOutage(std::nullopt);
  ASSERT_TRUE(waitFor([&] { return road->connected(); }));
  const std::string log = journal();
  // Many failed rounds, one line; and the card again after the outage.
  EXPECT_EQ(count(log, " cloud state=down"), 1u) << log;
  EXPECT_EQ(count(log, " cloud state=up"), 2u);
  EXPECT_EQ(count(log, " cloud card=published"), 2u);
}

TEST_F(Road, AComputerWithoutAHostedCloudSaysWhatToDo) {
  road->stop();
  service->setCloudRoad(nullptr);
  road = std::make_shared<CloudRoad>(
      *service, *routes,
      storeForContainer(service->config.cloud, service->home, *service),
      fast());
  service->setCloudRoad(road);
  road->start();
  for (int i = 0; i < 200 && road->state()["error"] == ""; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const json state = service->status()["cloud"];
  EXPECT_EQ(state["error"],
            "iCloud is unavailable: " + std::string(kNoHostedCloud));
  EXPECT_EQ(state["container"], "iCloud.io.vrq.tolvanger");
  EXPECT_EQ(state["connected"], false);
}

}  // namespace
}  // namespace tolvanger::service
