// tolvanger-service: the background service's command line.
//
//   tolvanger-service init [--quiet]   make the home, config.json and keys
//   tolvanger-service serve [--quiet]  run until SIGINT or SIGTERM
//
// The home is $TOLVANGER_HOME when set, else the platform's default.
#include <signal.h>

#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/fingerprint.h"
#include "tolvanger/port/memory.h"
#include "tolvanger/service/config.h"
#include "tolvanger/service/home.h"
#include "tolvanger/service/runtime.h"
#include "tolvanger/service/service.h"

namespace {

using tolvanger::service::Config;
using tolvanger::service::Home;
using tolvanger::service::Runtime;
using tolvanger::service::Service;

constexpr const char* kUsage =
    "usage: tolvanger-service <command> [options]\n"
    "\n"
    "commands:\n"
    "  init [--quiet]    make the home, its config.json and the keys\n"
    "  serve [--quiet]   run the service until interrupted\n"
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
    std::printf(
        "home: %s\nfingerprint: %s\nfingerprint (post-quantum): %s\n",
        home.path().c_str(), service.identity.fingerprint().c_str(),
        tolvanger::Fingerprint::of(service.identity.pqPublicKey()).c_str());
  }
  return 0;
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

  Runtime runtime(Home::standard());
  runtime.start();
  if (!quiet) {
    std::printf("tolvanger-service is running\n  home:   %s\n  socket: %s\n",
                runtime.service().home.path().c_str(),
                runtime.socketPath().c_str());
    std::printf("stop it with Ctrl-C\n");
    std::fflush(stdout);
  }
  int sig = 0;
  sigwait(&stopSignals, &sig);
  runtime.stop();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // The service holds keys and, briefly, secrets: no core dumps.
  tolvanger::port::disableCoreDumps();
  std::vector<std::string_view> args(argv + 1, argv + argc);
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
  } catch (const std::exception& e) {
    return fail(e.what());
  }
  std::fprintf(stderr, "tolvanger-service: unknown command %.*s\n%s",
               static_cast<int>(command.size()), command.data(), kUsage);
  return 2;
}
