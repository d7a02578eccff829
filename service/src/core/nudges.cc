#include "tolvanger/service/nudges.h"

#include <algorithm>
#include <utility>

#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/kit/service_error.h"

namespace tolvanger::service {

namespace {}  // namespace

nlohmann::json Nudge::asDictionary() const {
  return {{"id", id}, {"kind", kind}, {"expires_at", expiresAt}};
}

Nudges::Nudges(int64_t windowSeconds, Clock now)
    : window_(windowSeconds),
      now_(now ? std::move(now) : Clock(SystemClock::seconds)) {}

Nudge Nudges::raise(std::string_view kind) {
  if (std::find(kinds.begin(), kinds.end(), kind) == kinds.end()) {
    throw ServiceError::refused(
        "this Mac has nothing to nudge a phone about called " +
        std::string(kind));
  }
  const int64_t now = now_();
  Nudge nudge{Random::hex(8), std::string(kind), now, now + window_};
  MutexLock lock(mu_);
  held_ = nudge;
  return nudge;
}

std::optional<Nudge> Nudges::current() {
  const int64_t now = now_();
  MutexLock lock(mu_);
  if (held_ && held_->expiresAt <= now) held_.reset();
  return held_;
}

void Nudges::clear() {
  MutexLock lock(mu_);
  held_.reset();
}

bool Nudges::clearIf(std::string_view id) {
  MutexLock lock(mu_);
  if (!held_ || held_->id != id) return false;
  held_.reset();
  return true;
}

}  // namespace tolvanger::service
