#include "harness.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <thread>

#include "tolvanger/service/http_server.h"

namespace tolvanger::testing {

namespace fs = std::filesystem;

TempDir::TempDir() {
  std::string tmpl =
      (fs::temp_directory_path() / "tolvanger-test-XXXXXX").string();
  if (::mkdtemp(tmpl.data()) == nullptr) std::abort();
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  fs::remove_all(path_, ec);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> filesBelow(const std::string& dir) {
  std::vector<std::string> out;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(dir, ec);
       it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (it->is_regular_file()) out.push_back(it->path().string());
  }
  return out;
}

namespace {

using Clock = std::chrono::steady_clock;

// When the running test's budget is spent, as a count of Clock ticks.
std::atomic<Clock::rep> testEnds{
    (Clock::now() + kTestBudget).time_since_epoch().count()};

// Starts each test's budget as the test starts.
class Budget : public ::testing::EmptyTestEventListener {
  void OnTestStart(const ::testing::TestInfo&) override {
    testEnds = (Clock::now() + kTestBudget).time_since_epoch().count();
  }
};

[[maybe_unused]] const bool budgetListening = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new Budget);
  return true;
}();

// This process's environment with `extra` set over it.
std::vector<std::string> environmentWith(
    const std::vector<std::pair<std::string, std::string>>& extra) {
  std::vector<std::string> out;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view text(*entry);
    const std::string_view name = text.substr(0, text.find('='));
    if (std::none_of(extra.begin(), extra.end(),
                     [&](const auto& kv) { return kv.first == name; })) {
      out.emplace_back(text);
    }
  }
  for (const auto& [name, value] : extra) out.push_back(name + "=" + value);
  return out;
}

// Starts `argv` (an absolute path first) in a process group of its own that
// the kernel kills if this process dies. `streams` become the child's
// standard input, output and error; -1 leaves one as this process has it.
pid_t spawn(std::vector<std::string> argv,
            const std::vector<std::pair<std::string, std::string>>& env,
            const std::array<int, 3>& streams, int openFiles = 0) {
  // Everything the child needs is made before the fork: after it, only
  // calls that are safe in a child of a threaded process.
  std::vector<std::string> environment = environmentWith(env);
  std::vector<char*> args, envp;
  for (auto& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  for (auto& e : environment) envp.push_back(e.data());
  envp.push_back(nullptr);
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setpgid(0, 0);
#ifdef __linux__
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(127);
#endif
    ::signal(SIGPIPE, SIG_DFL);
    if (openFiles > 0) {
      const struct rlimit limit = {static_cast<rlim_t>(openFiles),
                                   static_cast<rlim_t>(openFiles)};
      if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) ::_exit(126);
    }
    for (int fd = 0; fd < 3; ++fd) {
      if (streams[fd] >= 0) ::dup2(streams[fd], fd);
    }
    ::execve(args[0], args.data(), envp.data());
    ::_exit(127);
  }
  if (pid < 0) std::abort();
  // Set here too, so that a kill of the group right after the fork finds it.
  ::setpgid(pid, pid);
  return pid;
}

int statusOf(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Waits up to `limit` for `pid` to end, then kills its process group and
// waits for that. Whatever the child started in its group goes with it.
// Returns the exit status, 128 + the signal's number for a killed child.
int reap(pid_t pid, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  int status = 0;
  pid_t done;
  while ((done = ::waitpid(pid, &status, WNOHANG)) == 0 &&
         Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (done == 0) {
    ::kill(-pid, SIGKILL);
    ::kill(pid, SIGKILL);
    while ((done = ::waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
    }
  }
  ::kill(-pid, SIGKILL);
  return done == pid ? statusOf(status) : -1;
}

}  // namespace

std::chrono::milliseconds bounded(std::chrono::milliseconds limit) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      Clock::time_point(Clock::duration(testEnds.load())) - Clock::now());
  return std::clamp(left, std::chrono::milliseconds(0), limit);
}

bool inBudget() { return bounded(std::chrono::milliseconds(1)).count() > 0; }

ServiceProcess::ServiceProcess(std::string home, std::vector<std::string> args,
                               int openFiles)
    : home_(std::move(home)) {
  std::vector<std::string> argv = {TOLVANGER_SERVICE_BIN};
  argv.insert(argv.end(), args.begin(), args.end());
  pid_ = spawn(std::move(argv), {{"TOLVANGER_HOME", home_}}, {-1, -1, -1},
               openFiles);
}

ServiceProcess::~ServiceProcess() { stop(); }

