#include "tolvanger/service/agent_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "door.h"
#include "tolvanger/kit/crypto/digest.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/port/peer.h"
#include "tolvanger/service/agent_session.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {

namespace {

constexpr size_t kReadChunk = 8192;
constexpr int kBacklog = 16;
// Workers that have finished a connection and wait to lead again; more end.
constexpr size_t kIdleWorkers = 4;

// Writes all of `data`; false if the peer has gone.
bool writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

// A failure as the protocol writes it: one line, keys sorted.
std::string failureLine(const char* sentence) {
  return nlohmann::json{{"ok", false}, {"error", sentence}}.dump() + "\n";
}

}  // namespace

AgentSocket::AgentSocket(Service& service, Broker& broker, std::string path,
                         AgentLimits limits)
    : service_(service),
      broker_(broker),
      path_(std::move(path)),
      limits_(limits) {}

AgentSocket::~AgentSocket() { stop(); }

void AgentSocket::start() {
  struct sockaddr_un address = {};
  if (path_.size() >= sizeof(address.sun_path)) {
    throw ServiceError::internalFailure(
        "the socket path is longer than a unix socket may be");
  }
  stopSignal_ = std::make_unique<door::StopSignal>();
  ::unlink(path_.c_str());
  const int fd =
      ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) throw ServiceError::internalFailure("could not make the socket");
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
  // The socket file is made 0600 from the start: no window in which another
  // account could connect.
  const mode_t oldMask = ::umask(0177);
  const int bound =
      ::bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof(address));
  const int bindError = errno;
  ::umask(oldMask);
  if (bound != 0) {
    ::close(fd);
    throw ServiceError::internalFailure("could not bind " + path_ + " (" +
                                        std::strerror(bindError) +
                                        ") — something may already be running");
  }
  ::chmod(path_.c_str(), 0600);
  if (::listen(fd, kBacklog) != 0) {
    ::close(fd);
    ::unlink(path_.c_str());
    throw ServiceError::internalFailure("could not listen on " + path_);
  }
  {
    MutexLock lock(mu_);
    listener_ = fd;
    running_ = true;
    leaderHeld_ = true;
    workers_ = 1;
  }
  stopping_ = false;
  try {
    std::thread(&AgentSocket::work, this, fd).detach();
  } catch (const std::system_error&) {
    {
      MutexLock lock(mu_);
      running_ = false;
      listener_ = -1;
      workers_ = 0;
    }
    ::close(fd);
    ::unlink(path_.c_str());
    throw ServiceError::internalFailure("could not start the socket's thread");
  }
}

void AgentSocket::stop() {
  int listener = -1;
  {
    MutexLock lock(mu_);
    if (!running_) return;
    running_ = false;
    listener = std::exchange(listener_, -1);
  }
  // The flag ends long polls; the signal wakes the leader and every
  // connection waiting for bytes; the broadcast ends idle workers. A
  // connection in the middle of an op finishes it and sends its reply first.
  stopping_ = true;
  stopSignal_->raise();
  {
    UniqueLock lock(mu_);
    turn_.notify_all();
    idle_.wait(lock, [this]() REQUIRES(mu_) { return workers_ == 0; });
  }
  ::close(listener);
  ::unlink(path_.c_str());
}

void AgentSocket::work(int listener) {
  door::nameThread("tolvanger.agent");
  for (;;) {
    const int fd = door::acceptNext(listener, *stopSignal_);
    // Stopped, or the listener failed for good: this thread keeps the lead,
    // so no other takes it, and ends.
    if (fd < 0) break;
    auto peer = admit(fd);
    if (!peer) continue;
    const bool stillLeading =
        serve(fd, std::move(peer->process), peer->pid, listener);
    if (!stillLeading && !awaitTurn()) break;
  }
  crypto::releaseThreadState();
  MutexLock lock(mu_);
  if (--workers_ == 0) idle_.notify_all();
}

bool AgentSocket::handOver(int listener) {
  {
    MutexLock lock(mu_);
    if (idleWorkers_ > 0) {
      leaderHeld_ = false;
      turn_.notify_one();
      return true;
    }
    // A new worker starts as the leader, so the lead stays held.
    ++workers_;
  }
  try {
    std::thread(&AgentSocket::work, this, listener).detach();
    return true;
  } catch (const std::system_error&) {
    MutexLock lock(mu_);
    --workers_;
    return false;
  }
}

