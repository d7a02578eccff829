// Helpers for black-box tests: a temporary home, the real tolvanger-service
// process started in it, and a client that speaks the agent socket's JSON
// lines from this (separate) process.
#ifndef TOLVANGER_TESTS_FUNCTIONAL_HARNESS_H_
#define TOLVANGER_TESTS_FUNCTIONAL_HARNESS_H_

#include <sys/types.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
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
  explicit ServiceProcess(std::string home,
                          std::vector<std::string> args = {"serve", "--quiet"});
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
