// What ends allowances without anyone asking: a sweep every second, so a
// process that has gone or a time that is up ends its allowance even when no
// request comes, and the machine's sleep and the session's lock, which end
// them all ("sleep", "lock").
//
// The service's executable holds one while it serves. Where the platform
// cannot report sleep or lock, the journal says so once ("session-watch"
// with `state=off` and `why`), and the sweep goes on.
//
// Thread safety: `start` and `stop` are called by one thread; the watch
// calls into the service from threads of its own, which `stop` joins.
#ifndef TOLVANGER_SERVICE_ALLOWANCE_WATCH_H_
#define TOLVANGER_SERVICE_ALLOWANCE_WATCH_H_

#include <chrono>
#include <thread>

#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/port/session_events.h"

namespace tolvanger::service {

class Service;

class AllowanceWatch {
 public:
  // `service` must outlive the watch.
  explicit AllowanceWatch(Service& service, std::chrono::milliseconds every =
                                                std::chrono::seconds(1));
  ~AllowanceWatch();
  AllowanceWatch(const AllowanceWatch&) = delete;
  AllowanceWatch& operator=(const AllowanceWatch&) = delete;

  void start() EXCLUDES(mu_);
  void stop() EXCLUDES(mu_);

 private:
  void sweepLoop() EXCLUDES(mu_);

  Service& service_;
  const std::chrono::milliseconds every_;
  port::SessionEvents events_;
  Mutex mu_;
  CondVar wake_;
  bool stopping_ GUARDED_BY(mu_) = false;
  std::thread sweeper_;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_ALLOWANCE_WATCH_H_
