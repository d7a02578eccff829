// Black-box tests of tolvanger-service: the real executable, started in a
// temporary home, spoken to over its real socket from this process.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include "harness.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/service/agent_session.h"
#include "tolvanger/service/devices.h"
#include "tolvanger/service/home.h"

namespace tolvanger::testing {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

int modeOf(const std::string& path) {
  struct stat st = {};
  if (::stat(path.c_str(), &st) != 0) return -1;
  return st.st_mode & 0777;
}

// Writes a paired phone into the home's devices.json, as pairing would.
void pairPhone(const std::string& home) {
  service::Devices devices{service::Home(home)};
  service::Device phone;
  phone.deviceID = "phone-1";
  phone.name = "Test Phone";
  phone.spki = crypto::P256PrivateKey::generate().publicKey().der();
  phone.pq = crypto::MLDSA65PrivateKey::generate().publicKey().raw();
  phone.secret = Random::hex(24);
  phone.pairedAt = 1760000000;
  devices.put(phone);
}

std::vector<std::string> journalLines(const std::string& home) {
  std::vector<std::string> lines;
  std::istringstream in(readFile(home + "/journal.log"));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

bool journalHas(const std::string& home, const std::string& pattern) {
  const std::regex re(pattern);
  for (const auto& line : journalLines(home)) {
    if (std::regex_search(line, re)) return true;
  }
  return false;
}

TEST(ServiceProcess, InitMakesAPrivateHomeAndIsQuietAndKeepsConfig) {
  TempDir dir;
  const std::string home = dir.file("home");
  std::string out, err;
  ASSERT_EQ(runService(home, {"init", "--quiet"}, &out, &err), 0) << err;
  EXPECT_EQ(out, "");
  EXPECT_EQ(err, "");
  EXPECT_EQ(modeOf(home), 0700);
  for (const char* f : {"config.json", "identity.bin", "identity-pq.bin"}) {
    EXPECT_EQ(modeOf(home + "/" + f), 0600) << f;
  }
  EXPECT_EQ(readFile(home + "/identity.bin").size(), 32u);
  EXPECT_EQ(readFile(home + "/identity-pq.bin").size(), 32u);
  const std::string config = readFile(home + "/config.json");
  const std::string key = readFile(home + "/identity.bin");
  ASSERT_EQ(runService(home, {"init", "--quiet"}), 0);
  EXPECT_EQ(readFile(home + "/config.json"), config);
  EXPECT_EQ(readFile(home + "/identity.bin"), key);
}

TEST(ServiceProcess, InitReportsOneLineWhenTheHomeCannotBeMade) {
  TempDir dir;
  const std::string blocker = dir.file("file");
  { std::ofstream(blocker) << "x"; }
  std::string out, err;
  EXPECT_NE(runService(blocker + "/home", {"init", "--quiet"}, &out, &err), 0);
  EXPECT_EQ(out, "");
  ASSERT_FALSE(err.empty());
  EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
}

TEST(ServiceProcess, ServeWritesStartedAndStoppedAndRemovesTheSocket) {
  TempDir dir;
  const std::string home = dir.file("home");
  ASSERT_EQ(runService(home, {"init", "--quiet"}), 0);
  const int port = useFreePort(home);
  {
    ServiceProcess service(home);
    ASSERT_TRUE(service.waitForSocket());
    EXPECT_EQ(modeOf(service.socketPath()), 0140600 & 0777);
    EXPECT_EQ(service.stop(), 0);
  }
  EXPECT_FALSE(std::filesystem::exists(service::Home(home).socketPath()));
  EXPECT_TRUE(journalHas(
      home,
      R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d started listen=127\.0\.0\.1 port=)" +
          std::to_string(port) + R"( sealed=true socket=\S+tolvanger\.sock$)"));
  EXPECT_TRUE(journalHas(home, R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d stopped$)"));
}

TEST(ServiceProcess, AStaleSocketFileDoesNotBlockTheStart) {
  TempDir dir;
  const std::string home = dir.file("home");
  ASSERT_EQ(runService(home, {"init", "--quiet"}), 0);
  useFreePort(home);
  { std::ofstream(service::Home(home).socketPath()) << "stale"; }
  ServiceProcess service(home);
  EXPECT_TRUE(service.waitForSocket());
}

class AgentSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    home_ = dir_.file("home");
    ASSERT_EQ(runService(home_, {"init", "--quiet"}), 0);
    port_ = useFreePort(home_);
  }
  void start() {
    service_ = std::make_unique<ServiceProcess>(home_);
    ASSERT_TRUE(service_->waitForSocket());
  }
  json hello(SocketClient& c, const std::string& role = "agent") {
    return c.call({{"op", "hello"}, {"role", role}, {"client", "claude"}});
  }

