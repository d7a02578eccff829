// A stand-in agent for the functional tests: connects to the agent socket
// named by its one argument, sends each line of its standard input and
// prints each reply line. The service names a peer after its executable, so
// tests copy this program under the names they need.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>

namespace {

bool sendAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n =
        ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: line_agent <socket>\n";
    return 2;
  }
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, argv[1], sizeof(address.sun_path) - 1);
  if (fd < 0 || ::connect(fd, reinterpret_cast<struct sockaddr*>(&address),
                          sizeof(address)) != 0) {
    std::cerr << "could not connect to " << argv[1] << "\n";
    return 1;
  }
  std::string pending;
  for (std::string line; std::getline(std::cin, line);) {
    if (!sendAll(fd, line + "\n")) return 1;
    // One reply line for each line sent.
    while (pending.find('\n') == std::string::npos) {
      char buf[4096];
      const ssize_t n = ::read(fd, buf, sizeof(buf));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return 1;
      pending.append(buf, static_cast<size_t>(n));
    }
    const size_t nl = pending.find('\n');
    std::cout << pending.substr(0, nl) << std::endl;
    pending.erase(0, nl + 1);
  }
  ::close(fd);
  return 0;
}
