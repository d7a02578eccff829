#include "tolvanger/service/allowances.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace tolvanger::service {

using nlohmann::json;

int64_t Allowance::secondsLeft(int64_t now) const {
  return std::max<int64_t>(until - now, 0);
}

json Allowance::asDictionary(int64_t now) const {
  return json{{"request_id", requestID},
              {"name", name},
              {"client", client},
              {"opened_at", openedAt},
              {"until", until},
              {"seconds_left", secondsLeft(now)},
              {"uses", uses}};
}

Allowances::Allowances(Clock now, Alive alive)
    : now_(std::move(now)), alive_(std::move(alive)) {}

Allowances::~Allowances() {
  MutexLock lock(mu_);
  for (Entry& entry : open_) entry.held.scrub();
}

int64_t Allowances::now() const {
  if (now_) return now_();
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

void Allowances::setEnded(Ended ended) {
  MutexLock lock(mu_);
  ended_ = std::move(ended);
}

std::optional<Allowance> Allowances::open(std::string requestID,
                                          std::string name, std::string kind,
                                          ByteView value, std::string deviceID,
                                          std::string client,
                                          const AgentProcess& agent,
                                          int64_t seconds) {
  if (seconds < 1) return std::nullopt;
  const int64_t opened = now();
  Entry entry{Allowance{std::move(requestID), std::move(name), std::move(kind),
                        std::move(deviceID), std::move(client), agent, opened,
                        opened + std::min(seconds, kMaxSeconds), 0},
              Held(value)};
  const Allowance made = entry.info;
  std::vector<Entry> replaced;
  {
    MutexLock lock(mu_);
    for (auto it = open_.begin(); it != open_.end();) {
      // The same key twice (a request approved twice cannot happen, but a
      // test may try) replaces as well: a key names one allowance.
      if ((it->info.name == made.name && it->info.agent == made.agent) ||
          it->info.requestID == made.requestID) {
        replaced.push_back(std::move(*it));
        it = open_.erase(it);
      } else {
        ++it;
      }
    }
    open_.push_back(std::move(entry));
  }
  finish(replaced, "replaced");
  return made;
}

std::optional<AllowanceUse> Allowances::use(std::string_view name,
                                            const AgentProcess& agent) {
  sweep();
  MutexLock lock(mu_);
  for (Entry& entry : open_) {
    if (entry.info.name != name || !(entry.info.agent == agent)) continue;
    std::optional<SecretBytes> value = entry.held.data();
    if (!value) return std::nullopt;
    entry.info.uses += 1;
    return AllowanceUse{std::move(*value), entry.info.kind, entry.info.deviceID,
                        entry.info.requestID};
  }
  return std::nullopt;
}

size_t Allowances::sweep() {
  const int64_t at = now();
  std::vector<Entry> expired;
  std::vector<std::pair<std::string, AgentProcess>> processes;
  {
    MutexLock lock(mu_);
    for (auto it = open_.begin(); it != open_.end();) {
      if (it->info.until <= at) {
        expired.push_back(std::move(*it));
        it = open_.erase(it);
      } else {
        processes.emplace_back(it->info.requestID, it->info.agent);
        ++it;
      }
    }
  }
  // Reading a process's facts touches /proc, so it is done on the copy,
  // without the lock.
  std::vector<std::string> goneIDs;
  for (const auto& [id, process] : processes) {
    const bool alive = alive_ ? alive_(process) : process.isAlive();
    if (!alive) goneIDs.push_back(id);
  }
  std::vector<Entry> gone;
  if (!goneIDs.empty()) {
    MutexLock lock(mu_);
    for (auto it = open_.begin(); it != open_.end();) {
      if (std::find(goneIDs.begin(), goneIDs.end(), it->info.requestID) !=
          goneIDs.end()) {
        gone.push_back(std::move(*it));
        it = open_.erase(it);
      } else {
        ++it;
      }
    }
  }
  finish(expired, "expired");
  finish(gone, "session");
  return expired.size() + gone.size();
}

std::optional<Allowance> Allowances::end(std::string_view requestID,
                                         std::string_view why) {
  std::vector<Entry> taken;
  {
    MutexLock lock(mu_);
    const auto it = std::find_if(
        open_.begin(), open_.end(),
        [&](const Entry& e) { return e.info.requestID == requestID; });
    if (it == open_.end()) return std::nullopt;
    taken.push_back(std::move(*it));
    open_.erase(it);
  }
  Allowance info = taken.front().info;
  finish(taken, why);
  return info;
}

std::vector<Allowance> Allowances::endAll(std::string_view why) {
  std::vector<Entry> taken;
  {
    MutexLock lock(mu_);
    taken.swap(open_);
  }
  std::vector<Allowance> out;
  out.reserve(taken.size());
  for (const Entry& entry : taken) out.push_back(entry.info);
  finish(taken, why);
  return out;
}

std::vector<Allowance> Allowances::all() const {
  MutexLock lock(mu_);
  std::vector<Allowance> out;
  out.reserve(open_.size());
  for (const Entry& entry : open_) out.push_back(entry.info);
  return out;
}

std::optional<Allowance> Allowances::find(std::string_view requestID) const {
  MutexLock lock(mu_);
  for (const Entry& entry : open_) {
    if (entry.info.requestID == requestID) return entry.info;
  }
  return std::nullopt;
}

void Allowances::finish(std::vector<Entry>& gone, std::string_view why) {
  for (Entry& entry : gone) entry.held.scrub();
  if (gone.empty()) return;
  Ended told;
  {
    MutexLock lock(mu_);
    told = ended_;
  }
  if (!told) return;
  for (const Entry& entry : gone) told(entry.info, why);
}

}  // namespace tolvanger::service
