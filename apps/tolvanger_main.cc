// tolvanger: the terminal front of the desktop app, for Linux. Everything it
// shows and does goes through the app model; this file only reads the
// command line, draws lines, and waits.
//
//   tolvanger status               how the service, the phone and the clients
//   are tolvanger setup                the first run: pair, a secret, the round
//   trip tolvanger journal [-f] [--raw] the journal in plain English tolvanger
//   wire|unwire claude|codex tolvanger pending              what waits for the
//   phone tolvanger test                 the round trip
//
// Exit status: 0 done, 1 failed (the reason on standard error), 2 a mistake
// in the command line.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "tolvanger/appcore/app_model.h"
#include "tolvanger/appcore/reading.h"
#include "tolvanger/kit/build.h"
#include "tolvanger/service/admin.h"
#include "tolvanger/service/home.h"
#include "tolvanger/service/qr.h"

namespace {

using tolvanger::app::Agent;
using tolvanger::app::AppModel;
using tolvanger::app::Onboarding;
using tolvanger::app::PairingState;
using tolvanger::app::Reading;
using tolvanger::app::Trial;
using tolvanger::app::Wired;
using Step = Onboarding::Step;

constexpr const char* kUsage =
    "usage: tolvanger <command>\n"
    "\n"
    "commands:\n"
    "  status                  the service, the phone and the wired clients\n"
    "  setup                   first run: start the service, pair a phone,\n"
    "                          add a secret, prove the round trip\n"
    "  journal [-f] [--raw]    the journal in plain English; -f follows it\n"
    "  wire claude|codex       put tolvanger into the client's MCP servers\n"
    "  unwire claude|codex     take it out again\n"
    "  pending                 the requests waiting for the phone\n"
    "  test                    send a test request and wait for the phone\n";

volatile std::sig_atomic_t interrupted = 0;

std::string besideMe(const std::string& name) {
  char buf[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  if (n <= 0) return name;
  buf[n] = '\0';
  return (std::filesystem::path(buf).parent_path() / name).string();
}

std::unique_ptr<AppModel> makeModel() {
  AppModel::Options o;
  o.helper = besideMe("tolvanger-service");  // installed side by side
  o.socket = tolvanger::service::Home::standard().socketPath();
  o.ownBuild = tolvanger::kBuildNumber;
  o.env = tolvanger::app::processEnvironment();
  o.manager = std::make_shared<tolvanger::app::SystemdUser>(o.helper, o.env);
  o.stateDir = tolvanger::app::stateDirectory(o.env);
  return std::make_unique<AppModel>(std::move(o));
}

int fail(const std::string& sentence) {
  std::fflush(stdout);
  std::fprintf(stderr, "tolvanger: %s\n", sentence.c_str());
  return 1;
}

void say(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

// A line typed on standard input within `ms`; nothing when none came, and
// "\x04" at the end of input.
std::optional<std::string> typed(int ms) {
  struct pollfd p = {0, POLLIN, 0};
  if (::poll(&p, 1, ms) <= 0) return std::nullopt;
  std::string line;
  char c;
  for (;;) {
    const ssize_t n = ::read(0, &c, 1);
    if (n <= 0) return line.empty() ? std::optional<std::string>("\x04") : line;
    if (c == '\n') return line;
    line += c;
  }
}

// The progress line while waiting, drawn over itself.
void progress(const std::string& what, int64_t seconds) {
  static const char* kSpin[] = {"|", "/", "-", "\\"};
  std::printf("\r\x1b[2K%s %s %llds", kSpin[seconds % 4], what.c_str(),
              static_cast<long long>(seconds));
  std::fflush(stdout);
}
void progressDone() {
  std::printf("\r\x1b[2K");
  std::fflush(stdout);
}

// Pumps the model until `done` holds, drawing progress; a typed line goes to
// `onLine`, which may end the wait by answering true.
template <typename Done, typename OnLine>
bool waitOn(AppModel& model, const std::string& what, Done done,
            OnLine onLine) {
  const auto began = std::chrono::steady_clock::now();
  while (!interrupted) {
    if (done()) {
      progressDone();
      return true;
    }
    const auto line = typed(250);
    if (line && onLine(*line)) {
      progressDone();
      return false;
    }
    model.pump(std::chrono::milliseconds(0));
    progress(what, std::chrono::duration_cast<std::chrono::seconds>(
                       std::chrono::steady_clock::now() - began)
                       .count());
  }
  progressDone();
  return false;
}

void showNote(AppModel& model, std::optional<std::string>* shown) {
  if (model.note() && model.note() != *shown) say(*model.note());
  *shown = model.note();
}

std::string wiredLine(const AppModel& model, Agent agent) {
  const auto it =
      model.wired().find(std::string(tolvanger::app::agentId(agent)));
  const Wired w = it == model.wired().end() ? Wired{} : it->second;
  std::string label(tolvanger::app::agentCLI(agent));
  label.resize(10, ' ');
  const std::string where = model.wiring().where(agent);
  switch (w.kind) {
    case Wired::Kind::configured:
      return label + "wired in " + where;
    case Wired::Kind::unreadable:
      return label + where + ": " + w.text;
    case Wired::Kind::absent:
      break;
  }
  return label + "not wired — `tolvanger wire " +
         std::string(tolvanger::app::agentCLI(agent)) + "`";
}

// --- Commands ---------------------------------------------------------------

int status(AppModel& model) {
  model.start();
  model.readWiring();
  say(model.headline());
  say(model.detail());
  if (model.status().running) {
    for (const auto& line :
         tolvanger::service::StatusLines::render(model.statusReply())) {
      say(line);
    }
  }
  const auto build = model.status().build;
  say("service   " + model.runningSentence() +
      (model.status().running
           ? " Build " + (build ? std::to_string(*build) : "unknown") +
                 (model.serviceIsOlder() ? ", older than this app's " +
                                               std::to_string(*model.ownBuild())
                                         : "") +
                 "."
           : ""));
  say("          " + model.serviceCommand());
  for (Agent a : tolvanger::app::kAgents) say(wiredLine(model, a));
  return model.status().running ? 0 : 1;
}

int wire(AppModel& model, const std::vector<std::string>& args, bool on) {
  if (args.size() != 1 || !tolvanger::app::agentNamed(args[0])) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  const Agent agent = *tolvanger::app::agentNamed(args[0]);
  model.wire(agent, on);
  const std::string id(tolvanger::app::agentId(agent));
  const Wired state = model.wired().at(id);
  const std::string said = model.wiringSaid().at(id);
  const bool worked =
      state.kind == (on ? Wired::Kind::configured : Wired::Kind::absent);
  if (!worked) {
    if (state.kind == Wired::Kind::unreadable) {
      return fail(model.wiring().where(agent) + ": " + state.text);
    }
    return fail(said);
  }
  say(std::string(on ? "Wired " : "Unwired ") +
      std::string(tolvanger::app::agentTitle(agent)) + " in " +
      model.wiring().where(agent) + ". " + said);
  return 0;
}

int pending(AppModel& model) {
  model.start();
  if (!model.status().running) return fail(model.detail());
  if (model.pending().empty()) {
    say("Nothing waits for your phone.");
    return 0;
  }
  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  for (const auto& p : model.pending()) {
    say(p.id + "  " + p.summary +
        (p.credential.empty() ? "" : " (" + p.credential + ")") + "  " +
        tolvanger::app::countdownTo(p.expiresAt, now));
  }
  return 0;
}

void printReading(const std::string& line, bool raw) {
  if (raw) {
    say(line);
    return;
  }
  const Reading r = Reading::of(line);
  say((r.clock.empty() ? std::string("     ") : r.clock) + "  " + r.plain);
}

int journal(AppModel& model, const std::vector<std::string>& args) {
  bool follow = false, raw = false;
  for (const auto& a : args) {
    if (a == "-f" || a == "--follow") {
      follow = true;
    } else if (a == "--raw") {
      raw = true;
    } else {
      std::fputs(kUsage, stderr);
      return 2;
    }
  }
  model.start();
  if (!model.status().running) return fail(model.detail());
  std::vector<std::string> seen = model.journal();
  for (const auto& line : seen) printReading(line, raw);
  while (follow && !interrupted) {
    model.pump(std::chrono::milliseconds(250));
    const auto& now = model.journal();
    if (now == seen) continue;
    // The new lines are those past the longest end of what was shown that
    // the new tail starts with.
    size_t overlap = std::min(seen.size(), now.size());
    for (; overlap > 0; --overlap) {
      if (std::equal(seen.end() - static_cast<long>(overlap), seen.end(),
                     now.begin())) {
        break;
      }
    }
    for (size_t i = overlap; i < now.size(); ++i) printReading(now[i], raw);
    seen = now;
  }
  return 0;
}

// Runs the round trip and waits for the phone. True when it passed.
bool roundTrip(AppModel& model) {
  model.runTrial();
  if (model.trial().kind == Trial::Kind::waiting) {
    say("Look at your phone");
    say("The request is on it. Approve it with your face.");
    waitOn(
        model, "waiting for the phone",
        [&] { return model.trial().kind != Trial::Kind::waiting; },
        [](const std::string&) { return false; });
  }
  return model.trial().kind == Trial::Kind::passed;
}

int test(AppModel& model) {
  model.start();
  const bool up = model.bringUpService();
  std::optional<std::string> shown;
  showNote(model, &shown);
  if (!up) return fail(model.detail());
  if (!roundTrip(model)) {
    return fail("It did not go through. " + model.trial().text);
  }
  say("Passed: your phone said yes, and it took " +
      std::to_string(model.trial().seconds) + "s to get here.");
  return 0;
}

// --- Setup ------------------------------------------------------------------

// One pairing window, from the QR to its end. True when a phone paired;
// `stopped` says the person ended it rather than the window closing.
bool pairOnce(AppModel& model, bool* stopped) {
  std::optional<std::string> shown;
  model.openPairing();
  if (model.pairing().kind != PairingState::Kind::waiting) {
    showNote(model, &shown);
    *stopped = true;
    return false;
  }
  const std::string url = model.pairing().url;
  say(tolvanger::service::QR::render(url));
  say("Open Tolvanger on the phone.");
  say("Tap Pair a computer, point the camera here.");
  say("Three numbers come up. This screen says which.");
  say("No camera? Give the phone this link:");
  say("  " + url);
  bool offered = false;
  const bool ended = waitOn(
      model, "waiting for the phone",
      [&] {
        if (!offered && model.pairing().kind == PairingState::Kind::offered) {
          offered = true;
          progressDone();
          say("");
          say(model.pairing().phone + " is offering its key");
          say("Tap this number on the phone: " + model.pairing().code);
          say("The wrong one starts over. That is what the three are for.");
        }
        return model.flow().step() != Step::pair ||
               model.pairing().kind == PairingState::Kind::idle;
      },
      [&](const std::string& line) { return line == "q" || line == "\x04"; });
  *stopped = !ended;
  if (model.flow().step() != Step::pair) return true;
  model.cancelPairing();
  return false;
}

bool pairStep(AppModel& model) {
  std::optional<std::string> shown;
  if (!model.status().running) {
    say("Starting the service…");
    if (!model.bringUpService()) {
      say("The service is not answering, so there is nothing to pair to.");
      return false;
    }
  }
  showNote(model, &shown);
  if (model.advanceSetup()) {
    say("A phone is already paired with this computer.");
    return true;
  }
  for (;;) {
    bool stopped = false;
    if (pairOnce(model, &stopped)) break;
    if (stopped || interrupted) return false;
    say("The pairing window closed without a phone.");
    say("Press Enter to try again, or type q to stop.");
    const auto line = typed(-1);
    if (!line || *line != "") return false;
  }
  std::string name = "your phone";
  if (!model.status().phones.empty()) name = model.status().phones.back().name;
  say("Paired with " + name + ".");
  return true;
}

bool secretStep(AppModel& model) {
  say("Put something in the vault");
  say("Anything for now. A fake key you can throw away.");
  say("  1. On the phone: the menu, then Secrets.");
  say("  2. Tap +. Name it demo, any value.");
  say("  3. Save. Your face unwraps the vault to write.");
  say("(Type skip and Enter to leave this for later.)");
  std::optional<std::string> shown;
  model.nudgePhoneForSecret();
  showNote(model, &shown);
  bool skipped = false;
  const bool got = waitOn(
      model, "waiting for a secret", [&] { return model.facts().secrets >= 1; },
      [&](const std::string& line) {
        if (line == "skip") skipped = model.skipSetupStep();
        return skipped || line == "\x04";
      });
  if (skipped) return true;
  if (!got) return false;
  model.advanceSetup();
  say("Your phone has " + Reading::list(model.status().secrets) + ".");
  return true;
}

bool testStep(AppModel& model) {
  if (model.status().phones.empty()) {
    say("Nothing to ask: no phone is paired with this computer yet.");
    return false;
  }
  say("A real request, filed the way an agent files one. Nothing happens "
      "when you approve it.");
  for (;;) {
    say("Press Enter to send it, or type skip.");
    const auto line = typed(-1);
    if (!line || *line == "\x04") return false;
    if (*line == "skip") return model.skipSetupStep();
    if (roundTrip(model)) {
      say("That is the whole product");
      say("Your phone said yes, and it took " +
          std::to_string(model.trial().seconds) +
          "s to get here. An agent's request goes exactly the same way.");
      model.advanceSetup();
      return true;
    }
    say("It did not go through");
    say(model.trial().text);
    say("Try again?");
  }
}

int setup(AppModel& model) {
  model.start();
  const char* forced = std::getenv("TOLVANGER_SETUP_STEP");
  if (forced != nullptr && Onboarding::stepNamed(forced)) {
    model.setFlow(Onboarding(*Onboarding::stepNamed(forced)));
    model.log().write("setup step=" + std::string(forced) + " (forced)");
  } else {
    model.log().write("setup step=welcome");
  }
  say("Set up Tolvanger");
  say("");
  if (model.flow().step() == Step::welcome) {
    say("Welcome to Tolvanger");
    say("Your phone becomes the vault. This computer asks, your face answers, "
        "nothing stays here.");
    say("Five minutes. Two of them optional.");
    say("Install Tolvanger on your phone, then come back here.");
    say("Press Enter to begin.");
    const auto line = typed(-1);
    if (!line || *line == "\x04") return fail("setup was left at the start");
    model.advanceSetup();
  }
  while (model.flow().step() != Step::done && !interrupted) {
    say("");
    bool went = false;
    switch (model.flow().step()) {
      case Step::pair:
        went = pairStep(model);
        break;
      case Step::secret:
        went = secretStep(model);
        break;
      case Step::test:
        went = testStep(model);
        break;
      case Step::welcome:
        went = model.advanceSetup();
        break;
      case Step::done:
        break;
    }
    if (!went) {
      return fail(model.lastError().value_or(
          "setup stopped at the " +
          std::string(Onboarding::name(model.flow().step())) + " step"));
    }
  }
  say("");
  std::string paired = "Computer and phone are paired";
  std::vector<std::string> skipped;
  if (model.flow().skipped().count(Step::secret))
    skipped.push_back("the secret");
  if (model.flow().skipped().count(Step::test))
    skipped.push_back("the round trip");
  if (!skipped.empty()) {
    paired += "; " + Reading::list(skipped) +
              (skipped.size() == 1 ? " is" : " are") +
              " waiting for you (`tolvanger test`)";
  }
  say(paired + ".");
  say(model.running() == AppModel::Running::installed
          ? "The service stays on in the background. Closing this terminal "
            "stops nothing."
          : "The service runs for this session only; restarting this "
            "computer stops it.");
  say("Wire an agent with `tolvanger wire claude` or `tolvanger wire codex`.");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGINT, [](int) { interrupted = 1; });
  std::signal(SIGTERM, [](int) { interrupted = 1; });
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  const std::string command = args[0];
  args.erase(args.begin());
  if (command == "help" || command == "--help" || command == "-h") {
    std::fputs(kUsage, stdout);
    return 0;
  }
  try {
    auto model = makeModel();
    if (command == "status" && args.empty()) return status(*model);
    if (command == "setup" && args.empty()) return setup(*model);
    if (command == "journal") return journal(*model, args);
    if (command == "wire") return wire(*model, args, true);
    if (command == "unwire") return wire(*model, args, false);
    if (command == "pending" && args.empty()) return pending(*model);
    if (command == "test" && args.empty()) return test(*model);
  } catch (const std::exception& e) {
    return fail(e.what());
  }
  std::fprintf(stderr, "tolvanger: unknown command %s\n%s", command.c_str(),
               kUsage);
  return 2;
}
