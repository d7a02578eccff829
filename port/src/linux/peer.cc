#include "tolvanger/port/peer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>

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
std::optional<int64_t> bootSeconds() {
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

}  // namespace

std::optional<int64_t> processStartMicros(pid_t pid) {
  if (pid <= 0) return std::nullopt;
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(in, line)) return std::nullopt;
  // The command name (field 2) is in parentheses and may hold blanks or
  // parentheses itself: count fields from the last ')'.
  const auto close = line.rfind(')');
  if (close == std::string::npos) return std::nullopt;
  std::istringstream rest(line.substr(close + 1));
  std::string field;
  // Fields 3..22; the start time is field 22, in clock ticks since boot.
  for (int i = 3; i <= 22; ++i) {
    if (!(rest >> field)) return std::nullopt;
  }
  errno = 0;
  char* end = nullptr;
  const unsigned long long ticks = std::strtoull(field.c_str(), &end, 10);
  if (errno != 0 || end == field.c_str()) return std::nullopt;
  const long hz = sysconf(_SC_CLK_TCK);
  const auto boot = bootSeconds();
  if (hz <= 0 || !boot) return std::nullopt;
  return *boot * 1000000 + static_cast<int64_t>(ticks) * 1000000 / hz;
}

bool processHasExited(pid_t pid) {
  if (pid <= 0) return true;
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(in, line)) return true;
  const auto close = line.rfind(')');
  if (close == std::string::npos || close + 2 >= line.size()) return true;
  // Field 3, after the command name, is the state letter.
  const char state = line[close + 2];
  return state == 'Z' || state == 'X' || state == 'x';
}

uid_t currentUid() { return geteuid(); }

}  // namespace tolvanger::port
