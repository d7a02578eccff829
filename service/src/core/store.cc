#include "tolvanger/service/store.h"

#include <algorithm>
#include <limits>

#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/text.h"

namespace tolvanger::service {

namespace {

constexpr std::string_view kDecidedLog = "decided.log";
// How long a decided request stays in memory beyond the redemption grace.
constexpr int64_t kLingerSeconds = 3600;

// a + b, held at the int64 limits so a hand-edited grace cannot wrap.
int64_t plus(int64_t a, int64_t b) {
  int64_t sum;
  if (__builtin_add_overflow(a, b, &sum)) {
    return b > 0 ? std::numeric_limits<int64_t>::max()
                 : std::numeric_limits<int64_t>::min();
  }
  return sum;
}

}  // namespace

std::string_view toText(RequestState state) {
  switch (state) {
    case RequestState::kPending:
      return "pending";
    case RequestState::kApproved:
      return "approved";
    case RequestState::kDenied:
      return "denied";
    case RequestState::kExpired:
      return "expired";
    case RequestState::kCancelled:
      return "cancelled";
    case RequestState::kTaken:
      return "taken";
  }
  return "unknown";
}

int64_t Store::systemNow() { return SystemClock::seconds(); }

Store::Store(Home home, int64_t graceSeconds, Clock now)
    : home_(std::move(home)),
      graceSeconds_(graceSeconds),
      now_(std::move(now)) {
  std::optional<std::string> log = home_.read(kDecidedLog);
  if (!log) return;
  MutexLock lock(mu_);
  // Line by line, so that one damaged line costs only itself.
  size_t start = 0;
  while (start <= log->size()) {
    size_t end = log->find('\n', start);
    if (end == std::string::npos) end = log->size();
    const std::string_view id(log->data() + start, end - start);
    if (!id.empty() && Text::isValidUTF8(id)) decided_.emplace(id);
    start = end + 1;
  }
}

std::string Store::mint() {
  MutexLock lock(mu_);
  for (;;) {
    std::string id = "r" + Random::hex(8);
    if (!requests_.contains(id) && !decided_.contains(id)) return id;
  }
}

void Store::put(StoredRequest request) {
  MutexLock lock(mu_);
  std::string id = request.id;
  const int64_t due = dueLocked(request);
  if (const auto it = requests_.find(id);
      it != requests_.end() && it->second.state == RequestState::kPending) {
    --pending_;
  }
  if (request.state == RequestState::kPending) ++pending_;
  requests_.insert_or_assign(std::move(id), std::move(request));
  nextSweep_ = std::min(nextSweep_, due);
  sweepLocked(now_());
}

std::optional<StoredRequest> Store::get(std::string_view id) {
  MutexLock lock(mu_);
  sweepLocked(now_());
  auto it = requests_.find(id);
  if (it == requests_.end()) return std::nullopt;
  return it->second;
}

std::vector<StoredRequest> Store::pending() {
  MutexLock lock(mu_);
  sweepLocked(now_());
  std::vector<StoredRequest> out;
  for (const auto& [id, request] : requests_) {
    if (request.state == RequestState::kPending) out.push_back(request);
  }
  std::stable_sort(out.begin(), out.end(),
                   [](const StoredRequest& a, const StoredRequest& b) {
                     return a.issuedAt < b.issuedAt;
                   });
  return out;
}

size_t Store::pendingCount() {
  MutexLock lock(mu_);
  sweepLocked(now_());
  return pending_;
}

StoredRequest Store::decide(std::string_view id, RequestState state,
                            std::optional<std::string> deviceID) {
  MutexLock lock(mu_);
  const int64_t now = now_();
  sweepLocked(now);
  auto it = requests_.find(id);
  if (it == requests_.end()) throw ServiceError::refused("no such request");
  StoredRequest& request = it->second;
  if (request.state != RequestState::kPending) {
    throw ServiceError::refused("that request was already " +
                                std::string(toText(request.state)));
  }
  if (request.hasExpired(now) && state != RequestState::kExpired) {
    moveLocked(request, RequestState::kExpired);
    request.decidedAt = now;
    expireLocked(request.id);
    nextSweep_ = std::min(nextSweep_, dueLocked(request));
    throw ServiceError::refused("that request has expired");
  }
  // Written down first: a decision that could not outlive a restart could be
  // replayed after one, so it is not taken at all.
  if (!recordLocked(request.id)) {
    throw ServiceError::internalFailure(
        "this Mac could not write the decision down, so it was not taken; "
        "the request is still open");
  }
  moveLocked(request, state);
  if (deviceID) request.deviceID = std::move(deviceID);
  request.decidedAt = now;
  nextSweep_ = std::min(nextSweep_, dueLocked(request));
  return request;
}

StoredRequest Store::take(std::string_view id) {
  MutexLock lock(mu_);
  const int64_t now = now_();
  auto it = requests_.find(id);
  if (it == requests_.end()) throw ServiceError::refused("no such request");
  StoredRequest& request = it->second;
  if (request.state == RequestState::kTaken) {
    throw ServiceError::refused("that approval was already spent");
  }
  if (request.state != RequestState::kApproved) {
    throw ServiceError::refused("that request is " +
                                std::string(toText(request.state)));
  }
  if (plus(request.expiresAt, graceSeconds_) <= now) {
    moveLocked(request, RequestState::kExpired);
    throw ServiceError::refused("that approval went stale");
  }
  moveLocked(request, RequestState::kTaken);
  return request;
}

bool Store::wasDecided(std::string_view id) {
  MutexLock lock(mu_);
  return decided_.contains(id);
}

int64_t Store::dueLocked(const StoredRequest& request) const {
  if (request.decidedAt) {
    return plus(plus(plus(*request.decidedAt, graceSeconds_), kLingerSeconds),
                1);
  }
  return request.state == RequestState::kPending
             ? request.expiresAt
             : std::numeric_limits<int64_t>::max();
}

void Store::moveLocked(StoredRequest& request, RequestState state) {
  if (request.state == RequestState::kPending) --pending_;
  if (state == RequestState::kPending) ++pending_;
  request.state = state;
}

void Store::sweepLocked(int64_t now) {
  // Nothing falls due before `nextSweep_`, so most operations skip the walk.
  if (now < nextSweep_) return;
  int64_t next = std::numeric_limits<int64_t>::max();
  for (auto it = requests_.begin(); it != requests_.end();) {
    StoredRequest& request = it->second;
    // Removal looks at the request as it stood before this sweep, so one
    // that expires now lingers like any other decided request.
    const std::optional<int64_t> decidedBefore = request.decidedAt;
    if (request.state == RequestState::kPending && request.hasExpired(now)) {
      moveLocked(request, RequestState::kExpired);
      request.decidedAt = now;
      decided_.insert(request.id);
      unwritten_.push_back(request.id);
    }
    if (decidedBefore &&
        plus(plus(*decidedBefore, graceSeconds_), kLingerSeconds) < now) {
      if (request.state == RequestState::kPending) --pending_;
      it = requests_.erase(it);
    } else {
      next = std::min(next, dueLocked(request));
      ++it;
    }
  }
  nextSweep_ = next;
  (void)writeDecidedLocked();
}

bool Store::recordLocked(const std::string& id) {
  if (decided_.contains(id)) return true;
  unwritten_.push_back(id);
  if (!writeDecidedLocked()) {
    unwritten_.pop_back();
    return false;
  }
  decided_.insert(id);
  return true;
}

void Store::expireLocked(const std::string& id) {
  if (!decided_.insert(id).second) return;
  unwritten_.push_back(id);
  (void)writeDecidedLocked();
}

bool Store::writeDecidedLocked() {
  // Under the lock, so ids reach the file in the order they were decided.
  if (!home_.appendLines(kDecidedLog, unwritten_)) return false;
  unwritten_.clear();
  return true;
}

}  // namespace tolvanger::service
