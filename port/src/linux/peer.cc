#include "tolvanger/port/peer.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <string_view>

namespace tolvanger::port {

std::optional<PeerCredentials> peerCredentials(int fd) {
  struct ucred cred = {};
  socklen_t len = sizeof(cred);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 ||
      len != sizeof(cred)) {
    return std::nullopt;
  }
  return PeerCredentials{cred.uid, cred.pid};
}

std::optional<std::string> processName(pid_t pid) {
  if (pid <= 0) return std::nullopt;
  const std::string link = "/proc/" + std::to_string(pid) + "/exe";
  char buf[4096];
  const ssize_t n = readlink(link.c_str(), buf, sizeof(buf) - 1);
  if (n <= 0) return std::nullopt;
  std::string path(buf, static_cast<size_t>(n));
  // The kernel marks an executable replaced since the start this way.
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.size() > kDeleted.size() &&
      path.compare(path.size() - kDeleted.size(), kDeleted.size(), kDeleted) ==
          0) {
    path.resize(path.size() - kDeleted.size());
  }
  const auto slash = path.rfind('/');
  std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  if (base.empty()) return std::nullopt;
  return base;
}

namespace {

// Boot time in whole seconds since 1970, from the btime line of /proc/stat.
// Unlike the difference of the real and boot clocks it does not move, so the
// same process always gets the same start time.
std::optional<int64_t> readBootSeconds() {
  std::ifstream in("/proc/stat");
  std::string key;
  while (in >> key) {
    if (key == "btime") {
      int64_t value = 0;
      if (in >> value) return value;
      return std::nullopt;
    }
    in.ignore(1 << 20, '\n');
  }
  return std::nullopt;
}

// Read once: /proc/stat is long (a line per CPU and one per interrupt), and
// every agent connection asks for a start time.
std::optional<int64_t> bootSeconds() {
  static const std::optional<int64_t> boot = readBootSeconds();
  return boot;
}

// The fields of /proc/<pid>/stat after the command name, which sits in
// parentheses and may hold blanks or parentheses itself; empty when the
// process is gone. The whole file is well under the buffer.
std::string statFields(pid_t pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/stat";
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return {};
  char buf[1024];
  ssize_t n;
  do {
    n = ::read(fd, buf, sizeof(buf));
  } while (n < 0 && errno == EINTR);
  ::close(fd);
  if (n <= 0) return {};
  const std::string_view line(buf, static_cast<size_t>(n));
  const auto close = line.rfind(')');
  if (close == std::string_view::npos || close + 2 >= line.size()) return {};
  return std::string(line.substr(close + 2));
}

}  // namespace

std::optional<int64_t> processStartMicros(pid_t pid) {
  if (pid <= 0) return std::nullopt;
  const std::string fields = statFields(pid);
  // Fields 3..22 follow; the start time is field 22, in clock ticks since
  // boot.
  size_t at = 0;
  for (int i = 3; i < 22 && at != std::string::npos; ++i) {
    at = fields.find(' ', at);
    if (at != std::string::npos) ++at;
  }
  if (fields.empty() || at == std::string::npos) return std::nullopt;
  const char* first = fields.c_str() + at;
  errno = 0;
  char* end = nullptr;
  const unsigned long long ticks = std::strtoull(first, &end, 10);
  if (errno != 0 || end == first) return std::nullopt;
  const long hz = sysconf(_SC_CLK_TCK);
  const auto boot = bootSeconds();
  if (hz <= 0 || !boot) return std::nullopt;
  return *boot * 1000000 + static_cast<int64_t>(ticks) * 1000000 / hz;
}

bool processHasExited(pid_t pid) {
  if (pid <= 0) return true;
  const std::string fields = statFields(pid);
  if (fields.empty()) return true;
  // Field 3, first after the command name, is the state letter.
  const char state = fields[0];
  return state == 'Z' || state == 'X' || state == 'x';
}

uid_t currentUid() { return geteuid(); }

}  // namespace tolvanger::port
