#include "tolvanger/appcore/app_model.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <thread>

#include "process.h"
#include "tolvanger/kit/json_fields.h"
#include "tolvanger/service/admin.h"

namespace tolvanger::app {

using nlohmann::json;
namespace fs = std::filesystem;

namespace {

constexpr auto kTickEvery = std::chrono::seconds(2);
constexpr auto kRoundPause = std::chrono::milliseconds(250);
constexpr int kStartRounds = 20;
constexpr int kRestartRounds = 40;
constexpr auto kNoteLasts = std::chrono::seconds(12);
constexpr int64_t kTrialSeconds = 180;

std::string text(const json& o, const char* key) {
  const auto it = o.find(key);
  return it != o.end() && it->is_string() ? it->get<std::string>() : "";
}
int64_t number(const json& o, const char* key) {
  return JsonFields::integer(o, key).value_or(0);
}
bool flag(const json& o, const char* key) {
  const auto it = o.find(key);
  return it != o.end() && it->is_boolean() && it->get<bool>();
}
const json& list(const json& o, const char* key) {
  static const json empty = json::array();
  const auto it = o.find(key);
  return it != o.end() && it->is_array() ? *it : empty;
}
std::vector<std::string> texts(const json& o, const char* key) {
  std::vector<std::string> out;
  for (const json& v : list(o, key)) {
    if (v.is_string()) out.push_back(v.get<std::string>());
  }
  return out;
}
bool ok(const json& reply) { return flag(reply, "ok"); }

std::string realPath(const std::string& path) {
  char buf[PATH_MAX];
  return ::realpath(path.c_str(), buf) != nullptr ? std::string(buf) : path;
}

}  // namespace

std::string countdownTo(int64_t at, int64_t now) {
  const int64_t d = at - now;
  if (d < 1) return "expired";
  if (d >= 120) return std::to_string(d / 60) + "m left";
  return std::to_string(d) + "s left";
}

std::string Status::awayRoad() const {
  if (!cloudEnabled)
    return "off — phones reach this computer on your own network";
  if (cloudConnected) return "connected · iCloud";
  return "dialing · iCloud — " +
         (cloudTrouble.empty() ? std::string("no answer yet") : cloudTrouble);
}

AppModel::AppModel(Options options)
    : options_(std::move(options)),
      log_(options_.stateDir),
      wiring_(Homes::current(options_.env), options_.helper, options_.env) {}

AppModel::~AppModel() = default;

int64_t AppModel::now() const {
  return static_cast<int64_t>(std::time(nullptr));
}

// --- Start and tick ----------------------------------------------------------

void AppModel::start() {
  if (ticking_) return;
  refresh();
  ticking_ = true;
  nextTick_ = std::chrono::steady_clock::now() + kTickEvery;
}

void AppModel::pump(std::chrono::milliseconds most) {
  if (!ticking_) start();
  const auto now = std::chrono::steady_clock::now();
  if (now < nextTick_) {
    std::this_thread::sleep_for(
        std::min<std::chrono::steady_clock::duration>(nextTick_ - now, most));
  }
  if (std::chrono::steady_clock::now() >= nextTick_) {
    nextTick_ = std::chrono::steady_clock::now() + kTickEvery;
    tick();
  }
}

void AppModel::tick() {
  refresh();
  if (pairing_.kind == PairingState::Kind::waiting ||
      pairing_.kind == PairingState::Kind::offered) {
    readPairing();
  }
  readTrial();
  if (note_ && std::chrono::steady_clock::now() - noteAt_ >= kNoteLasts) {
    publish(note_, std::optional<std::string>(), "note");
  }
  if (flow_.step() == Onboarding::Step::pair) {
    Onboarding moved = flow_;
    if (moved.advance(facts())) {
      publish(flow_, moved, "flow");
      log_.write("setup step=" + std::string(Onboarding::name(flow_.step())) +
                 " (a phone answered)");
    }
  }
}

service::Admin* AppModel::connected() {
  if (admin_) return admin_.get();
  try {
    admin_ = std::make_unique<service::Admin>(options_.socket, std::nullopt,
                                              "admin");
  } catch (const std::exception&) {
    admin_.reset();
  }
  return admin_.get();
}

bool AppModel::managerEnabled() {
  if (!options_.manager) return false;
  if (!enabledCache_) enabledCache_ = options_.manager->enabled();
  return *enabledCache_;
}

void AppModel::refresh() {
  service::Admin* admin = connected();
  json reply;
  if (admin != nullptr) {
    try {
      reply = admin->call({{"op", "status"}});
    } catch (const std::exception&) {
      admin_.reset();
      admin = nullptr;
    }
  }
  if (admin == nullptr || !reply.is_object() || !ok(reply)) {
    Status unknown;
    unknown.installed = managerEnabled();
    publish(status_, unknown, "status");
    return;
  }
  statusReply_ = reply;
  Status s;
  s.running = true;
  s.daemonID = text(reply, "daemon_id");
  s.host = text(reply, "host");
  s.fingerprint = text(reply, "fingerprint");
  for (const json& d : list(reply, "devices")) {
    if (!d.is_object()) continue;
    // The status names a phone `name`; an older service said `phone`.
    std::string name = text(d, "name");
    if (name.empty()) name = text(d, "phone");
    s.phones.push_back({text(d, "device_id"), name, text(d, "fingerprint"),
                        flag(d, "cloud"), flag(d, "sealed")});
  }
  s.secrets = texts(reply, "secrets");
  s.pending = number(reply, "pending");
  s.credentialsHeld = number(reply, "credentials_held");
  s.listen = texts(reply, "listen");
  s.listenPort = number(reply, "listen_port");
  s.fingerprintPQ = text(reply, "fingerprint_pq");
  s.maxPhones = number(reply, "max_phones");
  s.build = JsonFields::integer(reply, "build");
  const auto cloud = reply.find("cloud");
  if (cloud != reply.end() && cloud->is_object()) {
    s.cloudEnabled = flag(*cloud, "enabled");
    s.cloudConnected = flag(*cloud, "connected");
    s.cloudTrouble = text(*cloud, "error");
  }
  s.installed = managerEnabled();
  publish(status_, s, "status");

  try {
    const json tail = admin->call({{"op", "journal.tail"}, {"lines", 24}});
    if (ok(tail)) publish(journal_, texts(tail, "lines"), "journal");

    const json waiting = admin->call({{"op", "request.pending"}});
    if (ok(waiting)) {
      std::vector<Pending> rows;
      for (const json& r : list(waiting, "requests")) {
        if (!r.is_object()) continue;
        std::string summary = text(r, "summary");
        if (summary.empty()) summary = "a request";
        rows.push_back({text(r, "id"), summary, text(r, "credential"),
                        number(r, "expires_at")});
      }
      publish(pending_, rows, "pending");
    }

    const json secrets = admin->call({{"op", "secret.list"}});
    if (ok(secrets)) {
      std::map<std::string, Session> found;
      for (const json& n : list(secrets, "secrets")) {
        if (!n.is_object() || text(n, "name").empty() ||
            !JsonFields::integer(n, "signed_in_at")) {
          continue;
        }
        found[text(n, "name")] = {number(n, "signed_in_at"),
                                  JsonFields::integer(n, "expires_by")};
      }
      publish(sessions_, found, "sessions");
    }

    const json callers = admin->call({{"op", "clients"}});
    if (ok(callers)) {
      std::vector<Client> rows;
      for (const json& c : list(callers, "clients")) {
        if (!c.is_object()) continue;
        rows.push_back({text(c, "client"), text(c, "agent"), text(c, "scope"),
                        number(c, "at"), flag(c, "live")});
      }
      publish(clients_, rows, "clients");
    }
  } catch (const std::exception&) {
    // A service that went away mid-refresh is looked for anew next time.
    admin_.reset();
  }
}

// --- Bringing the service up
// ---------------------------------------------------

bool AppModel::serviceIsOlder() const {
  if (!options_.ownBuild || !status_.running) return false;
  return status_.build.value_or(0) < *options_.ownBuild;
}

bool AppModel::waitForService() {
  for (int round = 0; round < kStartRounds; ++round) {
    refresh();
    if (status_.running) return true;
    std::this_thread::sleep_for(kRoundPause);
  }
  return false;
}

bool AppModel::bringUpService() {
  refresh();
  if (status_.running && serviceIsOlder() && managerEnabled()) {
    restartOlderService();
    return status_.running;
  }
  if (status_.running) return true;
  publish(starting_, true, "starting");
  if (!ensureHome()) {
    publish(starting_, false, "starting");
    return false;
  }
  if (!managerEnabled()) install();
  if (!waitForService()) {
    if (managerEnabled()) {
      reinstall();
    } else {
      runForThisSession();
    }
    waitForService();
  }
  publish(starting_, false, "starting");
  return status_.running;
}

bool AppModel::ensureHome() {
  log_.write("first run: " + options_.helper + " init --quiet");
  const Ran ran = runToEnd(options_.helper, {"init", "--quiet"}, std::nullopt,
                           /*merged=*/false, std::chrono::seconds(60));
  if (!ran.started) {
    publish(lastError_,
            std::optional<std::string>("could not run " + options_.helper +
                                       ": " + ran.error),
            "lastError");
    return false;
  }
  if (ran.status == 0) return true;
  log_.write("init --quiet exited " + std::to_string(ran.status));
  std::string said = trimmed(ran.err);
  if (said.empty()) said = "the service could not make its home";
  publish(lastError_, std::optional<std::string>(said), "lastError");
  return false;
}

void AppModel::install() {
  std::string why;
  if (!options_.manager || !options_.manager->available(&why)) {
    const std::string sentence =
        "No systemd user manager answers in this login, so the service runs "
        "for this session only and stops when this computer restarts.";
    log_.write("no user manager: " + (why.empty() ? "none given" : why));
    say(sentence);
    runForThisSession();
    return;
  }
  try {
    options_.manager->install();
    enabledCache_.reset();
    log_.write("installed the systemd user unit");
    refresh();
  } catch (const std::exception& e) {
    enabledCache_.reset();
    publish(lastError_,
            std::optional<std::string>(
                std::string("systemd would not install the background "
                            "service: ") +
                e.what() + ". Running it for this session instead."),
            "lastError");
    runForThisSession();
  }
}

void AppModel::reinstall() {
  if (!options_.manager) return;
  try {
    options_.manager->uninstall();
  } catch (const std::exception& e) {
    log_.write(std::string("uninstall: ") + e.what());
  }
  try {
    options_.manager->install();
  } catch (const std::exception& e) {
    publish(lastError_,
            std::optional<std::string>(
                std::string("systemd would not install the background "
                            "service again: ") +
                e.what()),
            "lastError");
  }
  enabledCache_.reset();
  refresh();
}

static std::string sessionPidFile(const std::string& stateDir) {
  return stateDir + "/session-service.pid";
}

bool AppModel::sessionServiceAlive() {
  if (sessionService_ > 0) {
    if (::waitpid(sessionService_, nullptr, WNOHANG) == sessionService_) {
      sessionService_ = -1;
    } else if (::kill(sessionService_, 0) == 0) {
      return true;
    }
  }
  // One started by an earlier run of the app, still serving this session.
  std::ifstream in(sessionPidFile(options_.stateDir));
  long pid = 0;
  if (!(in >> pid) || pid <= 1 || ::kill(static_cast<pid_t>(pid), 0) != 0) {
    return false;
  }
  std::error_code ec;
  const fs::path exe =
      fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec);
  return !ec && exe.string() == realPath(options_.helper);
}

