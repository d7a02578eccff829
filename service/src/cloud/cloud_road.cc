#include "tolvanger/service/cloud_road.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/crypto/xwing.h"
#include "tolvanger/kit/fingerprint.h"
#include "tolvanger/kit/folder_cloud.h"
#include "tolvanger/service/routes.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {

using nlohmann::json;

namespace {

// A card lives thirty days; each start of the service writes a new one.
constexpr double kCardLifetime = 2'592'000'000;
constexpr size_t kMaxWhy = 160;
constexpr size_t kMaxShown = 80;

std::string firstOf(std::string_view text, size_t n) {
  return std::string(text.substr(0, n));
}

double nowMs() { return static_cast<double>(SystemClock::milliseconds()); }

// A store for a container this computer cannot reach: every operation
// fails with the same sentence, which reaches status and the journal.
class UnreachableStore final : public CloudStore {
 public:
  UnreachableStore(std::string container, std::string why)
      : container_(std::move(container)), why_(std::move(why)) {}
  void ready(const std::vector<CloudSubscription>&) override { fail(); }
  void put(const CloudRecord&) override { fail(); }
  std::optional<CloudRecord> record(std::string_view) override { fail(); }
  CloudChanges changes() override { fail(); }
  void remove(const std::vector<std::string>&) override { fail(); }
  std::string container() const override { return container_; }

 private:
  [[noreturn]] void fail() const { throw CloudError::unavailable(why_); }
  std::string container_;
  std::string why_;
};

}  // namespace

std::shared_ptr<CloudStore> storeForContainer(const CloudRoadConfig& config,
                                              const Home& home,
                                              Service& service) {
  const std::string& container = config.container;
  if (container.starts_with(FolderCloudStore::kScheme)) {
    const auto folder = FolderCloudStore::folderOf(container);
    if (!folder) {
      return std::make_shared<UnreachableStore>(
          container,
          "cloud.container must be folder: followed by an absolute path");
    }
    return std::make_shared<FolderCloudStore>(
        *folder, home.file("cloud-cursor.json"),
        [&service](const std::string& file, const std::string& why) {
          service.record("cloud-refused",
                         {{"record", firstOf(file, kMaxShown)}, {"why", why}});
        });
  }
  return std::make_shared<UnreachableStore>(container,
                                            std::string(kNoHostedCloud));
}

CloudRoad::CloudRoad(Service& service, Routes& routes,
                     std::shared_ptr<CloudStore> store, Timing timing)
    : service_(service),
      routes_(routes),
      store_(std::move(store)),
      timing_(timing) {
  MutexLock lock(mu_);
  lastSweep_ = std::chrono::steady_clock::now();
}

CloudRoad::~CloudRoad() {
  stop();
  store_->onPush(nullptr);
}

void CloudRoad::start() {
  MutexLock lock(mu_);
  if (started_) return;
  started_ = true;
  store_->onPush([this] { poke(); });
  thread_ = std::thread([this] { pump(); });
}