  TempDir dir_;
  std::string home_;
  int port_ = 0;
  std::unique_ptr<ServiceProcess> service_;
};

TEST_F(AgentSocketTest, HelloStatusAndTheProtocolsRefusals) {
  start();
  SocketClient c(service_->socketPath());
  EXPECT_EQ(c.call({{"op", "status"}}),
            (json{{"ok", false}, {"error", "say hello first"}}));
  EXPECT_EQ(c.call({{"nop", 1}})["error"], "that is not an op");
  ASSERT_TRUE(c.sendRaw("this is not json\n\n"));
  EXPECT_EQ((*c.readLine())["error"], "that is not an op");

  const json h = c.call({{"op", "hello"}, {"client", std::string(33, 'a')}});
  EXPECT_EQ(h["ok"], true);
  EXPECT_EQ(h["scope"], "agent");
  EXPECT_EQ(h["client"], "");
  EXPECT_EQ(h["agent"], "functional_tests");
  EXPECT_EQ(h["version"], 1);
  EXPECT_EQ(h["devices"], json::array());
  EXPECT_EQ(h["fingerprint"].get<std::string>().size(), 19u);

  EXPECT_EQ(c.call({{"op", "ping"}}), (json{{"ok", true}, {"pong", true}}));
  EXPECT_EQ(c.call({{"op", "journal.tail"}})["error"],
            "that needs the admin role");
  EXPECT_EQ(c.call({{"op", "pair.open"}})["error"],
            "that needs the admin role");
  EXPECT_EQ(c.call({{"op", "nosuchthing"}})["error"], "no such op");
  EXPECT_EQ(c.call({{"op", "request"}})["error"], "no operation named");
  EXPECT_EQ(c.call({{"op", "request"}, {"operation", "deploy"}})["error"],
            "no phone is paired with this Mac");
  EXPECT_EQ(c.call({{"op", "redeem"}})["error"], "no request named");
  EXPECT_EQ(c.call({{"op", "redeem"}, {"id", "r0000000000000000"}})["error"],
            "no such request");
  EXPECT_EQ(c.call({{"op", "poll"}, {"id", "r0000000000000000"}}),
            (json{{"ok", true}, {"state", "unknown"}}));

  // A later hello may raise the peer to admin.
  EXPECT_EQ(hello(c, "admin")["scope"], "admin");
  const json tail = c.call({{"op", "journal.tail"}, {"lines", 0}});
  EXPECT_EQ(tail["lines"].size(), 1u);
  const json clients = c.call({{"op", "clients"}});
  EXPECT_EQ(clients["connected"], true);
  // Only the first hello names the caller; its client was unusable.
  EXPECT_EQ(clients["clients"][0]["client"], "");
  EXPECT_EQ(clients["clients"][0]["scope"], "agent");
}

