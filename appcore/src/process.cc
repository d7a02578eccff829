#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace tolvanger::app {

namespace {

constexpr size_t kMaxOutput = 1 << 20;

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (auto& s : strings) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

}  // namespace

std::string trimmed(std::string_view text) {
  const char* blanks = " \t\r\n";
  const size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return "";
  const size_t last = text.find_last_not_of(blanks);
  return std::string(text.substr(first, last - first + 1));
}

Ran runToEnd(const std::string& exe, const std::vector<std::string>& args,
             const std::optional<std::map<std::string, std::string>>& env,
             bool merged, std::chrono::milliseconds limit) {
  Ran ran;
  std::vector<std::string> argvStrings = {exe};
  argvStrings.insert(argvStrings.end(), args.begin(), args.end());
  std::vector<std::string> envStrings;
  if (env) {
    for (const auto& [k, v] : *env) envStrings.push_back(k + "=" + v);
  }
  auto argv = pointers(argvStrings);
  auto envp = pointers(envStrings);

  int out[2], err[2] = {-1, -1};
  if (::pipe2(out, O_CLOEXEC) != 0 || (!merged && ::pipe2(err, O_CLOEXEC))) {
    ran.error = std::strerror(errno);
    return ran;
  }
  // The child reports a failed exec through this pipe.
  int report[2];
  if (::pipe2(report, O_CLOEXEC) != 0) {
    ran.error = std::strerror(errno);
    return ran;
  }
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setpgid(0, 0);
    const int devnull = ::open("/dev/null", O_RDONLY);
    ::dup2(devnull, 0);
    ::dup2(out[1], 1);
    ::dup2(merged ? out[1] : err[1], 2);
    if (env) {
      ::execve(exe.c_str(), argv.data(), envp.data());
    } else {
      ::execv(exe.c_str(), argv.data());
    }
    const int e = errno;
    (void)!::write(report[1], &e, sizeof(e));
    ::_exit(127);
  }
  ::close(out[1]);
  if (!merged) ::close(err[1]);
  ::close(report[1]);
  if (pid < 0) {
    ran.error = std::strerror(errno);
    ::close(out[0]);
    if (!merged) ::close(err[0]);
    ::close(report[0]);
    return ran;
  }
  int execError = 0;
  const bool failed =
      ::read(report[0], &execError, sizeof(execError)) == sizeof(execError);
  ::close(report[0]);

  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::vector<struct pollfd> fds = {{out[0], POLLIN, 0}};
  if (!merged) fds.push_back({err[0], POLLIN, 0});
  bool killed = false;
  while (!fds.empty()) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      ::kill(-pid, SIGKILL);
      killed = true;
      break;
    }
    const int n =
        ::poll(fds.data(), fds.size(), static_cast<int>(left.count()));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    for (size_t i = 0; i < fds.size();) {
      if (fds[i].revents == 0) {
        ++i;
        continue;
      }
      char chunk[4096];
      const ssize_t got = ::read(fds[i].fd, chunk, sizeof(chunk));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) {
        ::close(fds[i].fd);
        fds.erase(fds.begin() + static_cast<long>(i));
        continue;
      }
      std::string& into = fds[i].fd == out[0] ? ran.out : ran.err;
      if (into.size() < kMaxOutput)
        into.append(chunk, static_cast<size_t>(got));
      ++i;
    }
  }
  for (const auto& f : fds) ::close(f.fd);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (failed) {
    ran.error = std::strerror(execError);
    return ran;
  }
  ran.started = true;
  if (WIFEXITED(status)) ran.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) ran.status = 128 + WTERMSIG(status);
  if (killed) ran.error = "it did not finish in time";
  return ran;
}

pid_t startDetached(const std::string& exe,
                    const std::vector<std::string>& args) {
  std::vector<std::string> argvStrings = {exe};
  argvStrings.insert(argvStrings.end(), args.begin(), args.end());
  auto argv = pointers(argvStrings);
  int report[2];
  if (::pipe2(report, O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), exe);
  }
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setsid();
    const int devnull = ::open("/dev/null", O_RDWR);
    ::dup2(devnull, 0);
    ::dup2(devnull, 1);
    ::dup2(devnull, 2);
    // Nothing of this process's stays open in one that outlives it (the
    // report pipe closes on exec).
    for (int fd = 3; fd < 1024; ++fd) {
      if (fd != report[1]) ::close(fd);
    }
    ::execv(exe.c_str(), argv.data());
    const int e = errno;
    (void)!::write(report[1], &e, sizeof(e));
    ::_exit(127);
  }
  ::close(report[1]);
  if (pid < 0) {
    const int e = errno;
    ::close(report[0]);
    throw std::system_error(e, std::generic_category(), exe);
  }
  int execError = 0;
  const bool failed =
      ::read(report[0], &execError, sizeof(execError)) == sizeof(execError);
  ::close(report[0]);
  if (failed) {
    ::waitpid(pid, nullptr, 0);
    throw std::system_error(execError, std::generic_category(), exe);
  }
  return pid;
}

}  // namespace tolvanger::app