void CloudRoad::stop() {
  {
    MutexLock lock(mu_);
    if (stopping_) return;
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
  // Whatever the pump had not written yet is written now, or journalled as
  // failed: nothing is left to outlive the road.
  flush();
  MutexLock lock(mu_);
  stopped_ = true;
}

json CloudRoad::state() const {
  MutexLock lock(mu_);
  return json{{"enabled", true},
              {"connected", connected_},
              {"container", store_->container()},
              {"error", lastError_}};
}

bool CloudRoad::connected() const {
  MutexLock lock(mu_);
  return connected_;
}

void CloudRoad::poke() {
  {
    MutexLock lock(mu_);
    poked_ = true;
  }
  wake_.notify_all();
}

void CloudRoad::nap(std::chrono::milliseconds length) {
  UniqueLock lock(mu_);
  wake_.wait_for(lock, length, [this]() REQUIRES(mu_) {
    return stopping_ || poked_ || !queue_.empty();
  });
  poked_ = false;
}

std::string CloudRoad::pair() const { return service_.fingerprint(); }

void CloudRoad::setUp() {
  store_->ready(CloudSubscription::mac());
  try {
    store_->ready(CloudSubscription::phone());
  } catch (const std::exception& e) {
    service_.record("cloud", {{"refused", "phone-subscriptions"},
                              {"why", firstOf(e.what(), kMaxWhy)}});
  }
  json card = service_.cardOffer();
  card.erase("ok");
  const std::string pair = this->pair();
  const double now = nowMs();
  store_->put(CloudRecord(Cloud::name(Cloud::Kind::kCard, pair), pair,
                          Cloud::Side::kPhone, Cloud::Kind::kCard, card.dump(),
                          now, now + kCardLifetime));
  service_.record("cloud", {{"card", "published"}, {"pair", pair}});
}

void CloudRoad::pump() {
  std::chrono::milliseconds pause = timing_.firstPause;
  for (;;) {
    bool ready = false;
    {
      MutexLock lock(mu_);
      if (stopping_) break;
      ready = ready_;
    }
    flush();
    if (!ready) {
      try {
        setUp();
      } catch (const std::exception& e) {
        down(e.what());
        nap(std::min(pause, timing_.longestPause));
        pause = std::min(pause * 2, timing_.longestPause);
        continue;
      }
      MutexLock lock(mu_);
      ready_ = true;
      pause = timing_.firstPause;
    }
    try {
      drain();
      up();
    } catch (const CloudError& e) {
      down(e.what());
      if (e.kind() == CloudError::Kind::kUnavailable) {
        MutexLock lock(mu_);
        ready_ = false;
      }
    } catch (const std::exception& e) {
      down(e.what());
    }
    sweepIfDue();
    bool busy = !service_.pendingRequests().empty();
    {
      MutexLock lock(mu_);
      busy = busy || answering_ > 0;
    }
    nap(busy ? timing_.busyNap : timing_.idleNap);
  }
}

void CloudRoad::up() {
  {
    MutexLock lock(mu_);
    connected_ = true;
    lastError_.clear();
    if (said_ == "up") return;
    said_ = "up";
  }
  service_.record("cloud", {{"state", "up"}});
}

void CloudRoad::down(const std::string& reason) {
  const std::string why = firstOf(reason, kMaxWhy);
  {
    MutexLock lock(mu_);
    connected_ = false;
    lastError_ = why;
    if (said_ == "down:" + why) return;
    said_ = "down:" + why;
  }
  service_.record("cloud", {{"state", "down"}, {"why", why}});
}

void CloudRoad::drain() {
  const std::string pair = this->pair();
  const CloudChanges changes = store_->changes();
  std::vector<std::string> calls;
  for (const CloudRecord& record : changes.changed) {
    if (record.pair != pair || record.kind == "card") continue;
    {
      MutexLock lock(mu_);
      seen_[record.name] = record.expires;
    }
    if (record.to != "mac" || record.kind != "call") continue;
    calls.push_back(record.name);
    if (std::optional<CloudRecord> reply = answer(record)) {
      store_->put(*reply);
      MutexLock lock(mu_);
      ++answering_;
      seen_[reply->name] = reply->expires;
    }
  }
  for (const std::string& name : changes.deleted) {
    MutexLock lock(mu_);
    seen_.erase(name);
    if (name.starts_with("reply-") && answering_ > 0) --answering_;
  }
  if (!calls.empty()) store_->remove(calls);
}

std::optional<CloudRecord> CloudRoad::answer(const CloudRecord& record) {
  CloudEnvelope envelope;
  try {
    envelope = CloudEnvelope::fromJSON(record.body);
  } catch (const std::exception&) {
    return std::nullopt;
  }
  if (envelope.kind != "call" || envelope.id.empty()) return std::nullopt;
  if (record.kind != "call" ||
      record.name != Cloud::name(Cloud::Kind::kCall, envelope.id)) {
    service_.record(
        "cloud-refused",
        {{"record", firstOf(record.name, kMaxShown)}, {"why", "binding"}});
    return std::nullopt;
  }
  const auto replyRecord = [&](std::string body) {
    return CloudRecord(Cloud::name(Cloud::Kind::kReply, envelope.id),
                       record.pair, Cloud::Side::kPhone, Cloud::Kind::kReply,
                       std::move(body), nowMs());
  };
  {
    MutexLock lock(mu_);
    if (const auto it = replies_.find(envelope.id); it != replies_.end()) {
      return replyRecord(it->second);
    }
  }
  const auto refuse = [&](const char* why) {
    service_.record(
        "cloud-refused",
        {{"envelope", firstOf(envelope.id, kMaxShown)}, {"why", why}});
  };
  json call;
  try {
    const SecretBytes plain = CloudSeal::open(envelope, service_.cloudKey());
    const ByteView bytes = plain.reveal();
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()),
                                bytes.size());
    call = json::parse(text, nullptr, false);
  } catch (const std::exception&) {
    refuse("seal");
    return std::nullopt;
  }
  struct WipeSecret {
    json& call;
    ~WipeSecret() {
      if (const auto it = call.find("device_secret");
          it != call.end() && it->is_string()) {
        wipe(it->get_ref<std::string&>());
      }
    }
  } wipeSecret{call};
  std::optional<Device> device;
  if (call.is_object()) {
    const auto id = call.find("device_id");
    const auto secret = call.find("device_secret");
    if (id != call.end() && id->is_string() && secret != call.end() &&
        secret->is_string()) {
      device = service_.authenticate(id->get<std::string>(),
                                     secret->get_ref<const std::string&>());
    }
  }
  if (!device) {
    refuse("device");
    return std::nullopt;
  }
  std::optional<Bytes> replyKey = device->cloudKey;
  if (const auto it = call.find("reply_to");
      it != call.end() && it->is_string()) {
    const std::optional<Bytes> offered = fromBase64(it->get<std::string>());
    if (offered && crypto::XWingPublicKey::fromRaw(*offered)) {
      if (offered != device->cloudKey) {
        service_.setDeviceCloudKey(device->deviceID, *offered);
      }
      replyKey = offered;
    }
  }
  if (!replyKey) return std::nullopt;
  const auto method = call.find("method");
  const auto path = call.find("path");
  if (method == call.end() || !method->is_string() || path == call.end() ||
      !path->is_string()) {
    return std::nullopt;
  }
  static const json kEmpty = json::object();
  const auto body = call.find("body");
  const json& given = body != call.end() && body->is_object() ? *body : kEmpty;
  const std::string m = method->get<std::string>();
  const std::string p = path->get<std::string>();
  RouteResult result = routes_.dispatch(m, p, given, device, "cloud");
  service_.record("cloud", {{"call", firstOf(m + " " + p, kMaxShown)},
                            {"device", device->deviceID},
                            {"status", result.status}});
  std::string text;
  std::string sealed;
  try {
    text = json{{"status", result.status}, {"payload", result.payload}}.dump(
        -1, ' ', false, json::error_handler_t::replace);
    sealed =
        CloudSeal::seal(asBytes(text), *replyKey, "reply", envelope.id).json();
  } catch (const std::exception&) {
    wipe(text);
    return std::nullopt;
  }
  wipe(text);
  {
    MutexLock lock(mu_);
    remember(envelope.id, sealed);
  }
  return replyRecord(std::move(sealed));
}

