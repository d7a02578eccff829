// The desktop app's core and its terminal front against the real service,
// the software phone and the real agent clients' command lines.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "harness.h"
#include "https_upstream.h"
#include "tolvanger/appcore/app_model.h"
#include "tolvanger/appcore/reading.h"
#include "tolvanger/appcore/service_control.h"
#include "tolvanger/kit/build.h"

namespace tolvanger::testing {
namespace {

namespace fs = std::filesystem;
using app::AppModel;
using nlohmann::json;

// Sets an environment variable for the test's length.
class ScopedEnv {
 public:
  ScopedEnv(const char* key, const std::string& value) : key_(key) {
    const char* was = std::getenv(key);
    if (was != nullptr) was_ = was;
    ::setenv(key, value.c_str(), 1);
  }
  ~ScopedEnv() {
    if (was_) {
      ::setenv(key_, was_->c_str(), 1);
    } else {
      ::unsetenv(key_);
    }
  }

 private:
  const char* key_;
  std::optional<std::string> was_;
};

// Stops the service that the app started for this session, whatever the
// test's outcome: the pid is in the app's state directory.
class SessionServiceGuard {
 public:
  explicit SessionServiceGuard(std::string stateDir)
      : pidFile_(stateDir + "/tolvanger/session-service.pid") {}
  ~SessionServiceGuard() { stop(); }
  // SIGTERM, then a few seconds for a clean stop; true when it stopped.
  bool stop() {
    std::ifstream in(pidFile_);
    long pid = 0;
    if (!(in >> pid) || pid <= 1 || ::kill(static_cast<pid_t>(pid), 0) != 0) {
      return false;
    }
    ::kill(static_cast<pid_t>(pid), SIGTERM);
    // When this process started it, it is this process's to reap.
    auto gone = [&] {
      return ::waitpid(static_cast<pid_t>(pid), nullptr, WNOHANG) ==
                 static_cast<pid_t>(pid) ||
             ::kill(static_cast<pid_t>(pid), 0) != 0;
    };
    bool stopped = gone();
    for (int i = 0; i < 100 && !stopped; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      stopped = gone();
    }
    if (!stopped) ::kill(-static_cast<pid_t>(pid), SIGKILL);
    fs::remove(pidFile_);
    return stopped;
  }

