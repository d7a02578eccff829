#include "tolvanger/port/system.h"

#include <pwd.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <vector>

namespace tolvanger::port {

std::string hostName() {
  char buf[HOST_NAME_MAX + 1] = {};
  if (gethostname(buf, sizeof(buf) - 1) != 0) return {};
  return std::string(buf);
}

std::optional<std::string> userHomeDirectory() {
  if (const char* home = std::getenv("HOME");
      home != nullptr && *home != '\0') {
    return std::string(home);
  }
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(size > 0 ? static_cast<size_t>(size) : 16384);
  struct passwd pw;
  struct passwd* result = nullptr;
  if (getpwuid_r(getuid(), &pw, buf.data(), buf.size(), &result) == 0 &&
      result != nullptr && result->pw_dir != nullptr &&
      *result->pw_dir != '\0') {
    return std::string(result->pw_dir);
  }
  return std::nullopt;
}

std::optional<std::string> applicationDataDirectory() {
  if (const char* xdg = std::getenv("XDG_DATA_HOME");
      xdg != nullptr && *xdg == '/') {
    return std::string(xdg);
  }
  auto home = userHomeDirectory();
  if (!home) return std::nullopt;
  return *home + "/.local/share";
}

}  // namespace tolvanger::port