void CloudRoad::remember(const std::string& id, const std::string& json) {
  if (replies_.emplace(id, json).second) {
    replyOrder_.push_back(id);
  } else {
    replies_[id] = json;
  }
  while (replyOrder_.size() > kRememberedReplies) {
    replies_.erase(replyOrder_.front());
    replyOrder_.pop_front();
  }
}

void CloudRoad::sweepIfDue() {
  std::vector<std::string> names;
  {
    MutexLock lock(mu_);
    const auto now = std::chrono::steady_clock::now();
    if (now - lastSweep_ < timing_.sweepEvery) return;
    lastSweep_ = now;
    const double ms = nowMs();
    for (const auto& [name, expires] : seen_) {
      if (expires < ms) names.push_back(name);
    }
  }
  if (names.empty()) return;
  try {
    store_->remove(names);
  } catch (const std::exception&) {
    return;  // the names stay for the next sweep
  }
  MutexLock lock(mu_);
  for (const std::string& name : names) seen_.erase(name);
}

void CloudRoad::leave(const json& payload, Cloud::Kind kind,
                      const std::string& id, double expires) {
  const std::string text =
      payload.dump(-1, ' ', false, json::error_handler_t::replace);
  const std::string pair = this->pair();
  std::vector<Queued> made;
  for (const Device& device : service_.devices()) {
    if (!device.cloudKey) continue;
    const std::string recordID =
        id + "-" + Fingerprint::of(device.spki).substr(0, 9);
    try {
      const CloudEnvelope envelope = CloudSeal::seal(
          asBytes(text), *device.cloudKey, Cloud::text(kind), recordID);
      made.push_back(
          {CloudRecord(Cloud::name(kind, recordID), pair, Cloud::Side::kPhone,
                       kind, envelope.json(), nowMs(), expires),
           std::string(Cloud::text(kind))});
    } catch (const std::exception&) {
      continue;
    }
  }
  if (made.empty()) {
    service_.record("cloud", {{"phones", "none-with-a-cloud-key"},
                              {"kind", Cloud::text(kind)}});
    return;
  }
  {
    MutexLock lock(mu_);
    if (stopped_) return;  // nothing would write it
    for (Queued& q : made) {
      if (queue_.size() >= kMaxQueued) queue_.pop_front();
      queue_.push_back(std::move(q));
    }
  }
  wake_.notify_all();
}

void CloudRoad::flush() {
  for (;;) {
    std::optional<Queued> next;
    {
      MutexLock lock(mu_);
      if (queue_.empty()) return;
      next = std::move(queue_.front());
      queue_.pop_front();
      seen_[next->record.name] = next->record.expires;
    }
    service_.record("cloud", {{next->kind, next->record.name}});
    try {
      store_->put(next->record);
    } catch (const std::exception& e) {
      service_.record("cloud", {{next->kind, next->record.name},
                                {"failed", firstOf(e.what(), kMaxWhy)}});
    }
  }
}

void CloudRoad::notify(const StoredRequest& request) noexcept {
  try {
    leave(json{{"request_payload", service_.requestPayload(request)}},
          Cloud::Kind::kNotify, request.id,
          static_cast<double>(request.expiresAt) * 1000);
  } catch (...) {
    // A notice that cannot be made is dropped; the phone still polls.
  }
}

void CloudRoad::nudge(const Nudge& nudge) noexcept {
  try {
    leave(json{{"nudge", nudge.asDictionary()}}, Cloud::Kind::kNudge, nudge.id,
          static_cast<double>(nudge.expiresAt) * 1000);
  } catch (...) {
  }
}

}  // namespace tolvanger::service
