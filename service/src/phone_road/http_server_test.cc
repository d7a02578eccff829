#include "tolvanger/service/http_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/service_error.h"

namespace tolvanger::service {
namespace {

using namespace std::chrono_literals;
using Outcome = HTTPParse::Outcome;

// --- The parser, without sockets. ---

std::string sentenceOf(const HTTPParse& p) {
  return p.outcome == Outcome::kAnswer ? p.answer.payload.value("error", "")
                                       : "";
}

TEST(HTTPParseTest, HeadAndFirstLine) {
  EXPECT_EQ(parseHTTPRequest("GET / HTTP/1.1\r\n").outcome, Outcome::kNeedMore);
  EXPECT_EQ(parseHTTPRequest("GET / HTTP/1.1\r\n", true).outcome,
            Outcome::kDrop);
  const std::string endless(HTTPServer::maxBody, 'a');
  EXPECT_EQ(parseHTTPRequest(endless).outcome, Outcome::kNeedMore);
  EXPECT_EQ(parseHTTPRequest(endless + "a").outcome, Outcome::kDrop);

  for (const char* head :
       {"GET\r\n\r\n", "\r\n\r\n", "GET /\xff HTTP/1.1\r\n\r\n"}) {
    EXPECT_EQ(sentenceOf(parseHTTPRequest(head)), "unreadable request") << head;
  }

  const auto p = parseHTTPRequest("get  /v1/pending?x=1?y \t HTTP/1.1\r\n\r\n");
  ASSERT_EQ(p.outcome, Outcome::kRequest);
  EXPECT_EQ(p.request.method, "get");
  EXPECT_EQ(p.request.path, "/v1/pending");
  EXPECT_EQ(p.request.body, "{}");
}

TEST(HTTPParseTest, ContentLength) {
  const auto bodyFor = [](const std::string& headers) {
    const std::string received =
        "POST /p HTTP/1.1\r\n" + headers + "\r\n\r\n{ }xyz";
    const auto p = parseHTTPRequest(received);
    return p.outcome == Outcome::kRequest ? std::string(p.request.body)
                                          : sentenceOf(p);
  };
  EXPECT_EQ(bodyFor("Content-Length: 3"), "{ }");
  EXPECT_EQ(bodyFor("content-length:\t+3 "), "{ }");
  EXPECT_EQ(bodyFor("CONTENT-LENGTH: 4"), "that is not json");  // "{ }x"
  // Not a whole number, negative, or too big for one: no body at all.
  for (const char* v : {"abc", "", "2x", "-3", "99999999999999999999"}) {
    EXPECT_EQ(bodyFor(std::string("content-length: ") + v), "{}") << v;
  }
  EXPECT_EQ(bodyFor("content-length: 4\r\ncontent-length: 3"), "{ }");
  EXPECT_EQ(bodyFor("content-length : 3\r\nno colon 3"), "{}");
  EXPECT_EQ(bodyFor("content-length: 524289"), "that body is too large");
  EXPECT_TRUE(bodyFor("content-length: 524288").empty());  // needs more
}

TEST(HTTPParseTest, Body) {
  const std::string head = "POST /p HTTP/1.1\r\ncontent-length: 10\r\n\r\n";
  const auto waiting = parseHTTPRequest(head + "{\"a\":1}");
  EXPECT_EQ(waiting.outcome, Outcome::kNeedMore);
  EXPECT_EQ(waiting.expected, head.size() + 10);
  // A body that stops short goes on with what came.
  EXPECT_EQ(parseHTTPRequest(head + "{\"a\":1}", true).request.body,
            "{\"a\":1}");
  EXPECT_EQ(sentenceOf(parseHTTPRequest(head + "{\"a\":", true)),
            "that is not json");
  for (const char* body :
       {"[1,2,3,4] ", "\"abcdefgh\"", "{}      {}", "{\"a\":\"\xff\"}  "}) {
    EXPECT_EQ(sentenceOf(parseHTTPRequest(head + body)), "that is not json")
        << body;
  }
  EXPECT_EQ(parseHTTPRequest(head + "\xEF\xBB\xBF {}\r\n\t ").outcome,
            Outcome::kRequest);
}

TEST(HTTPParseTest, Response) {
  EXPECT_EQ(formatHTTPResponse({404, {{"ok", false}, {"error", "no"}}}),
            "HTTP/1.1 404 Error\r\ncontent-type: application/json\r\n"
            "content-length: 25\r\nconnection: close\r\n\r\n"
            "{\"error\":\"no\",\"ok\":false}");
  EXPECT_TRUE(formatHTTPResponse({200, {{"x", "\xff"}}})
                  .ends_with("{\"x\":\"\xEF\xBF\xBD\"}"));
}

TEST(LocalAddressTest, ResolveAndLAN) {
  using V = std::vector<std::string>;
  EXPECT_EQ(LocalAddress::resolve({"auto"}, "192.168.1.5"),
            (V{"127.0.0.1", "192.168.1.5"}));
  EXPECT_EQ(LocalAddress::resolve({"auto", "auto"}, std::nullopt),
            V{"127.0.0.1"});
  EXPECT_EQ(LocalAddress::resolve({"0.0.0.0", "10.0.0.2", "auto", "10.0.0.2"},
                                  "10.0.0.9"),
            (V{"127.0.0.1", "10.0.0.2", "10.0.0.9"}));
  EXPECT_EQ(LocalAddress::resolve({"::1"}, "10.0.0.9"), V{"::1"});

  const std::vector<port::IPv4Interface> interfaces = {
      {"lo", "127.0.0.1", true, true},
      {"docker0", "172.17.0.1", true, false},
      {"br-1a2b", "172.18.0.1", true, false},
      {"veth9", "10.1.0.1", true, false},
      {"virbr0", "192.168.122.1", true, false},
      {"eth0", "10.0.0.4", false, false},
      {"wlp2s0", "192.168.1.7", true, false},
      {"enp3s0", "192.168.1.8", true, false}};
  EXPECT_EQ(LocalAddress::lanAmong(interfaces), "192.168.1.7");
  EXPECT_EQ(
      LocalAddress::lanAmong({interfaces.begin(), interfaces.begin() + 6}),
      std::nullopt);
}

// --- A real listener on 127.0.0.1. ---

int freePort() {
  return FreePort::pick(20000 + static_cast<int>(::getpid() % 12000), 500);
}

int connectTo(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in where = {};
  where.sin_family = AF_INET;
  where.sin_port = htons(static_cast<uint16_t>(port));
  where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&where), sizeof(where)),
            0);
  struct timeval tv = {10, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
  return fd;
}

