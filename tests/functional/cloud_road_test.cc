// The cloud road from outside: the real service with a folder container, and
// the software phone told to use the same folder, with the service's phone
// listener moved where the phone's saved address no longer reaches it. The
// phone lists, shows and approves with a credential through records alone,
// and the agent's call reaches the local HTTPS server with it.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"
#include "https_upstream.h"

namespace tolvanger::testing {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

const std::string kValue = "tv-cloud-8c2e71d04b9a";

size_t count(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos;
       at = text.find(needle, at + 1)) {
    ++n;
  }
  return n;
}

class CloudRoad : public ::testing::Test {
 protected:
  void SetUp() override {
    home_ = dir_.file("mac");
    phoneHome_ = dir_.file("phone");
    folder_ = dir_.file("shared");
    fs::create_directory(folder_);
    ASSERT_EQ(runService(home_, {"init", "--quiet"}), 0);
    setContainer("folder:" + folder_);
    const int port = useFreePort(home_);
    upstream_.writeCA(dir_.file("ca.pem"));
    start();
    // Pairing needs the local network once.
    const Ran paired = pairPhone(*admin_, phoneHome_, port);
    ASSERT_EQ(paired.status, 0) << paired.err;
    // Then the listener moves: the phone's saved address reaches nothing.
    service_.reset();
    useFreePort(home_);
    start();
    ASSERT_TRUE(waitForJournal(" cloud card=published", 1 + 1));
    const Ran added = phone({"secrets", "add", "upstream", "--kind", "bearer",
                             "--host", upstream_.netloc()});
    ASSERT_EQ(added.status, 0) << added.err;
  }

  void setContainer(const std::string& container) {
    const std::string path = home_ + "/config.json";
    json config = json::parse(readFile(path));
    config["cloud"]["container"] = container;
    std::ofstream(path) << config.dump(2);
  }

  void start() {
    service_ = std::make_unique<ServiceProcess>(
        home_, std::vector<std::string>{"serve", "--quiet", "--test-ca",
                                        dir_.file("ca.pem")});
    ASSERT_TRUE(service_->waitForSocket());
    admin_ = std::make_unique<SocketClient>(service_->socketPath());
    ASSERT_EQ(admin_->call({{"op", "hello"}, {"role", "admin"}})["ok"], true);
  }

  Ran phone(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(),
                {"--cloud",
                 "folder:" + (phoneFolder_.empty() ? folder_ : phoneFolder_)});
    return runPhone(phoneHome_, args, input);
  }

  std::string journal() const { return readFile(home_ + "/journal.log"); }

  bool waitForJournal(const std::string& needle, size_t times = 1) {
    while (inBudget()) {
      if (count(journal(), needle) >= times) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }

  json cloudStatus() { return admin_->call({{"op", "status"}})["cloud"]; }

  std::string openRequest(SocketClient& agent) {
    const json opened = agent.call(
        {{"op", "proxy.request"},
         {"request",
          {{"secret", "upstream"},
           {"method", "GET"},
           {"url", "https://" + upstream_.netloc() + "/v1/items"}}}});
    EXPECT_EQ(opened["ok"], true) << opened;
    return opened.value("request_id", "");
  }

  HTTPSUpstream upstream_;
  TempDir dir_;
  std::string home_, phoneHome_, folder_;
  // The phone's own copy of the folder, when a sync engine keeps the two.
  std::string phoneFolder_;
  std::unique_ptr<ServiceProcess> service_;
  std::unique_ptr<SocketClient> admin_;
};

TEST_F(CloudRoad, APhoneAwayListsShowsAndApprovesAndTheAgentPerforms) {
  SocketClient agent(service_->socketPath());
  ASSERT_EQ(agent.call({{"op", "hello"}, {"client", "claude"}})["ok"], true);
  const std::string id = openRequest(agent);
  ASSERT_FALSE(id.empty());
  // The service left a notice for the phone.
  EXPECT_TRUE(waitForJournal(" cloud notify=notify-" + id));

  const Ran listed = phone({"pending"});
  ASSERT_EQ(listed.status, 0) << listed.err;
  EXPECT_NE(listed.out.find(id), std::string::npos) << listed.out;
  const Ran shown = phone({"show", id});
  ASSERT_EQ(shown.status, 0) << shown.err;
  EXPECT_NE(shown.out.find(upstream_.netloc()), std::string::npos);
  const Ran approved = phone({"approve", id}, "approve\n" + kValue + "\n");
  ASSERT_EQ(approved.status, 0) << approved.err;

  const json performed = agent.call({{"op", "proxy.perform"}, {"id", id}});
  EXPECT_EQ(performed["status"], 200) << performed;
  const auto received = upstream_.received();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].headers.at("authorization"), "Bearer " + kValue);

  const std::string log = journal();
  EXPECT_NE(log.find(" cloud call=POST%20/v1/approve"), std::string::npos)
      << log;
  EXPECT_NE(log.find("road=cloud"), std::string::npos) << log;
  EXPECT_NE(log.find(" cloud state=up"), std::string::npos);
  EXPECT_EQ(log.find(kValue), std::string::npos);
  for (const std::string& file : filesBelow(folder_)) {
    EXPECT_EQ(readFile(file).find(kValue), std::string::npos) << file;
  }
  EXPECT_EQ(cloudStatus()["connected"], true);
  EXPECT_EQ(cloudStatus()["container"], "folder:" + folder_);
}

