// The seam between the app and the platform's per-user service manager:
// is the service installed, install it, remove it, restart it. On Linux the
// manager is systemd's user instance, and the service is the user unit
// "tolvanger.service" running `<tolvanger-service> serve --quiet`.
//
// Where no user manager answers (a container, a CI machine, a bare SSH
// login), `available` says so with a reason, and the app runs the service as
// a process of its own for this session instead.
//
// Thread safety: use one object from one thread.
#ifndef TOLVANGER_APPCORE_SERVICE_CONTROL_H_
#define TOLVANGER_APPCORE_SERVICE_CONTROL_H_

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tolvanger::app {

class ServiceManager {
 public:
  virtual ~ServiceManager() = default;
  // Whether a manager answers at all; `why` gets the reason when not.
  virtual bool available(std::string* why) = 0;
  // Installed and enabled, so it comes back after a restart.
  virtual bool enabled() = 0;
  // Each throws std::runtime_error with the manager's own description.
  virtual void install() = 0;
  virtual void uninstall() = 0;
  virtual void restart() = 0;
};

class SystemdUser : public ServiceManager {
 public:
  static constexpr const char* kUnitName = "tolvanger.service";

  // `service` is the tolvanger-service executable the unit starts; `env` is
  // the app's environment (XDG_CONFIG_HOME, HOME and TOLVANGER_HOME count).
  SystemdUser(std::string service, std::map<std::string, std::string> env);

  // The unit's text. A home named by TOLVANGER_HOME goes into the unit.
  static std::string unitText(const std::string& service,
                              const std::optional<std::string>& home);
  // Where the unit file goes: $XDG_CONFIG_HOME/systemd/user, else
  // ~/.config/systemd/user.
  std::string unitPath() const;

  bool available(std::string* why) override;
  bool enabled() override;
  void install() override;
  void uninstall() override;
  void restart() override;

 private:
  // Runs systemctl --user with `args`; throws with its output on failure.
  std::string systemctl(const std::vector<std::string>& args) const;

  std::string service_;
  std::map<std::string, std::string> env_;
};

}  // namespace tolvanger::app

#endif  // TOLVANGER_APPCORE_SERVICE_CONTROL_H_
