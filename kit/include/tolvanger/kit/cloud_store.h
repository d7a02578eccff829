// The cloud road's mailbox: records that each side leaves in a shared store
// for the other to read, and the contract every such store keeps.
//
// A `CloudRecord` is one small named value: a sealed envelope (a call, a
// reply, a notice or a nudge) or the computer's card, tagged with the pair
// of computer and phones it belongs to, the side it is for and its kind.
// `CloudStore` is the contract: five operations that any store (the memory
// store below, the folder store, a hosted cloud) provides. `MemoryCloud` is
// one shared place in memory and `MemoryCloudStore` one party's view of it,
// with its own cursor; the whole road runs and is tried on it.
//
// Thread safety: the values are plain. Every `CloudStore` may be called from
// several threads at once. `MemoryCloud` guards all it holds with one lock
// and calls its write listeners after releasing it; `MemoryCloudStore`
// guards its cursor with a lock of its own.
#ifndef TOLVANGER_KIT_CLOUD_STORE_H_
#define TOLVANGER_KIT_CLOUD_STORE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"

namespace tolvanger {

namespace Cloud {

// The hosted container the apps use by default, its zone and record type.
inline constexpr std::string_view container = "iCloud.io.vrq.tolvanger";
inline constexpr std::string_view zone = "tolvanger";
inline constexpr std::string_view recordType = "Envelope";

// Who a record is for.
enum class Side { kPhone, kMac };
// What a record is, in this order.
enum class Kind { kCard, kCall, kReply, kNotify, kNudge };

// "phone", "mac"; and back, nothing for another text.
std::string_view text(Side side);
std::optional<Side> side(std::string_view text);
// "card", "call", "reply", "notify", "nudge"; and back.
std::string_view text(Kind kind);
std::optional<Kind> kind(std::string_view text);

// The record name of a kind and id: "<kind>-<id>".
std::string name(Kind kind, std::string_view id);
// The id in a name that carries a device tail ("-" and nine characters):
// the name must start with "<kind>-" and be more than ten characters longer
// than that; the result drops the prefix and the last ten characters.
std::optional<std::string> id(std::string_view name, Kind kind);
// The request id in a notice's record name.
std::optional<std::string> requestID(std::string_view notifyName);

// A record lives six hours unless told otherwise.
inline constexpr double kDefaultLifetime = 21'600'000;
// The longest record name any side writes or reads.
inline constexpr size_t kMaxName = 200;

// Whether `name` may name a record: 1 to kMaxName characters of ASCII
// letters, digits, "-" and "_", not starting with "-". So a name never
// holds "/", never starts with "." and is safe as a file name.
bool isName(std::string_view name);

}  // namespace Cloud

struct CloudRecord {
  std::string name;
  // Fingerprint of the computer's P-256 key: the pair the record belongs to.
  std::string pair;
  std::string to;    // Cloud::text of a Side
  std::string kind;  // Cloud::text of a Kind
  std::string body;  // JSON text: an envelope, or a card
  double at = 0;     // when written, ms since 1970
  double expires = 0;

  CloudRecord() = default;
  // `expires` defaults to `at` plus six hours.
  CloudRecord(std::string name, std::string pair, Cloud::Side to,
              Cloud::Kind kind, std::string body, double at,
              std::optional<double> expires = std::nullopt);

  // {"at", "body", "expires", "kind", "name", "pair", "to"}.
  nlohmann::json asDictionary() const;
  // Reads the seven keys with their types (texts, and numbers for "at" and
  // "expires"); nothing if one is missing or of another type, or the name
  // is not a record name.
  static std::optional<CloudRecord> from(const nlohmann::json& object);
  // Parses `text` as a flat JSON object (nothing nested deeper than one
  // level is accepted, so a hostile text cannot make a deep tree) and reads
  // it as `from` does.
  static std::optional<CloudRecord> fromJSON(std::string_view text);

  bool operator==(const CloudRecord&) const = default;
};

struct CloudChanges {
  std::vector<CloudRecord> changed;
  std::vector<std::string> deleted;
};

struct CloudSubscription {
  struct Alert {
    std::optional<std::string> body;
    std::optional<std::string> category;
    bool operator==(const Alert&) const = default;
  };

  std::string id;
  Cloud::Side to = Cloud::Side::kMac;
  std::vector<Cloud::Kind> kinds;
  std::optional<Alert> alert;

  // The computer's: calls. The phone's: notices, nudges, replies.
  static std::vector<CloudSubscription> mac();
  static std::vector<CloudSubscription> phone();

