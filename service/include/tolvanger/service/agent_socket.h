// The agent socket: the service's one door for local software. A unix stream
// socket, `tolvanger.sock` in the home, mode 0600, speaking one JSON object a
// line in each direction (see AgentSession for the protocol).
//
// Only processes of the service's own account (or root) are served: every
// accepted connection's peer uid is checked, and any other is closed with a
// `socket-refused` journal line.
//
// Threads are workers ("tolvanger.agent") that take turns. One at a time,
// the leader, waits in accept, and serves the connection it takes itself,
// still watching the listener. It passes the lead to an idle worker, or to a
// new one, when another peer knocks or its own peer asks an op that may take
// a while; until then the quick ops (a hello, a listing) cost no hand-off
// between threads at all. A worker done with its connection leads again if
// no one does, else waits idle; past a few idle ones it ends. Each
// connection has its own thread while it lasts.
//
// What peers may hold is bounded (`AgentLimits`): at most so many
// connections, one more being answered with one error line and closed; a
// line must arrive whole within a time limit from its first byte; and the
// unfinished lines of all connections together may hold only so many bytes.
// Running out of descriptors or memory for a moment never ends the accept
// loop (see door.h).
//
// Thread safety: `start` and `stop` are called by one owner thread. `mu_`
// guards the listener, the running flag, the lead and the counts of workers
// and connections; it is never held across a socket call or an op.
#ifndef TOLVANGER_SERVICE_AGENT_SOCKET_H_
#define TOLVANGER_SERVICE_AGENT_SOCKET_H_

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

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
  // An admitted peer: its label and process id.
  struct Peer {
    std::string process;
    pid_t pid;
  };

  // A worker's life: lead, take a connection and serve it, and lead or wait
  // again.
  void work(int listener);
  // Checks the peer's uid and the cap; a refused peer is closed here.
  std::optional<Peer> admit(int fd);
  // Gives the lead to an idle worker or a new one; false if no thread could
  // be started.
  bool handOver(int listener);
  // After a connection: true when this worker is to lead again, false when
  // it is to end.
  bool awaitTurn();
  // Serves one connection to its end; true if this thread still holds the
  // lead afterwards.
  bool serve(int fd, std::string process, pid_t pid, int listener);
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
  // Bytes held by all connections' unfinished lines.
  std::atomic<size_t> unfinished_{0};

  Mutex mu_;
  // Signalled when the last worker ends.
  CondVar idle_;
  // Signalled when the lead is free or the socket stops.
  CondVar turn_;
  int listener_ GUARDED_BY(mu_) = -1;
  bool running_ GUARDED_BY(mu_) = false;
  // Whether a worker leads or is about to.
  bool leaderHeld_ GUARDED_BY(mu_) = false;
  size_t workers_ GUARDED_BY(mu_) = 0;
  size_t idleWorkers_ GUARDED_BY(mu_) = 0;
  size_t connections_ GUARDED_BY(mu_) = 0;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_AGENT_SOCKET_H_