std::string readToEnd(int fd) {
  std::string out;
  char buf[4096];
  ssize_t n;
  while ((n = ::recv(fd, buf, sizeof(buf), 0)) > 0) out.append(buf, n);
  return out;
}

class HTTPServerTest : public ::testing::Test {
 protected:
  struct Seen {
    std::string method, path, body;
  };

  void SetUp() override {
    port_ = freePort();
    server_ = makeServer(500ms);
    server_->start();
  }

  std::unique_ptr<HTTPServer> makeServer(
      std::chrono::milliseconds deadline,
      std::vector<std::string> addresses = {"127.0.0.1"},
      size_t connections = kMaxHTTPConnections) {
    return std::make_unique<HTTPServer>(
        [this](std::string_view method, std::string_view path,
               std::string_view body) {
          {
            MutexLock lock(mu_);
            seen_.push_back(
                {std::string(method), std::string(path), std::string(body)});
          }
          if (path == "/slow") {
            entered_ = true;
            std::this_thread::sleep_for(slowFor_);
          }
          if (path == "/missing") {
            return RouteResult{404,
                               {{"ok", false}, {"error", "no such route"}}};
          }
          return RouteResult{200, {{"ok", true}}};
        },
        std::move(addresses), port_,
        HTTPLimits{.connections = connections, .requestDeadline = deadline});
  }

  // Sends `request`, ends the sending side and returns all that comes back.
  std::string exchange(const std::string& request) {
    const int fd = connectTo(port_);
    ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    ::shutdown(fd, SHUT_WR);
    std::string reply = readToEnd(fd);
    ::close(fd);
    return reply;
  }

  std::vector<Seen> seen() {
    MutexLock lock(mu_);
    return seen_;
  }

  int port_ = 0;
  std::unique_ptr<HTTPServer> server_;
  Mutex mu_;
  std::vector<Seen> seen_;
  std::atomic<bool> entered_{false};
  std::chrono::milliseconds slowFor_{0};
};

TEST_F(HTTPServerTest, AnswersGoodRequests) {
  EXPECT_TRUE(exchange("GET /v1/health HTTP/1.1\r\n\r\n")
                  .ends_with("\r\n\r\n{\"ok\":true}"));
  const std::string body = "{ \"code\" : \"12 34\" }";
  EXPECT_TRUE(exchange("POST /v1/pair?x=1 HTTP/1.1\r\nHost: a\r\n"
                       "Content-Length: " +
                       std::to_string(body.size()) + "\r\n\r\n" + body)
                  .starts_with("HTTP/1.1 200 OK\r\n"));
  EXPECT_TRUE(exchange("GET /missing HTTP/1.1\r\n\r\n")
                  .starts_with("HTTP/1.1 404 Error\r\n"));
  const auto s = seen();
  ASSERT_EQ(s.size(), 3u);
  EXPECT_EQ(s[0].method + s[0].path + s[0].body, "GET/v1/health{}");
  EXPECT_EQ(s[1].method + s[1].path + s[1].body, "POST/v1/pair" + body);
}

TEST_F(HTTPServerTest, ServesConcurrentClients) {
  std::vector<std::thread> clients;
  std::atomic<int> answered{0};
  for (int i = 0; i < 8; ++i) {
    clients.emplace_back([&] {
      for (int j = 0; j < 20; ++j) {
        if (exchange("GET /v1/health HTTP/1.1\r\n\r\n")
                .starts_with("HTTP/1.1 200 OK\r\n")) {
          ++answered;
        }
      }
    });
  }
  for (auto& client : clients) client.join();
  EXPECT_EQ(answered, 160);
  EXPECT_EQ(seen().size(), 160u);
}

