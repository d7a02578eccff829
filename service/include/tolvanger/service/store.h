// What has been asked and what became of it.
//
// `Store` keeps every request in memory only; the one thing written down is
// the bare fact that an id was decided, one id a line in `decided.log`, so
// that an approval can never be replayed across a restart. Every operation
// but `take` and `wasDecided` first sweeps: overdue pending requests turn
// expired, and requests decided more than `graceSeconds` plus an hour ago
// leave memory (their ids stay decided for good).
//
// Thread safety: every member may be called from any thread. One lock guards
// the requests and the decided ids and is held for each whole operation,
// including the append to `decided.log`, so ids reach the file in the order
// they were decided. `decide` is the arbiter of a request: of two answers
// racing on one id, exactly one goes through.
#ifndef TOLVANGER_SERVICE_STORE_H_
#define TOLVANGER_SERVICE_STORE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/fields.h"
#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/service/agent_process.h"
#include "tolvanger/service/home.h"
#include "tolvanger/service/wire.h"

namespace tolvanger::service {

enum class RequestState {
  kPending,    // raised, no answer yet
  kApproved,   // the phone said yes; nothing spent
  kDenied,     // the phone said no
  kExpired,    // no answer in time, or not redeemed in time
  kCancelled,  // called off by the agent's side
  kTaken,      // approved and spent
};

// The state's word in messages and on the wire: "pending", "approved", ...
std::string_view toText(RequestState state);

// A request as the service keeps it. A plain value: copies handed out by the
// store are the caller's own, and changing one changes nothing in the store.
struct StoredRequest {
  std::string id;         // "r" and 16 lowercase hexadecimal digits
  std::string operation;  // passes Ids::isOperation
  Fields fields;
  std::string canonical;  // the exact text that the phone signs
  std::string digest;     // 64 lowercase hexadecimal digits of `canonical`
  int64_t issuedAt = 0;   // whole seconds since 1970
  int64_t expiresAt = 0;  // whole seconds since 1970
  std::string summary;
  RequestState state = RequestState::kPending;
  std::optional<std::string> deviceID;  // the phone that answered
  std::optional<int64_t> decidedAt;     // whole seconds since 1970
  std::optional<std::string> credentialName;
  std::optional<Wire> http;                  // the call, for a brokered request
  std::optional<std::string> notice;         // the behaviour check's warning
  std::optional<std::string> profile;        // a behaviour profile offered
  std::optional<AgentProcess> agentProcess;  // the process that raised it

  // True from the second `expiresAt` on.
  bool hasExpired(int64_t now) const { return expiresAt <= now; }
};

class Store {
 public:
  // The current time in whole seconds since 1970.
  using Clock = tolvanger::Clock;

  // The system clock, cut to the whole second.
  static int64_t systemNow();

  // Reads the decided ids from `decided.log`; a file that is missing or
  // unreadable leaves none, and a line that is not UTF-8 is skipped. Never
  // fails. `now` is consulted
  // under the store's lock and must not call back into the store.
  Store(Home home, int64_t graceSeconds, Clock now = systemNow);

  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // A fresh request id, not in memory and never decided. It is not reserved:
  // only a later `put` files it.
  std::string mint() EXCLUDES(mu_);

  // Files `request` under its id, replacing any with that id, then sweeps.
  void put(StoredRequest request) EXCLUDES(mu_);

  // A copy of the request, or nothing.
  std::optional<StoredRequest> get(std::string_view id) EXCLUDES(mu_);

  // Copies of all pending requests, oldest `issuedAt` first.
  std::vector<StoredRequest> pending() EXCLUDES(mu_);

  // How many requests are pending, without copying them: a count kept as
  // requests come and go, so it costs the same however many settled
  // requests are still in memory.
  size_t pendingCount() EXCLUDES(mu_);

  // Moves a pending request to `state`, records its id as decided, and
  // returns a copy. `deviceID`, when given, replaces the one on record.
  // Throws ServiceError::refused: "no such request", "that request was
  // already <state>", or "that request has expired" when its deadline has
  // passed (the request is then expired). Throws
  // ServiceError::internalFailure, leaving the request pending, when the id
  // cannot be written to `decided.log`: a decision that would not survive a
  // restart is not taken.
  StoredRequest decide(std::string_view id, RequestState state,
                       std::optional<std::string> deviceID = std::nullopt)
      EXCLUDES(mu_);

  // Spends an approval: the request turns taken and a copy is returned. Does
  // not sweep. Throws ServiceError::refused: "no such request", "that
  // approval was already spent", "that request is <state>", or "that
  // approval went stale" once `expiresAt + graceSeconds` has come (the
  // request is then expired).
  StoredRequest take(std::string_view id) EXCLUDES(mu_);

  // True when the id was ever decided, in this process or an earlier one.
  // Does not sweep.
  bool wasDecided(std::string_view id) EXCLUDES(mu_);

 private:
  // Every change of a stored request's state goes through here, so that the
  // pending count follows it.
  void moveLocked(StoredRequest& request, RequestState state) REQUIRES(mu_);
  void sweepLocked(int64_t now) REQUIRES(mu_);
  // The first second at which a sweep would change `request`: its deadline
  // while pending, the end of its stay once decided.
  int64_t dueLocked(const StoredRequest& request) const REQUIRES(mu_);
  // Appends the id to decided.log, behind any ids still waiting for the
  // file, and only then marks it decided. False, with nothing marked, when
  // the file cannot take it.
  bool recordLocked(const std::string& id) REQUIRES(mu_);
  // Marks the id of a request that ran out of time decided and writes it;
  // the passing of time cannot be refused, so an id the file cannot take
  // waits in `unwritten_` for the next write.
  void expireLocked(const std::string& id) REQUIRES(mu_);
  // Appends every id in `unwritten_` to decided.log in one write, all or
  // none; true when nothing waits any more.
  bool writeDecidedLocked() REQUIRES(mu_);

  const Home home_;
  const int64_t graceSeconds_;
  const Clock now_;

  Mutex mu_;
  std::map<std::string, StoredRequest, std::less<>> requests_ GUARDED_BY(mu_);
  std::set<std::string, std::less<>> decided_ GUARDED_BY(mu_);
  // Expired ids in `decided_` that decided.log could not take yet.
  std::vector<std::string> unwritten_ GUARDED_BY(mu_);
  // No request falls due before this second; a sweep before it is skipped.
  int64_t nextSweep_ GUARDED_BY(mu_) = 0;
  // How many of `requests_` are pending.
  size_t pending_ GUARDED_BY(mu_) = 0;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_STORE_H_
