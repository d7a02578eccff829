// The agent socket: the service's one door for local software. A unix stream
// socket, `tolvanger.sock` in the home, mode 0600, speaking one JSON object a
// line in each direction (see AgentSession for the protocol).
//
// Only processes of the service's own account (or root) are served: every
// accepted connection's peer uid is checked, and any other is closed with a
// `socket-refused` journal line. One accept thread ("tolvanger.agent"), one
// thread per connection ("agent.peer").
//
// What peers may hold is bounded (`AgentLimits`): at most so many
// connections, one more being answered with one error line and closed; a
// line must arrive whole within a time limit from its first byte; and the
// unfinished lines of all connections together may hold only so many bytes.
// Running out of descriptors or memory for a moment never ends the accept
// loop (see door.h).
//
// Thread safety: `start` and `stop` are called by one owner thread. `mu_`
// guards the listener, the running flag and the count of live connections;
// it is never held across a socket call or an op.
#ifndef TOLVANGER_SERVICE_AGENT_SOCKET_H_
#define TOLVANGER_SERVICE_AGENT_SOCKET_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>

#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"

namespace tolvanger::service {

class Broker;
class Service;

namespace door {
class StopSignal;
}

// Connections the agent socket serves at once: room for many agents, kept
// well below the usual limit of 1024 descriptors a process may hold.
inline constexpr size_t kMaxAgentConnections = 512;

// What the agent socket lets its peers hold. Tests shorten them.
struct AgentLimits {
  // Connections served at once; one more gets one error line and is closed.
  size_t connections = kMaxAgentConnections;
  // The longest a line may take to arrive, from its first byte to its line
  // feed. A peer that keeps an unfinished line longer is sent one error line
  // and closed. Time between whole lines is not limited.
  std::chrono::milliseconds lineDeadline = std::chrono::seconds(10);
  // The bytes that the unfinished lines of all connections may hold
  // together; each line alone is held to AgentSession::kMaxLine.
  size_t unfinishedBytes = 32u << 20;
};

class AgentSocket {
 public:
  AgentSocket(Service& service, Broker& broker, std::string path,
              AgentLimits limits = {});
  ~AgentSocket();

  AgentSocket(const AgentSocket&) = delete;
  AgentSocket& operator=(const AgentSocket&) = delete;

  // Binds and listens (removing a stale socket file first) and starts the
  // accept thread. Throws ServiceError::internalFailure with the reason; the
  // socket is closed again then.
  void start();

  // Stops accepting, ends every connection, waits for their threads and
  // removes the socket file. Idempotent.
  void stop();

  const std::string& path() const { return path_; }

 private:
  void acceptLoop(int listener);
  void serve(int fd, std::string process, pid_t pid);
  void admit(int fd);
  bool holdUnfinished(size_t more);

  Service& service_;
  Broker& broker_;
  const std::string path_;
  const AgentLimits limits_;
  // Ends long polls when the service stops.
  std::atomic<bool> stopping_{false};
  // Raised by stop() to wake the accept thread and every connection waiting
  // for bytes. Made by start() before any thread starts.
  std::unique_ptr<door::StopSignal> stopSignal_;
  std::thread acceptThread_;
  // Bytes held by all connections' unfinished lines.
  std::atomic<size_t> unfinished_{0};

  Mutex mu_;
  CondVar idle_;
  int listener_ GUARDED_BY(mu_) = -1;
  bool running_ GUARDED_BY(mu_) = false;
  size_t connections_ GUARDED_BY(mu_) = 0;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_AGENT_SOCKET_H_
