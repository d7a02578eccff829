// One connection's side of the agent socket's line protocol: it splits the
// bytes a peer sends into lines, keeps the role and client the peer claimed,
// dispatches each line to one op on the service and sends one reply line for
// each, with event lines between replies for a subscribed peer. The reply to
// a hello that arrived together with a further line goes out with that
// line's reply, in one write, unless that line asks an op that may take a
// while.
//
// The session knows nothing of sockets: it is given a function that writes
// one whole line to the peer. The agent socket makes one per connection; the
// fuzz target makes one with a function that collects the lines.
//
// Thread safety: `feed` and `end` are called by the connection's own thread
// only. Event lines are sent from emitting threads; `mu_` serialises them
// with replies so lines never interleave, and guards role, client and
// subscription. No lock is held while an op runs.
#ifndef TOLVANGER_SERVICE_AGENT_SESSION_H_
#define TOLVANGER_SERVICE_AGENT_SESSION_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/service/agent_process.h"

namespace tolvanger::service {

class Broker;
class Service;

class AgentSession : public std::enable_shared_from_this<AgentSession> {
 public:
  // Pending input allowed on one connection before it is refused and closed:
  // room for a behaviour profile offer of 4,194,304 Base64 characters and
  // 64 KiB for the line's other keys. The agent socket bounds what the
  // unfinished lines of all connections hold together.
  static constexpr size_t kMaxLine = 4194304 + 65536;
  // The longest a `poll` may wait, in seconds.
  static constexpr int kMaxPollWait = 10;

  // Writes `lines`, one or more whole lines each ending in a line feed, to
  // the peer; returns false if the peer has gone. Called under the session's
  // lock, never concurrently.
  using Sender = std::function<bool(std::string_view lines)>;

  // `process` is the far process's label (already made safe for the journal)
  // or empty; `stopping` (may be null) ends long polls when the service stops.
  static std::shared_ptr<AgentSession> create(
      Service& service, Broker& broker, std::string process,
      std::optional<AgentProcess> agentProcess, Sender send,
      const std::atomic<bool>* stopping = nullptr);
  ~AgentSession();

  AgentSession(const AgentSession&) = delete;
  AgentSession& operator=(const AgentSession&) = delete;

  // Takes bytes read from the peer and answers every complete line. Returns
  // false when the connection must be closed (the line was too long).
  bool feed(std::string_view bytes);

  // Sets what runs, on the connection's thread, before any op that may take
  // a while (anything but hello, ping, status and secret.list). Called
  // before the first `feed`.
  void beforeSlowOp(std::function<void()> call);

  // Ends the session: drops its subscription and, if it said hello, tells the
  // callers' registry it has gone. Idempotent; the destructor calls it.
  void end();

  // Handles one line and returns its reply, without sending it. Exposed for
  // tests and the fuzz target.
  nlohmann::json handleLine(std::string_view line);

  // The label of a process's executable as the socket shows it: its base name
  // cut to 48 characters, with white space and '=' made '-', so that it
  // cannot forge a key=value pair in a journal line.
  static std::string labelFor(std::string_view executableName);

 private:
  AgentSession(Service& service, Broker& broker, std::string process,
               std::optional<AgentProcess> agentProcess, Sender send,
               const std::atomic<bool>* stopping);

  // handleLine, also telling whether the line was a hello.
  nlohmann::json answer(std::string_view line, bool* wasHello);
  nlohmann::json dispatch(const std::string& op, const nlohmann::json& line,
                          const std::string& role,
                          const std::optional<std::string>& client);
  nlohmann::json hello(const nlohmann::json& line);
  nlohmann::json poll(const nlohmann::json& line);
  nlohmann::json subscribe();
  nlohmann::json unsubscribe();
  // Sends `object` as a line, after any held lines.
  void sendLine(const nlohmann::json& object);
  // Sends the held lines, if any.
  void flushHeld();

  Service& service_;
  Broker& broker_;
  const std::string process_;
  const std::optional<AgentProcess> agentProcess_;
  const Sender send_;
  const std::atomic<bool>* stopping_;
  std::string pending_;                 // the connection thread's own; no lock
  std::function<void()> beforeSlowOp_;  // likewise

  Mutex mu_;
  std::optional<std::string> role_ GUARDED_BY(mu_);
  std::optional<std::string> client_ GUARDED_BY(mu_);
  std::optional<int64_t> subscription_ GUARDED_BY(mu_);
  bool saidHello_ GUARDED_BY(mu_) = false;
  bool ended_ GUARDED_BY(mu_) = false;
  // Reply lines, each ending in a line feed, that wait to go out with the
  // next lines sent.
  std::string held_ GUARDED_BY(mu_);
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_AGENT_SESSION_H_
