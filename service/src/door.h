// What the service's two doors (the agent socket and the phone's HTTP
// listener) share: a stop signal that wakes every thread waiting on a
// descriptor, a wait for a readable descriptor bounded by a deadline, an
// accept that rides out a shortage of descriptors or memory, and naming the
// calling thread.
//
// Thread safety: `StopSignal` may be raised and waited on from any thread;
// the functions may be called from any thread.
#ifndef TOLVANGER_SERVICE_DOOR_H_
#define TOLVANGER_SERVICE_DOOR_H_

#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>

namespace tolvanger::service::door {

using Clock = std::chrono::steady_clock;

// How long an accept loop rests when the process has run out of descriptors,
// buffers or memory, before it tries again.
inline constexpr std::chrono::milliseconds kShortageBackoff{100};

// A one-shot signal: once raised, every wait on it returns at once. It is a
// pipe whose writing end is closed to raise it, so it wakes any number of
// threads blocked in poll() with no lock and no per-thread bookkeeping.
class StopSignal {
 public:
  // Throws ServiceError::internalFailure when no pipe can be made.
  StopSignal();
  ~StopSignal();
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;

  // Idempotent.
  void raise();
  // Waits until the signal is raised or `limit` has passed; true if raised.
  bool waitFor(std::chrono::milliseconds limit) const;

  int readEnd() const { return read_; }

 private:
  int read_ = -1;
  std::atomic<int> write_{-1};  // closed, and -1, once raised
};

enum class Wait { kReadable, kTimedOut, kStopped, kKnocked };

// Waits until `fd` has bytes to read (or has ended or failed: the next read
// tells), `stop` is raised, or `deadline` passes; none means no deadline.
// When `knock` is a descriptor, also until it is readable (a listener with a
// connection waiting), which gives kKnocked. A raised stop wins over a
// knock, and a knock over a readable `fd`.
Wait waitReadable(int fd, const StopSignal& stop,
                  std::optional<Clock::time_point> deadline, int knock = -1);

// Takes the next connection from a non-blocking listening socket and returns
// its descriptor (close-on-exec, blocking). A connection lost before it was
// taken is skipped. Running out of descriptors, buffers or memory is a
// moment, not an end: it rests kShortageBackoff and tries again. Returns -1
// only when `stop` is raised or the listener has failed for good (closed,
// shut down, not a listening socket).
int acceptNext(int listener, const StopSignal& stop);

// Names the calling thread. Linux keeps 15 bytes of a thread's name, so a
// longer name does not compile.
void nameThreadUnchecked(const char* name);
template <size_t N>
void nameThread(const char (&name)[N]) {
  static_assert(N - 1 <= 15, "a thread's name holds at most 15 bytes");
  nameThreadUnchecked(name);
}

}  // namespace tolvanger::service::door

#endif  // TOLVANGER_SERVICE_DOOR_H_
