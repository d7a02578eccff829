// The machine going to sleep and the user's session locking, as the
// platform reports them, so that standing permissions can end with them.
//
// On Linux this listens to logind on the system bus (through sd-bus):
// `PrepareForSleep(true)` is sleep; a session's `Lock` signal, or its
// `LockedHint` turning true, is lock, for the sessions of this process's
// user. A macOS build swaps this file's implementation for the workspace's
// sleep and screen-lock notifications.
//
// Thread safety: `start` and `stop` are called by one thread; `start` runs a
// thread of its own, on which `Handler` and `Note` are called.
#ifndef TOLVANGER_PORT_SESSION_EVENTS_H_
#define TOLVANGER_PORT_SESSION_EVENTS_H_

#include <functional>
#include <memory>
#include <string_view>

namespace tolvanger::port {

class SessionEvents {
 public:
  // Told "sleep" or "lock".
  using Handler = std::function<void(std::string_view why)>;
  // Told once, with a short word ("no-system-bus", "no-logind"), when
  // nothing can be watched on this machine.
  using Note = std::function<void(std::string_view why)>;

  SessionEvents(Handler handler, Note note);
  // Stops the watch.
  ~SessionEvents();
  SessionEvents(const SessionEvents&) = delete;
  SessionEvents& operator=(const SessionEvents&) = delete;

  // Starts watching; returns at once. A second start does nothing.
  void start();
  // Stops watching and waits for the thread; idempotent.
  void stop();

 private:
  struct Watch;
  Handler handler_;
  Note note_;
  std::unique_ptr<Watch> watch_;
};

}  // namespace tolvanger::port

#endif  // TOLVANGER_PORT_SESSION_EVENTS_H_
