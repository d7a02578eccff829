#include "tolvanger/phone/cloud_transport.h"

#include <algorithm>
#include <utility>

#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/fingerprint.h"
#include "tolvanger/kit/ids.h"
#include "tolvanger/kit/random.h"

namespace tolvanger::phone {

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

// A new call id: a random UUID's 16 bytes as 32 lower-case hex digits.
std::string newCallID() {
  Bytes b = Random::bytes(16);
  b[6] = static_cast<uint8_t>((b[6] & 0x0F) | 0x40);
  b[8] = static_cast<uint8_t>((b[8] & 0x3F) | 0x80);
  return toHex(b);
}

// Overwrites every text in `value`.
void wipeTexts(json& value) {
  if (value.is_string()) {
    wipe(value.get_ref<std::string&>());
  } else if (value.is_structured()) {
    for (auto& item : value) wipeTexts(item);
  }
}

// Compact JSON written into one buffer allocated up front, so that growing
// it leaves no partial copy of the device secret in freed memory.
std::string dumpOnce(const json& value, size_t reserve) {
  std::string out;
  out.reserve(reserve);
  nlohmann::detail::serializer<json> writer(
      nlohmann::detail::output_adapter<char, std::string>(out), ' ',
      json::error_handler_t::replace);
  writer.dump(value, false, false, 0);
  return out;
}

}  // namespace

std::unique_ptr<CloudTransport> CloudTransport::connect(
    std::shared_ptr<CloudStore> store, Bytes pinnedDaemonSPKI,
    std::optional<Bytes> pinnedDaemonPQ, std::string deviceID,
    std::string deviceSecret, crypto::XWingPrivateKey myKey) {
  const std::string pair = Fingerprint::of(pinnedDaemonSPKI);
  store->ready(CloudSubscription::phone());
  const std::optional<CloudRecord> record =
      store->record(Cloud::name(Cloud::Kind::kCard, pair));
  std::optional<ByteView> pinnedPQ;
  if (pinnedDaemonPQ) pinnedPQ = *pinnedDaemonPQ;
  std::optional<CloudCard> card;
  if (record) card = CloudCard::read(record->body, pinnedDaemonSPKI, pinnedPQ);
  if (!card) {
    wipe(deviceSecret);
    throw RequestError::unreachable(
        "no believable card in iCloud for that Mac");
  }
  std::unique_ptr<CloudTransport> made(new CloudTransport(
      std::move(store), pair, std::move(pinnedDaemonSPKI),
      std::move(pinnedDaemonPQ), std::move(deviceID), std::move(deviceSecret),
      std::move(myKey), *std::move(card)));
  CloudTransport* self = made.get();
  made->store_->onPush([self] { self->poke(); });
  return made;
}

CloudTransport::CloudTransport(std::shared_ptr<CloudStore> store,
                               std::string pair, Bytes pinnedDaemonSPKI,
                               std::optional<Bytes> pinnedDaemonPQ,
                               std::string deviceID, std::string deviceSecret,
                               crypto::XWingPrivateKey myKey, CloudCard card)
    : store_(std::move(store)),
      pair_(std::move(pair)),
      pinnedDaemonSPKI_(std::move(pinnedDaemonSPKI)),
      pinnedDaemonPQ_(std::move(pinnedDaemonPQ)),
      deviceID_(std::move(deviceID)),
      deviceSecret_(std::move(deviceSecret)),
      myKey_(std::move(myKey)),
      card_(std::move(card)) {}

CloudTransport::~CloudTransport() {
  store_->onPush(nullptr);
  wipe(deviceSecret_);
}

void CloudTransport::configure(std::optional<milliseconds> replyTimeout,
                               std::optional<milliseconds> pollEvery) {
  MutexLock lock(mu_);
  if (replyTimeout) replyTimeout_ = *replyTimeout;
  if (pollEvery) pollEvery_ = *pollEvery;
}

