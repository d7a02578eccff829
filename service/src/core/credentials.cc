#include "tolvanger/service/credentials.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

namespace tolvanger::service {
namespace {

int64_t systemSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// now + ceiling without overflow, for a hand-edited ceiling of any size.
int64_t limitFrom(int64_t now, int64_t ceiling) {
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  if (ceiling > 0 && now > kMax - ceiling) return kMax;
  if (ceiling < 0 && now < kMin - ceiling) return kMin;
  return now + ceiling;
}

}  // namespace

Held::Held(ByteView value)
    : storage_(std::max<size_t>(value.size(), 1)),
      count_(value.size()),
      live_(true) {
  if (!value.empty()) {
    std::memcpy(storage_.mutableData(), value.data(), value.size());
  }
}

Held::Held(Held&& other) noexcept
    : storage_(std::move(other.storage_)),
      count_(std::exchange(other.count_, 0)),
      live_(std::exchange(other.live_, false)) {}

Held& Held::operator=(Held&& other) noexcept {
  if (this != &other) {
    storage_ = std::move(other.storage_);  // wipes what this one held
    count_ = std::exchange(other.count_, 0);
    live_ = std::exchange(other.live_, false);
  }
  return *this;
}

std::optional<SecretBytes> Held::data() const {
  if (!live_ || storage_.empty()) return std::nullopt;
  return SecretBytes(storage_.reveal().first(count_));
}

void Held::scrub() {
  if (!live_) return;
  storage_.wipe();
  live_ = false;
  count_ = 0;
}

Credentials::Credentials(int64_t ceiling, Clock now)
    : ceiling_(ceiling), now_(now ? std::move(now) : Clock(systemSeconds)) {}

Credentials::~Credentials() { scrubAll(); }

int64_t Credentials::put(std::string requestID, std::string name,
                         std::string kind, ByteView value,
                         std::optional<int64_t> phoneExpiry,
                         std::string deviceID) {
  const int64_t limit = limitFrom(now_(), ceiling_);
  const int64_t expiresAt = phoneExpiry ? std::min(limit, *phoneExpiry) : limit;
  Credential fresh{.requestID = requestID,
                   .name = std::move(name),
                   .kind = std::move(kind),
                   .expiresAt = expiresAt,
                   .deviceID = std::move(deviceID),
                   .held = Held(value)};
  std::optional<Credential> replaced;
  {
    MutexLock lock(mu_);
    auto it = byRequest_.find(requestID);
    if (it != byRequest_.end()) {
      replaced.emplace(std::move(it->second));
      it->second = std::move(fresh);
    } else {
      byRequest_.emplace(std::move(requestID), std::move(fresh));
    }
  }
  // The earlier value is already out of reach; wipe it now rather than when
  // `replaced` happens to die.
  if (replaced) replaced->held.scrub();
  sweep();
  return expiresAt;
}

std::optional<Spent> Credentials::take(std::string_view requestID) {
  sweep();
  Map::node_type node;
  {
    MutexLock lock(mu_);
    auto it = byRequest_.find(requestID);
    if (it == byRequest_.end()) return std::nullopt;
    node = byRequest_.extract(it);
  }
  Credential& credential = node.mapped();
  std::optional<Spent> spent;
  if (!credential.hasExpired(now_())) {
    if (std::optional<SecretBytes> value = credential.held.data()) {
      spent.emplace(Spent{.name = std::move(credential.name),
                          .kind = std::move(credential.kind),
                          .value = std::move(*value),
                          .expiresAt = credential.expiresAt,
                          .deviceID = std::move(credential.deviceID)});
    }
  }
  credential.held.scrub();
  return spent;
}

bool Credentials::waiting(std::string_view requestID) {
  sweep();
  MutexLock lock(mu_);
  return byRequest_.find(requestID) != byRequest_.end();
}

void Credentials::discard(std::string_view requestID) {
  Map::node_type node;
  {
    MutexLock lock(mu_);
    auto it = byRequest_.find(requestID);
    if (it == byRequest_.end()) return;
    node = byRequest_.extract(it);
  }
  node.mapped().held.scrub();
}

size_t Credentials::sweep() {
  const int64_t now = now_();
  std::vector<Map::node_type> removed;
  {
    MutexLock lock(mu_);
    for (auto it = byRequest_.begin(); it != byRequest_.end();) {
      auto next = std::next(it);
      if (it->second.hasExpired(now)) removed.push_back(byRequest_.extract(it));
      it = next;
    }
  }
  for (Map::node_type& node : removed) node.mapped().held.scrub();
  return removed.size();
}

size_t Credentials::count() {
  sweep();
  MutexLock lock(mu_);
  return byRequest_.size();
}

void Credentials::scrubAll() {
  Map all;
  {
    MutexLock lock(mu_);
    all.swap(byRequest_);
  }
  for (auto& [id, credential] : all) credential.held.scrub();
}

}  // namespace tolvanger::service