void AppModel::runForThisSession() {
  if (sessionServiceAlive()) return;
  try {
    sessionService_ = startDetached(options_.helper, {"serve", "--quiet"});
    std::error_code ignored;
    fs::create_directories(options_.stateDir, ignored);
    std::ofstream(sessionPidFile(options_.stateDir), std::ios::trunc)
        << sessionService_ << "\n";
    log_.write("running the service for this session pid=" +
               std::to_string(sessionService_));
  } catch (const std::exception& e) {
    publish(lastError_,
            std::optional<std::string>(
                std::string("could not start the service: ") + e.what()),
            "lastError");
  }
}

void AppModel::restartOlderService() {
  auto build = [](std::optional<int64_t> b) {
    return b ? std::to_string(*b) : std::string("unknown");
  };
  log_.write("service build " + build(status_.build) + " is older than " +
             build(options_.ownBuild) + "; restarting it");
  publish(starting_, true, "starting");
  auto kick = [&] {
    try {
      options_.manager->restart();
    } catch (const std::exception& e) {
      log_.write(std::string("restart: ") + e.what());
    }
  };
  kick();
  for (int attempt = 0; attempt < 2; ++attempt) {
    for (int round = 0; round < kRestartRounds; ++round) {
      refresh();
      if (!(status_.running && serviceIsOlder())) {
        publish(starting_, false, "starting");
        return;
      }
      std::this_thread::sleep_for(kRoundPause);
    }
    if (attempt == 0) {
      reinstall();
      kick();
    }
  }
  publish(starting_, false, "starting");
  publish(lastError_,
          std::optional<std::string>(
              "The background service is still an older build. Restart this "
              "computer to finish the update."),
          "lastError");
}