bool ServiceProcess::waitForSocket(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + bounded(limit);
  while (pid_ > 0 && Clock::now() < deadline) {
    // The service writes "started" once both doors are open; a test that
    // goes on before it could race the rest of the start.
    if (fs::exists(socketPath())) {
      SocketClient probe(socketPath());
      std::ifstream journal(home_ + "/journal.log");
      const std::string text((std::istreambuf_iterator<char>(journal)),
                             std::istreambuf_iterator<char>());
      if (probe.connected() && text.find(" started ") != std::string::npos) {
        return true;
      }
    }
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      ::kill(-pid_, SIGKILL);
      pid_ = -1;
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

int ServiceProcess::stop() {
  if (pid_ <= 0) return -1;
  ::kill(pid_, SIGTERM);
  const int status = reap(pid_, std::chrono::seconds(8));
  pid_ = -1;
  return status;
}

int runService(const std::string& home, const std::vector<std::string>& args,
               std::string* out, std::string* err) {
  std::vector<std::string> argv = {TOLVANGER_SERVICE_BIN};
  argv.insert(argv.end(), args.begin(), args.end());
  Child child(std::move(argv), {{"TOLVANGER_HOME", home}});
  Ran ran = child.wait(std::chrono::seconds(30));
  if (out) *out = std::move(ran.out);
  if (err) *err = std::move(ran.err);
  return ran.status;
}

Child::Child(std::vector<std::string> argv,
             std::vector<std::pair<std::string, std::string>> env) {
  int in[2], out[2], err[2];
  if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 ||
      ::pipe2(err, O_CLOEXEC) != 0) {
    std::abort();
  }
  pid_ = spawn(std::move(argv), env, {in[0], out[1], err[1]});
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  in_ = in[1];
  out_ = std::thread([this, fd = out[0]] { read(fd, &ran_.out, &outEnded_); });
  err_ = std::thread([this, fd = err[0]] { read(fd, &ran_.err, &errEnded_); });
}

Child::~Child() { wait(std::chrono::milliseconds(0)); }

LineChild::LineChild(std::vector<std::string> argv,
                     std::vector<std::pair<std::string, std::string>> env) {
  int in[2], out[2];
  if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
    std::abort();
  }
  pid_ = spawn(std::move(argv), env, {in[0], out[1], -1});
  ::close(in[0]);
  ::close(out[1]);
  in_ = in[1];
  out_ = out[0];
}

LineChild::~LineChild() {
  ::close(in_);
  ::close(out_);
  if (pid_ > 0) reap(pid_, std::chrono::milliseconds(0));
}

