// The phone's half of the cloud road: it speaks to the computer's phone
// routes by leaving sealed `call` records in a shared store and reading the
// sealed `reply` records that come back, and it gathers the computer's
// `notify` and `nudge` records. It offers the same operations as the sealed
// road on the local network, so the rest of the phone does not care which
// road carries them.
//
// Every call is sealed to the key of the computer's card, which is believed
// at `connect` only if the keys pinned at pairing signed it, and carries this
// phone's own cloud key as "reply_to"; every record read is opened with that
// key, and one that does not open, or whose name does not fit its envelope,
// is passed over in silence. Only one drain reads the store at a time; one
// asked for meanwhile runs after it. At most 32 unclaimed replies and 256
// taken record names are kept.
//
// Thread safety: every public member may be called from several threads at
// once, and `poke` from a store's push thread. One lock guards the maps
// below and is never held across a store call.
#ifndef TOLVANGER_PHONE_CLOUD_TRANSPORT_H_
#define TOLVANGER_PHONE_CLOUD_TRANSPORT_H_

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/cloud_card.h"
#include "tolvanger/kit/cloud_store.h"
#include "tolvanger/kit/crypto/xwing.h"
#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/phone/phone_client.h"
#include "tolvanger/phone/phone_request.h"
#include "tolvanger/phone/sealed_road.h"

namespace tolvanger::phone {

class CloudTransport {
 public:
  static constexpr size_t kMaxReplies = 32;
  static constexpr size_t kMaxTaken = 256;

  // Readies `store` for a phone, reads the card of the computer the pins
  // name and believes it. Throws CloudError as the store does, and
  // RequestError::unreachable("no believable card in iCloud for that Mac").
  static std::unique_ptr<CloudTransport> connect(
      std::shared_ptr<CloudStore> store, Bytes pinnedDaemonSPKI,
      std::optional<Bytes> pinnedDaemonPQ, std::string deviceID,
      std::string deviceSecret, crypto::XWingPrivateKey myKey);
  ~CloudTransport();

  CloudTransport(const CloudTransport&) = delete;
  CloudTransport& operator=(const CloudTransport&) = delete;

  // How long a call waits for its reply (20 s), and how often it looks
  // without a push (1 s).
  void configure(std::optional<std::chrono::milliseconds> replyTimeout,
                 std::optional<std::chrono::milliseconds> pollEvery)
      EXCLUDES(mu_);

  // One call to a phone route. Returns the route's payload when the reply's
  // status is 200 and its "ok" true. Throws CloudError as the store does,
  // RequestError::unreachable("the Mac did not answer through iCloud in
  // time"), and RequestError::daemon with the payload's "error" or "the Mac
  // refused".
  nlohmann::json call(std::string_view method, std::string_view path,
                      const std::optional<nlohmann::json>& body);

  // A push came: wakes the sleepers, then drains.
  void poke();
  // Drains, then whether any notice or nudge waits.
  bool anythingNew();
  // The next notified request within `wait`, checked against the pins; a
  // notice that fails the checks is dropped.
  std::optional<TolvangerRequest> nextRequest(std::chrono::milliseconds wait);
  // What the computer asked for.
  std::vector<Nudge> nudges() const EXCLUDES(mu_);

  PendingList pending();
  TolvangerRequest request(std::string_view id);
  nlohmann::json approve(
      const TolvangerRequest& request, ByteView signature,
      std::optional<ByteView> pqSignature, const CredentialOffer* credential,
      std::optional<std::chrono::system_clock::time_point> drawnAt,
      DrawnFrom drawnFrom);
  nlohmann::json deny(
      std::string_view requestID,
      std::optional<std::chrono::system_clock::time_point> drawnAt,
      DrawnFrom drawnFrom);
  nlohmann::json endAllowance(std::string_view requestID);
  nlohmann::json announce(const nlohmann::json& secrets,
                          std::optional<int64_t> seq);
  void nudgeSeen(std::string_view id);
  std::vector<std::string> addresses();

  const CloudCard& card() const { return card_; }

 private:
  CloudTransport(std::shared_ptr<CloudStore> store, std::string pair,
                 Bytes pinnedDaemonSPKI, std::optional<Bytes> pinnedDaemonPQ,
                 std::string deviceID, std::string deviceSecret,
                 crypto::XWingPrivateKey myKey, CloudCard card);

  void drain() EXCLUDES(mu_);
  void drainOnce();
  // Counts pushes and finished drains.
  uint64_t generation() const EXCLUDES(mu_);
  // Waits up to `length`, or until a push or a drain after `since`.
  void sleepOrPush(uint64_t since, std::chrono::milliseconds length)
      EXCLUDES(mu_);
  std::optional<nlohmann::json> open(const CloudRecord& record) const;

  const std::shared_ptr<CloudStore> store_;
  const std::string pair_;
  const Bytes pinnedDaemonSPKI_;
  const std::optional<Bytes> pinnedDaemonPQ_;
  const std::string deviceID_;
  std::string deviceSecret_;
  const crypto::XWingPrivateKey myKey_;
  const CloudCard card_;

  mutable Mutex mu_;
  CondVar wake_;
  std::chrono::milliseconds replyTimeout_ GUARDED_BY(mu_){20000};
  std::chrono::milliseconds pollEvery_ GUARDED_BY(mu_){1000};
  std::set<std::string> outstanding_ GUARDED_BY(mu_);
  std::map<std::string, nlohmann::json> replies_ GUARDED_BY(mu_);
  std::deque<std::string> replyOrder_ GUARDED_BY(mu_);
  std::map<std::string, nlohmann::json> notified_ GUARDED_BY(mu_);
  std::vector<Nudge> nudges_ GUARDED_BY(mu_);
  std::set<std::string> swept_ GUARDED_BY(mu_);
  std::deque<std::string> taken_ GUARDED_BY(mu_);
  bool draining_ GUARDED_BY(mu_) = false;
  bool drainQueued_ GUARDED_BY(mu_) = false;
  uint64_t wakes_ GUARDED_BY(mu_) = 0;
};

}  // namespace tolvanger::phone

#endif  // TOLVANGER_PHONE_CLOUD_TRANSPORT_H_
