// Admin::callOnce against a scripted server on a real unix socket: what it
// makes of the hello's reply, which it reads only at its top level.
#include "tolvanger/service/admin.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "testing/temp_home.h"
#include "tolvanger/kit/service_error.h"

namespace tolvanger::service {
namespace {

using nlohmann::json;

// Accepts one connection, reads until both the hello and the op have come,
// answers with `script` and closes. `received` holds what came in.
class ScriptedServer {
 public:
  ScriptedServer(const std::string& path, std::string script)
      : path_(path), script_(std::move(script)) {
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address),
                     sizeof(address)),
              0);
    EXPECT_EQ(::listen(listener_, 1), 0);
    thread_ = std::thread([this] {
      const int fd = ::accept(listener_, nullptr, nullptr);
      if (fd < 0) return;
      // A client that waits for the hello's reply before sending its op
      // gets the script only after this wait.
      const struct timeval limit = {2, 0};
      ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
      char buffer[4096];
      while (std::count(received.begin(), received.end(), '\n') < 2) {
        const ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
        if (n <= 0) break;
        received.append(buffer, static_cast<size_t>(n));
      }
      ::send(fd, script_.data(), script_.size(), MSG_NOSIGNAL);
      ::close(fd);
    });
  }
  ~ScriptedServer() {
    thread_.join();
    ::close(listener_);
  }

  std::string received;

 private:
  std::string path_, script_;
  int listener_ = -1;
  std::thread thread_;
};

json callOnce(const std::string& path) {
  return Admin::callOnce(path, "tester", "agent", json{{"op", "secret.list"}});
}

TEST(AdminCallOnce, SendsHelloAndOpAtOnceAndReturnsTheOpsReply) {
  TempHome home;
  const std::string path = home.path + "/s.sock";
  const auto began = std::chrono::steady_clock::now();
  // An event before the hello's reply is skipped; an "ok" deeper down does
  // not count, nor does an "error" when the top level says ok.
  ScriptedServer server(path,
                        "{\"event\":\"settled\",\"ok\":true}\n"
                        "{\"cloud\":{\"ok\":false},\"error\":\"x\",\"ok\":true,"
                        "\"devices\":[{\"ok\":false}]}\n"
                        "{\"ok\":true,\"secrets\":[]}\n");
  EXPECT_EQ(callOnce(path), (json{{"ok", true}, {"secrets", json::array()}}));
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(1));
}

TEST(AdminCallOnce, AFailedOrUnreadableHelloIsAnError) {
  TempHome home;
  const auto refusedWith = [&](const std::string& name,
                               const std::string& script) -> std::string {
    const std::string path = home.path + "/" + name;
    ScriptedServer server(path, script);
    try {
      callOnce(path);
      return "<no error>";
    } catch (const ServiceError& e) {
      EXPECT_EQ(server.received,
                "{\"client\":\"tester\",\"op\":\"hello\",\"role\":\"agent\"}\n"
                "{\"op\":\"secret.list\"}\n");
      return e.what();
    }
  };
  EXPECT_EQ(refusedWith("a", "{\"error\":\"not now\",\"ok\":false}\n"),
            "not now");
  EXPECT_EQ(refusedWith("b", "{\"ok\":\"true\"}\n"),
            "the service refused the hello");
  EXPECT_EQ(refusedWith("c", "[{\"ok\":true}]\n"),
            "the service sent something unreadable");
  EXPECT_EQ(refusedWith("d", "{\"ok\":true\n"),
            "the service sent something unreadable");
  EXPECT_EQ(refusedWith("e", "{\"ok\":true}\n"), "the socket closed");
}

}  // namespace
}  // namespace tolvanger::service
