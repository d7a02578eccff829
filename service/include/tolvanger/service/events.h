// The passing record of what the service did: JSON objects handed in the
// moment to whoever listens (the subscribed peers of the agent socket).
// Nothing is kept for a listener that comes later.
//
// Thread safety: every member may be called from any thread. `emit` calls
// the sinks on the emitter's own thread, outside the lock, so a sink may
// subscribe or unsubscribe without deadlock; a sink removed during an
// emission may still be called once by it.
#ifndef TOLVANGER_SERVICE_EVENTS_H_
#define TOLVANGER_SERVICE_EVENTS_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>

#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"

namespace tolvanger::service {

class Events {
 public:
  // Receives each event; may be called from any thread.
  using Sink = std::function<void(const nlohmann::json&)>;

  // Adds a sink and returns its key: 1 first, and never reused.
  int64_t subscribe(Sink sink) EXCLUDES(mu_);

  // Removes a sink; an unknown key does nothing.
  void unsubscribe(int64_t key) EXCLUDES(mu_);

  // The number of sinks.
  size_t listeners() EXCLUDES(mu_);

  // Calls every sink with `object`, in no set order. An exception thrown by
  // a sink is swallowed: an event's failure never fails what caused it.
  void emit(const nlohmann::json& object) EXCLUDES(mu_);

 private:
  Mutex mu_;
  std::map<int64_t, Sink> sinks_ GUARDED_BY(mu_);
  int64_t next_ GUARDED_BY(mu_) = 1;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_EVENTS_H_
