// Allowances: standing permissions for one agent process to draw on one
// credential for a while without asking the phone each time.
//
// When the phone releases a credential with a hold, `Allowances::open` keeps
// its own copy of the value for up to an hour, tied to the credential's name
// and to the one process (pid and start time) whose request was approved.
// Later requests for the same name from the same process take a copy through
// `use`. An allowance ends when its time is up, its process goes, the phone
// ends it, another replaces it, or the service stops; its value is wiped then.
//
// Thread safety: every member may be called from any thread. One lock guards
// the open allowances and is held only while they are read or changed; the
// liveness test, wiping and the `ended` hook all run outside it. `setEnded`
// is meant to be called once, before any other member.
#ifndef TOLVANGER_SERVICE_ALLOWANCES_H_
#define TOLVANGER_SERVICE_ALLOWANCES_H_

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/service/agent_process.h"
#include "tolvanger/service/credentials.h"

namespace tolvanger::service {

// One allowance as others see it: its labels, never its value.
struct Allowance {
  std::string requestID;  // the request whose approval opened it; its key
  std::string name;       // the credential's name
  std::string kind;
  std::string deviceID;  // the phone that granted it
  std::string client;    // the client label, possibly empty
  AgentProcess agent;    // the one process it serves
  int64_t openedAt = 0;  // whole seconds since 1970
  int64_t until = 0;     // whole seconds since 1970
  int64_t uses = 0;      // times it has been drawn on

  // `until` minus `now`, never below 0.
  int64_t secondsLeft(int64_t now) const;
  // The object a phone reads: request_id, name, client, opened_at, until,
  // seconds_left, uses.
  nlohmann::json asDictionary(int64_t now) const;
};

// What one use of an allowance gives: a copy of the value, wiped when it
// dies, with what the request it settles needs to know.
struct AllowanceUse {
  SecretBytes value;
  std::string kind;
  std::string deviceID;
  std::string requestID;  // the allowance's own request
};

class Allowances {
 public:
  // The longest an allowance lasts, whatever the phone asked for.
  static constexpr int64_t kMaxSeconds = 3600;

  // Whole seconds since 1970; empty means the system clock.
  using Clock = std::function<int64_t()>;
  // Whether a process still runs; empty means `AgentProcess::isAlive`.
  using Alive = std::function<bool(const AgentProcess&)>;
  // Told, outside the lock, of each allowance that ended and why.
  using Ended = std::function<void(const Allowance&, std::string_view why)>;

  explicit Allowances(Clock now = {}, Alive alive = {});
  // Wipes every value still held, without telling `ended`.
  ~Allowances();

  Allowances(const Allowances&) = delete;
  Allowances& operator=(const Allowances&) = delete;

  void setEnded(Ended ended) EXCLUDES(mu_);

  // Opens an allowance of `seconds` (capped at `kMaxSeconds`) with its own
  // copy of `value`, replacing and wiping any open one for the same name and
  // process (why "replaced"). Nothing for `seconds` below 1. The caller still
  // owns, and must wipe, its copy of `value`.
  std::optional<Allowance> open(std::string requestID, std::string name,
                                std::string kind, ByteView value,
                                std::string deviceID, std::string client,
                                const AgentProcess& agent, int64_t seconds)
      EXCLUDES(mu_);

  // Sweeps, then draws once on the allowance for `name` and `agent`: a copy
  // of its value, and its use count goes up by one. Nothing when none is open
  // or its value is gone.
  std::optional<AllowanceUse> use(std::string_view name,
                                  const AgentProcess& agent) EXCLUDES(mu_);

  // Ends what has run out of time ("expired") and what serves a process that
  // has gone ("session"). Returns how many ended.
  size_t sweep() EXCLUDES(mu_);

  // Ends the one opened by `requestID`, if it is open.
  std::optional<Allowance> end(std::string_view requestID, std::string_view why)
      EXCLUDES(mu_);

  // Ends every open one, in opening order.
  std::vector<Allowance> endAll(std::string_view why) EXCLUDES(mu_);

  // The open ones, in opening order. Does not sweep.
  std::vector<Allowance> all() const EXCLUDES(mu_);

  // The open one under `requestID`, if any. Does not sweep.
  std::optional<Allowance> find(std::string_view requestID) const EXCLUDES(mu_);

  int64_t now() const;

 private:
  struct Entry {
    Allowance info;
    Held held;
  };

  // Wipes each entry's value and tells `ended`; called without the lock.
  void finish(std::vector<Entry>& gone, std::string_view why);

  const Clock now_;
  const Alive alive_;
  mutable Mutex mu_;
  Ended ended_ GUARDED_BY(mu_);
  std::vector<Entry> open_ GUARDED_BY(mu_);  // in opening order
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_ALLOWANCES_H_