AppModel::Running AppModel::running() const {
  if (!status_.running) return Running::notRunning;
  if (status_.installed) return Running::installed;
  if (const_cast<AppModel*>(this)->sessionServiceAlive()) {
    return Running::thisSession;
  }
  return Running::byHand;
}

std::string AppModel::runningSentence() const {
  switch (running()) {
    case Running::installed:
      return "Installed. Comes back after a restart.";
    case Running::thisSession:
      return "Running for this session only.";
    case Running::byHand:
      return "Running, started by hand; not installed.";
    case Running::notRunning:
      break;
  }
  return "Not running.";
}

// --- Pairing, nudges, the round trip
// ---------------------------------------------

void AppModel::openPairing() {
  service::Admin* admin = connected();
  try {
    if (admin == nullptr) throw std::runtime_error("no service");
    const json reply = admin->call({{"op", "pair.open"}});
    if (!ok(reply) || text(reply, "url").empty()) {
      throw std::runtime_error(text(reply, "error"));
    }
    publish(
        pairing_,
        PairingState{PairingState::Kind::waiting, text(reply, "url"), "", ""},
        "pairing");
  } catch (const std::exception& e) {
    if (admin != nullptr && std::string(e.what()) == "the socket closed") {
      admin_.reset();
    }
    say("could not open a pairing window" +
        (std::string(e.what()).empty() || std::string(e.what()) == "no service"
             ? std::string()
             : ": " + std::string(e.what())));
  }
}

