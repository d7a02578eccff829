// tolvanger-service: the background service's command line.
//
//   tolvanger-service init [--quiet]   make the home, config.json and keys
//   tolvanger-service serve [--quiet]  run until SIGINT or SIGTERM
//   tolvanger-service pair             open a pairing window, show its QR code
//   tolvanger-service status [--json]  what the running service reports
//   tolvanger-service mcp --client ID  the MCP server, for an agent client
//
// The home is $TOLVANGER_HOME when set, else the platform's default.
#include <signal.h>

#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tolvanger/kit/curl_memory.h"
#include "tolvanger/kit/fingerprint.h"
#include "tolvanger/kit/secure_memory.h"
#include "tolvanger/port/memory.h"
#include "tolvanger/service/admin.h"
#include "tolvanger/service/allowance_watch.h"
#include "tolvanger/service/config.h"
#include "tolvanger/service/home.h"
#include "tolvanger/service/mcp_server.h"
#include "tolvanger/service/qr.h"
#include "tolvanger/service/runtime.h"
#include "tolvanger/service/service.h"
#include "tolvanger/service/socket_gate.h"

namespace {

using nlohmann::json;
using tolvanger::service::Admin;
using tolvanger::service::Config;
using tolvanger::service::Home;
using tolvanger::service::Runtime;
using tolvanger::service::Service;

constexpr const char* kUsage =
    "usage: tolvanger-service <command> [options]\n"
    "\n"
    "commands:\n"
    "  init [--quiet]    make the home, its config.json and the keys\n"
    "  serve [--quiet] [--test-ca FILE] [--test-connect-to H:P:A:P]\n"
    "                    run the service until interrupted; --test-ca makes\n"
    "                    brokered calls trust only the CA in FILE, and\n"
    "                    --test-connect-to sends calls for host H, port P to\n"
    "                    address A, port P, still checking TLS against H\n"
    "                    (both for tests)\n"
    "  pair              open a pairing window and show its link as a QR code\n"
    "  status [--json]   show what the running service reports\n"
    "  mcp --client NAME speak MCP on standard input and output for an agent\n"
    "                    client called NAME, until the input ends\n"
    "\n"
    "The home is $TOLVANGER_HOME if set.\n";

// One line of reason on standard error, as callers that show it expect.
int fail(const std::string& reason) {
  std::string line = reason.empty() ? "the service could not start" : reason;
  for (char& c : line) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  std::fprintf(stderr, "%s\n", line.c_str());
  return 1;
}

bool hasFlag(const std::vector<std::string_view>& args, std::string_view flag) {
  for (auto a : args) {
    if (a == flag) return true;
  }
  return false;
}

int init(const std::vector<std::string_view>& args) {
  const bool quiet = hasFlag(args, "--quiet");
  Home home = Home::standard();
  home.ensure();
  // An existing config.json is kept as it is, keys and all.
  const bool hadConfig = home.read("config.json").has_value();
  Service service(home);
  if (!hadConfig) service.config.save(home);
  if (!quiet) {
    std::printf("home: %s\nfingerprint: %s\nfingerprint (post-quantum): %s\n",
                home.path().c_str(), service.fingerprint().c_str(),
                service.pqFingerprint().c_str());
  }
  return 0;
}

// HOST:PORT:ADDR:PORT with both ports whole numbers from 1 to 65535.
bool isConnectTo(std::string_view entry) {
  std::vector<std::string_view> pieces;
  for (size_t start = 0;;) {
    const size_t colon = entry.find(':', start);
    pieces.push_back(entry.substr(start, colon - start));
    if (colon == std::string_view::npos) break;
    start = colon + 1;
  }
  const auto isPort = [](std::string_view p) {
    int port = 0;
    const auto [end, error] =
        std::from_chars(p.data(), p.data() + p.size(), port);
    return error == std::errc() && end == p.data() + p.size() && port >= 1 &&
           port <= 65535;
  };
  return pieces.size() == 4 && !pieces[0].empty() && !pieces[2].empty() &&
         isPort(pieces[1]) && isPort(pieces[3]);
}

int serve(const std::vector<std::string_view>& args) {
  const bool quiet = hasFlag(args, "--quiet");
  // Every thread inherits this mask, so the signals wait for sigwait below
  // instead of landing on a listener's thread.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  // Only a test names a CA of its own; without the flag the system's store
  // is the only one trusted.
  tolvanger::service::UpstreamSettings upstream;
  for (size_t i = 0; i + 1 < args.size(); ++i) {
    if (args[i] == "--test-ca") upstream.testCAFile = std::string(args[i + 1]);
    if (args[i] == "--test-connect-to") {
      if (!isConnectTo(args[i + 1])) {
        return fail("--test-connect-to wants HOST:PORT:ADDR:PORT, not " +
                    std::string(args[i + 1]));
      }
      upstream.testConnectTo.emplace_back(args[i + 1]);
    }
  }
  Runtime runtime(Home::standard(), std::nullopt, std::move(upstream));
  runtime.start();
  // Allowances end on their own time, with their process, and when the
  // machine sleeps or the session locks, while this process serves.
  tolvanger::service::AllowanceWatch watch(runtime.service());
  watch.start();
  if (!quiet) {
    const auto& service = runtime.service();
    std::printf("tolvanger-service is running\n  home:   %s\n  socket: %s\n",
                service.home.path().c_str(), runtime.socketPath().c_str());
    for (const auto& address : runtime.addresses()) {
      std::printf("  phone:  http://%s:%lld\n", address.c_str(),
                  static_cast<long long>(service.config.listenPort));
    }
    std::printf(
        "pair a phone with `tolvanger-service pair`; stop with Ctrl-C\n");
    std::fflush(stdout);
  }
  int sig = 0;
  sigwait(&stopSignals, &sig);
  watch.stop();
  runtime.stop();
  return 0;
}

volatile std::sig_atomic_t interrupted = 0;

std::string textOf(const json& o, const char* key) {
  const auto it = o.find(key);
  return it != o.end() && it->is_string() ? it->get<std::string>() : "";
}

int pair(const std::vector<std::string_view>&) {
  Admin admin(Home::standard());
  const json opened = admin.call({{"op", "pair.open"}});
  if (opened.value("ok", false) != true) return fail(textOf(opened, "error"));
  const std::string url = textOf(opened, "url");
  std::printf("%s\n", tolvanger::service::QR::render(url).c_str());
  std::printf("Scan this with the phone, or give it this link:\n  %s\n",
              url.c_str());
  std::printf("This Mac's fingerprint: %s\n",
              textOf(opened, "fingerprint").c_str());
  std::printf("Waiting for the phone (Ctrl-C closes the window)...\n");
  std::fflush(stdout);

  std::signal(SIGINT, [](int) { interrupted = 1; });
  std::signal(SIGTERM, [](int) { interrupted = 1; });
  std::string offeredBy;
  while (!interrupted) {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    const json status = admin.call({{"op", "pair.status"}});
    const std::string state = textOf(status, "state");
    if (state == "offered" && offeredBy.empty()) {
      offeredBy = textOf(status, "device_id");
      std::printf(
          "\n%s (%s) wants to pair.\nThe phone shows three numbers. Pick %s.\n",
          textOf(status, "name").c_str(), offeredBy.c_str(),
          textOf(status, "code").c_str());
      std::fflush(stdout);
    }
    if (state == "none") {
      const json now = admin.call({{"op", "status"}});
      for (const json& d : now.value("devices", json::array())) {
        if (!offeredBy.empty() && d.is_object() &&
            textOf(d, "device_id") == offeredBy) {
          std::printf("Paired with %s.\n", textOf(d, "name").c_str());
          return 0;
        }
      }
      return fail("the pairing window closed without a phone");
    }
  }
  admin.call({{"op", "pair.cancel"}});
  return fail("the pairing window was closed");
}

int status(const std::vector<std::string_view>& args) {
  Admin admin(Home::standard());
  const json reply = admin.call({{"op", "status"}});
  if (hasFlag(args, "--json")) {
    std::printf("%s\n", tolvanger::service::Pretty::render(reply).c_str());
    return 0;
  }
  for (const auto& line : tolvanger::service::StatusLines::render(reply)) {
    std::printf("%s\n", line.c_str());
  }
  return 0;
}

// Standard output carries the protocol alone; failures go to standard error.
int mcp(const std::vector<std::string_view>& args) {
  std::string client;
  for (size_t i = 0; i + 1 < args.size(); ++i) {
    if (args[i] == "--client") client = std::string(args[i + 1]);
  }
  // A client that goes away mid-answer must end the write, not the process.
  signal(SIGPIPE, SIG_IGN);
  tolvanger::service::SocketGate gate(Home::standard(), client);
  tolvanger::service::MCPServer(gate).serve(0, 1);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // The service holds keys and, briefly, secrets: no core dumps.
  tolvanger::port::disableCoreDumps();
  std::vector<std::string_view> args(argv + 1, argv + argc);
  // The commands that hold keys or credentials keep them on a locked heap,
  // and their libcurl wipes what it frees; both are set up before any
  // thread starts. The others (status, pair, mcp) hold no secret.
  if (!args.empty() && (args[0] == "serve" || args[0] == "init")) {
    tolvanger::startSecureHeap();
    tolvanger::initialiseCurl();
  }
  if (args.empty() || args[0] == "help" || args[0] == "--help" ||
      args[0] == "-h") {
    std::fputs(kUsage, args.empty() ? stderr : stdout);
    return args.empty() ? 2 : 0;
  }
  const std::string_view command = args[0];
  const std::vector<std::string_view> rest(args.begin() + 1, args.end());
  try {
    if (command == "init") return init(rest);
    if (command == "serve") return serve(rest);
    if (command == "pair") return pair(rest);
    if (command == "status") return status(rest);
    if (command == "mcp") return mcp(rest);
  } catch (const std::exception& e) {
    return fail(e.what());
  }
  std::fprintf(stderr, "tolvanger-service: unknown command %.*s\n%s",
               static_cast<int>(command.size()), command.data(), kUsage);
  return 2;
}