TEST_F(HTTPServerTest, RefusesOrDropsBadRequests) {
  const auto sentence = [this](const std::string& request) {
    const std::string reply = exchange(request);
    if (!reply.starts_with("HTTP/1.1 400 Error\r\n")) return "<" + reply + ">";
    return nlohmann::json::parse(reply.substr(reply.find("\r\n\r\n") + 4))
        .value("error", "");
  };
  EXPECT_EQ(sentence("GET\r\n\r\n"), "unreadable request");
  EXPECT_EQ(exchange("GET /v1/health HTTP/1.1\r\n"), "");  // no terminator
  EXPECT_TRUE(seen().empty());
}

TEST_F(HTTPServerTest, DropsSilentAndTricklingClientsAtTheDeadline) {
  const int silent = connectTo(port_);
  const auto began = std::chrono::steady_clock::now();
  EXPECT_EQ(readToEnd(silent), "");
  const auto took = std::chrono::steady_clock::now() - began;
  EXPECT_GE(took, 400ms);
  EXPECT_LT(took, 5s);
  ::close(silent);

  // One byte of an endless head every 50 ms: no single read waits long, but
  // the request as a whole runs past its deadline and is dropped.
  const int trickle = connectTo(port_);
  const auto start = std::chrono::steady_clock::now();
  bool dropped = false;
  while (!dropped && std::chrono::steady_clock::now() - start < 3s) {
    dropped = ::send(trickle, "X", 1, MSG_NOSIGNAL) != 1;
    char c;
    dropped = dropped || ::recv(trickle, &c, 1, MSG_DONTWAIT) == 0;
    std::this_thread::sleep_for(50ms);
  }
  EXPECT_TRUE(dropped);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms);
  ::close(trickle);
  EXPECT_TRUE(seen().empty());
}

TEST_F(HTTPServerTest, RefusesConnectionsOverTheCapAtOnce) {
  server_->stop();
  server_ = makeServer(5s, {"127.0.0.1"}, 2);
  server_->start();
  const int first = connectTo(port_);
  const int second = connectTo(port_);
  std::this_thread::sleep_for(100ms);
  const auto began = std::chrono::steady_clock::now();
  const int third = connectTo(port_);
  const std::string refused = readToEnd(third);
  ::close(third);
  EXPECT_LT(std::chrono::steady_clock::now() - began, 1s);
  EXPECT_TRUE(refused.starts_with("HTTP/1.1 503 Error\r\n")) << refused;
  ::close(first);
  ::close(second);
  // Once one leaves, the door serves again.
  std::this_thread::sleep_for(100ms);
  EXPECT_TRUE(exchange("GET /v1/health HTTP/1.1\r\n\r\n")
                  .starts_with("HTTP/1.1 200 OK\r\n"));
}

TEST_F(HTTPServerTest, StopIsPromptWithPeersConnected) {
  server_->stop();
  server_ = makeServer(15s);
  server_->start();
  const int idle = connectTo(port_);
  const int halfway = connectTo(port_);
  // Cut short by stop(), this would pass as a request whose body stopped
  // short; it must not reach the routes.
  const std::string partial =
      "POST / HTTP/1.1\r\ncontent-length: 20\r\n\r\n{\"a\":1}";
  ::send(halfway, partial.data(), partial.size(), 0);
  std::this_thread::sleep_for(100ms);
  const auto began = std::chrono::steady_clock::now();
  server_->stop();
  server_->stop();
  EXPECT_LT(std::chrono::steady_clock::now() - began, 2s);
  EXPECT_EQ(readToEnd(idle), "");
  EXPECT_EQ(readToEnd(halfway), "");
  EXPECT_TRUE(seen().empty());
  ::close(idle);
  ::close(halfway);
}

TEST_F(HTTPServerTest, StopLetsARequestInFlightFinishAndAnswer) {
  slowFor_ = 300ms;
  const int fd = connectTo(port_);
  const std::string request = "GET /slow HTTP/1.1\r\n\r\n";
  ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  while (!entered_) std::this_thread::sleep_for(5ms);
  server_->stop();
  EXPECT_TRUE(readToEnd(fd).ends_with("\r\n\r\n{\"ok\":true}"));
  ::close(fd);
}

TEST_F(HTTPServerTest, StartFailures) {
  const auto failure = [this](std::vector<std::string> addresses) {
    try {
      makeServer(1s, std::move(addresses))->start();
    } catch (const ServiceError& e) {
      return std::string(e.what());
    }
    return std::string("started");
  };
  EXPECT_EQ(failure({}), "nothing to listen on");
  EXPECT_EQ(failure({"127.0.0.1"}),
            "could not listen on 127.0.0.1:" + std::to_string(port_) +
                " (Address already in use)");
  server_->stop();
  // The first listener had opened; the failure of the second closes it again.
  EXPECT_EQ(failure({"127.0.0.1", "localhost"}), "localhost is not an address");
  EXPECT_TRUE(FreePort::isFree(port_));
  EXPECT_FALSE(FreePort::isFree(0));
}

}  // namespace
}  // namespace tolvanger::service
