// What an agent's hello costs as settled history grows, and what
// list_credentials costs through the MCP server, on the real
// tolvanger-service process.
//
// Three services run side by side, their homes holding 0, 1000 and 10000
// settled requests: raised and cancelled through the socket in this run, so
// they are still in memory and in decided.log, with as many answered rows in
// chain.log. BM_HelloAsHistoryGrows times hello on an open connection to
// each, in interleaved rounds, and reports the median of each and its ratio
// to the empty home's (flat is within 1.2). BM_ListCredentialsThroughMCP
// times list_credentials through `tolvanger-service mcp`, which opens a
// connection and says hello for every call, against secret.list on a
// connection already open, at the smallest and the largest history, and
// reports the ratios (within 3).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "harness.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/service/devices.h"
#include "tolvanger/service/secret_names.h"

namespace {

using nlohmann::json;
using tolvanger::testing::LineChild;
using tolvanger::testing::ServiceProcess;
using tolvanger::testing::SocketClient;
using tolvanger::testing::TempDir;
using Clock = std::chrono::steady_clock;

constexpr int kHistories[] = {0, 1000, 10000};

int64_t nowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// A service whose home has `settled` requests behind it, with a paired
// phone and three secrets to list.
struct History {
  TempDir dir;
  std::string home = dir.file("home");
  std::unique_ptr<ServiceProcess> service;

  explicit History(int settled) {
    namespace svc = tolvanger::service;
    tolvanger::testing::runService(home, {"init", "--quiet"});
    tolvanger::testing::useFreePort(home);
    svc::Device phone;
    phone.deviceID = "phone-1";
    phone.name = "Bench Phone";
    phone.spki =
        tolvanger::crypto::P256PrivateKey::generate().publicKey().der();
    phone.secret = tolvanger::Random::hex(24);
    phone.pairedAt = 1;
    svc::Devices(svc::Home(home)).put(phone);
    json list = json::array();
    for (const char* name : {"github", "openai", "stripe"}) {
      list.push_back({{"name", name},
                      {"kind", "bearer"},
                      {"hosts", {std::string("api.") + name + ".com"}}});
    }
    svc::SecretNames(svc::Home(home))
        .replace(svc::buildSecretNames(list, nowSeconds()));
    // The answers' rows, all within the last day.
    std::ofstream chain(home + "/chain.log");
    for (int i = 0; i < settled; ++i) {
      chain << nowSeconds() - settled + i << " r" << i << " lan 900 400 push\n";
    }
    chain.close();

    service = std::make_unique<ServiceProcess>(home);
    if (!service->waitForSocket()) std::abort();
    SocketClient agent(service->socketPath());
    agent.call({{"op", "hello"}, {"client", "bench"}});
    for (int i = 0; i < settled; ++i) {
      const json opened =
          agent.call({{"op", "request"}, {"operation", "bench.op"}});
      const json cancelled = agent.call(
          {{"op", "cancel"}, {"id", opened.value("request_id", "")}});
      if (cancelled.value("ok", false) != true) std::abort();
    }
  }
};

History& history(int settled) {
  static std::map<int, std::unique_ptr<History>> made;
  auto& one = made[settled];
  if (!one) one = std::make_unique<History>(settled);
  return *one;
}

// The CPU time, user and system, that process `pid` has used, in
// microseconds.
double cpuMicros(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)),
                   std::istreambuf_iterator<char>());
  // Fields after the command's closing parenthesis; utime and stime are the
  // 12th and 13th of them.
  std::istringstream rest(text.substr(text.rfind(')') + 2));
  std::string field;
  double ticks = 0;
  for (int i = 1; i <= 13 && rest >> field; ++i) {
    if (i >= 12) ticks += std::stod(field);
  }
  return ticks * 1e6 / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// Microseconds per call of `once`, over `calls` calls.
template <typename F>
double microsPerCall(int calls, F&& once) {
  const auto start = Clock::now();
  for (int i = 0; i < calls; ++i) once();
  return std::chrono::duration<double, std::micro>(Clock::now() - start)
             .count() /
         calls;
}

void BM_HelloAsHistoryGrows(benchmark::State& state) {
  std::vector<std::unique_ptr<SocketClient>> clients;
  for (int settled : kHistories) {
    clients.push_back(
        std::make_unique<SocketClient>(history(settled).service->socketPath()));
  }
  const json hello = {{"op", "hello"}, {"client", "bench"}};
  std::vector<std::vector<double>> rounds(clients.size());
  std::vector<double> cpu(clients.size(), 0);
  constexpr int kRounds = 30, kCalls = 40;
  for (auto _ : state) {
    for (int round = 0; round < kRounds; ++round) {
      for (size_t i = 0; i < clients.size(); ++i) {
        const pid_t pid = history(kHistories[i]).service->pid();
        const double before = cpuMicros(pid);
        rounds[i].push_back(microsPerCall(kCalls, [&] {
          if (clients[i]->call(hello).value("ok", false) != true) std::abort();
        }));
        cpu[i] += cpuMicros(pid) - before;
      }
    }
  }
  const double empty = median(rounds[0]);
  for (size_t i = 0; i < clients.size(); ++i) {
    const std::string n = std::to_string(kHistories[i]);
    const double cpuPerCall = cpu[i] / (kRounds * kCalls);
    state.counters["hello_us_" + n] = median(rounds[i]);
    state.counters["hello_cpu_us_" + n] = cpuPerCall;
    if (i > 0) {
      state.counters["ratio_" + n] = median(rounds[i]) / empty;
      state.counters["cpu_ratio_" + n] =
          cpuPerCall / (cpu[0] / (kRounds * kCalls));
    }
  }
}
BENCHMARK(BM_HelloAsHistoryGrows)->Iterations(1)->UseRealTime();

void BM_ListCredentialsThroughMCP(benchmark::State& state) {
  for (auto _ : state) {
    for (int settled : {kHistories[0], kHistories[2]}) {
      const History& h = history(settled);
      SocketClient direct(h.service->socketPath());
      direct.call({{"op", "hello"}, {"client", "bench"}});
      LineChild mcp({TOLVANGER_SERVICE_BIN, "mcp", "--client", "bench"},
                    {{"TOLVANGER_HOME", h.home}});
      if (!mcp.exchange(json{{"jsonrpc", "2.0"},
                             {"id", 0},
                             {"method", "initialize"},
                             {"params", {{"protocolVersion", "2025-06-18"}}}}
                            .dump())) {
        std::abort();
      }
      const std::string call = json{{"jsonrpc", "2.0"},
                                    {"id", 1},
                                    {"method", "tools/call"},
                                    {"params", {{"name", "list_credentials"}}}}
                                   .dump();
      std::vector<double> throughMCP, secretList;
      for (int round = 0; round < 30; ++round) {
        throughMCP.push_back(microsPerCall(20, [&] {
          const auto line = mcp.exchange(call);
          if (!line || line->find("github") == std::string::npos) std::abort();
        }));
        secretList.push_back(microsPerCall(20, [&] {
          if (direct.call({{"op", "secret.list"}}).value("ok", false) != true)
            std::abort();
        }));
      }
      const std::string n = std::to_string(settled);
      state.counters["mcp_us_" + n] = median(throughMCP);
      state.counters["secret_list_us_" + n] = median(secretList);
      state.counters["ratio_" + n] = median(throughMCP) / median(secretList);
    }
  }
}
BENCHMARK(BM_ListCredentialsThroughMCP)->Iterations(1)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
