// The agent socket: the service's one door for local software. A unix stream
// socket, `tolvanger.sock` in the home, mode 0600, speaking one JSON object a
// line in each direction (see AgentSession for the protocol).
//
// Only processes of the service's own account (or root) are served: every
// accepted connection's peer uid is checked, and any other is closed with a
// `socket-refused` journal line. One accept thread, one thread per
// connection.
//
// Thread safety: `start` and `stop` are called by one owner thread. `mu_`
// guards the listener, the running flag and the set of live connections; it
// is never held across an accept, a read or an op.
#ifndef TOLVANGER_SERVICE_AGENT_SOCKET_H_
#define TOLVANGER_SERVICE_AGENT_SOCKET_H_

#include <atomic>
#include <condition_variable>
#include <set>
#include <string>
#include <thread>

#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"

namespace tolvanger::service {

class Broker;
class Service;

class AgentSocket {
 public:
  AgentSocket(Service& service, Broker& broker, std::string path);
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

  Service& service_;
  Broker& broker_;
  const std::string path_;
  std::atomic<bool> stopping_{false};
  std::thread acceptThread_;

  Mutex mu_;
  CondVar idle_;
  int listener_ GUARDED_BY(mu_) = -1;
  bool running_ GUARDED_BY(mu_) = false;
  std::set<int> connections_ GUARDED_BY(mu_);
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_AGENT_SOCKET_H_
