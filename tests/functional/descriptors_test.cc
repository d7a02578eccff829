// The real tolvanger-service under a low limit of open descriptors: a flood
// of connections to both doors runs the process out of them, and once the
// flood is gone both doors answer again.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"

namespace tolvanger::testing {
namespace {

using namespace std::chrono_literals;

// Starts a non-blocking connection; -1 when it cannot even begin (a unix
// socket whose queue is full refuses at once).
int startConnecting(const sockaddr* address, socklen_t size) {
  const int fd = ::socket(address->sa_family,
                          SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (::connect(fd, address, size) == 0 || errno == EINPROGRESS) return fd;
  ::close(fd);
  return -1;
}

struct Doors {
  sockaddr_un agents = {};
  sockaddr_in phone = {};

  Doors(const std::string& socketPath, int port) {
    agents.sun_family = AF_UNIX;
    std::strncpy(agents.sun_path, socketPath.c_str(),
                 sizeof(agents.sun_path) - 1);
    phone.sin_family = AF_INET;
    phone.sin_port = htons(static_cast<uint16_t>(port));
    phone.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  }
  int agent() {
    return startConnecting(reinterpret_cast<sockaddr*>(&agents),
                           sizeof(agents));
  }
  int http() {
    return startConnecting(reinterpret_cast<sockaddr*>(&phone), sizeof(phone));
  }
};

// Connects (retrying while the door's queue is full), sends `request` and
// reads until `enough` says so, the peer closes, or `limit` passes.
template <typename Connect, typename Enough>
std::string exchange(Connect connect, const std::string& request, Enough enough,
                     std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  int fd = -1;
  while ((fd = connect()) < 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(20ms);
  }
  if (fd < 0) return "<no connection>";
  std::string reply;
  size_t sent = 0;
  while (std::chrono::steady_clock::now() < deadline && !enough(reply)) {
    struct pollfd p = {
        fd, static_cast<short>(POLLIN | (sent < request.size() ? POLLOUT : 0)),
        0};
    if (::poll(&p, 1, 20) <= 0) continue;
    if ((p.revents & POLLOUT) && sent < request.size()) {
      const ssize_t n = ::send(fd, request.data() + sent, request.size() - sent,
                               MSG_NOSIGNAL);
      if (n > 0) sent += static_cast<size_t>(n);
    }
    if (p.revents & (POLLIN | POLLHUP | POLLERR)) {
      char buf[4096];
      const ssize_t n = ::recv(fd, buf, sizeof(buf), 0);
      if (n <= 0) break;
      reply.append(buf, static_cast<size_t>(n));
    }
  }
  ::close(fd);
  return reply;
}

size_t openDescriptors(pid_t pid) {
  size_t n = 0;
  std::error_code ec;
  for (auto it = std::filesystem::directory_iterator(
           "/proc/" + std::to_string(pid) + "/fd", ec);
       it != std::filesystem::directory_iterator(); it.increment(ec)) {
    ++n;
  }
  return n;
}

TEST(Descriptors, BothDoorsAnswerAfterTheProcessRanOutOfThem) {
  TempDir dir;
  const std::string home = dir.file("home");
  ASSERT_EQ(runService(home, {"init", "--quiet"}), 0);
  const int port = useFreePort(home);
  constexpr int kLimit = 64;
  ServiceProcess service(home, {"serve", "--quiet"}, kLimit);
  ASSERT_TRUE(service.waitForSocket());
  Doors doors(service.socketPath(), port);

  // Three times as many connections as the service may hold descriptors,
  // to each door, given time to be taken.
  std::vector<int> flood;
  size_t most = 0;
  for (int i = 0; i < 3 * kLimit; ++i) {
    for (int fd : {doors.agent(), doors.http()}) {
      if (fd >= 0) flood.push_back(fd);
    }
    if (i % 16 == 15) {
      std::this_thread::sleep_for(50ms);
      most = std::max(most, openDescriptors(service.pid()));
    }
  }
  EXPECT_GE(most, static_cast<size_t>(kLimit - 2))
      << "the flood did not run the service out of descriptors";
  for (int fd : flood) ::close(fd);

  const std::string hello = exchange(
      [&] { return doors.agent(); }, "{\"op\":\"hello\"}\n",
      [](const std::string& r) { return r.find('\n') != std::string::npos; },
      5s);
  EXPECT_NE(hello.find("\"ok\":true"), std::string::npos) << hello;
  const std::string health =
      exchange([&] { return doors.http(); }, "GET /v1/health HTTP/1.1\r\n\r\n",
               [](const std::string&) { return false; }, 5s);
  EXPECT_TRUE(health.starts_with("HTTP/1.1 200 OK\r\n")) << health;
  EXPECT_EQ(service.stop(), 0);
}

}  // namespace
}  // namespace tolvanger::testing
