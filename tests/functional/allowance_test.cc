// Allowances from outside: the real service, the software phone approving
// with a hold, agents that are real processes on the real socket, a local
// HTTPS server, and logind's own signals on a private system bus.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <thread>

#include "harness.h"
#include "https_upstream.h"
#include "paired_service.h"

namespace tolvanger::testing {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

const std::string kValue = "tv-allow-8c2e4f6a1b3d5e7f";

// Sets an environment variable for the test's lifetime; children inherit it.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    setenv(name, value.c_str(), 1);
  }
  ~ScopedEnv() {
    if (old_) {
      setenv(name_, old_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

// An agent in a process of its own, speaking the socket's lines.
class Agent {
 public:
  explicit Agent(const std::string& socket)
      : child_({TOLVANGER_LINE_AGENT_BIN, socket}) {}
  json call(const json& line) {
    EXPECT_TRUE(child_.write(line.dump() + "\n"));
    const auto reply = child_.readLine();
    return reply ? json::parse(*reply) : json();
  }
  // Ends the agent's process: its input closes and it exits.
  void end() { child_.wait(std::chrono::seconds(10)); }

 private:
  Child child_;
};

class Allowances : public PairedServiceTest {
 protected:
  // `bus` is what the service's DBUS_SYSTEM_BUS_ADDRESS names; by default a
  // path where no bus is.
  void start(const std::string& bus = "") {
    const std::string ca = dir_.file("ca.pem");
    upstream_.writeCA(ca);
    ScopedEnv system("DBUS_SYSTEM_BUS_ADDRESS",
                     bus.empty() ? "unix:path=" + dir_.file("no-bus") : bus);
    ASSERT_NO_FATAL_FAILURE(startPaired({"serve", "--quiet", "--test-ca", ca}));
    for (const char* name : {"upstream", "other"}) {
      ASSERT_NO_FATAL_FAILURE(addSecret(name, upstream_.netloc()));
    }
  }

  json ask(const std::string& path, const std::string& secret = "upstream") {
    return {{"op", "proxy.request"},
            {"request",
             {{"secret", secret},
              {"method", "GET"},
              {"url", "https://" + upstream_.netloc() + path}}}};
  }

  // The phone approves `id` with the value and a hold; gives its output.
  std::string approveHolding(const std::string& id, int seconds = 600) {
    const Ran approved =
        runPhone(phoneHome_, {"approve", id, "--hold", std::to_string(seconds)},
                 "approve\n" + kValue + "\n");
    EXPECT_EQ(approved.status, 0) << approved.err;
    return approved.out;
  }

  // Files a request from `agent`, has the phone approve it with a hold, and
  // performs it: an allowance is then open for that process.
  template <typename A>
  std::string openFor(A& agent, const std::string& secret = "upstream") {
    const json opened = agent.call(ask("/first", secret));
    EXPECT_EQ(opened["ok"], true) << opened;
    const std::string id = opened.value("request_id", "");
    EXPECT_NE(approveHolding(id).find(secret + " may be used again for "),
              std::string::npos);
    EXPECT_EQ(agent.call({{"op", "proxy.perform"}, {"id", id}})["status"], 200);
    return id;
  }

  std::string state(SocketClient& client, const std::string& id) {
    return client.call({{"op", "poll"}, {"id", id}}).value("state", "");
  }

  std::string journal() { return readFile(home_ + "/journal.log"); }

  // Waits for a journal line matching `pattern`.
  bool journalShows(const std::string& pattern) {
    const std::regex re(pattern);
    while (inBudget()) {
      if (std::regex_search(journal(), re)) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }

  HTTPSUpstream upstream_;
};

TEST_F(Allowances, OnlyTheSameProcessIsServedAtOnceAndItsEndEndsIt) {
  start();
  Agent agent(service_->socketPath());
  agent.call({{"op", "hello"}, {"client", "claude"}});
  const std::string first = openFor(agent);

  // The same process asks again: approved before any phone sees it, and
  // performed against the server with the value.
  const json again = agent.call(ask("/second"));
  ASSERT_EQ(again["ok"], true) << again;
  const std::string second = again["request_id"];
  EXPECT_EQ(agent.call({{"op", "poll"}, {"id", second}})["state"], "approved");
  const json performed = agent.call({{"op", "proxy.perform"}, {"id", second}});
  EXPECT_EQ(performed["status"], 200) << performed;
  const auto received = upstream_.received();
  ASSERT_EQ(received.size(), 2u);
  EXPECT_EQ(received[1].target, "/second");
  EXPECT_EQ(received[1].headers.at("authorization"), "Bearer " + kValue);

  // Another credential, and the same one from another process, still wait
  // for the phone.
  const json otherName = agent.call(ask("/third", "other"));
  EXPECT_EQ(
      agent.call({{"op", "poll"}, {"id", otherName["request_id"]}})["state"],
      "pending");
  SocketClient stranger(service_->socketPath());
  stranger.call({{"op", "hello"}, {"client", "claude"}});
  const json strange = stranger.call(ask("/second"));
  ASSERT_EQ(strange["ok"], true);
  EXPECT_EQ(state(stranger, strange["request_id"]), "pending");

  // The phone sees the allowance, drawn on once.
  const Ran listed = runPhone(phoneHome_, {"allowances"});
  ASSERT_EQ(listed.status, 0) << listed.err;
  EXPECT_TRUE(std::regex_search(
      listed.out,
      std::regex("^" + first + "\tupstream\tclaude\t(59\\d|600)\t1\n$")))
      << listed.out;

  // The agent's process ends: so does its allowance, without a request.
  agent.end();
  EXPECT_TRUE(
      journalShows(" allowance-ended client=claude credential=upstream "
                   "request=" +
                   first + " uses=1 why=session\n"))
      << journal();
  EXPECT_EQ(runPhone(phoneHome_, {"allowances"}).out, "");
  const std::string log = journal();
  EXPECT_NE(log.find(" allowed client=claude credential=upstream request=" +
                     first + " seconds=600\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find(" approved allowance=" + first +
                     " client=claude credential=upstream device="),
            std::string::npos)
      << log;
  EXPECT_NE(log.find(" request=" + second + " road=allowance\n"),
            std::string::npos);
  EXPECT_EQ(admin_->call({{"op", "status"}})["allowances"], 0);
  ASSERT_EQ(service_->stop(), 0);
  for (const std::string& file : filesBelow(home_)) {
    EXPECT_EQ(readFile(file).find(kValue), std::string::npos) << file;
  }
}

TEST_F(Allowances, ThePhoneEndsOneAndTheNextRequestWaitsAgain) {
  start();
  SocketClient agent(service_->socketPath());
  agent.call({{"op", "hello"}, {"client", "codex"}});
  const std::string first = openFor(agent);
  EXPECT_EQ(admin_->call({{"op", "status"}})["allowances"], 1);
  const json covered = agent.call(ask("/covered"));
  EXPECT_EQ(state(agent, covered["request_id"]), "approved");

  const Ran ended = runPhone(phoneHome_, {"end-allowance", first});
  ASSERT_EQ(ended.status, 0) << ended.err;
  EXPECT_NE(journal().find(" allowance-ended client=codex credential=upstream "
                           "request=" +
                           first + " uses=1 why=phone\n"),
            std::string::npos)
      << journal();
  const json after = agent.call(ask("/after"));
  EXPECT_EQ(state(agent, after["request_id"]), "pending");
  // Ending it again, or one that never was, says so.
  const Ran again = runPhone(phoneHome_, {"end-allowance", first});
  EXPECT_EQ(again.status, 1);
  EXPECT_NE(again.err.find("No allowance " + first + " is open"),
            std::string::npos)
      << again.err;
  ASSERT_EQ(service_->stop(), 0);
}

TEST_F(Allowances, StoppingTheServiceEndsEachOpenOne) {
  start();
  SocketClient agent(service_->socketPath());
  agent.call({{"op", "hello"}, {"client", "claude"}});
  const std::string one = openFor(agent, "upstream");
  const std::string two = openFor(agent, "other");
  EXPECT_EQ(admin_->call({{"op", "status"}})["allowances"], 2);
  ASSERT_EQ(service_->stop(), 0);
  const std::string log = journal();
  const size_t stopped = log.rfind(" stopped\n");
  for (const std::string& id : {one, two}) {
    const size_t at = log.find(" request=" + id + " uses=0 why=stopped\n");
    EXPECT_NE(at, std::string::npos) << log;
    EXPECT_LT(at, stopped);
  }
  // There was no system bus to watch, and the journal said so once.
  size_t notes = 0;
  for (size_t at = log.find("session-watch state=off why=no-system-bus");
       at != std::string::npos;
       at = log.find("session-watch state=off", at + 1)) {
    ++notes;
  }
  EXPECT_EQ(notes, 1u) << log;
}

// logind as a real D-Bus service (python-dbusmock's template) on a private
// bus that the service takes for the system bus.
class LogindBus {
 public:
  explicit LogindBus(const std::string& dir)
      : address_("unix:path=" + dir + "/system_bus_socket"),
        bus_({"/usr/bin/dbus-daemon", "--session", "--nofork", "--nopidfile",
              "--address=" + address_}),
        logind_({"/usr/bin/python3", "-m", "dbusmock", "--system", "--template",
                 "logind"},
                {{"DBUS_SYSTEM_BUS_ADDRESS", address_}}) {}

  const std::string& address() const { return address_; }

  // True once logind answers on the bus.
  bool ready() {
    while (inBudget()) {
      if (busctl({"call", "org.freedesktop.DBus", "/org/freedesktop/DBus",
                  "org.freedesktop.DBus", "NameHasOwner", "s",
                  "org.freedesktop.login1"})
              .find("true") != std::string::npos) {
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }

  // Calls one method of the mock on the bus; gives what busctl printed.
  std::string busctl(std::vector<std::string> args) {
    std::vector<std::string> argv = {"/usr/bin/busctl",
                                     "--address=" + address_};
    argv.insert(argv.end(), args.begin(), args.end());
    Child call(argv);
    return call.wait(std::chrono::seconds(10)).out;
  }
  std::string mock(const std::string& path, std::vector<std::string> args) {
    std::vector<std::string> all = {"call", "org.freedesktop.login1", path};
    all.insert(all.end(), args.begin(), args.end());
    return busctl(all);
  }

 private:
  std::string address_;
  Child bus_;
  Child logind_;
};

TEST_F(Allowances, SleepAndLockFromLogindEndThemAll) {
  ASSERT_TRUE(fs::exists("/usr/bin/dbus-daemon") &&
              fs::exists("/usr/lib/python3/dist-packages/dbusmock"))
      << "dbus-daemon and python3-dbusmock come from scripts/bootstrap.sh";
  LogindBus bus(dir_.path());
  ASSERT_TRUE(bus.ready());
  const std::string manager = "/org/freedesktop/login1";
  const std::string uid = std::to_string(getuid());
  bus.mock(manager, {"org.freedesktop.DBus.Mock", "AddSession", "ssusb", "c1",
                     "seat0", uid, "me", "true"});
  bus.mock(manager, {"org.freedesktop.DBus.Mock", "AddSession", "ssusb", "c2",
                     "seat1", std::to_string(getuid() + 1), "them", "true"});
  start(bus.address());
  SocketClient agent(service_->socketPath());
  agent.call({{"op", "hello"}, {"client", "claude"}});
  const auto emit = [&](const std::string& path, const std::string& method,
                        std::vector<std::string> args) {
    std::vector<std::string> all = {"org.freedesktop.DBus.Mock", method};
    all.insert(all.end(), args.begin(), args.end());
    bus.mock(path, all);
  };
  const auto sleep = [&](const std::string& going) {
    emit(manager, "EmitSignal",
         {"sssav", "org.freedesktop.login1.Manager", "PrepareForSleep", "b",
          "1", "b", going});
  };

  // Another user's session locking ends nothing; sleeping ends it.
  const std::string one = openFor(agent);
  bus.mock(manager + "/session/c2", {"org.freedesktop.login1.Session", "Lock"});
  sleep("true");
  EXPECT_TRUE(journalShows("request=" + one + " uses=0 why=sleep\n"))
      << journal();

  // Waking ends nothing; this user's session locking ends it.
  const std::string two = openFor(agent);
  sleep("false");
  bus.mock(manager + "/session/c1", {"org.freedesktop.login1.Session", "Lock"});
  EXPECT_TRUE(journalShows("request=" + two + " uses=0 why=lock\n"))
      << journal();

  const std::string three = openFor(agent);
  bus.mock(manager + "/session/c1",
           {"org.freedesktop.login1.Session", "SetLockedHint", "b", "true"});
  EXPECT_TRUE(journalShows("request=" + three + " uses=0 why=lock\n"))
      << journal();
  ASSERT_EQ(service_->stop(), 0);
  const std::string log = journal();
  EXPECT_EQ(log.find("session-watch"), std::string::npos) << log;
  EXPECT_EQ(log.find("why=stopped"), std::string::npos) << log;
}

}  // namespace
}  // namespace tolvanger::testing
