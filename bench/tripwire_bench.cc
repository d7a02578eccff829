// Tripwire benchmarks.
//
// BM_Score scores a 280-character message against a profile shaped like a
// real fit (every feature binned, 5,000 words of vocabulary), in this
// process: messages scored per second. BM_PingRoundTrip is the baseline for
// BM_ObserveRoundTrip: both send one line to the real tolvanger-service over
// its socket and read the reply, the second a `tripwire.observe` of a
// 280-character message from a watched sender, which the service scores.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "harness.h"
#include "testing/profile_maker.h"
#include "tolvanger/kit/text.h"
#include "tolvanger/service/scoring.h"
#include "tolvanger/service/tripwire.h"

namespace {

using nlohmann::json;
using tolvanger::service::testing::kOwner;
using tolvanger::service::testing::realisticProfile;
using tolvanger::testing::ServiceProcess;
using tolvanger::testing::SocketClient;
using tolvanger::testing::TempDir;
namespace Scoring = tolvanger::service::Scoring;

// 280 characters of chat: words, punctuation, a URL, digits, an emoji.
std::string message280() {
  std::string text =
      "Hey, quick one \xe2\x80\x94 can you check the deploy notes at "
      "https://example.org/notes?id=42 before 5pm? I think the staging "
      "numbers were off by 3%, and Anna said the rollback didn't run. "
      "Let's sync tomorrow morning \xf0\x9f\x99\x82 thanks!";
  while (tolvanger::Text::scalars(text).size() < 280) text += " ok";
  return text;
}

const json& profile() {
  static const json p = realisticProfile(
      {message280(), "ok", "Really? Why now...", "\xd0\x9f\xd1\x80\xd0\xb8"});
  return p;
}

void BM_Score(benchmark::State& state) {
  const Scoring::Profile p = Scoring::Profile::from(profile());
  Scoring::Message m;
  m.ts = 1.7e9;
  m.text = message280();
  m.gap = 40;
  for (auto _ : state) benchmark::DoNotOptimize(Scoring::score(p, m));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Score);

struct Fixture {
  TempDir dir;
  std::string home = dir.file("home");
  std::unique_ptr<ServiceProcess> service;
  std::unique_ptr<SocketClient> client;

  Fixture() {
    tolvanger::testing::runService(home, {"init", "--quiet"});
    tolvanger::testing::useFreePort(home);
    tolvanger::service::ProfileStore(tolvanger::service::Home(home))
        .put(profile().dump());
    service = std::make_unique<ServiceProcess>(home);
    if (!service->waitForSocket()) std::abort();
    client = std::make_unique<SocketClient>(service->socketPath());
    client->call({{"op", "hello"}});
  }
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

void roundTrip(benchmark::State& state, const json& line) {
  SocketClient& client = *fixture().client;
  for (auto _ : state) {
    const json reply = client.call(line);
    if (!reply.is_object() || reply.value("ok", false) != true) {
      state.SkipWithError("the service refused");
      break;
    }
  }
}

void BM_PingRoundTrip(benchmark::State& state) {
  roundTrip(state, {{"op", "ping"}});
}
BENCHMARK(BM_PingRoundTrip);

void BM_ObserveRoundTrip(benchmark::State& state) {
  roundTrip(state, {{"op", "tripwire.observe"},
                    {"sender", kOwner},
                    {"ts", 1.7e9},
                    {"text", message280()},
                    {"gap", 40}});
  const json about = fixture().client->call({{"op", "status"}});
  if (!about.contains("tripwire") ||
      about["tripwire"].value("loaded", false) != true) {
    state.SkipWithError("no profile in force");
  }
}
BENCHMARK(BM_ObserveRoundTrip);

}  // namespace

BENCHMARK_MAIN();