 private:
  std::string pidFile_;
};

std::string nodeBin() {
  return std::string(TOLVANGER_NODE_TOOLS_DIR) + "/node_modules/.bin";
}

Ran runApp(const std::vector<std::string>& args,
           std::vector<std::pair<std::string, std::string>> env) {
  std::vector<std::string> argv = {TOLVANGER_APP_BIN};
  argv.insert(argv.end(), args.begin(), args.end());
  Child child(argv, std::move(env));
  return child.wait(std::chrono::seconds(60));
}

// A home made by the service's own init, listening on 127.0.0.1 only.
std::string preparedHome(const TempDir& dir) {
  const std::string home = dir.file("mac");
  EXPECT_EQ(runService(home, {"init", "--quiet"}), 0);
  useFreePort(home);
  return home;
}

TEST(AppModel, BringsTheServiceUpPairsAndProvesTheRoundTrip) {
  TempDir dir;
  const std::string home = preparedHome(dir);
  const std::string phoneHome = dir.file("phone");
  ScopedEnv tolvangerHome("TOLVANGER_HOME", home);
  SessionServiceGuard guard(dir.file("state"));

  AppModel::Options options;
  options.helper = TOLVANGER_SERVICE_BIN;
  options.socket = service::Home(home).socketPath();
  options.ownBuild = kBuildNumber;
  // No user bus in this environment: systemd's user manager cannot answer.
  options.manager = std::make_shared<app::SystemdUser>(
      options.helper, app::Environment{{"HOME", dir.path()}});
  options.env = {{"HOME", dir.path()}, {"PATH", "/usr/bin:/bin"}};
  options.stateDir = dir.file("state/tolvanger");
  AppModel model(options);
  std::set<std::string> changed;
  model.onChange([&](const std::string& field) { changed.insert(field); });

  model.start();
  EXPECT_FALSE(model.status().running);
  EXPECT_EQ(model.headline(), "The service is not answering");
  ASSERT_TRUE(model.bringUpService()) << model.lastError().value_or("");
  EXPECT_EQ(model.running(), AppModel::Running::thisSession);
  ASSERT_TRUE(model.note().has_value());
  EXPECT_NE(model.note()->find("No systemd user manager"), std::string::npos);
  EXPECT_EQ(model.status().build, kBuildNumber);
  EXPECT_FALSE(model.serviceIsOlder());
  EXPECT_EQ(model.headline(), "No phone yet");
  EXPECT_TRUE(changed.count("status"));
  // Bringing it up again finds it running and starts nothing more.
  ASSERT_TRUE(model.bringUpService());

  // A newer app sees this service as older; a status without a build would
  // count as build 0.
  AppModel::Options newer = options;
  newer.ownBuild = kBuildNumber + 1;
  AppModel newerModel(newer);
  newerModel.refresh();
  EXPECT_TRUE(newerModel.serviceIsOlder());

  // The hello carries the build too.
  SocketClient agent(options.socket);
  const json hello = agent.call({{"op", "hello"}, {"client", "claude"}});
  EXPECT_EQ(hello["build"], kBuildNumber);

  // Pairing: the window, the phone's offer with its code, the phone paired.
  model.openPairing();
  ASSERT_EQ(model.pairing().kind, app::PairingState::Kind::waiting);
  const Ran paired = runPhone(
      phoneHome, {"pair", model.pairing().url, "--name", "Pixel"}, "", [&] {
        while (inBudget() &&
               model.pairing().kind != app::PairingState::Kind::offered) {
          model.pump(std::chrono::milliseconds(100));
        }
        EXPECT_EQ(model.pairing().phone, "Pixel");
        return model.pairing().code + "\n";
      });
  ASSERT_EQ(paired.status, 0) << paired.err;
  while (inBudget() && model.pairing().kind != app::PairingState::Kind::done) {
    model.pump(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(model.pairing().kind, app::PairingState::Kind::done);
  ASSERT_EQ(model.status().phones.size(), 1u);
  EXPECT_EQ(model.status().phones[0].name, "Pixel");
  EXPECT_EQ(model.headline(), "Nothing to approve");
  EXPECT_EQ(model.detail(), "Your phone has not announced a secret yet.");

  model.nudgePhoneForSecret();
  EXPECT_EQ(model.note(),
            "Asked your phone. Open Tolvanger on it and it lands on Secrets.");
  const Ran added =
      runPhone(phoneHome, {"secrets", "add", "demo", "--host", "example.com"},
               "demo-value\n");
  ASSERT_EQ(added.status, 0) << added.err;
  model.refresh();
  EXPECT_EQ(model.status().secrets, std::vector<std::string>{"demo"});
  EXPECT_EQ(model.facts().secrets, 1);

  // The round trip, approved on the phone.
  model.runTrial();
  ASSERT_EQ(model.trial().kind, app::Trial::Kind::waiting)
      << model.trial().text;
  model.refresh();
  ASSERT_EQ(model.pending().size(), 1u);
  EXPECT_EQ(model.pending()[0].id, model.trial().id);
  EXPECT_EQ(model.headline(), "Look at your phone");
  const Ran approved =
      runPhone(phoneHome, {"approve", model.trial().id}, "approve\n");
  ASSERT_EQ(approved.status, 0) << approved.err;
  while (inBudget() && model.trial().kind == app::Trial::Kind::waiting) {
    model.pump(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(model.trial().kind, app::Trial::Kind::passed) << model.trial().text;
  EXPECT_TRUE(model.facts().proved);

  // A denial ends the test with its sentence.
  model.runTrial();
  ASSERT_EQ(model.trial().kind, app::Trial::Kind::waiting);
  ASSERT_EQ(runPhone(phoneHome, {"deny", model.trial().id}).status, 0);
  while (inBudget() && model.trial().kind == app::Trial::Kind::waiting) {
    model.pump(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(model.trial().text,
            "The phone said no. That is the button working.");

  // An agent's request that it calls off, and the clients list.
  const json opened = agent.call({{"op", "request"}, {"operation", "deploy"}});
  agent.call({{"op", "cancel"}, {"id", opened["request_id"]}});
  model.refresh();
  bool sawClaude = false;
  for (const auto& c : model.clients()) sawClaude |= c.client == "claude";
  EXPECT_TRUE(sawClaude);
  ASSERT_FALSE(model.journal().empty());
  EXPECT_LE(model.journal().size(), 24u);

  ASSERT_TRUE(guard.stop());

  // Every line of the journal this run wrote reads as a sentence.
  std::set<std::string> words;
  std::istringstream journal(readFile(home + "/journal.log"));
  for (std::string line; std::getline(journal, line);) {
    const app::Reading r = app::Reading::of(line);
    words.insert(line.substr(20, line.find(' ', 20) - 20));
    EXPECT_FALSE(r.clock.empty()) << line;
    EXPECT_EQ(r.plain.find('='), std::string::npos) << line << " → " << r.plain;
  }
  for (const char* word :
       {"started", "paired", "nudged", "secrets", "raised", "approved",
        "redeemed", "denied", "cancelled", "stopped"}) {
    EXPECT_TRUE(words.count(word)) << word;
  }
  // The app's debug lines went to its log in the journal's format.
  const std::string log = readFile(dir.file("state/tolvanger/app.log"));
  EXPECT_TRUE(std::regex_search(
      log,
      std::regex("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d first run: ")))
      << log;
}

TEST(AppFront, WiresTheRealClientsAndTakesItBackOut) {
  ASSERT_EQ(::access((nodeBin() + "/claude").c_str(), X_OK), 0)
      << "the agent clients' CLIs are not in " << nodeBin()
      << "; configure with -DTOLVANGER_NODE_TOOLS_DIR=<the bootstrap's folder>";
  TempDir dir;
  const std::string home = preparedHome(dir);
  ServiceProcess service(home);
  ASSERT_TRUE(service.waitForSocket());
  const std::string scratch = dir.file("client");
  fs::create_directories(scratch + "/.codex");
  const std::string claudeBefore = "{\"numStartups\": 3}";
  const std::string codexBefore = "# mine\nmodel = \"o3\"\n";
  std::ofstream(scratch + "/.claude.json") << claudeBefore;
  std::ofstream(scratch + "/.codex/config.toml") << codexBefore;
  const std::vector<std::pair<std::string, std::string>> env = {
      {"TOLVANGER_CLIENT_HOME", scratch},
      {"TOLVANGER_HOME", home},
      {"XDG_STATE_HOME", dir.file("state")},
      {"PATH", nodeBin() + ":/usr/bin:/bin"}};
  // The clients' own command lines, as a person would run them.
  const std::vector<std::pair<std::string, std::string>> clientEnv = {
      {"HOME", scratch},
      {"CODEX_HOME", scratch + "/.codex"},
      {"TOLVANGER_HOME", home}};
  auto list = [&](const char* cli) {
    Child child({nodeBin() + "/" + cli, "mcp", "list"}, clientEnv);
    return child.wait(std::chrono::seconds(30));
  };

  Ran wired = runApp({"wire", "claude"}, env);
  ASSERT_EQ(wired.status, 0) << wired.out << wired.err;
  EXPECT_NE(wired.out.find("A new claude session picks it up."),
            std::string::npos);
  // Wiring again replaces the entry rather than failing on it.
  wired = runApp({"wire", "claude"}, env);
  ASSERT_EQ(wired.status, 0) << wired.out << wired.err;
  Ran listed = list("claude");
  EXPECT_TRUE(std::regex_search(listed.out,
                                std::regex("tolvanger: .*tolvanger-service "
                                           "mcp --client claude.*Connected")))
      << listed.out << listed.err;

  wired = runApp({"wire", "codex"}, env);
  ASSERT_EQ(wired.status, 0) << wired.out << wired.err;
  listed = list("codex");
  EXPECT_TRUE(
      std::regex_search(listed.out, std::regex("(^|\\n)tolvanger .*enabled")))
      << listed.out << listed.err;
  EXPECT_NE(readFile(scratch + "/.codex/config.toml")
                .find(std::string("command = \"") + TOLVANGER_SERVICE_BIN),
            std::string::npos);

  const Ran status = runApp({"status"}, env);
  EXPECT_EQ(status.status, 0) << status.err;
  EXPECT_NE(status.out.find("claude    wired in ~/.claude.json"),
            std::string::npos)
      << status.out;
  EXPECT_NE(status.out.find("codex     wired in ~/.codex/config.toml"),
            std::string::npos)
      << status.out;
  EXPECT_NE(status.out.find("Build " + std::to_string(kBuildNumber)),
            std::string::npos)
      << status.out;

  for (const char* cli : {"claude", "codex"}) {
    const Ran unwired = runApp({"unwire", cli}, env);
    EXPECT_EQ(unwired.status, 0) << unwired.out << unwired.err;
    EXPECT_EQ(list(cli).out.find("tolvanger"), std::string::npos) << cli;
  }
  EXPECT_EQ(readFile(scratch + "/.claude.json.tolvanger.bak"), claudeBefore);
  EXPECT_EQ(readFile(scratch + "/.codex/config.toml.tolvanger.bak"),
            codexBefore);

  // Without the CLIs on PATH the files are edited by hand, and a file of the
  // wrong shape is refused with its sentence and left as it was.
  std::ofstream(scratch + "/.claude.json", std::ios::trunc) << "[1]";
  auto bare = env;
  bare.back().second = "/usr/bin:/bin";
  const Ran refused = runApp({"wire", "claude"}, bare);
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("that file is not JSON we could read"),
            std::string::npos)
      << refused.err;
  EXPECT_EQ(readFile(scratch + "/.claude.json"), "[1]");
  EXPECT_EQ(runApp({"wire", "codex"}, bare).status, 0);
  EXPECT_NE(readFile(scratch + "/.codex/config.toml")
                .find("args = [\"mcp\", \"--client\", \"codex\"]"),
            std::string::npos);
  EXPECT_EQ(runApp({"wire", "nobody"}, bare).status, 2);
}

TEST(AppFront, ReadsTheJournalAndWhatWaits) {
  TempDir dir;
  const std::string home = preparedHome(dir);
  HTTPSUpstream upstream;
  upstream.writeCA(dir.file("ca.pem"));
  ServiceProcess service(home,
                         {"serve", "--quiet", "--test-ca", dir.file("ca.pem")});
  ASSERT_TRUE(service.waitForSocket());
  const std::vector<std::pair<std::string, std::string>> env = {
      {"TOLVANGER_HOME", home}, {"XDG_STATE_HOME", dir.file("state")}};
  EXPECT_EQ(runApp({"pending"}, env).out, "Nothing waits for your phone.\n");
  // The journal in plain English, and followed as it grows.
  const Ran journal = runApp({"journal"}, env);
  EXPECT_EQ(journal.status, 0) << journal.err;
  EXPECT_TRUE(std::regex_search(journal.out,
                                std::regex("\\d\\d:\\d\\d  Tolvanger started")))
      << journal.out;
  EXPECT_NE(runApp({"journal", "--raw"}, env).out.find(" started listen="),
            std::string::npos);
  {
    std::vector<std::string> argv = {TOLVANGER_APP_BIN, "journal", "-f"};
    Child follow(argv, env);
    ASSERT_TRUE(follow.readLine().has_value());
    SocketClient admin(service.socketPath());
    admin.call({{"op", "hello"}, {"role", "admin"}});
    const int port =
        json::parse(readFile(home + "/config.json"))["listen_port"];
    ASSERT_EQ(pairPhone(admin, dir.file("phone"), port).status, 0);
    std::optional<std::string> line;
    while ((line = follow.readLine(bounded(std::chrono::seconds(10)))) &&
           line->find("A phone paired with this computer") ==
               std::string::npos) {
    }
    EXPECT_TRUE(line.has_value()) << "journal -f did not follow";
  }
  SocketClient agent(service.socketPath());
  agent.call({{"op", "hello"}, {"client", "codex"}});
  ASSERT_EQ(agent.call({{"op", "request"}, {"operation", "deploy.prod"}})["ok"],
            true);
  const Ran waiting = runApp({"pending"}, env);
  EXPECT_EQ(waiting.status, 0) << waiting.err;
  EXPECT_TRUE(std::regex_search(waiting.out, std::regex("\\S+  deploy")))
      << waiting.out;

  // A brokered call, approved with a value, performed and spent.
  const std::string phone = dir.file("phone");
  ASSERT_EQ(runPhone(phone, {"secrets", "add", "upstream", "--kind", "bearer",
                             "--host", upstream.netloc()})
                .status,
            0);
  const json opened =
      agent.call({{"op", "proxy.request"},
                  {"request",
                   {{"secret", "upstream"},
                    {"method", "GET"},
                    {"url", "https://" + upstream.netloc() + "/status/200"}}}});
  ASSERT_EQ(opened["ok"], true) << opened;
  const std::string value = "tv-journal-3c5e9a17";
  ASSERT_EQ(runPhone(phone, {"approve", opened["request_id"]},
                     "approve\n" + value + "\n")
                .status,
            0);
  EXPECT_EQ(
      agent.call({{"op", "proxy.perform"}, {"id", opened["request_id"]}})["ok"],
      true);
  const Ran read = runApp({"journal"}, env);
  EXPECT_NE(read.out.find("codex asked for upstream"), std::string::npos)
      << read.out;
  EXPECT_NE(read.out.find("You approved upstream for codex"),
            std::string::npos);
  EXPECT_NE(read.out.find("came back with status 200"), std::string::npos);
  EXPECT_NE(read.out.find("upstream was spent for codex, nothing kept"),
            std::string::npos);
  EXPECT_NE(read.out.find("Your phone added upstream"), std::string::npos);
  EXPECT_EQ(read.out.find(value), std::string::npos);
  // No line of it falls back to the raw form.
  std::istringstream lines(read.out);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_TRUE(std::regex_match(line, std::regex("\\d\\d:\\d\\d  [^=]+")))
        << line;
  }
}

TEST(AppFront, OneInstallStepPutsTheProgramsTogetherAndTheyNameEachOther) {
  TempDir dir;
  const std::string prefix = dir.file("local");
  Child install(
      {TOLVANGER_CMAKE, "--install", TOLVANGER_BUILD_DIR, "--prefix", prefix});
  const Ran installed = install.wait(std::chrono::seconds(60));
  ASSERT_EQ(installed.status, 0) << installed.out << installed.err;
  for (const char* name :
       {"tolvanger", "tolvanger-service", "tolvanger-phone"}) {
    EXPECT_EQ(::access((prefix + "/bin/" + name).c_str(), X_OK), 0) << name;
  }
  const std::string scratch = dir.file("client");
  fs::create_directories(scratch);
  Child wire({prefix + "/bin/tolvanger", "wire", "codex"},
             {{"TOLVANGER_CLIENT_HOME", scratch},
              {"XDG_STATE_HOME", dir.file("state")},
              {"PATH", "/usr/bin:/bin"}});
  ASSERT_EQ(wire.wait().status, 0);
  EXPECT_EQ(readFile(scratch + "/.codex/config.toml"),
            "[mcp_servers.tolvanger]\n"
            "command = \"" +
                prefix +
                "/bin/tolvanger-service\"\n"
                "args = [\"mcp\", \"--client\", \"codex\"]\n");
}

TEST(AppFront, TheUserUnitPassesSystemdsOwnCheck) {
  TempDir dir;
  // A path with a blank, a percent sign and a dollar needs systemd's quoting.
  const std::string odd = dir.file("my tools 100%$x");
  fs::create_directories(odd);
  fs::copy_file(TOLVANGER_SERVICE_BIN, odd + "/tolvanger-service");
  const std::string unit = dir.file("tolvanger.service");
  std::ofstream(unit) << app::SystemdUser::unitText(
      odd + "/tolvanger-service", std::string(dir.file("home dir")));
  Child verify({"/usr/bin/systemd-analyze", "verify", unit});
  const Ran ran = verify.wait(std::chrono::seconds(30));
  EXPECT_EQ(ran.status, 0) << ran.out << ran.err;
  EXPECT_EQ(ran.err.find("tolvanger.service"), std::string::npos) << ran.err;
  // A unit that names a missing program is what the check exists to catch.
  std::ofstream(unit, std::ios::trunc)
      << app::SystemdUser::unitText(dir.file("missing"), std::nullopt);
  Child bad({"/usr/bin/systemd-analyze", "verify", unit});
  EXPECT_NE(bad.wait(std::chrono::seconds(30)).status, 0);
}

}  // namespace
}  // namespace tolvanger::testing