json CloudTransport::call(std::string_view method, std::string_view path,
                          const std::optional<json>& body) {
  const std::string id = newCallID();
  CloudEnvelope envelope;
  {
    json inner = {{"body", body ? *body : json::object()},
                  {"device_id", deviceID_},
                  {"device_secret", deviceSecret_},
                  {"method", method},
                  {"path", path},
                  {"reply_to", toBase64(myKey_.publicKey().raw())}};
    std::string text = dumpOnce(inner, 16384);
    wipeTexts(inner);
    try {
      envelope = CloudSeal::seal(asBytes(text), card_.key, "call", id);
    } catch (...) {
      wipe(text);
      throw;
    }
    wipe(text);
  }
  milliseconds timeout;
  milliseconds poll;
  {
    MutexLock lock(mu_);
    outstanding_.insert(id);
    timeout = replyTimeout_;
    poll = pollEvery_;
  }
  const auto forget = [&] {
    MutexLock lock(mu_);
    outstanding_.erase(id);
    replies_.erase(id);
  };
  const double now = static_cast<double>(SystemClock::milliseconds());
  try {
    store_->put(CloudRecord(Cloud::name(Cloud::Kind::kCall, id), pair_,
                            Cloud::Side::kMac, Cloud::Kind::kCall,
                            envelope.json(), now,
                            now + static_cast<double>(timeout.count()) * 6));
  } catch (...) {
    forget();
    throw;
  }

  std::optional<json> reply;
  const auto deadline = steady_clock::now() + timeout;
  const auto take = [&] {
    MutexLock lock(mu_);
    const auto it = replies_.find(id);
    if (it == replies_.end()) return false;
    reply = std::move(it->second);
    replies_.erase(it);
    return true;
  };
  try {
    while (steady_clock::now() < deadline) {
      if (take()) break;
      drain();
      // A drain that another thread finishes from here on ends the sleep
      // below; one finished before has left its reply for `take`.
      const uint64_t since = generation();
      if (take()) break;
      sleepOrPush(since,
                  std::min(poll, std::chrono::duration_cast<milliseconds>(
                                     deadline - steady_clock::now() +
                                     milliseconds(1))));
    }
  } catch (...) {
    forget();
    throw;
  }
  forget();
  if (!reply) {
    throw RequestError::unreachable(
        "the Mac did not answer through iCloud in time");
  }
  const auto status = reply->find("status");
  const auto payload = reply->find("payload");
  if (status != reply->end() && status->is_number_integer() &&
      status->get<int64_t>() == 200 && payload != reply->end() &&
      payload->is_object()) {
    if (const auto ok = payload->find("ok");
        ok != payload->end() && ok->is_boolean() && ok->get<bool>()) {
      return *payload;
    }
  }
  if (payload != reply->end() && payload->is_object()) {
    if (const std::string* error = PhoneJSON::text(*payload, "error")) {
      throw RequestError::daemon(*error);
    }
  }
  throw RequestError::daemon("the Mac refused");
}