TEST_F(CloudRoad, AnOutageAndItsRecoveryShowInJournalAndStatus) {
  SocketClient agent(service_->socketPath());
  ASSERT_EQ(agent.call({{"op", "hello"}, {"client", "claude"}})["ok"], true);
  // A pending request keeps the pump's naps short.
  ASSERT_FALSE(openRequest(agent).empty());
  // The service runs as root here, which reads a folder whatever its mode,
  // so the folder is taken away instead of made unreadable.
  fs::rename(folder_, folder_ + ".away");
  ASSERT_TRUE(waitForJournal(" cloud state=down"));
  json status = cloudStatus();
  EXPECT_EQ(status["connected"], false);
  EXPECT_NE(status["error"].get<std::string>().find(folder_), std::string::npos)
      << status;
  // The phone hears the store's own words.
  const Ran failed = phone({"pending"});
  EXPECT_EQ(failed.status, 1);
  EXPECT_NE(failed.err.find("iCloud is not reachable from this phone"),
            std::string::npos)
      << failed.err;

  fs::rename(folder_ + ".away", folder_);
  // Up at each of the two starts, then again after the outage.
  ASSERT_TRUE(waitForJournal(" cloud state=up", 3));
  EXPECT_EQ(cloudStatus()["connected"], true);
  EXPECT_EQ(cloudStatus()["error"], "");
  EXPECT_EQ(phone({"pending"}).status, 0);
}

TEST_F(CloudRoad, HostileFilesAreJournalledAndTheServiceKeepsServing) {
  std::ofstream(dir_.file("elsewhere")) << "{}";
  fs::create_symlink(dir_.file("elsewhere"),
                     folder_ + "/call-abc~0123abcd~1.rec");
  std::ofstream(folder_ + "/call-junk~0123abcd~4.rec") << "\x01\x02{";
  // Something new for the pump to look at.
  SocketClient agent(service_->socketPath());
  ASSERT_EQ(agent.call({{"op", "hello"}, {"client", "claude"}})["ok"], true);
  ASSERT_FALSE(openRequest(agent).empty());
  // Each kind of hostile file is the folder store's own test; here the
  // service journals what the store turned away, once.
  for (const char* line : {"record=call-abc~0123abcd~1.rec why=link",
                           "record=call-junk~0123abcd~4.rec why=malformed"}) {
    EXPECT_TRUE(waitForJournal(" cloud-refused " + std::string(line)))
        << line << "\n"
        << journal();
  }
  const Ran listed = phone({"pending"});
  EXPECT_EQ(listed.status, 0) << listed.err;
  EXPECT_EQ(count(journal(), "why=link"), 1u);
}

// The computer and the phone each see a folder of their own, and a real sync
// engine (unison, run over and over by the test) carries records between
// them: late, in batches and in whatever order it likes.
TEST_F(CloudRoad, TheRoundTripCompletesThroughASyncEngine) {
  phoneFolder_ = dir_.file("phone-side");
  fs::create_directory(phoneFolder_);
  const std::string state = dir_.file("unison-state");
  fs::create_directory(state);
  std::atomic<bool> running = true;
  std::atomic<int> rounds = 0;
  std::thread engine([&] {
    const std::string command =
        "UNISON='" + state + "' unison '" + folder_ + "' '" + phoneFolder_ +
        "' -batch -auto -silent -confirmbigdel=false -ignore 'Name .*' "
        ">/dev/null 2>&1";
    while (running) {
      if (std::system(command.c_str()) == 0) ++rounds;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  });
  struct Stop {
    std::atomic<bool>& running;
    std::thread& engine;
    ~Stop() {
      running = false;
      engine.join();
    }
  } stop{running, engine};

  // The phone can start once the engine has carried the card across.
  const auto carried = [&] {
    for (const std::string& file : filesBelow(phoneFolder_)) {
      if (fs::path(file).filename().string().starts_with("card-")) return true;
    }
    return false;
  };
  while (inBudget() && !carried()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ASSERT_TRUE(carried());
  SocketClient agent(service_->socketPath());
  ASSERT_EQ(agent.call({{"op", "hello"}, {"client", "claude"}})["ok"], true);
  const std::string id = openRequest(agent);
  ASSERT_FALSE(id.empty());
  const Ran listed = phone({"pending"});
  ASSERT_EQ(listed.status, 0) << listed.err;
  EXPECT_NE(listed.out.find(id), std::string::npos) << listed.out;
  const Ran approved = phone({"approve", id}, "approve\n" + kValue + "\n");
  ASSERT_EQ(approved.status, 0) << approved.err;
  const json performed = agent.call({{"op", "proxy.perform"}, {"id", id}});
  EXPECT_EQ(performed["status"], 200) << performed;
  EXPECT_GT(rounds.load(), 1);
}

}  // namespace
}  // namespace tolvanger::testing
