#include "tolvanger/service/callers.h"

#include <algorithm>
#include <utility>

#include "tolvanger/kit/clock.h"

namespace tolvanger::service {

namespace {}  // namespace

nlohmann::json Caller::asDictionary() const {
  return {{"client", client},
          {"agent", agent},
          {"scope", scope},
          {"at", at},
          {"live", live}};
}

Callers::Callers(Clock now)
    : now_(now ? std::move(now) : Clock(SystemClock::seconds)) {}

void Callers::hello(std::string client, std::string agent, std::string scope) {
  const int64_t at = now_();
  MutexLock lock(mu_);
  auto same = std::find_if(rows_.begin(), rows_.end(), [&](const Caller& c) {
    return c.client == client && c.agent == agent && c.scope == scope;
  });
  if (same != rows_.end()) {
    same->at = at;
    same->live = true;
    std::rotate(rows_.begin(), same, same + 1);
  } else {
    rows_.insert(rows_.begin(), Caller{std::move(client), std::move(agent),
                                       std::move(scope), at, true});
    if (rows_.size() > kMaxRows) rows_.resize(kMaxRows);
  }
  ++open_;
}

void Callers::goodbye(std::string_view /*client*/, std::string_view /*agent*/) {
  MutexLock lock(mu_);
  if (open_ > 0) --open_;
  if (open_ > 0) return;
  for (Caller& c : rows_) c.live = false;
}

bool Callers::connected() const {
  MutexLock lock(mu_);
  return open_ > 0;
}

std::vector<Caller> Callers::all() const {
  MutexLock lock(mu_);
  return rows_;
}

std::optional<Caller> Callers::last() const {
  MutexLock lock(mu_);
  if (rows_.empty()) return std::nullopt;
  return rows_.front();
}

}  // namespace tolvanger::service