std::optional<json> CloudTransport::open(const CloudRecord& record) const {
  try {
    const CloudEnvelope envelope = CloudEnvelope::fromJSON(record.body);
    const auto kind = Cloud::kind(envelope.kind);
    if (!kind || envelope.kind != record.kind ||
        Cloud::name(*kind, envelope.id) != record.name) {
      return std::nullopt;
    }
    const SecretBytes plain = CloudSeal::open(envelope, myKey_);
    const ByteView bytes = plain.reveal();
    json payload = PhoneJSON::parseObject(std::string_view(
        reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    if (!payload.is_object()) return std::nullopt;
    return payload;
  } catch (const std::exception&) {
    return std::nullopt;  // a forged or foreign record does nothing
  }
}

void CloudTransport::drain() {
  {
    MutexLock lock(mu_);
    if (draining_) {
      drainQueued_ = true;
      return;
    }
    draining_ = true;
  }
  for (;;) {
    try {
      drainOnce();
    } catch (...) {
      {
        MutexLock lock(mu_);
        draining_ = false;
        drainQueued_ = false;
      }
      wake_.notify_all();
      throw;
    }
    {
      MutexLock lock(mu_);
      if (!drainQueued_) {
        draining_ = false;
        ++wakes_;
        break;
      }
      drainQueued_ = false;
    }
  }
  wake_.notify_all();
}

void CloudTransport::drainOnce() {
  const CloudChanges changes = store_->changes();
  std::vector<std::string> marked;
  for (const CloudRecord& record : changes.changed) {
    if (record.to != "phone" || record.pair != pair_) continue;
    if (record.kind != "reply" && record.kind != "notify" &&
        record.kind != "nudge") {
      continue;
    }
    std::optional<json> payload = open(record);
    if (!payload) continue;
    const std::string id =
        record.name.substr(record.name.find('-') + 1);  // the envelope's id
    MutexLock lock(mu_);
    if (record.kind == "reply") {
      if (outstanding_.contains(id)) {
        if (!replies_.contains(id)) replyOrder_.push_back(id);
        replies_[id] = std::move(*payload);
      }
      marked.push_back(record.name);
    } else if (record.kind == "notify") {
      const auto it = payload->find("request_payload");
      if (it != payload->end() && it->is_object()) {
        notified_[record.name] = *it;
      }
    } else {
      const auto it = payload->find("nudge");
      if (it == payload->end()) continue;
      std::optional<Nudge> nudge = Nudge::from(*it);
      if (nudge &&
          std::none_of(nudges_.begin(), nudges_.end(),
                       [&](const Nudge& n) { return n.id == nudge->id; })) {
        nudges_.push_back(*std::move(nudge));
      }
    }
  }
  {
    MutexLock lock(mu_);
    for (const std::string& name : changes.deleted) {
      swept_.erase(name);
      if (name.starts_with("notify-")) {
        std::erase_if(notified_, [&](const auto& entry) {
          return entry.first.find(name) != std::string::npos;
        });
      }
    }
    for (const std::string& name : marked) {
      taken_.push_back(name);
      swept_.insert(name);
    }
    while (taken_.size() > kMaxTaken) {
      swept_.erase(taken_.front());
      taken_.pop_front();
    }
  }
  if (!marked.empty()) store_->remove(marked);
  MutexLock lock(mu_);
  // Unclaimed replies go first, oldest first; one a call waits for goes
  // last.
  while (replies_.size() > kMaxReplies) {
    const auto victim = std::find_if(replyOrder_.begin(), replyOrder_.end(),
                                     [&](const std::string& id) REQUIRES(mu_) {
                                       return replies_.contains(id) &&
                                              !outstanding_.contains(id);
                                     });
    const auto chosen =
        victim != replyOrder_.end() ? victim : replyOrder_.begin();
    replies_.erase(*chosen);
    replyOrder_.erase(chosen);
  }
  std::erase_if(replyOrder_, [&](const std::string& id) REQUIRES(mu_) {
    return !replies_.contains(id);
  });
}

uint64_t CloudTransport::generation() const {
  MutexLock lock(mu_);
  return wakes_;
}

void CloudTransport::sleepOrPush(uint64_t since, milliseconds length) {
  UniqueLock lock(mu_);
  wake_.wait_for(lock, length, [&]() REQUIRES(mu_) { return wakes_ != since; });
}

void CloudTransport::poke() {
  {
    MutexLock lock(mu_);
    ++wakes_;
  }
  wake_.notify_all();
  try {
    drain();
  } catch (...) {
    // A push is a hint; the next look reports the failure.
  }
}

bool CloudTransport::anythingNew() {
  drain();
  MutexLock lock(mu_);
  return !notified_.empty() || !nudges_.empty();
}

std::vector<Nudge> CloudTransport::nudges() const {
  MutexLock lock(mu_);
  return nudges_;
}

std::optional<TolvangerRequest> CloudTransport::nextRequest(milliseconds wait) {
  const auto deadline = steady_clock::now() + wait;
  while (steady_clock::now() < deadline) {
    drain();
    std::optional<json> payload;
    milliseconds poll;
    uint64_t since = 0;
    {
      MutexLock lock(mu_);
      since = wakes_;
      poll = pollEvery_;
      if (!notified_.empty()) {
        payload = std::move(notified_.begin()->second);
        notified_.erase(notified_.begin());
      }
    }
    if (payload) {
      try {
        return TolvangerRequest::fromDaemon(*payload, pinnedDaemonSPKI_,
                                            pinnedDaemonPQ_);
      } catch (const RequestError&) {
        continue;  // a notice that fails the checks is dropped
      }
    }
    sleepOrPush(since, std::min(poll, std::chrono::duration_cast<milliseconds>(
                                          deadline - steady_clock::now() +
                                          milliseconds(1))));
  }
  return std::nullopt;
}

PendingList CloudTransport::pending() {
  return PendingList::from(call("GET", "/v1/pending", std::nullopt),
                           SystemClock::seconds());
}

TolvangerRequest CloudTransport::request(std::string_view id) {
  if (!Ids::isID(id)) throw RequestError::malformed("that is not a request id");
  return TolvangerRequest::fromDaemon(
      call("GET", "/v1/request/" + std::string(id), std::nullopt),
      pinnedDaemonSPKI_, pinnedDaemonPQ_);
}

json CloudTransport::approve(
    const TolvangerRequest& request, ByteView signature,
    std::optional<ByteView> pqSignature, const CredentialOffer* credential,
    std::optional<std::chrono::system_clock::time_point> drawnAt,
    DrawnFrom drawnFrom) {
  json body = sealedApproval(deviceID_, request, signature, pqSignature,
                             credential, drawnAt, drawnFrom);
  if (credential != nullptr) {
    body["credential"] = credential->seal(card_.key).asDictionary();
  }
  return call("POST", "/v1/approve", body);
}

json CloudTransport::deny(
    std::string_view requestID,
    std::optional<std::chrono::system_clock::time_point> drawnAt,
    DrawnFrom drawnFrom) {
  json body = {{"request_id", requestID}};
  body.update(AnswerStamps::of(drawnAt, drawnFrom));
  return call("POST", "/v1/deny", body);
}

json CloudTransport::endAllowance(std::string_view requestID) {
  return call("POST", "/v1/allowance/end", json{{"request_id", requestID}});
}

json CloudTransport::announce(const json& secrets, std::optional<int64_t> seq) {
  json body = {{"secrets", secrets}};
  if (seq) body["seq"] = *seq;
  return call("POST", "/v1/secrets", body);
}

void CloudTransport::nudgeSeen(std::string_view id) {
  call("POST", "/v1/nudge/seen", json{{"id", id}});
}

std::vector<std::string> CloudTransport::addresses() {
  const json answer = call("GET", "/v1/health", std::nullopt);
  std::vector<std::string> out;
  if (const auto it = answer.find("addresses");
      it != answer.end() && it->is_array()) {
    for (const json& a : *it) {
      if (a.is_string()) out.push_back(a.get<std::string>());
    }
  }
  return out;
}

}  // namespace tolvanger::phone
