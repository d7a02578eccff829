// The real `Gate`: a client of the service's agent socket. Each operation
// files a request, long-polls until the human has answered, then redeems or
// performs the approval, so an agent's tool call is one blocking call.
//
// Every socket call opens a fresh connection (an `Admin` with the role
// "agent") and closes it after one reply; nothing is kept between calls.
//
// Thread safety: the object holds only its settings, which are fixed after
// construction, so calls from several threads do not share state; the MCP
// server uses it from one thread.
#ifndef TOLVANGER_SERVICE_SOCKET_GATE_H_
#define TOLVANGER_SERVICE_SOCKET_GATE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tolvanger/service/gate.h"
#include "tolvanger/service/home.h"

namespace tolvanger::service {

class SocketGate : public Gate {
 public:
  // Seconds added to a request's `expires_at` before this side stops
  // waiting for the service to say it has ended.
  static constexpr int64_t deadlineGrace = 30;

  // The clock the waits run on; tests put in their own.
  struct Timing {
    // Seconds since 1970.
    std::function<double()> now;
    std::function<void(double seconds)> sleep;
    // How long after an approved sign-in to watch for the session.
    double sessionGrace = 30.0;

    // The system clock and a real sleep.
    static Timing system();
  };

  // Talks to `tolvanger.sock` in `home`, saying hello as `client` (sent only
  // when not empty). Connects to nothing yet.
  SocketGate(const Home& home, std::string client,
             Timing timing = Timing::system());

  GateAnswer ask(const std::string& operation, const nlohmann::json& fields,
                 const std::optional<std::string>& reason) override;
  Sent send(const std::string& secret, const std::string& method,
            const std::string& url,
            const std::optional<std::map<std::string, std::string>>& headers,
            const std::optional<std::string>& body,
            const std::optional<std::string>& reason) override;
  SignedIn signIn(const std::string& site,
                  const std::optional<std::string>& secret,
                  const std::optional<std::string>& reason) override;

  // The reply's `credentials` list (or, from an older service, `secrets`).
  // Throws GateError::down when the service cannot be reached or answers
  // with an error ("the store would not list" when it gives none).
  std::vector<nlohmann::json> credentials() override;

  // The listed credential called `name`, or nothing. Throws as
  // `credentials`.
  std::optional<nlohmann::json> row(const std::string& name);

  // One op on a fresh connection; gives its reply, whatever `ok` says.
  // Throws GateError::down "tolvanger is not reachable at <path>: <error>"
  // when connecting or talking fails.
  nlohmann::json call(const nlohmann::json& object);

  // Long-polls request `id` until it is settled. Gives the verdict and, for
  // `kFailed`, the reason. A request still pending once `deadline` (whole
  // seconds since 1970) plus `deadlineGrace` has passed is `kExpired`.
  std::pair<Verdict, std::string> wait(const std::string& id, int64_t deadline);

  const std::string& path() const { return path_; }
  const std::string& client() const { return client_; }

 private:
  const std::string path_;
  const std::string client_;
  const Timing timing_;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_SOCKET_GATE_H_