std::optional<std::string> LineChild::exchange(const std::string& line) {
  const std::string framed = line + "\n";
  for (size_t done = 0; done < framed.size();) {
    const ssize_t n = ::write(in_, framed.data() + done, framed.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::nullopt;
    done += static_cast<size_t>(n);
  }
  size_t nl;
  while ((nl = buffer_.find('\n')) == std::string::npos) {
    char chunk[8192];
    const ssize_t n = ::read(out_, chunk, sizeof(chunk));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::nullopt;
    buffer_.append(chunk, static_cast<size_t>(n));
  }
  std::string next = buffer_.substr(0, nl);
  buffer_.erase(0, nl + 1);
  return next;
}

void Child::read(int fd, std::string* into, bool* ended) {
  char buf[4096];
  for (;;) {
    struct pollfd p = {fd, POLLIN, 0};
    const int ready = ::poll(&p, 1, 100);
    if (ready < 0 && errno != EINTR) break;
    if (ready <= 0) {
      MutexLock lock(mu_);
      if (abandon_) break;
      continue;
    }
    const ssize_t n = ::read(fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    MutexLock lock(mu_);
    into->append(buf, static_cast<size_t>(n));
    outChanged_.notify_all();
  }
  ::close(fd);
  MutexLock lock(mu_);
  *ended = true;
  outChanged_.notify_all();
}

bool Child::write(const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(in_, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

std::optional<std::string> Child::readLine(std::chrono::milliseconds limit) {
  UniqueLock lock(mu_);
  size_t nl = std::string::npos;
  outChanged_.wait_for(lock, bounded(limit), [&]() REQUIRES(mu_) {
    nl = ran_.out.find('\n', consumed_);
    return nl != std::string::npos || outEnded_;
  });
  if (nl == std::string::npos) return std::nullopt;
  std::string line = ran_.out.substr(consumed_, nl - consumed_);
  consumed_ = nl + 1;
  return line;
}

void Child::closeInput() {
  if (in_ >= 0) ::close(in_);
  in_ = -1;
}

Ran Child::wait(std::chrono::milliseconds limit) {
  closeInput();
  if (pid_ > 0) {
    const int status = reap(pid_, bounded(limit));
    pid_ = -1;
    MutexLock lock(mu_);
    ran_.status = status;
  }
  {
    UniqueLock lock(mu_);
    outChanged_.wait_for(lock, std::chrono::seconds(2), [&]() REQUIRES(mu_) {
      return outEnded_ && errEnded_;
    });
    abandon_ = true;
  }
  if (out_.joinable()) out_.join();
  if (err_.joinable()) err_.join();
  MutexLock lock(mu_);
  return ran_;
}

Ran runPhone(const std::string& home, const std::vector<std::string>& args,
             const std::string& input,
             const std::function<std::string()>& beforeInput) {
  std::vector<std::string> argv = {TOLVANGER_PHONE_BIN};
  argv.insert(argv.end(), args.begin(), args.end());
  Child child(argv, {{"TOLVANGER_PHONE_HOME", home}});
  std::string text = input;
  if (beforeInput) text = beforeInput() + text;
  child.write(text);
  return child.wait();
}

Ran pairPhone(SocketClient& admin, const std::string& phoneHome, int port) {
  std::string url =
      admin.call({{"op", "pair.open"}, {"host", "127.0.0.1"}})["url"];
  url = std::regex_replace(url, std::regex("p=[0-9]+"),
                           "p=" + std::to_string(port));
  return runPhone(phoneHome, {"pair", url, "--name", "Test Phone"}, "", [&] {
    while (inBudget()) {
      const nlohmann::json status = admin.call({{"op", "pair.status"}});
      if (status["state"] == "offered")
        return status["code"].get<std::string>() + "\n";
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return std::string("00\n");
  });
}

int useFreePort(const std::string& home) {
  const std::string path = home + "/config.json";
  nlohmann::json config = nlohmann::json::parse(readFile(path));
  // Below the kernel's ephemeral range (32768 up), so an outgoing
  // connection's source port never takes the port between pick and bind;
  // and a new port for each test, so one test never meets what an earlier
  // one's connections left on its port.
  static std::atomic<int> tests{0};
  const int port = service::FreePort::pick(
      20000 + (::getpid() * 7 + tests++ * 211) % 12000, 200);
  config["listen_port"] = port;
  config["listen"] = nlohmann::json::array({"127.0.0.1"});
  std::ofstream(path) << config.dump(2);
  return port;
}

SocketClient::SocketClient(const std::string& path) {
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // A service that stops reading cannot hold a send for long.
  const struct timeval sendLimit = {15, 0};
  ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &sendLimit, sizeof(sendLimit));
  struct sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  if (::connect(fd_, reinterpret_cast<struct sockaddr*>(&address),
                sizeof(address)) != 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

SocketClient::~SocketClient() {
  if (fd_ >= 0) ::close(fd_);
}

bool SocketClient::sendRaw(const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n =
        ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool SocketClient::send(const nlohmann::json& object) {
  return sendRaw(object.dump() + "\n");
}

std::optional<nlohmann::json> SocketClient::readLine(
    std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + bounded(limit);
  for (;;) {
    const auto nl = buffer_.find('\n');
    if (nl != std::string::npos) {
      std::string line = buffer_.substr(0, nl);
      buffer_.erase(0, nl + 1);
      return nlohmann::json::parse(line);
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - Clock::now());
    if (left.count() <= 0) return std::nullopt;
    struct pollfd p = {fd_, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char buf[8192];
    const ssize_t n = ::recv(fd_, buf, sizeof(buf), 0);
    if (n <= 0) return std::nullopt;
    buffer_.append(buf, static_cast<size_t>(n));
  }
}

nlohmann::json SocketClient::call(const nlohmann::json& object) {
  if (!send(object)) return nlohmann::json{{"harness", "send failed"}};
  auto line = readLine();
  return line ? *line : nlohmann::json{{"harness", "no reply"}};
}

bool SocketClient::closedByPeer(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + bounded(limit);
  while (Clock::now() < deadline) {
    struct pollfd p = {fd_, POLLIN, 0};
    if (::poll(&p, 1, 50) > 0) {
      char buf[4096];
      const ssize_t n = ::recv(fd_, buf, sizeof(buf), 0);
      if (n == 0 || (n < 0 && errno == ECONNRESET)) return true;
    }
  }
  return false;
}

}  // namespace tolvanger::testing
