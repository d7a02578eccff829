#include "tolvanger/service/events.h"

#include <vector>

namespace tolvanger::service {

int64_t Events::subscribe(Sink sink) {
  MutexLock lock(mu_);
  int64_t key = next_++;
  sinks_.emplace(key, std::move(sink));
  return key;
}

void Events::unsubscribe(int64_t key) {
  MutexLock lock(mu_);
  sinks_.erase(key);
}

size_t Events::listeners() {
  MutexLock lock(mu_);
  return sinks_.size();
}

void Events::emit(const nlohmann::json& object) {
  std::vector<Sink> sinks;
  {
    MutexLock lock(mu_);
    sinks.reserve(sinks_.size());
    for (const auto& [key, sink] : sinks_) sinks.push_back(sink);
  }
  for (const Sink& sink : sinks) {
    try {
      sink(object);
    } catch (...) {
      // A listener's failure is its own; the emitter goes on.
    }
  }
}

}  // namespace tolvanger::service