void AppModel::cancelPairing() {
  if (service::Admin* admin = connected()) {
    try {
      admin->call({{"op", "pair.cancel"}});
    } catch (const std::exception&) {
      admin_.reset();
    }
  }
  publish(pairing_, PairingState{}, "pairing");
}

void AppModel::readPairing() {
  const size_t phonesBefore = status_.phones.size();
  json reply;
  try {
    // A connection of its own, as a pairing read must not disturb the
    // refresh's.
    service::Admin admin(options_.socket, std::nullopt, "admin");
    reply = admin.call({{"op", "pair.status"}});
  } catch (const std::exception&) {
    return;
  }
  const std::string state = text(reply, "state");
  if (state == "offered") {
    std::string name = text(reply, "name");
    if (name.empty()) name = "a phone";
    publish(pairing_,
            PairingState{PairingState::Kind::offered, pairing_.url,
                         text(reply, "code"), name},
            "pairing");
    return;
  }
  if (state == "open") return;
  refresh();
  const bool paired =
      status_.phones.size() > phonesBefore ||
      (pairing_.kind == PairingState::Kind::offered && !status_.phones.empty());
  publish(
      pairing_,
      PairingState{paired ? PairingState::Kind::done : PairingState::Kind::idle,
                   "", "", ""},
      "pairing");
}

