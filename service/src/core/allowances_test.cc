// Allowances on their own, with a clock and a liveness test the test turns,
// and inside a service whose phone approves with a hold.
#include "tolvanger/service/allowances.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <thread>

#include "testing/paired_phone.h"
#include "testing/service_internals.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/service/allowance_watch.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {
namespace {

using nlohmann::json;

struct Ending {
  std::string id;
  std::string why;
  int64_t uses;
};

class AllowancesTest : public ::testing::Test {
 protected:
  AllowancesTest()
      : allowances(
            [this] { return clock.load(); },
            [this](const AgentProcess& p) { return dead.count(p.pid) == 0; }) {
    allowances.setEnded([this](const Allowance& a, std::string_view why) {
      endings.push_back({a.requestID, std::string(why), a.uses});
    });
  }
  std::optional<Allowance> open(const std::string& id, const std::string& name,
                                const AgentProcess& agent,
                                const std::string& value = "v",
                                int64_t seconds = 60) {
    return allowances.open(id, name, "bearer", asBytes(value), "phone-1",
                           "claude", agent, seconds);
  }
  std::string used(const std::string& name, const AgentProcess& agent) {
    const auto got = allowances.use(name, agent);
    return got ? toString(got->value.reveal()) : "<none>";
  }

  std::atomic<int64_t> clock{1000};
  std::set<int32_t> dead;
  std::vector<Ending> endings;
  Allowances allowances;
  const AgentProcess agent{4242, 7};
};

TEST_F(AllowancesTest, AHoldIsCappedAtAnHourAndBelowOneOpensNothing) {
  const auto a = open("r1", "sheets", agent, "v", 7200);
  ASSERT_TRUE(a.has_value());
  EXPECT_EQ(a->until - a->openedAt, Allowances::kMaxSeconds);
  EXPECT_FALSE(open("r2", "mail", agent, "v", 0).has_value());
  EXPECT_FALSE(open("r3", "mail", agent, "v", -5).has_value());
  EXPECT_EQ(allowances.all().size(), 1u);
  const json d = a->asDictionary(1000 + 3599);
  EXPECT_EQ(d["seconds_left"], 1);
  EXPECT_EQ(d["request_id"], "r1");
  EXPECT_EQ(d["client"], "claude");
  EXPECT_EQ(a->secondsLeft(999999), 0);
}

TEST_F(AllowancesTest, OnlyTheSameNameAndTheSameProcessAreCovered) {
  open("r1", "sheets", agent, "first");
  EXPECT_EQ(used("sheets", agent), "first");
  EXPECT_EQ(used("sheets", agent), "first");
  EXPECT_EQ(used("mail", agent), "<none>");
  EXPECT_EQ(used("sheets", AgentProcess{4243, 7}), "<none>");
  // The pid again, but a process that started later: not the one allowed.
  EXPECT_EQ(used("sheets", AgentProcess{4242, 8}), "<none>");
  EXPECT_EQ(allowances.find("r1")->uses, 2);

  // A second hold for the same name and process replaces the first.
  open("r2", "sheets", agent, "second");
  ASSERT_EQ(endings.size(), 1u);
  EXPECT_EQ(endings[0].id, "r1");
  EXPECT_EQ(endings[0].why, "replaced");
  EXPECT_EQ(endings[0].uses, 2);
  EXPECT_EQ(used("sheets", agent), "second");
  // Another process's hold on the same name stands beside it.
  open("r3", "sheets", AgentProcess{5000, 1}, "third");
  EXPECT_EQ(allowances.all().size(), 2u);
  EXPECT_EQ(used("sheets", agent), "second");
}

TEST_F(AllowancesTest, TimeAndAGoneProcessEndThemAtTheNextSweep) {
  open("r1", "sheets", agent, "v", 10);
  open("r2", "mail", AgentProcess{5000, 1}, "v", 100);
  open("r3", "drive", AgentProcess{6000, 1}, "v", 100);
  clock = 1009;
  EXPECT_EQ(allowances.sweep(), 0u);
  clock = 1010;  // at `until` it is over
  dead.insert(5000);
  EXPECT_EQ(used("mail", AgentProcess{5000, 1}), "<none>");
  ASSERT_EQ(endings.size(), 2u);
  EXPECT_EQ(endings[0].id, "r1");
  EXPECT_EQ(endings[0].why, "expired");
  EXPECT_EQ(endings[1].id, "r2");
  EXPECT_EQ(endings[1].why, "session");
  ASSERT_EQ(allowances.all().size(), 1u);
  EXPECT_EQ(allowances.all()[0].requestID, "r3");
}

// A pid names one process only together with its start time: a later
// process that reuses the pid is not the one an allowance was made for.
TEST(AgentProcessTest, ThePidAloneDoesNotNameTheProcess) {
  const auto me = AgentProcess::of(::getpid());
  ASSERT_TRUE(me.has_value());
  EXPECT_TRUE(me->isAlive());
  AgentProcess later = *me;
  later.startedAt += 1;
  EXPECT_FALSE(later.isAlive());
}

// Opening, drawing, sweeping and ending from many threads at once: every
// allowance ends exactly once, and the hook may call back in.
TEST(AllowancesRaceTest, ManyThreadsEndEachAllowanceOnce) {
  std::atomic<int> alive{0};
  Allowances allowances({}, [&](const AgentProcess& p) {
    return p.pid % 3 != 0 || alive.load() == 0;
  });
  std::atomic<int> ended{0};
  allowances.setEnded([&](const Allowance&, std::string_view) {
    ended.fetch_add(1);
    (void)allowances.all();
  });
  std::atomic<int> opened{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        const AgentProcess p{t * 1000 + i % 7, 1};
        const std::string id =
            "r" + std::to_string(t) + "-" + std::to_string(i);
        if (allowances.open(id, "n" + std::to_string(i % 5), "bearer",
                            asBytes(std::string("value")), "d", "", p, 60)) {
          opened.fetch_add(1);
        }
        (void)allowances.use("n" + std::to_string(i % 5), p);
        if (i % 10 == 0) allowances.sweep();
        if (i % 13 == 0) allowances.end(id, "phone");
        if (i == 100) alive = 1;
      }
    });
  }
  for (auto& t : threads) t.join();
  allowances.endAll("stopped");
  EXPECT_EQ(ended.load(), opened.load());
  EXPECT_TRUE(allowances.all().empty());
}

