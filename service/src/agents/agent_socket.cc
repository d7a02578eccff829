#include "tolvanger/service/agent_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tolvanger/kit/crypto/digest.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/port/peer.h"
#include "tolvanger/service/agent_session.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {

namespace {

constexpr size_t kReadChunk = 8192;
constexpr int kBacklog = 16;

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

}  // namespace

AgentSocket::AgentSocket(Service& service, Broker& broker, std::string path)
    : service_(service), broker_(broker), path_(std::move(path)) {}

AgentSocket::~AgentSocket() { stop(); }

void AgentSocket::start() {
  struct sockaddr_un address = {};
  if (path_.size() >= sizeof(address.sun_path)) {
    throw ServiceError::internalFailure(
        "the socket path is longer than a unix socket may be");
  }
  ::unlink(path_.c_str());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
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
  }
  stopping_ = false;
  acceptThread_ = std::thread([this, fd] { acceptLoop(fd); });
}

void AgentSocket::stop() {
  int listener = -1;
  {
    MutexLock lock(mu_);
    if (!running_) return;
    running_ = false;
    listener = std::exchange(listener_, -1);
  }
  stopping_ = true;
  // Shutting the listener down wakes the blocked accept(); the accept thread
  // then closes it.
  ::shutdown(listener, SHUT_RDWR);
  if (acceptThread_.joinable()) acceptThread_.join();
  ::unlink(path_.c_str());
  UniqueLock lock(mu_);
  for (int fd : connections_) ::shutdown(fd, SHUT_RDWR);
  idle_.wait(lock, [this]() REQUIRES(mu_) { return connections_.empty(); });
}

void AgentSocket::acceptLoop(int listener) {
  pthread_setname_np(pthread_self(), "tolvanger.agents");
  for (;;) {
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      break;
    }
    const auto peer = port::peerCredentials(fd);
    const uid_t own = port::currentUid();
    if (!peer || (peer->uid != own && peer->uid != 0)) {
      service_.record(
          "socket-refused",
          {{"why", "uid"},
           {"uid", peer ? std::to_string(peer->uid) : std::string("-")}});
      ::close(fd);
      continue;
    }
    std::string process;
    if (peer->pid >= 1) {
      const auto name = port::processName(peer->pid);
      process = name ? AgentSession::labelFor(*name)
                     : "pid-" + std::to_string(peer->pid);
    }
    {
      MutexLock lock(mu_);
      if (!running_) {
        ::close(fd);
        break;
      }
      connections_.insert(fd);
    }
    std::thread(&AgentSocket::serve, this, fd, std::move(process), peer->pid)
        .detach();
  }
  ::close(listener);
}

void AgentSocket::serve(int fd, std::string process, pid_t pid) {
  pthread_setname_np(pthread_self(), "tolvanger.agent");
  {
    auto session = AgentSession::create(
        service_, broker_, std::move(process), AgentProcess::of(pid),
        [fd](std::string_view line) {
          std::string framed;
          framed.reserve(line.size() + 1);
          framed.append(line);
          framed.push_back('\n');
          return writeAll(fd, framed);
        },
        &stopping_);
    char buffer[kReadChunk];
    for (;;) {
      const ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      if (!session->feed(std::string_view(buffer, static_cast<size_t>(n))))
        break;
    }
    session->end();
  }
  crypto::releaseThreadState();
  MutexLock lock(mu_);
  ::close(fd);
  connections_.erase(fd);
  if (connections_.empty()) idle_.notify_all();
}

}  // namespace tolvanger::service
