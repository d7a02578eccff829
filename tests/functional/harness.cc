#include "harness.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
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

[[noreturn]] void execService(const std::string& home,
                              const std::vector<std::string>& args) {
  ::setenv("TOLVANGER_HOME", home.c_str(), 1);
  std::vector<char*> argv;
  std::string bin = TOLVANGER_SERVICE_BIN;
  argv.push_back(bin.data());
  std::vector<std::string> copy = args;
  for (auto& a : copy) argv.push_back(a.data());
  argv.push_back(nullptr);
  ::execv(bin.c_str(), argv.data());
  ::_exit(127);
}

std::string drain(int fd) {
  std::string out;
  char buf[4096];
  for (;;) {
    const ssize_t n = ::read(fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    out.append(buf, static_cast<size_t>(n));
  }
  return out;
}

}  // namespace

ServiceProcess::ServiceProcess(std::string home, std::vector<std::string> args,
                               int openFiles)
    : home_(std::move(home)) {
  pid_ = ::fork();
  if (pid_ == 0) {
    if (openFiles > 0) {
      const struct rlimit limit = {static_cast<rlim_t>(openFiles),
                                   static_cast<rlim_t>(openFiles)};
      if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) ::_exit(126);
    }
    execService(home_, args);
  }
}

ServiceProcess::~ServiceProcess() { stop(); }

bool ServiceProcess::waitForSocket(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    if (fs::exists(socketPath())) {
      SocketClient probe(socketPath());
      if (probe.connected()) return true;
    }
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
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
  int status = 0;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int runService(const std::string& home, const std::vector<std::string>& args,
               std::string* out, std::string* err) {
  int outPipe[2], errPipe[2];
  if (::pipe(outPipe) != 0 || ::pipe(errPipe) != 0) return -1;
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(outPipe[1], 1);
    ::dup2(errPipe[1], 2);
    ::close(outPipe[0]);
    ::close(errPipe[0]);
    execService(home, args);
  }
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  std::string errText;
  std::thread errReader([&] { errText = drain(errPipe[0]); });
  const std::string outText = drain(outPipe[0]);
  errReader.join();
  ::close(outPipe[0]);
  ::close(errPipe[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (out) *out = outText;
  if (err) *err = errText;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Child::Child(std::vector<std::string> argv,
             std::vector<std::pair<std::string, std::string>> env) {
  int in[2], out[2], err[2];
  if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 ||
      ::pipe2(err, O_CLOEXEC) != 0) {
    std::abort();
  }
  pid_ = ::fork();
  if (pid_ == 0) {
    ::dup2(in[0], 0);
    ::dup2(out[1], 1);
    ::dup2(err[1], 2);
    for (const auto& [key, value] : env)
      ::setenv(key.c_str(), value.c_str(), 1);
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  in_ = in[1];
  out_ = std::thread([this, fd = out[0]] {
    char buf[4096];
    for (;;) {
      const ssize_t n = ::read(fd, buf, sizeof(buf));
      if (n < 0 && errno == EINTR) continue;
      std::lock_guard<std::mutex> lock(mu_);
      if (n <= 0) {
        outEnded_ = true;
        outChanged_.notify_all();
        break;
      }
      ran_.out.append(buf, static_cast<size_t>(n));
      outChanged_.notify_all();
    }
    ::close(fd);
  });
  err_ = std::thread([this, fd = err[0]] {
    ran_.err = drain(fd);
    ::close(fd);
  });
}

Child::~Child() {
  if (pid_ > 0) ::kill(pid_, SIGKILL);
  wait(std::chrono::seconds(5));
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
  std::unique_lock<std::mutex> lock(mu_);
  size_t nl = std::string::npos;
  outChanged_.wait_for(lock, limit, [&] {
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
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() >= deadline) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    pid_ = -1;
    ran_.status =
        WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  if (out_.joinable()) out_.join();
  if (err_.joinable()) err_.join();
  std::lock_guard<std::mutex> lock(mu_);
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
    for (int i = 0; i < 500; ++i) {
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
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    const auto nl = buffer_.find('\n');
    if (nl != std::string::npos) {
      std::string line = buffer_.substr(0, nl);
      buffer_.erase(0, nl + 1);
      return nlohmann::json::parse(line);
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
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
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
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
