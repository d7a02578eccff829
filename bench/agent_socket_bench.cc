// Agent socket benchmarks against the real tolvanger-service process.
//
// BM_EchoRoundTrip is the baseline: one line to a bare echo server over a
// unix socket and back, in this process. BM_PingRoundTrip and
// BM_StatusRoundTrip do the same to the service. BM_ConcurrentAgents opens
// 500 connections at once, each doing hello, request, poll and cancel, and
// reports throughput, the 99th percentile of one whole exchange and the
// service's resident memory before and after.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/service/devices.h"

namespace {

using nlohmann::json;
using tolvanger::testing::ServiceProcess;
using tolvanger::testing::SocketClient;
using tolvanger::testing::TempDir;

struct Fixture {
  TempDir dir;
  std::string home = dir.file("home");
  std::unique_ptr<ServiceProcess> service;

  Fixture() {
    tolvanger::testing::runService(home, {"init", "--quiet"});
    tolvanger::testing::useFreePort(home);
    tolvanger::service::Devices devices{tolvanger::service::Home(home)};
    tolvanger::service::Device phone;
    phone.deviceID = "phone-1";
    phone.name = "Bench Phone";
    phone.spki =
        tolvanger::crypto::P256PrivateKey::generate().publicKey().der();
    phone.secret = tolvanger::Random::hex(24);
    phone.pairedAt = 1;
    devices.put(phone);
    service = std::make_unique<ServiceProcess>(home);
    if (!service->waitForSocket()) std::abort();
  }
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

long rssKiB(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string key;
  while (in >> key) {
    if (key == "VmRSS:") {
      long kib = 0;
      in >> kib;
      return kib;
    }
    in.ignore(4096, '\n');
  }
  return -1;
}

void BM_EchoRoundTrip(benchmark::State& state) {
  TempDir dir;
  const std::string path = dir.file("echo.sock");
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  struct sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
  ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  ::listen(listener, 1);
  std::thread echo([listener] {
    const int fd = ::accept(listener, nullptr, nullptr);
    char buf[8192];
    for (ssize_t n; (n = ::recv(fd, buf, sizeof(buf), 0)) > 0;)
      ::send(fd, buf, n, 0);
    ::close(fd);
  });
  {
    SocketClient client(path);
    const json line = {{"op", "ping"}};
    for (auto _ : state) benchmark::DoNotOptimize(client.call(line));
  }
  echo.join();
  ::close(listener);
}
BENCHMARK(BM_EchoRoundTrip);

void roundTrip(benchmark::State& state, const char* op) {
  SocketClient client(fixture().service->socketPath());
  client.call({{"op", "hello"}, {"client", "bench"}});
  const json line = {{"op", op}};
  for (auto _ : state) benchmark::DoNotOptimize(client.call(line));
}
void BM_PingRoundTrip(benchmark::State& state) { roundTrip(state, "ping"); }
void BM_StatusRoundTrip(benchmark::State& state) { roundTrip(state, "status"); }
BENCHMARK(BM_PingRoundTrip);
BENCHMARK(BM_StatusRoundTrip);

void BM_ConcurrentAgents(benchmark::State& state) {
  const int agents = static_cast<int>(state.range(0));
  const pid_t pid = fixture().service->pid();
  const long rssBefore = rssKiB(pid);
  std::vector<double> latencies(agents);
  std::atomic<int> failures{0};
  const auto begin = std::chrono::steady_clock::now();
  for (auto _ : state) {
    std::vector<std::thread> threads;
    threads.reserve(agents);
    for (int i = 0; i < agents; ++i) {
      threads.emplace_back([&, i] {
        const auto start = std::chrono::steady_clock::now();
        SocketClient c(fixture().service->socketPath());
        bool ok = c.call({{"op", "hello"}, {"client", "bench"}})["ok"] == true;
        const json opened =
            c.call({{"op", "request"}, {"operation", "bench.op"}});
        ok = ok && opened["ok"] == true;
        const std::string id = opened.value("request_id", "");
        ok = ok && c.call({{"op", "poll"}, {"id", id}})["state"] == "pending";
        ok = ok && c.call({{"op", "cancel"}, {"id", id}})["ok"] == true;
        if (!ok) ++failures;
        latencies[i] = std::chrono::duration<double, std::milli>(
                           std::chrono::steady_clock::now() - start)
                           .count();
      });
    }
    for (auto& t : threads) t.join();
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begin)
          .count();
  std::sort(latencies.begin(), latencies.end());
  state.counters["exchanges_per_s"] = agents * state.iterations() / seconds;
  state.counters["p99_ms"] = latencies[static_cast<size_t>(agents * 0.99) - 1];
  state.counters["failures"] = failures.load();
  state.counters["rss_before_kib"] = static_cast<double>(rssBefore);
  state.counters["rss_after_kib"] = static_cast<double>(rssKiB(pid));
}
BENCHMARK(BM_ConcurrentAgents)
    ->Arg(500)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
