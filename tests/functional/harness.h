// Helpers for black-box tests: a temporary home, the real tolvanger-service
// process started in it, and a client that speaks the agent socket's JSON
// lines from this (separate) process.
#ifndef TOLVANGER_TESTS_FUNCTIONAL_HARNESS_H_
#define TOLVANGER_TESTS_FUNCTIONAL_HARNESS_H_

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tolvanger::testing {

// A fresh directory under $TMPDIR, removed with everything in it at the end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Reads a whole file; empty if it cannot.
std::string readFile(const std::string& path);
// Every regular file below `dir`, recursively.
std::vector<std::string> filesBelow(const std::string& dir);

// Points the home's config.json at a free port on 127.0.0.1 only, so tests
// never collide with a running service or with each other. Returns the port.
int useFreePort(const std::string& home);

// The real service executable, run as `serve --quiet` with TOLVANGER_HOME set.
class ServiceProcess {
 public:
  // `openFiles`, when above 0, is the most descriptors the process may hold
  // (its soft and hard RLIMIT_NOFILE).
  explicit ServiceProcess(std::string home,
                          std::vector<std::string> args = {"serve", "--quiet"},
                          int openFiles = 0);
  ~ServiceProcess();
  ServiceProcess(const ServiceProcess&) = delete;
  ServiceProcess& operator=(const ServiceProcess&) = delete;

  // Waits until the socket file exists; false if the process died first or
  // the time ran out.
  bool waitForSocket(
      std::chrono::milliseconds limit = std::chrono::seconds(20));
  // Sends SIGTERM and waits; returns the exit status (or -1).
  int stop();
  std::string socketPath() const { return home_ + "/tolvanger.sock"; }
  pid_t pid() const { return pid_; }

 private:
  std::string home_;
  pid_t pid_ = -1;
};

// Runs the service executable with `args` to completion; returns the exit
// status and fills what it wrote.
int runService(const std::string& home, const std::vector<std::string>& args,
               std::string* out = nullptr, std::string* err = nullptr);

// What a program run to its end left: exit status and both outputs.
struct Ran {
  int status = -1;
  std::string out, err;
};

// A program started with pipes on its three standard streams. Its output is
// read from the start on threads of its own, so it never blocks on a full
// pipe.
class Child {
 public:
  // `env` is added to this process's environment for the child.
  Child(std::vector<std::string> argv,
        std::vector<std::pair<std::string, std::string>> env = {});
  // Kills the child if it still runs.
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  bool write(const std::string& bytes);
  void closeInput();
  // The next line of standard output not read yet, without its line feed;
  // nothing at the end of output or at `limit`.
  std::optional<std::string> readLine(
      std::chrono::milliseconds limit = std::chrono::seconds(30));
  // Closes standard input and waits for the end; a child still running at
  // `limit` is killed (status 128 + 9).
  Ran wait(std::chrono::milliseconds limit = std::chrono::seconds(60));

 private:
  pid_t pid_ = -1;
  int in_ = -1;
  Ran ran_;
  std::mutex mu_;  // guards ran_.out, consumed_ and outEnded_ while running
  std::condition_variable outChanged_;
  size_t consumed_ = 0;
  bool outEnded_ = false;
  std::thread out_, err_;
};

// Runs tolvanger-phone in `home`, feeding `input`. `beforeInput`, when given,
// runs after the start and its text goes first (to learn what to type).
Ran runPhone(const std::string& home, const std::vector<std::string>& args,
             const std::string& input = "",
             const std::function<std::string()>& beforeInput = nullptr);

class SocketClient;

// Pairs the phone in `phoneHome` with the service that `admin` (a connection
// that said hello as admin) speaks to, through its window on 127.0.0.1.
// `port` replaces the link's port (to put a proxy in between). Returns the
// phone's run.
Ran pairPhone(SocketClient& admin, const std::string& phoneHome, int port);

// One connection to the agent socket.
class SocketClient {
 public:
  explicit SocketClient(const std::string& path);
  ~SocketClient();
  SocketClient(const SocketClient&) = delete;
  SocketClient& operator=(const SocketClient&) = delete;

  bool connected() const { return fd_ >= 0; }
  bool sendRaw(const std::string& bytes);
  // Sends one JSON object as a line.
  bool send(const nlohmann::json& object);
  // The next line, parsed; nothing on end of stream or time-out.
  std::optional<nlohmann::json> readLine(
      std::chrono::milliseconds limit = std::chrono::seconds(15));
  // send + readLine.
  nlohmann::json call(const nlohmann::json& object);
  // True when the service has closed the connection (end of stream).
  bool closedByPeer(std::chrono::milliseconds limit = std::chrono::seconds(5));

 private:
  int fd_ = -1;
  std::string buffer_;
};

}  // namespace tolvanger::testing

#endif  // TOLVANGER_TESTS_FUNCTIONAL_HARNESS_H_
