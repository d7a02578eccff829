// Who has connected to the agent socket: the last few callers that said
// hello, and whether any connection is open now.
//
// `Callers` keeps at most eight rows, the most recent hello first, and a
// count of connections that said hello and have not yet left. The `live` flag
// of the rows is coarse: it says that some caller was connected, and it drops
// for every row only when the last connection leaves. Nothing here survives a
// restart.
//
// Thread safety: every member may be called from any thread; one lock guards
// the rows and the count and is held only for the registry's own work.
#ifndef TOLVANGER_SERVICE_CALLERS_H_
#define TOLVANGER_SERVICE_CALLERS_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"

namespace tolvanger::service {

// One caller as last seen.
struct Caller {
  std::string client;  // the client id, or empty
  std::string agent;   // the process label
  std::string scope;   // "admin" or "agent"
  int64_t at = 0;      // whole seconds since 1970 of the last hello
  bool live = false;   // some connection is open now

  // {"client", "agent", "scope", "at", "live"}.
  nlohmann::json asDictionary() const;

  bool operator==(const Caller&) const = default;
};

class Callers {
 public:
  static constexpr size_t kMaxRows = 8;

  // Whole seconds since 1970. An empty clock means the system clock.
  using Clock = tolvanger::Clock;

  explicit Callers(Clock now = {});

  Callers(const Callers&) = delete;
  Callers& operator=(const Callers&) = delete;

  // Records a hello: the row of the same client, agent and scope is brought
  // up to date and moved to the front, or a new row goes in front; rows past
  // the eighth are dropped. Counts one more open connection.
  void hello(std::string client, std::string agent, std::string scope)
      EXCLUDES(mu_);

  // Counts one connection fewer, never below zero. When none is left, every
  // row stops being live. Which caller left does not matter to the count;
  // the names are taken so that callers state who is leaving.
  void goodbye(std::string_view client, std::string_view agent) EXCLUDES(mu_);

  // True while some connection that said hello is open.
  bool connected() const EXCLUDES(mu_);

  // The rows, most recent hello first.
  std::vector<Caller> all() const EXCLUDES(mu_);

  // The most recent caller, if any has said hello.
  std::optional<Caller> last() const EXCLUDES(mu_);

 private:
  const Clock now_;
  mutable Mutex mu_;
  std::vector<Caller> rows_ GUARDED_BY(mu_);
  int64_t open_ GUARDED_BY(mu_) = 0;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_CALLERS_H_
