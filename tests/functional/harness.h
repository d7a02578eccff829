// Helpers for black-box tests: a temporary home, the real tolvanger-service
// process started in it, and a client that speaks the agent socket's JSON
// lines from this (separate) process.
//
// A failing test must end fast and leave nothing behind. Every child runs in
// a process group of its own that its owner kills, with anything it started,
// when the owner goes (on an ASSERT's early return as on success), and that
// the kernel kills if this process dies first. Every wait here is bounded,
// and by the running test's budget too: a test gets `kTestBudget` from its
// start, a wait that asks for longer gets what is left of it, and once it is
// spent every wait returns at once, so a broken test runs to its end (and its
// clean-up) within about the budget.
//
// Thread safety: each object is used by one test thread; `Child` reads its
// output on threads of its own behind its own lock.
#ifndef TOLVANGER_TESTS_FUNCTIONAL_HARNESS_H_
#define TOLVANGER_TESTS_FUNCTIONAL_HARNESS_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/service/home.h"

namespace tolvanger::testing {

// How long one test may run before every wait gives up.
inline constexpr std::chrono::seconds kTestBudget{40};

// `limit`, or what is left of the running test's budget if that is less
// (zero once it is spent).
std::chrono::milliseconds bounded(std::chrono::milliseconds limit);
// True while the running test's budget lasts.
bool inBudget();

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
// Destroying it stops it as `stop` does.
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

  // Waits until the service has started (its socket answers and its journal
  // says "started"); false if the process died first or the time ran out.
  bool waitForSocket(
      std::chrono::milliseconds limit = std::chrono::seconds(20));
  // Sends SIGTERM and waits a few seconds for the end, then kills the
  // process group; returns the exit status (128 + 9 when it had to be
  // killed), or -1 when it was not running.
  int stop();
  std::string socketPath() const { return service::Home(home_).socketPath(); }
  pid_t pid() const { return pid_; }

 private:
  std::string home_;
  pid_t pid_ = -1;
};

// Runs the service executable with `args` to completion (killed after 30 s);
// returns the exit status and fills what it wrote.
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
  // Kills the child and its process group if it still runs.
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
  // `limit` is killed with its process group (status 128 + 9). Output that a
  // grandchild keeps open is read for two seconds more, then left.
  Ran wait(std::chrono::milliseconds limit = std::chrono::seconds(60));

 private:
  // Reads `fd` into `into` until its end, or until `abandon_` is set.
  void read(int fd, std::string* into, bool* ended);

  pid_t pid_ = -1;
  int in_ = -1;
  Mutex mu_;
  CondVar outChanged_;
  Ran ran_ GUARDED_BY(mu_);
  size_t consumed_ GUARDED_BY(mu_) = 0;
  bool outEnded_ GUARDED_BY(mu_) = false;
  bool errEnded_ GUARDED_BY(mu_) = false;
  bool abandon_ GUARDED_BY(mu_) = false;
  std::thread out_, err_;
};

// A program spoken to a line at a time, its output read on the caller's own
// thread: for timing a line protocol, where Child's reader threads would put
// a hand-off between threads into every reply. Its standard error is left
// to this process's. It is killed with its process group at the end.
class LineChild {
 public:
  LineChild(std::vector<std::string> argv,
            std::vector<std::pair<std::string, std::string>> env = {});
  ~LineChild();
  LineChild(const LineChild&) = delete;
  LineChild& operator=(const LineChild&) = delete;

  // Writes `line` and a line feed, and returns the next line of output
  // without its line feed; nothing when the output has ended.
  std::optional<std::string> exchange(const std::string& line);

 private:
  pid_t pid_ = -1;
  int in_ = -1, out_ = -1;
  std::string buffer_;
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