bool AgentSocket::awaitTurn() {
  UniqueLock lock(mu_);
  if (!running_) return false;
  if (!leaderHeld_) {
    leaderHeld_ = true;
    return true;
  }
  if (idleWorkers_ >= kIdleWorkers) return false;
  ++idleWorkers_;
  turn_.wait(lock,
             [this]() REQUIRES(mu_) { return !running_ || !leaderHeld_; });
  --idleWorkers_;
  if (!running_) return false;
  leaderHeld_ = true;
  return true;
}

std::optional<AgentSocket::Peer> AgentSocket::admit(int fd) {
  const auto peer = port::peerCredentials(fd);
  const uid_t own = port::currentUid();
  if (!peer || (peer->uid != own && peer->uid != 0)) {
    service_.record("socket-refused", {{"why", "uid"},
                                       {"uid", peer ? std::to_string(peer->uid)
                                                    : std::string("-")}});
    ::close(fd);
    return std::nullopt;
  }
  bool admitted = false;
  {
    MutexLock lock(mu_);
    if (running_ && connections_ < limits_.connections) {
      ++connections_;
      admitted = true;
    }
  }
  if (!admitted) {
    // Refused at once by the leader; a peer that does not read loses the
    // line rather than holding the accept.
    static const std::string kFull =
        failureLine("too many connections are open — close one and try again");
    ::send(fd, kFull.data(), kFull.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    ::close(fd);
    return std::nullopt;
  }
  Peer admittedPeer{{}, peer->pid};
  if (peer->pid >= 1) {
    const auto name = port::processName(peer->pid);
    admittedPeer.process = name ? AgentSession::labelFor(*name)
                                : "pid-" + std::to_string(peer->pid);
  }
  return admittedPeer;
}

bool AgentSocket::holdUnfinished(size_t more) {
  if (unfinished_.fetch_add(more) + more <= limits_.unfinishedBytes) {
    return true;
  }
  unfinished_.fetch_sub(more);
  return false;
}

bool AgentSocket::serve(int fd, std::string process, pid_t pid, int listener) {
  // Whether this thread still holds the lead: it keeps it while the peer
  // asks only quick ops, and passes it on when another peer knocks or this
  // one asks an op that may take a while.
  bool leading = true;
  // Set when the lead could not be passed on: it is still this thread's.
  bool keptLead = false;
  const auto passLead = [&] {
    if (leading && handOver(listener)) leading = false;
  };
  {
    auto session = AgentSession::create(
        service_, broker_, std::move(process), AgentProcess::of(pid),
        [fd](std::string_view lines) { return writeAll(fd, lines); },
        &stopping_);
    session->beforeSlowOp(passLead);
    char buffer[kReadChunk];
    // The bytes after the last line feed, which the session holds until the
    // line ends, and when the first of them came.
    size_t unfinished = 0;
    std::optional<door::Clock::time_point> lineBegun;
    const char* farewell = nullptr;
    for (;;) {
      std::optional<door::Clock::time_point> deadline;
      if (lineBegun) deadline = *lineBegun + limits_.lineDeadline;
      const door::Wait wait = door::waitReadable(fd, *stopSignal_, deadline,
                                                 leading ? listener : -1);
      if (wait == door::Wait::kStopped) break;
      if (wait == door::Wait::kKnocked) {
        passLead();
        if (leading) {
          // No thread to be had: the knock waits in the backlog until this
          // peer is done, and the listener is not watched meanwhile.
          leading = false;
          keptLead = true;
        }
        continue;
      }
      if (wait == door::Wait::kTimedOut) {
        farewell = "that line took too long to arrive";
        break;
      }
      const ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      const std::string_view bytes(buffer, static_cast<size_t>(n));
      const size_t lastFeed = bytes.rfind('\n');
      const size_t after = lastFeed == std::string_view::npos
                               ? unfinished + bytes.size()
                               : bytes.size() - lastFeed - 1;
      if (after > unfinished && !holdUnfinished(after - unfinished)) {
        farewell =
            "the service holds too many unfinished lines — send whole lines";
        break;
      }
      if (after < unfinished) unfinished_.fetch_sub(unfinished - after);
      if (after == 0) {
        lineBegun.reset();
      } else if (lastFeed != std::string_view::npos || unfinished == 0) {
        lineBegun = door::Clock::now();
      }
      unfinished = after;
      if (!session->feed(bytes)) break;
    }
    unfinished_.fetch_sub(unfinished);
    // After end() no event line can be on its way, so the last word cannot
    // interleave with one.
    session->end();
    if (farewell) writeAll(fd, failureLine(farewell));
  }
  ::close(fd);
  MutexLock lock(mu_);
  --connections_;
  return leading || keptLead;
}

}  // namespace tolvanger::service
