#include "tolvanger/appcore/service_control.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "process.h"

namespace tolvanger::app {

namespace {

constexpr const char* kSystemctl = "/usr/bin/systemctl";

// A path or an assignment quoted for a unit file: backslashes and quotes
// escaped, and "%" doubled so no "%x" sequence expands. A "$" stays as it is:
// systemd expands variables only in a command's arguments, never in the
// program's path or in Environment=.
std::string unitWord(const std::string& word) {
  std::string out = "\"";
  for (const char c : word) {
    if (c == '\\' || c == '"') out += '\\';
    if (c == '%') out += '%';
    out += c;
  }
  return out + "\"";
}

std::string valueOf(const std::map<std::string, std::string>& env,
                    const std::string& key) {
  const auto it = env.find(key);
  return it == env.end() ? "" : it->second;
}

}  // namespace

SystemdUser::SystemdUser(std::string service,
                         std::map<std::string, std::string> env)
    : service_(std::move(service)), env_(std::move(env)) {}

std::string SystemdUser::unitText(const std::string& service,
                                  const std::optional<std::string>& home) {
  std::string text =
      "[Unit]\n"
      "Description=Tolvanger: credentials from your phone, for your agents\n"
      "\n"
      "[Service]\n"
      "Type=simple\n"
      "ExecStart=" +
      unitWord(service) +
      " serve --quiet\n"
      "Restart=on-failure\n"
      "RestartSec=2\n";
  if (home) text += "Environment=" + unitWord("TOLVANGER_HOME=" + *home) + "\n";
  text +=
      "\n"
      "[Install]\n"
      "WantedBy=default.target\n";
  return text;
}

std::string SystemdUser::unitPath() const {
  const std::string config = valueOf(env_, "XDG_CONFIG_HOME");
  const std::string base = !config.empty() && config[0] == '/'
                               ? config
                               : valueOf(env_, "HOME") + "/.config";
  return base + "/systemd/user/" + kUnitName;
}

std::string SystemdUser::systemctl(const std::vector<std::string>& args) const {
  std::vector<std::string> all = {"--user"};
  all.insert(all.end(), args.begin(), args.end());
  // The user manager is found through these; nothing else is passed on.
  std::map<std::string, std::string> env = {{"PATH", "/usr/bin:/bin"}};
  for (const char* key :
       {"HOME", "XDG_RUNTIME_DIR", "DBUS_SESSION_BUS_ADDRESS", "USER"}) {
    const std::string v = valueOf(env_, key);
    if (!v.empty()) env[key] = v;
  }
  const Ran ran =
      runToEnd(kSystemctl, all, env, /*merged=*/true, std::chrono::seconds(30));
  if (!ran.started) throw std::runtime_error("systemctl: " + ran.error);
  if (ran.status != 0) {
    const std::string said = trimmed(ran.out);
    throw std::runtime_error(said.empty() ? "systemctl --user failed" : said);
  }
  return ran.out;
}

bool SystemdUser::available(std::string* why) {
  try {
    systemctl({"show-environment"});
    return true;
  } catch (const std::exception& e) {
    if (why != nullptr) *why = e.what();
    return false;
  }
}

bool SystemdUser::enabled() {
  try {
    return trimmed(systemctl({"is-enabled", kUnitName})) == "enabled";
  } catch (const std::exception&) {
    return false;
  }
}

void SystemdUser::install() {
  const std::string path = unitPath();
  std::filesystem::create_directories(
      std::filesystem::path(path).parent_path());
  const std::string home = valueOf(env_, "TOLVANGER_HOME");
  {
    std::ofstream out(path, std::ios::trunc);
    out << unitText(service_, home.empty() ? std::nullopt
                                           : std::optional<std::string>(home));
    if (!out) throw std::runtime_error("could not write " + path);
  }
  systemctl({"daemon-reload"});
  systemctl({"enable", "--now", kUnitName});
}

void SystemdUser::uninstall() {
  try {
    systemctl({"disable", "--now", kUnitName});
  } catch (const std::exception&) {
    // A unit that was never enabled is removed all the same.
  }
  std::error_code ignored;
  std::filesystem::remove(unitPath(), ignored);
  systemctl({"daemon-reload"});
}

void SystemdUser::restart() { systemctl({"restart", kUnitName}); }

}  // namespace tolvanger::app
