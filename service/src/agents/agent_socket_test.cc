// The agent socket's bounds on what a peer may hold, over a real unix socket
// with short limits, and how its threads take turns at the accept.
#include "tolvanger/service/agent_socket.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <thread>

#include "testing/paired_phone.h"
#include "tolvanger/service/agent_session.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

// One connection to the socket, read with a time limit.
class Client {
 public:
  explicit Client(const std::string& path) {
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    EXPECT_EQ(
        ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)),
        0);
  }
  ~Client() { ::close(fd_); }

  bool send(const std::string& bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }
  // The next line, or nothing at the end of the stream or after `limit`.
  std::optional<std::string> line(std::chrono::milliseconds limit = 3s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      const size_t nl = buffer_.find('\n');
      if (nl != std::string::npos) {
        std::string out = buffer_.substr(0, nl);
        buffer_.erase(0, nl + 1);
        return out;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      struct pollfd p = {fd_, POLLIN, 0};
      if (left.count() <= 0 ||
          ::poll(&p, 1, static_cast<int>(left.count())) <= 0) {
        return std::nullopt;
      }
      char buf[4096];
      const ssize_t n = ::recv(fd_, buf, sizeof(buf), 0);
      if (n <= 0) return std::nullopt;
      buffer_.append(buf, static_cast<size_t>(n));
    }
  }
  std::string error(std::chrono::milliseconds limit = 3s) {
    const auto l = line(limit);
    return l ? json::parse(*l).value("error", "<none>") : "<no line>";
  }
  // True when the service closed the connection within `limit` (a close
  // with bytes of ours unread resets it).
  bool closed(std::chrono::milliseconds limit = 3s) {
    struct pollfd p = {fd_, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(limit.count())) <= 0) return false;
    char c;
    const ssize_t n = ::recv(fd_, &c, 1, 0);
    return n == 0 || (n < 0 && errno == ECONNRESET);
  }

 private:
  int fd_ = -1;
  std::string buffer_;
};

struct Rig {
  explicit Rig(AgentLimits limits)
      : service(Home(home.path), Config::defaults()),
        broker(service, UpstreamSettings{}),
        socket(service, broker, home.home().socketPath(), limits) {
    socket.start();
  }
  std::string path() const { return home.home().socketPath(); }

  TempHome home;
  Service service;
  Broker broker;
  AgentSocket socket;
};

TEST(AgentSocketLimits, AnUnfinishedLineIsDroppedAtItsDeadline) {
  Rig rig({.lineDeadline = 400ms});
  Client patient(rig.path());
  Client trickler(rig.path());
  ASSERT_TRUE(patient.send("{\"op\":\"ping\"}\n"));
  EXPECT_EQ(patient.error(), "say hello first");

  // A byte every 50 ms never lets a read wait long, but the line as a whole
  // takes too long.
  const auto began = std::chrono::steady_clock::now();
  std::optional<std::string> last;
  for (int i = 0; i < 40 && !last; ++i) {
    trickler.send("{");
    last = trickler.line(50ms);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - began, 1500ms);
  ASSERT_TRUE(last.has_value());
  EXPECT_EQ(
      json::parse(*last),
      (json{{"ok", false}, {"error", "that line took too long to arrive"}}));
  EXPECT_TRUE(trickler.closed());

  // Time between whole lines is not limited, and a line split across
  // writes within the deadline is whole.
  std::this_thread::sleep_for(500ms);
  ASSERT_TRUE(patient.send("{\"op\":"));
  std::this_thread::sleep_for(100ms);
  ASSERT_TRUE(patient.send("\"ping\"}\n"));
  EXPECT_EQ(patient.error(), "say hello first");
}