void AppModel::forget(const Phone& phone) {
  if (service::Admin* admin = connected()) {
    try {
      admin->call({{"op", "device.forget"}, {"id", phone.id}});
    } catch (const std::exception&) {
      admin_.reset();
    }
  }
  refresh();
}

void AppModel::nudgePhoneForSecret() {
  service::Admin* admin = connected();
  try {
    if (admin == nullptr) throw std::runtime_error("no service");
    const json reply = admin->call({{"op", "nudge.raise"}, {"kind", "secret"}});
    if (!ok(reply)) throw std::runtime_error(text(reply, "error"));
    say(flag(reply, "push")
            ? "Asked your phone through iCloud. It should buzz."
            : "Asked your phone. Open Tolvanger on it and it lands on "
              "Secrets.");
  } catch (const std::exception&) {
    say("This computer could not reach your phone.");
  }
}

void AppModel::runTrial() {
  if (status_.phones.empty()) {
    publish(trial_,
            Trial{Trial::Kind::failed, "", 0, 0, 0,
                  "There is no phone to ask yet."},
            "trial");
    return;
  }
  try {
    service::Admin* admin = connected();
    if (admin == nullptr) {
      throw std::runtime_error("nothing is listening at " + options_.socket +
                               " — is the service running?");
    }
    const json reply = admin->call(
        {{"op", "request"},
         {"operation", "tolvanger.test"},
         {"fields", {{"reason", "proving the round trip, from setup"}}},
         {"ttl_s", kTrialSeconds}});
    if (!ok(reply) || text(reply, "request_id").empty()) {
      publish(
          trial_,
          Trial{Trial::Kind::failed, "", 0, 0, 0, "The service refused it."},
          "trial");
      return;
    }
    const int64_t asked = now();
    const int64_t expires = JsonFields::integer(reply, "expires_at")
                                .value_or(asked + kTrialSeconds);
    publish(trial_,
            Trial{Trial::Kind::waiting, text(reply, "request_id"), asked,
                  expires, 0, ""},
            "trial");
  } catch (const std::exception& e) {
    admin_.reset();
    publish(trial_,
            Trial{Trial::Kind::failed, "", 0, 0, 0,
                  std::string("This computer could not file a request. ") +
                      e.what()},
            "trial");
  }
}

void AppModel::readTrial() {
  if (trial_.kind != Trial::Kind::waiting) return;
  service::Admin* admin = connected();
  if (admin == nullptr) return;
  auto failed = [&](std::string sentence) {
    publish(trial_,
            Trial{Trial::Kind::failed, "", 0, 0, 0, std::move(sentence)},
            "trial");
  };
  try {
    const json polled = admin->call({{"op", "poll"}, {"id", trial_.id}});
    const std::string state = text(polled, "state");
    if (state == "approved") {
      const json redeemed = admin->call({{"op", "redeem"}, {"id", trial_.id}});
      if (ok(redeemed)) {
        publish(trial_,
                Trial{Trial::Kind::passed, trial_.id, trial_.askedAt,
                      trial_.expiresAt, now() - trial_.askedAt, ""},
                "trial");
      } else {
        failed("It was approved, but the approval was already spent.");
      }
    } else if (state == "pending") {
      if (now() >= trial_.expiresAt) {
        failed("Nobody answered before it expired.");
      }
    } else if (state == "denied") {
      failed("The phone said no. That is the button working.");
    } else {
      failed("The request was " +
             (state.empty() ? text(polled, "error") : state) + ".");
    }
  } catch (const std::exception&) {
    admin_.reset();
  }
}

void AppModel::say(const std::string& sentence) {
  noteAt_ = std::chrono::steady_clock::now();
  publish(note_, std::optional<std::string>(sentence), "note");
  log_.write("note: " + sentence);
}

