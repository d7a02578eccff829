// The desktop app's single object of state. It keeps the service alive
// (installed with the platform's per-user service manager, or run as a
// process of its own for this session where none answers), reads it every
// two seconds over the agent socket with an admin `Admin`, and publishes a
// plain picture of it. It drives the slow conversations that a front starts:
// a pairing window, a nudge to the phone, the round-trip test, and wiring
// the agent clients. It has no screen: a front reads the published fields
// and calls the operations.
//
// Thread safety: confined to one thread (the front's main thread). Every
// operation blocks that thread for a socket round trip; the waits for the
// service to come up pause between rounds.
#ifndef TOLVANGER_APPCORE_APP_MODEL_H_
#define TOLVANGER_APPCORE_APP_MODEL_H_

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tolvanger/appcore/app_log.h"
#include "tolvanger/appcore/onboarding.h"
#include "tolvanger/appcore/service_control.h"
#include "tolvanger/appcore/wiring.h"

namespace tolvanger::service {
class Admin;
}

namespace tolvanger::app {

struct Phone {
  std::string id, name, fingerprint;
  bool cloud = false, sealed = false;
  bool operator==(const Phone&) const = default;
};

struct Status {
  bool running = false;
  std::string daemonID, host, fingerprint;
  std::vector<Phone> phones;
  std::vector<std::string> secrets;
  int64_t pending = 0, credentialsHeld = 0;
  bool installed = false;
  std::vector<std::string> listen;
  int64_t listenPort = 0;
  std::string fingerprintPQ;
  bool cloudEnabled = false, cloudConnected = false;
  std::string cloudTrouble;
  int64_t maxPhones = 0;
  std::optional<int64_t> build;
  bool operator==(const Status&) const = default;
  // The line for the iCloud road.
  std::string awayRoad() const;
};

struct Pending {
  std::string id, summary, credential;
  int64_t expiresAt = 0;
  bool operator==(const Pending&) const = default;
};

struct Client {
  std::string client, agent, scope;
  int64_t at = 0;
  bool live = false;
  bool operator==(const Client&) const = default;
};

struct Session {
  int64_t signedInAt = 0;
  std::optional<int64_t> expiresBy;
  bool operator==(const Session&) const = default;
};

struct PairingState {
  enum class Kind { idle, waiting, offered, done };
  Kind kind = Kind::idle;
  std::string url, code, phone;
  bool operator==(const PairingState&) const = default;
};

struct Trial {
  enum class Kind { idle, waiting, passed, failed };
  Kind kind = Kind::idle;
  std::string id;
  int64_t askedAt = 0, expiresAt = 0, seconds = 0;
  std::string text;
  bool operator==(const Trial&) const = default;
};

// "expired", "42s left", "3m left" for a moment in whole Unix seconds.
std::string countdownTo(int64_t at, int64_t now);

class AppModel {
 public:
  struct Options {
    std::string helper;  // the tolvanger-service executable the app starts
    std::string socket;  // the agent socket of the service's home
    std::optional<int64_t> ownBuild;
    std::shared_ptr<ServiceManager> manager;  // null: none on this system
    Environment env;       // the app's environment (client homes, PATH)
    std::string stateDir;  // where the app log and the session's pid live
  };

  // How the service runs as far as the app knows.
  enum class Running { notRunning, installed, thisSession, byHand };

  explicit AppModel(Options options);
  ~AppModel();
  AppModel(const AppModel&) = delete;
  AppModel& operator=(const AppModel&) = delete;

  // Refreshes once and starts the two-second ticker; `pump` runs it.
  void start();
  // Waits up to `most` for the ticker's next firing and ticks if it is due.
  void pump(std::chrono::milliseconds most);
  void tick();
  void refresh();

  // Brings the service up: installs it or runs it for this session, and
  // restarts one of an older build. True when it answers at the end.
  bool bringUpService();
  bool ensureHome();
  void install();
  void reinstall();
  void runForThisSession();

  void openPairing();
  void cancelPairing();
  void forget(const Phone& phone);
  void nudgePhoneForSecret();
  void runTrial();
  void say(const std::string& text);

  // Wiring the agent clients.
  void readWiring();
  void wire(Agent agent, bool on);
  std::string mcpCommand(Agent agent) const;
  bool wiringMissing(Agent agent) const;

  // The flow of the first run.
  Facts facts() const;
  bool advanceSetup();
  bool skipSetupStep();

  // The published fields.
  const Status& status() const { return status_; }
  const PairingState& pairing() const { return pairing_; }
  const std::vector<std::string>& journal() const { return journal_; }
  const std::vector<Pending>& pending() const { return pending_; }
  const std::vector<Client>& clients() const { return clients_; }
  const std::map<std::string, Session>& sessions() const { return sessions_; }
  const std::optional<std::string>& lastError() const { return lastError_; }
  bool starting() const { return starting_; }
  const Onboarding& flow() const { return flow_; }
  void setFlow(Onboarding flow) { flow_ = flow; }
  const std::optional<std::string>& note() const { return note_; }
  const Trial& trial() const { return trial_; }
  const std::map<std::string, Wired>& wired() const { return wired_; }
  const std::map<std::string, std::string>& wiringSaid() const {
    return wiringSaid_;
  }
  // Called with a field's name whenever a published field changes.
  void onChange(std::function<void(const std::string&)> observer) {
    observer_ = std::move(observer);
  }

  // The status object as the service last gave it, for status lines.
  const nlohmann::json& statusReply() const { return statusReply_; }

  std::string headline() const;
  std::string detail() const;
  std::string phoneLimitSentence() const;
  bool canPairAnother() const;
  const std::string& serviceCommand() const { return options_.helper; }
  bool serviceIsOlder() const;
  std::optional<int64_t> ownBuild() const { return options_.ownBuild; }
  Running running() const;
  // The sentence for how the service runs.
  std::string runningSentence() const;
  const Wiring& wiring() const { return wiring_; }
  AppLog& log() { return log_; }

 private:
  template <typename T>
  void publish(T& field, T value, const char* name) {
    if (field == value) return;
    field = std::move(value);
    if (observer_) observer_(name);
  }
  service::Admin* connected();
  void readPairing();
  void readTrial();
  bool waitForService();
  void restartOlderService();
  bool managerEnabled();
  bool sessionServiceAlive();
  int64_t now() const;

  Options options_;
  AppLog log_;
  Wiring wiring_;
  std::unique_ptr<service::Admin> admin_;
  bool ticking_ = false;
  std::chrono::steady_clock::time_point nextTick_;
  std::optional<bool> enabledCache_;
  pid_t sessionService_ = -1;
  std::chrono::steady_clock::time_point noteAt_;

  Status status_;
  PairingState pairing_;
  std::vector<std::string> journal_;
  std::vector<Pending> pending_;
  std::vector<Client> clients_;
  std::map<std::string, Session> sessions_;
  std::optional<std::string> lastError_;
  bool starting_ = false;
  Onboarding flow_;
  std::optional<std::string> note_;
  Trial trial_;
  std::map<std::string, Wired> wired_;
  std::set<std::string> wiringBusy_;
  std::map<std::string, std::string> wiringSaid_;
  nlohmann::json statusReply_ = nlohmann::json::object();
  std::function<void(const std::string&)> observer_;
};

}  // namespace tolvanger::app

#endif  // TOLVANGER_APPCORE_APP_MODEL_H_