TEST_F(AgentSocketTest, RequestPollCancelRedeemAndTheDecidedEvent) {
  pairPhone(home_);
  start();
  SocketClient agent(service_->socketPath());
  hello(agent);
  const json opened =
      agent.call({{"op", "request"},
                  {"operation", "deploy.prod"},
                  {"fields", {{"reason", "ship it"}, {"agent", "forged"}}},
                  {"ttl_s", 1}});
  ASSERT_EQ(opened["ok"], true) << opened;
  const std::string id = opened["request_id"];
  EXPECT_TRUE(std::regex_match(id, std::regex("r[0-9a-f]{16}")));
  EXPECT_EQ(opened["summary"], "deploy.prod — ship it");
  EXPECT_EQ(opened["push"], false);
  EXPECT_EQ(opened["digest"].get<std::string>().size(), 64u);

  const auto before = std::chrono::steady_clock::now();
  const json polled = agent.call({{"op", "poll"}, {"id", id}, {"wait", 1}});
  EXPECT_GE(std::chrono::steady_clock::now() - before,
            std::chrono::milliseconds(900));
  EXPECT_EQ(polled["state"], "pending");
  EXPECT_EQ(polled["credential_waiting"], false);
  // ttl_s of 1 is clamped up to the minimum life of a request.
  EXPECT_GE(polled["expires_at"].get<int64_t>() - time(nullptr), 100);

  EXPECT_EQ(agent.call({{"op", "redeem"}, {"id", id}})["error"],
            "that request is pending");
  EXPECT_EQ(agent.call({{"op", "cancel"}, {"id", id}}),
            (json{{"ok", true}, {"state", "cancelled"}}));
  EXPECT_EQ(agent.call({{"op", "cancel"}, {"id", id}})["error"],
            "that request was already cancelled");
  EXPECT_EQ(agent.call({{"op", "poll"}, {"id", id}})["state"], "cancelled");

  SocketClient admin(service_->socketPath());
  hello(admin, "admin");
  const json second =
      agent.call({{"op", "request"}, {"operation", "deploy.prod"}});
  const json pending = admin.call({{"op", "request.pending"}});
  ASSERT_EQ(pending["requests"].size(), 1u);
  EXPECT_EQ(pending["requests"][0]["id"], second["request_id"]);
  EXPECT_EQ(pending["requests"][0]["client"], "claude");

  EXPECT_EQ(agent.call({{"op", "subscribe"}}),
            (json{{"ok", true}, {"subscribed", true}}));
  EXPECT_EQ(agent.call({{"op", "subscribe"}})["subscribed"], true);
  // Forgetting the only phone, then nudging, exercises the admin ops.
  EXPECT_EQ(admin.call({{"op", "nudge.raise"}, {"kind", "other"}})["error"],
            "this Mac has nothing to nudge a phone about called other");
  const json nudge = admin.call({{"op", "nudge.raise"}});
  EXPECT_EQ(nudge["kind"], "secret");
  EXPECT_EQ(
      admin.call({{"op", "device.forget"}, {"id", "phone-1"}})["forgotten"],
      true);
  EXPECT_EQ(
      admin.call({{"op", "device.forget"}, {"id", "phone-1"}})["forgotten"],
      false);

  ASSERT_EQ(service_->stop(), 0);
  EXPECT_TRUE(journalHas(home_,
                         " raised client=claude credential=- off-profile=false "
                         "operation=deploy.prod request=" +
                             id + "$"));
  EXPECT_TRUE(
      journalHas(home_, " cancelled client=claude request=" + id + "$"));
  EXPECT_TRUE(journalHas(home_, " nudged kind=secret nudge=[0-9a-f]{16}$"));
}

TEST_F(AgentSocketTest, ALineOverTheLimitIsRefusedAndClosesTheConnection) {
  start();
  SocketClient c(service_->socketPath());
  // Exactly the limit with no line feed is kept...
  ASSERT_TRUE(c.sendRaw(std::string(service::AgentSession::kMaxLine, 'x')));
  EXPECT_FALSE(c.closedByPeer(std::chrono::milliseconds(300)));
  // ...one byte more is not.
  ASSERT_TRUE(c.sendRaw("x"));
  const auto reply = c.readLine();
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(*reply, (json{{"ok", false}, {"error", "that line is too long"}}));
  EXPECT_TRUE(c.closedByPeer());
  // The service goes on serving others.
  SocketClient d(service_->socketPath());
  EXPECT_EQ(hello(d)["ok"], true);
}