// Inside the service: the phone's hold opens one (capped at an hour), a
// covered request is approved at once, and subscribers hear of each end.
class ServiceAllowanceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    service = std::make_unique<Service>(Home(home.path));
    phone.pair(*service);
    ServiceInternals::secrets(*service).replace(
        {SecretName{"sheets", "bearer", {"api.example"}, {}, 1}});
    self = AgentProcess::of(getpid()).value();
  }
  StoredRequest raise(std::optional<AgentProcess> agent,
                      AllowanceUse* allowed = nullptr) {
    Fields fields;
    fields.set("client", std::string("claude"));
    RaiseOptions options;
    options.credentialName = "sheets";
    options.agent = agent;
    options.allowed = allowed;
    return service->raise("deploy", fields, options);
  }
  json approveWithHold(const StoredRequest& r, json hold) {
    Approval a = phone.approve(*service, r);
    json envelope = Phone::credential(*service, r.id,
                                      {{"request_id", r.id},
                                       {"name", "sheets"},
                                       {"kind", "bearer"},
                                       {"value", value},
                                       {"hold_seconds", hold}});
    a.credentialEnvelope = &envelope;
    service->approve(a);
    return service->status();
  }
  std::string file(const char* name) {
    std::ifstream in(home.path + "/" + name);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  TempHome home;
  std::unique_ptr<Service> service;
  Phone phone;
  AgentProcess self;
  const std::string value = "canary-" + Random::hex(16);
};

TEST_F(ServiceAllowanceTest, AHoldOpensOneThatSettlesTheNextRequestAtOnce) {
  std::vector<json> events;
  const int64_t sink =
      service->subscribe([&](const json& event) { events.push_back(event); });
  const StoredRequest first = raise(self);
  EXPECT_EQ(approveWithHold(first, 7200)["allowances"], 1);
  EXPECT_NE(file("journal.log")
                .find("allowed client=claude credential=sheets "
                      "request=" +
                      first.id + " seconds=3600"),
            std::string::npos);
  const std::string chainBefore = file("chain.log");

  auto use = service->useAllowance("sheets", self);
  ASSERT_TRUE(use.has_value());
  const StoredRequest second = raise(self, &*use);
  EXPECT_EQ(second.state, RequestState::kApproved);
  EXPECT_TRUE(use->value.empty());  // wiped once it was held
  const auto spent = ServiceInternals::credentials(*service).take(second.id);
  ASSERT_TRUE(spent.has_value());
  EXPECT_EQ(toString(spent->value.reveal()), value);
  EXPECT_EQ(file("chain.log"), chainBefore);

  ASSERT_TRUE(service->endAllowance(first.id, "phone").has_value());
  EXPECT_EQ(service->status()["allowances"], 0);
  EXPECT_FALSE(service->useAllowance("sheets", self).has_value());
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[1], json({{"event", "decided"},
                             {"request_id", second.id},
                             {"state", "approved"},
                             {"credential", true}}));
  EXPECT_EQ(events[2], json({{"event", "allowance.ended"},
                             {"request_id", first.id},
                             {"why", "phone"}}));
  service->unsubscribe(sink);
}

TEST_F(ServiceAllowanceTest, NoProcessOrNoHoldOpensNothing) {
  EXPECT_EQ(approveWithHold(raise(std::nullopt), 600)["allowances"], 0);
  EXPECT_EQ(approveWithHold(raise(self), 0)["allowances"], 0);
  EXPECT_EQ(approveWithHold(raise(self), "600")["allowances"], 0);
  EXPECT_EQ(file("journal.log").find("allowed "), std::string::npos);
}

// The watch's own sweep ends the allowance of a process that has gone, with
// no request to prompt it; with no system bus it says so once and carries on.
TEST_F(ServiceAllowanceTest, TheWatchEndsOneWhoseProcessHasGone) {
  const pid_t child = fork();
  if (child == 0) {
    pause();
    _exit(0);
  }
  const auto process = AgentProcess::of(child);
  ASSERT_TRUE(process.has_value());
  setenv("DBUS_SYSTEM_BUS_ADDRESS",
         ("unix:path=" + home.path + "/no-bus").c_str(), 1);
  AllowanceWatch watch(*service, std::chrono::milliseconds(20));
  watch.start();
  approveWithHold(raise(process), 60);
  EXPECT_EQ(service->status()["allowances"], 1);
  kill(child, SIGKILL);
  // Not reaped, the child is a zombie: gone all the same.
  for (int i = 0;
       i < 250 && file("journal.log").find("why=session") == std::string::npos;
       ++i) {
    usleep(20 * 1000);
  }
  watch.stop();
  unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  waitpid(child, nullptr, 0);
  const std::string journal = file("journal.log");
  EXPECT_NE(journal.find("why=session"), std::string::npos) << journal;
  EXPECT_NE(journal.find("session-watch state=off why=no-system-bus"),
            std::string::npos)
      << journal;
}

}  // namespace
}  // namespace tolvanger::service