TEST(AgentSocketLimits, ConnectionsAndUnfinishedBytesOverTheirCapsAreRefused) {
  Rig rig({.connections = 2, .unfinishedBytes = 100000});
  auto first = std::make_unique<Client>(rig.path());
  Client second(rig.path());
  ASSERT_TRUE(first->send(std::string(60000, ' ')));
  EXPECT_FALSE(first->closed(200ms));

  Client third(rig.path());
  EXPECT_EQ(third.error(),
            "too many connections are open — close one and try again");
  EXPECT_TRUE(third.closed());

  // The first holds 60000 unfinished bytes; the second may not add 60000.
  ASSERT_TRUE(second.send(std::string(60000, ' ')));
  EXPECT_EQ(second.error(),
            "the service holds too many unfinished lines — send whole lines");
  EXPECT_TRUE(second.closed());

  // Once the first ends its line and leaves, there is room again.
  ASSERT_TRUE(first->send("\n"));
  first.reset();
  std::this_thread::sleep_for(100ms);
  Client fourth(rig.path());
  ASSERT_TRUE(fourth.send(std::string(90000, ' ') + "{\"op\":\"ping\"}\n"));
  EXPECT_EQ(fourth.error(), "say hello first");
}

TEST(AgentSocketLimits, AProfileOfferFitsOnOneLineAndMoreDoesNot) {
  Rig rig({});
  Client agent(rig.path());
  ASSERT_TRUE(agent.send("{\"op\":\"hello\"}\n"));
  ASSERT_TRUE(agent.line().has_value());
  // An offer of the largest profile's size arrives whole and is answered.
  const std::string offer = "{\"op\":\"tripwire.offer\",\"profile\":\"" +
                            std::string(kProfileLimit, 'A') + "\"}\n";
  ASSERT_TRUE(agent.send(offer));
  EXPECT_EQ(agent.error(10s), "that profile is not gzip: no gzip header");
  // A line past the limit is refused and the connection closed.
  agent.send(std::string(AgentSession::kMaxLine + 1, ' '));
  EXPECT_EQ(agent.error(10s), "that line is too long");
  EXPECT_TRUE(agent.closed());
}

// The thread that took a connection serves it while still leading, so a
// peer that idles, or asks for something slow, must not keep others out.
TEST(AgentSocketTurns, APeerThatIdlesOrWaitsLongKeepsNoOneElseOut) {
  Rig rig({});
  Phone phone;
  phone.pair(rig.service);

  Client idle(rig.path());
  ASSERT_TRUE(idle.send("{\"op\":\"hello\"}\n"));
  ASSERT_TRUE(idle.line().has_value());
  Client next(rig.path());
  ASSERT_TRUE(next.send("{\"op\":\"hello\"}\n"));
  EXPECT_TRUE(next.line(1s).has_value());

  Client asker(rig.path());
  ASSERT_TRUE(asker.send(
      "{\"op\":\"hello\"}\n{\"op\":\"request\",\"operation\":\"a.b\"}\n"));
  ASSERT_TRUE(asker.line().has_value());
  const auto opened = asker.line();
  ASSERT_TRUE(opened.has_value());
  const std::string id = json::parse(*opened).value("request_id", "");
  ASSERT_FALSE(id.empty()) << *opened;

  // A new peer whose first lines are a hello and a long poll.
  Client poller(rig.path());
  ASSERT_TRUE(poller.send("{\"op\":\"hello\"}\n{\"op\":\"poll\",\"id\":\"" +
                          id + "\",\"wait\":4}\n"));
  ASSERT_TRUE(poller.line().has_value());
  std::this_thread::sleep_for(100ms);
  Client late(rig.path());
  ASSERT_TRUE(late.send("{\"op\":\"hello\"}\n{\"op\":\"ping\"}\n"));
  EXPECT_TRUE(late.line(1s).has_value());
  EXPECT_TRUE(late.line(1s).has_value());

  // The poll still ends as it should.
  ASSERT_TRUE(asker.send("{\"op\":\"cancel\",\"id\":\"" + id + "\"}\n"));
  const auto polled = poller.line(6s);
  ASSERT_TRUE(polled.has_value());
  EXPECT_EQ(json::parse(*polled).value("state", ""), "cancelled");
}

}  // namespace
}  // namespace tolvanger::service