// --- Wiring
// ----------------------------------------------------------------------

void AppModel::readWiring() {
  std::map<std::string, Wired> states;
  for (Agent a : kAgents) states[std::string(agentId(a))] = wiring_.state(a);
  publish(wired_, states, "wired");
}

void AppModel::wire(Agent agent, bool on) {
  const std::string id(agentId(agent));
  if (!wiringBusy_.insert(id).second) return;
  std::string said;
  try {
    if (on) {
      wiring_.configure(agent);
    } else {
      wiring_.unconfigure(agent);
    }
    said = "A new " + std::string(agentCLI(agent)) + " session picks it up.";
  } catch (const std::exception& e) {
    said = e.what();
  }
  wiringBusy_.erase(id);
  log_.write("wiring client=" + std::string(agentCLI(agent)) +
             " on=" + (on ? "true" : "false") + " said=" + said);
  readWiring();
  auto sayings = wiringSaid_;
  sayings[id] = said;
  publish(wiringSaid_, sayings, "wiringSaid");
}

std::string AppModel::mcpCommand(Agent agent) const {
  return wiring_.manualCommand(agent);
}

bool AppModel::wiringMissing(Agent agent) const {
  const auto it = wired_.find(std::string(agentId(agent)));
  return ::access(options_.helper.c_str(), X_OK) == 0 &&
         (it == wired_.end() || it->second.kind == Wired::Kind::absent);
}

// --- The first run
// ---------------------------------------------------------------

Facts AppModel::facts() const {
  return {!status_.phones.empty(), static_cast<int>(status_.secrets.size()),
          trial_.kind == Trial::Kind::passed};
}

bool AppModel::advanceSetup() {
  Onboarding moved = flow_;
  if (!moved.advance(facts())) return false;
  publish(flow_, moved, "flow");
  log_.write("setup step=" + std::string(Onboarding::name(flow_.step())));
  return true;
}

bool AppModel::skipSetupStep() {
  Onboarding moved = flow_;
  if (!moved.skip()) return false;
  publish(flow_, moved, "flow");
  log_.write("setup step=" + std::string(Onboarding::name(flow_.step())) +
             " (skipped)");
  return true;
}

// --- Lines for the person
// ----------------------------------------------------------

std::string AppModel::headline() const {
  if (!status_.running) return "The service is not answering";
  if (status_.phones.empty()) return "No phone yet";
  if (!pending_.empty() || trial_.kind == Trial::Kind::waiting) {
    return "Look at your phone";
  }
  return "Nothing to approve";
}

std::string AppModel::detail() const {
  if (!status_.running) {
    return lastError_.value_or("Nothing can be approved until it is.");
  }
  if (status_.phones.empty()) {
    return "Nothing can be approved until one is paired.";
  }
  if (pending_.size() >= 2) {
    return std::to_string(pending_.size()) + " requests waiting.";
  }
  if (pending_.size() == 1) {
    return pending_[0].summary + " · " +
           countdownTo(pending_[0].expiresAt, now());
  }
  if (trial_.kind == Trial::Kind::waiting) {
    return "a test · " + countdownTo(trial_.expiresAt, now());
  }
  if (status_.credentialsHeld >= 1) {
    return std::to_string(status_.credentialsHeld) +
           " credential(s) in memory, on the way out.";
  }
  if (status_.secrets.empty()) {
    return "Your phone has not announced a secret yet.";
  }
  return "Nothing held here.";
}

bool AppModel::canPairAnother() const {
  return static_cast<int64_t>(status_.phones.size()) <
         std::max<int64_t>(status_.maxPhones, 1);
}

std::string AppModel::phoneLimitSentence() const {
  if (status_.maxPhones > 1) {
    return "This computer has the " + std::to_string(status_.maxPhones) +
           " phones its plan allows. Forget one to pair another.";
  }
  return "One phone per computer. Forget this one to pair another, or "
         "replace it with a recovery code.";
}

}  // namespace tolvanger::app
