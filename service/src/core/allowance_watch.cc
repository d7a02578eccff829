#include "tolvanger/service/allowance_watch.h"

#include <string>

#include "tolvanger/service/service.h"

namespace tolvanger::service {

AllowanceWatch::AllowanceWatch(Service& service,
                               std::chrono::milliseconds every)
    : service_(service),
      every_(every),
      events_([&service](std::string_view why) { service.endAllowances(why); },
              [&service](std::string_view why) {
                service.record("session-watch",
                               {{"state", "off"}, {"why", std::string(why)}});
              }) {}

AllowanceWatch::~AllowanceWatch() { stop(); }

void AllowanceWatch::start() {
  {
    MutexLock lock(mu_);
    if (sweeper_.joinable()) return;
    stopping_ = false;
  }
  sweeper_ = std::thread(&AllowanceWatch::sweepLoop, this);
  events_.start();
}

void AllowanceWatch::stop() {
  events_.stop();
  {
    MutexLock lock(mu_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (sweeper_.joinable()) sweeper_.join();
}

void AllowanceWatch::sweepLoop() {
  UniqueLock lock(mu_);
  while (!stopping_) {
    wake_.wait_for(lock, every_);
    if (stopping_) break;
    // The sweep reads /proc and writes the journal: never under the lock.
    lock.unlock();
    service_.sweepAllowances();
    lock.lock();
  }
}

}  // namespace tolvanger::service
