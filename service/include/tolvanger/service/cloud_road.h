// The computer's half of the cloud road: a pump on a thread of its own that
// makes the store ready, publishes the card, reads the calls that phones
// left, answers each through the same phone routes as the local network,
// and leaves notices and nudges for the phones. It stands on the
// `CloudStore` contract alone, so it runs the same on a `MemoryCloud`, a
// synced folder or a hosted cloud.
//
// A call is answered once: the sealed reply is remembered (the last 256) and
// a call seen again gets the same reply without opening its seal or running
// its route. A call whose record name does not fit its envelope gets no reply
// and is deleted, with "cloud-refused why=binding" in the journal. Nothing
// that fails reaches a caller of `notify` or `nudge`: their records are
// sealed on the caller's thread and written by the pump, from a queue that
// `stop()` drains, so no write outlives the road.
//
// The pump naps 2 seconds while anything is pending or a reply waits to be
// taken, 20 seconds otherwise; `poke()` (a push from the store, or a route
// that knows of new work) ends a nap at once. A failed setup is tried again
// after 1, 2, 4 ... up to 60 seconds. The journal hears "up" and "down" only
// when the state changes.
//
// Thread safety: every public member may be called from any thread. One lock
// guards the fields below; it is never held across a store call, a route or
// the journal. The road must be stopped before the service it serves dies.
#ifndef TOLVANGER_SERVICE_CLOUD_ROAD_H_
#define TOLVANGER_SERVICE_CLOUD_ROAD_H_

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tolvanger/kit/cloud_store.h"
#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/service/config.h"
#include "tolvanger/service/home.h"
#include "tolvanger/service/nudges.h"
#include "tolvanger/service/store.h"

namespace tolvanger::service {

class Service;
class Routes;

// The sentence a computer with no hosted cloud reports for the default
// container.
inline constexpr std::string_view kNoHostedCloud =
    "this computer has no iCloud — set cloud.container to folder:<a synced "
    "folder>";

// The store a configured container names: a folder store for
// "folder:<absolute path>" (its cursor in `home`, its skipped files
// journalled through `service`), else a store that is always unavailable
// with kNoHostedCloud (or, for a malformed folder text, a sentence that
// says so).
std::shared_ptr<CloudStore> storeForContainer(const CloudRoadConfig& config,
                                              const Home& home,
                                              Service& service);

// How long the road's pump waits, between rounds and after failures.
struct CloudRoadTiming {
  std::chrono::milliseconds busyNap{2000};
  std::chrono::milliseconds idleNap{20000};
  std::chrono::milliseconds firstPause{1000};
  std::chrono::milliseconds longestPause{60000};
  std::chrono::milliseconds sweepEvery{300000};
};
class CloudRoad {
 public:
  using Timing = CloudRoadTiming;

  // The most replies remembered, and the most writes waiting.
  static constexpr size_t kRememberedReplies = 256;
  static constexpr size_t kMaxQueued = 1024;

  CloudRoad(Service& service, Routes& routes, std::shared_ptr<CloudStore> store,
            Timing timing = Timing());
  ~CloudRoad();

  CloudRoad(const CloudRoad&) = delete;
  CloudRoad& operator=(const CloudRoad&) = delete;

  // Starts the pump, once.
  void start() EXCLUDES(mu_);
  // Stops the pump after it has written what is queued. Idempotent.
  void stop() EXCLUDES(mu_);

  // {"enabled": true, "connected", "container", "error"}.
  nlohmann::json state() const EXCLUDES(mu_);
  bool connected() const EXCLUDES(mu_);

  // Leaves a notice of a new request, or a nudge, for every phone with a
  // cloud key. Never throws.
  void notify(const StoredRequest& request) noexcept;
  void nudge(const Nudge& nudge) noexcept;
  // Ends the pump's nap.
  void poke() EXCLUDES(mu_);

  // One round of reading, answering and deleting calls, on the caller's
  // thread; throws what the store throws. For tests that drive the road
  // without its thread.
  void drain() EXCLUDES(mu_);
  // Makes the store ready and publishes the card, as the pump's setup does.
  void setUp();
  // Writes what is queued.
  void flush() EXCLUDES(mu_);
  // Clears records whose time has passed, if a sweep is due.
  void sweepIfDue() EXCLUDES(mu_);

 private:
  struct Queued {
    CloudRecord record;
    std::string kind;
  };

  void pump() EXCLUDES(mu_);
  void nap(std::chrono::milliseconds length) EXCLUDES(mu_);
  void up() EXCLUDES(mu_);
  void down(const std::string& reason) EXCLUDES(mu_);
  std::optional<CloudRecord> answer(const CloudRecord& call) EXCLUDES(mu_);
  void remember(const std::string& id, const std::string& json) REQUIRES(mu_);
  void leave(const nlohmann::json& payload, Cloud::Kind kind,
             const std::string& id, double expires);
  std::string pair() const;

  Service& service_;
  Routes& routes_;
  const std::shared_ptr<CloudStore> store_;
  const Timing timing_;

  mutable Mutex mu_;
  CondVar wake_;
  bool started_ GUARDED_BY(mu_) = false;
  bool stopping_ GUARDED_BY(mu_) = false;
  bool stopped_ GUARDED_BY(mu_) = false;
  bool poked_ GUARDED_BY(mu_) = false;
  bool ready_ GUARDED_BY(mu_) = false;
  bool connected_ GUARDED_BY(mu_) = false;
  std::string lastError_ GUARDED_BY(mu_);
  std::string said_ GUARDED_BY(mu_);
  std::map<std::string, std::string> replies_ GUARDED_BY(mu_);
  std::deque<std::string> replyOrder_ GUARDED_BY(mu_);
  std::map<std::string, double> seen_ GUARDED_BY(mu_);
  std::chrono::steady_clock::time_point lastSweep_ GUARDED_BY(mu_);
  int64_t answering_ GUARDED_BY(mu_) = 0;
  std::deque<Queued> queue_ GUARDED_BY(mu_);
  std::thread thread_;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_CLOUD_ROAD_H_
