#include "door.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "tolvanger/kit/service_error.h"

namespace tolvanger::service::door {

namespace {

// Milliseconds for poll() until `deadline`, rounded up so that a wait never
// ends just before it; -1 for none.
int pollTimeout(std::optional<Clock::time_point> deadline) {
  if (!deadline) return -1;
  const auto left = *deadline - Clock::now();
  if (left <= Clock::duration::zero()) return 0;
  const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
  return static_cast<int>(std::min<long long>(ms, 1 << 30));
}

// Errors of accept() that belong to the one connection being taken (Linux
// passes on pending network errors of the new socket): skip it.
bool lostConnection(int error) {
  switch (error) {
    case EAGAIN:
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
    case EINTR:
    case ECONNABORTED:
    case EPROTO:
    case ENETDOWN:
    case ENOPROTOOPT:
    case EHOSTDOWN:
    case ENONET:
    case EHOSTUNREACH:
    case EOPNOTSUPP:
    case ENETUNREACH:
      return true;
    default:
      return false;
  }
}

// Errors that say the process is short of something for a moment.
bool shortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS ||
         error == ENOMEM;
}

}  // namespace

StopSignal::StopSignal() {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw ServiceError::internalFailure("could not make a pipe");
  }
  read_ = fds[0];
  write_ = fds[1];
}

StopSignal::~StopSignal() {
  raise();
  ::close(read_);
}

void StopSignal::raise() {
  const int fd = write_.exchange(-1);
  if (fd >= 0) ::close(fd);
}

bool StopSignal::waitFor(std::chrono::milliseconds limit) const {
  const auto deadline = Clock::now() + limit;
  for (;;) {
    struct pollfd p = {read_, POLLIN, 0};
    const int n = ::poll(&p, 1, pollTimeout(deadline));
    if (n > 0) return true;
    if (n == 0) return false;
    if (errno != EINTR) std::this_thread::sleep_for(kShortageBackoff / 10);
    if (Clock::now() >= deadline) return false;
  }
}

Wait waitReadable(int fd, const StopSignal& stop,
                  std::optional<Clock::time_point> deadline, int knock) {
  for (;;) {
    struct pollfd p[3] = {
        {stop.readEnd(), POLLIN, 0}, {fd, POLLIN, 0}, {knock, POLLIN, 0}};
    const int n = ::poll(p, knock >= 0 ? 3 : 2, pollTimeout(deadline));
    if (n > 0) {
      if (p[0].revents != 0) return Wait::kStopped;
      if (knock >= 0 && p[2].revents != 0) return Wait::kKnocked;
      return Wait::kReadable;
    }
    if (n == 0) return Wait::kTimedOut;
    // Interrupted, or short of memory for a moment: poll again.
    if (errno != EINTR) std::this_thread::sleep_for(kShortageBackoff / 10);
  }
}

int acceptNext(int listener, const StopSignal& stop) {
  for (;;) {
    if (waitReadable(listener, stop, std::nullopt) == Wait::kStopped) {
      return -1;
    }
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) return fd;
    const int error = errno;
    if (lostConnection(error)) continue;
    if (!shortage(error)) return -1;
    // The connection stays queued; it is taken once a descriptor is free.
    if (stop.waitFor(kShortageBackoff)) return -1;
  }
}

void nameThreadUnchecked(const char* name) {
  ::pthread_setname_np(::pthread_self(), name);
}

}  // namespace tolvanger::service::door
