#include "tolvanger/appcore/app_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>

namespace tolvanger::app {

std::string stateDirectory(const std::map<std::string, std::string>& env) {
  const auto state = env.find("XDG_STATE_HOME");
  if (state != env.end() && !state->second.empty() && state->second[0] == '/') {
    return state->second + "/tolvanger";
  }
  const auto home = env.find("HOME");
  return (home == env.end() ? std::string() : home->second) +
         "/.local/state/tolvanger";
}

AppLog::AppLog(std::string directory)
    : directory_(std::move(directory)), path_(directory_ + "/app.log") {}

void AppLog::write(std::string_view line) {
  const std::time_t now = std::time(nullptr);
  struct tm local;
  ::localtime_r(&now, &local);
  char clock[32];
  std::strftime(clock, sizeof(clock), "%Y-%m-%d %H:%M:%S", &local);
  std::string text = std::string(clock) + " " + std::string(line);
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  text += '\n';
  std::error_code ignored;
  std::filesystem::create_directories(directory_, ignored);
  const int fd =
      ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd < 0) return;
  (void)!::write(fd, text.data(), text.size());
  ::close(fd);
}

}  // namespace tolvanger::app