// An agent whose executable's name holds a blank and "=" says hello without
// a client and names one in its request's fields: the request carries the
// service's knowledge of the peer, and no journal line gains an item.
TEST_F(AgentSocketTest, ACallerCannotNameItsClientOrForgeAJournalItem) {
  pairPhone(home_);
  start();
  const std::string program = dir_.file("evil agent=x credential=forged");
  fs::copy_file(TOLVANGER_LINE_AGENT_BIN, program);
  fs::permissions(program, fs::perms::owner_all);
  Child agent({program, service_->socketPath()});
  const auto call = [&](const json& line) {
    EXPECT_TRUE(agent.write(line.dump() + "\n"));
    const auto reply = agent.readLine();
    return reply ? json::parse(*reply) : json();
  };
  const json forged = {{"client", "claude credential=forged request=rfake"},
                       {"agent", "someone else"},
                       {"reason", "ship it"}};
  EXPECT_EQ(call({{"op", "hello"}})["agent"], "evil-agent-x-credential-forged");
  const json first = call(
      {{"op", "request"}, {"operation", "deploy.prod"}, {"fields", forged}});
  ASSERT_EQ(first["ok"], true) << first;

  SocketClient admin(service_->socketPath());
  hello(admin, "admin");
  const json pending = admin.call({{"op", "request.pending"}});
  ASSERT_EQ(pending["requests"].size(), 1u);
  EXPECT_EQ(pending["requests"][0]["client"], "");

  // With a client of its own, that one stands in the request instead.
  EXPECT_EQ(call({{"op", "hello"}, {"client", "codex"}})["client"], "codex");
  const json second = call(
      {{"op", "request"}, {"operation", "deploy.prod"}, {"fields", forged}});
  ASSERT_EQ(second["ok"], true) << second;
  agent.wait();

  ASSERT_EQ(service_->stop(), 0);
  const std::string clock = "^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d";
  EXPECT_TRUE(journalHas(home_, clock +
                                    " raised client=- credential=- "
                                    "off-profile=false operation=deploy.prod "
                                    "request=" +
                                    first["request_id"].get<std::string>() +
                                    "$"));
  EXPECT_TRUE(journalHas(home_, clock +
                                    " raised client=codex credential=- "
                                    "off-profile=false operation=deploy.prod "
                                    "request=" +
                                    second["request_id"].get<std::string>() +
                                    "$"));
  EXPECT_FALSE(journalHas(home_, "forged|rfake"));
}

TEST_F(AgentSocketTest, AnotherAccountIsRefusedAndJournaled) {
  if (::geteuid() != 0)
    GTEST_SKIP() << "needs root to connect as another account";
  start();
  // Let the other account reach the socket through a link in an open folder;
  // the service's own check on the peer's uid must still refuse it.
  TempDir open;
  ::chmod(open.path().c_str(), 0777);
  ::chmod(service_->socketPath().c_str(), 0666);
  const std::string link = open.file("sock");
  ASSERT_EQ(::link(service_->socketPath().c_str(), link.c_str()), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(3);
    SocketClient c(link);
    if (!c.connected()) ::_exit(4);
    c.send({{"op", "hello"}});
    ::_exit(c.readLine(std::chrono::seconds(5)).has_value() ? 5 : 0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  ASSERT_EQ(service_->stop(), 0);
  EXPECT_TRUE(journalHas(home_, " socket-refused uid=65534 why=uid$"));
}

}  // namespace
}  // namespace tolvanger::testing