  bool operator==(const CloudSubscription&) const = default;
};

// A store's failure: kUnavailable when it cannot be reached ("iCloud is
// unavailable: " and the text), kRefused when it said no (the text alone).
class CloudError : public std::runtime_error {
 public:
  enum class Kind { kUnavailable, kRefused };
  static CloudError unavailable(std::string text);
  static CloudError refused(std::string text);
  Kind kind() const { return kind_; }
  // The text without the prefix.
  const std::string& detail() const { return detail_; }

 private:
  CloudError(Kind kind, std::string description, std::string detail);
  Kind kind_;
  std::string detail_;
};

// The contract. Every operation may throw CloudError.
class CloudStore {
 public:
  virtual ~CloudStore() = default;

  // Makes the store usable for this side and puts the subscriptions in
  // force; safe to call again.
  virtual void ready(const std::vector<CloudSubscription>& subscriptions) = 0;
  // Creates or replaces the record of that name.
  virtual void put(const CloudRecord& record) = 0;
  // One record by name; absence is no failure.
  virtual std::optional<CloudRecord> record(std::string_view name) = 0;
  // What changed or went since this store's last call: each change once to
  // each store, in order of writing (per writer, for a store with several).
  // Advances this store's own cursor.
  virtual CloudChanges changes() = 0;
  // Removes the named records; unknown names are ignored.
  virtual void remove(const std::vector<std::string>& names) = 0;

  // What status shows as the container.
  virtual std::string container() const = 0;
  // A store that learns of new records by itself calls `push` then, from a
  // thread of its own; a hint to read `changes` early, never a promise. Set
  // before the first `ready`. The default store never pushes.
  virtual void onPush(std::function<void()> push) { (void)push; }
};

class MemoryCloudStore;

class MemoryCloud : public std::enable_shared_from_this<MemoryCloud> {
 public:
  using Listener = std::function<void(const CloudRecord&)>;

  static std::shared_ptr<MemoryCloud> make();

  // A new party's store on this cloud, cursor 0.
  std::shared_ptr<MemoryCloudStore> store();
  // Called after every put, outside the lock.
  void onWrite(Listener listener) EXCLUDES(mu_);
  size_t count() const EXCLUDES(mu_);
  // All records, oldest write first.
  std::vector<CloudRecord> all() const EXCLUDES(mu_);
  // A subscription of a known id is replaced if its alert differs; a new id
  // is appended.
  void subscribe(const std::vector<CloudSubscription>& subscriptions)
      EXCLUDES(mu_);
  std::vector<CloudSubscription> subscriptions() const EXCLUDES(mu_);

  void put(const CloudRecord& record) EXCLUDES(mu_);
  std::optional<CloudRecord> record(std::string_view name) const EXCLUDES(mu_);
  // What came after `cursor`, and the new cursor.
  std::pair<CloudChanges, int64_t> changes(int64_t cursor) const EXCLUDES(mu_);
  void remove(const std::vector<std::string>& names) EXCLUDES(mu_);

  // While set, every operation of every store on this cloud fails with
  // CloudError::unavailable(text).
  void setOutage(std::optional<std::string> text) EXCLUDES(mu_);
  std::optional<std::string> outage() const EXCLUDES(mu_);

 private:
  MemoryCloud() = default;

  mutable Mutex mu_;
  std::map<std::string, std::pair<CloudRecord, int64_t>, std::less<>> records_
      GUARDED_BY(mu_);
  std::vector<std::pair<std::string, int64_t>> deleted_ GUARDED_BY(mu_);
  int64_t seq_ GUARDED_BY(mu_) = 0;
  std::vector<Listener> listeners_ GUARDED_BY(mu_);
  std::vector<CloudSubscription> subscriptions_ GUARDED_BY(mu_);
  std::optional<std::string> outage_ GUARDED_BY(mu_);
};

class MemoryCloudStore final : public CloudStore {
 public:
  explicit MemoryCloudStore(std::shared_ptr<MemoryCloud> cloud)
      : cloud_(std::move(cloud)) {}

  void ready(const std::vector<CloudSubscription>& subscriptions) override;
  void put(const CloudRecord& record) override;
  std::optional<CloudRecord> record(std::string_view name) override;
  CloudChanges changes() override EXCLUDES(mu_);
  void remove(const std::vector<std::string>& names) override;
  // "memory".
  std::string container() const override { return "memory"; }

 private:
  void check() const;

  std::shared_ptr<MemoryCloud> cloud_;
  Mutex mu_;
  int64_t cursor_ GUARDED_BY(mu_) = 0;
};

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_CLOUD_STORE_H_
