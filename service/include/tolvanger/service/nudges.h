// A short-lived "please look at your phone": the one nudge the service holds
// for a phone to pick up.
//
// `Nudges` holds at most one `Nudge`; raising a new one replaces the old. A
// nudge lasts `window` seconds from its raising and then reads as absent.
// Nothing here survives a restart.
//
// Thread safety: every member may be called from any thread; one lock guards
// the held nudge and is held only for the registry's own work.
#ifndef TOLVANGER_SERVICE_NUDGES_H_
#define TOLVANGER_SERVICE_NUDGES_H_

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"

namespace tolvanger::service {

struct Nudge {
  std::string id;         // 16 lowercase hexadecimal digits
  std::string kind;       // one of `Nudges::kinds`
  int64_t raisedAt = 0;   // whole seconds since 1970
  int64_t expiresAt = 0;  // whole seconds since 1970

  // What the phone reads: {"id", "kind", "expires_at"}.
  nlohmann::json asDictionary() const;

  bool operator==(const Nudge&) const = default;
};

class Nudges {
 public:
  // The kinds of nudge a phone knows what to do with.
  static constexpr std::array<std::string_view, 1> kinds = {"secret"};

  // Whole seconds since 1970. An empty clock means the system clock.
  using Clock = tolvanger::Clock;

  // `windowSeconds` is how long each nudge lasts.
  explicit Nudges(int64_t windowSeconds, Clock now = {});

  Nudges(const Nudges&) = delete;
  Nudges& operator=(const Nudges&) = delete;

  // Raises a nudge of `kind` with a fresh random id, replacing any held one,
  // and returns it. Throws ServiceError::refused("this Mac has nothing to
  // nudge a phone about called <kind>") for a kind not in `kinds`; the held
  // nudge is then untouched.
  Nudge raise(std::string_view kind) EXCLUDES(mu_);

  // The held nudge, or nothing once it has expired (at `expiresAt`), when it
  // is also dropped.
  std::optional<Nudge> current() EXCLUDES(mu_);

  // Drops the held nudge, if any.
  void clear() EXCLUDES(mu_);

  // Drops the held nudge only when its id is `id`, in one step, so a phone
  // that saw an older nudge never clears one raised after it. True when it
  // dropped one.
  bool clearIf(std::string_view id) EXCLUDES(mu_);

 private:
  const int64_t window_;
  const Clock now_;
  Mutex mu_;
  std::optional<Nudge> held_ GUARDED_BY(mu_);
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_NUDGES_H_
