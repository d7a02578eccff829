// The client of the agent socket: a blocking line client with the hello
// built in. The desktop app and the service's own commands use it with the
// role "admin"; the MCP gate uses one per call with the role "agent".
// `StatusLines` turns the status object into lines for a terminal.
//
// Thread safety: `call` may be used from many threads; `mu_` makes each call
// atomic. A failed read or write leaves the object unusable: make a new one.
#ifndef TOLVANGER_SERVICE_ADMIN_H_
#define TOLVANGER_SERVICE_ADMIN_H_

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/service/home.h"

namespace tolvanger::service {

class Admin {
 public:
  // Connects to `tolvanger.sock` in the home and says hello as admin.
  explicit Admin(const Home& home);
  // Connects and says hello. Throws ServiceError with the reason: "could not
  // make a socket", "nothing is listening at <path> — is the service
  // running?", the hello's own error, or "the service refused the hello".
  Admin(const std::string& path, std::optional<std::string> client,
        const std::string& role);
  ~Admin();

  Admin(const Admin&) = delete;
  Admin& operator=(const Admin&) = delete;

  // Connects, says hello and sends `object`, all in one write, and returns
  // the object's reply: what a new Admin and one `call` return, in one round
  // trip instead of two. Throws as the constructor and `call` do.
  static nlohmann::json callOnce(const std::string& path,
                                 std::optional<std::string> client,
                                 const std::string& role,
                                 const nlohmann::json& object);

  // Sends one op and returns its reply, skipping event lines. Throws
  // ServiceError "the socket closed" or "the service sent something
  // unreadable".
  nlohmann::json call(const nlohmann::json& object);

  // The hello's reply: the status object with scope, agent and client.
  const nlohmann::json& greeting() const { return greeting_; }

 private:
  // Connects without a hello.
  explicit Admin(const std::string& path);

  nlohmann::json callLocked(const nlohmann::json& object) REQUIRES(mu_);
  void sendLocked(std::string_view lines) REQUIRES(mu_);
  nlohmann::json readReplyLocked() REQUIRES(mu_);
  // The next line from the service, without its line feed.
  std::string takeLineLocked() REQUIRES(mu_);
  // Reads the hello's reply and checks that it succeeded, without keeping
  // it. Throws as the constructor does.
  void skipGreetingLocked() REQUIRES(mu_);

  const std::string path_;
  Mutex mu_;
  int fd_ GUARDED_BY(mu_) = -1;
  std::string buffer_ GUARDED_BY(mu_);
  nlohmann::json greeting_;
};

// Lines for a terminal from a status object. Never fails: a value of the
// wrong type reads as absent.
namespace StatusLines {
std::vector<std::string> render(const nlohmann::json& status);
}  // namespace StatusLines

// A JSON object pretty-printed with sorted keys.
namespace Pretty {
std::string render(const nlohmann::json& object);
}  // namespace Pretty

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_ADMIN_H_
