#include "tolvanger/service/admin.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tolvanger/kit/json_fields.h"
#include "tolvanger/kit/service_error.h"

namespace tolvanger::service {

using nlohmann::json;

Admin::Admin(const Home& home)
    : Admin(home.socketPath(), std::nullopt, "admin") {}

Admin::Admin(const std::string& path, std::optional<std::string> client,
             const std::string& role)
    : path_(path) {
  MutexLock lock(mu_);
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) throw ServiceError::internalFailure("could not make a socket");
  struct sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path) ||
      (std::memcpy(address.sun_path, path.c_str(), path.size() + 1),
       ::connect(fd_, reinterpret_cast<struct sockaddr*>(&address),
                 sizeof(address)) != 0)) {
    ::close(fd_);
    fd_ = -1;
    throw ServiceError::internalFailure("nothing is listening at " + path +
                                        " — is the service running?");
  }
  json hello = {{"op", "hello"}, {"role", role}};
  if (client) hello["client"] = *client;
  greeting_ = callLocked(hello);
  if (greeting_.value("ok", false) != true) {
    const auto error = greeting_.find("error");
    throw ServiceError::refused(error != greeting_.end() && error->is_string()
                                    ? error->get<std::string>()
                                    : "the service refused the hello");
  }
}

Admin::~Admin() {
  MutexLock lock(mu_);
  if (fd_ >= 0) ::close(fd_);
}

json Admin::call(const json& object) {
  MutexLock lock(mu_);
  return callLocked(object);
}

json Admin::callLocked(const json& object) {
  if (fd_ < 0) throw ServiceError::internalFailure("the socket closed");
  std::string line =
      object.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
  for (size_t done = 0; done < line.size();) {
    const ssize_t n =
        ::send(fd_, line.data() + done, line.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw ServiceError::internalFailure("the socket closed");
    done += static_cast<size_t>(n);
  }
  for (;;) {
    size_t nl;
    while ((nl = buffer_.find('\n')) == std::string::npos) {
      char chunk[8192];
      const ssize_t n = ::recv(fd_, chunk, sizeof(chunk), 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) throw ServiceError::internalFailure("the socket closed");
      buffer_.append(chunk, static_cast<size_t>(n));
    }
    json reply =
        json::parse(buffer_.begin(), buffer_.begin() + static_cast<long>(nl),
                    nullptr, false);
    buffer_.erase(0, nl + 1);
    if (!reply.is_object()) {
      throw ServiceError::internalFailure(
          "the service sent something unreadable");
    }
    if (!reply.contains("event")) return reply;
  }
}

namespace {

std::string text(const json& o, const char* key, std::string fallback = "") {
  const auto it = o.find(key);
  return it != o.end() && it->is_string() ? it->get<std::string>() : fallback;
}
int64_t number(const json& o, const char* key) {
  return JsonFields::integer(o, key).value_or(0);
}
bool flag(const json& o, const char* key) {
  const auto it = o.find(key);
  return it != o.end() && it->is_boolean() && it->get<bool>();
}
const json& object(const json& o, const char* key) {
  static const json empty = json::object();
  const auto it = o.find(key);
  return it != o.end() && it->is_object() ? *it : empty;
}
const json& list(const json& o, const char* key) {
  static const json empty = json::array();
  const auto it = o.find(key);
  return it != o.end() && it->is_array() ? *it : empty;
}
std::string label(const std::string& word) {
  std::string out = word;
  if (out.size() < 10) out.resize(10, ' ');
  return out;
}

}  // namespace

namespace StatusLines {

std::vector<std::string> render(const json& status) {
  std::vector<std::string> lines;
  const json& s = status.is_object() ? status : json::object();
  const std::string host = text(s, "host");
  lines.push_back(label("daemon") + text(s, "daemon_id") +
                  (host.empty() ? "" : " on " + host));
  const std::string fingerprint = text(s, "fingerprint");
  lines.push_back(label("identity") + (fingerprint.empty()
                                           ? "(no key yet — pair once)"
                                           : fingerprint));
  lines.push_back(label("requests") + "pending " +
                  std::to_string(number(s, "pending")) + ", credentials held " +
                  std::to_string(number(s, "credentials_held")));

  const json& cloud = object(s, "cloud");
  const bool roadOn = flag(cloud, "enabled");
  const bool connected = flag(cloud, "connected");
  const json& devices = list(s, "devices");
  if (devices.empty()) {
    lines.push_back("devices none paired — run `tolvanger-service pair`");
  }
  for (const json& d : devices) {
    if (!d.is_object()) continue;
    const int64_t left = number(d, "recovery_left");
    std::string line =
        label("device") + text(d, "name", "phone") + " " +
        text(d, "device_id") + " (" + std::to_string(left) + " recovery code" +
        (left == 1 ? "" : "s") + " left) " + text(d, "fingerprint") + " " +
        (text(d, "fingerprint_pq", "-") != "-" ? "post-quantum keys"
                                               : "classical keys");
    if (roadOn) {
      if (!flag(d, "cloud")) {
        line += " LAN only — open the app at home once";
      } else {
        line += connected ? " away ok" : " away down — see the iCloud line";
      }
    }
    lines.push_back(line);
  }

  const json& addresses = list(s, "addresses");
  if (addresses.empty()) {
    lines.push_back(
        "phone nothing is bound on this network — a phone in this room");
    lines.push_back(label("") +
                    "reaches this Mac through iCloud or not at all");
  } else {
    std::string joined;
    for (const json& a : addresses) {
      if (!a.is_string()) continue;
      if (!joined.empty()) joined += ", ";
      joined += a.get<std::string>();
    }
    lines.push_back(label("phone") + joined);
  }

  if (!roadOn) {
    lines.push_back(
        "icloud off — the phone reaches this Mac on your own network and "
        "nowhere else");
  } else if (connected) {
    lines.push_back(label("icloud") + text(cloud, "container") +
                    " — connected; the phone is rung through iCloud");
  } else {
    std::string error = text(cloud, "error");
    lines.push_back(label("icloud") + text(cloud, "container") +
                    " — not connected (" +
                    (error.empty() ? "starting" : error) + ")");
    lines.push_back(label("") +
                    "until this clears the phone can only reach this Mac from "
                    "your own network");
  }

  const json& tripwire = object(s, "tripwire");
  if (!flag(tripwire, "loaded")) {
    lines.push_back(
        "tripwire no profile — nothing warns you when a request arrives off "
        "the back of a "
        "message that reads wrong");
  } else {
    const std::string fitted = text(tripwire, "fitted");
    lines.push_back(label("tripwire") +
                    (fitted.empty() ? "profile loaded" : "fitted " + fitted) +
                    (flag(tripwire, "stale") ? ", refit wanted" : ""));
  }

  const json& last50 = object(object(s, "chain"), "last50");
  for (const auto& [road, words] :
       {std::pair{"lan", "at home"}, std::pair{"cloud", "away"}}) {
    const json& row = object(last50, road);
    if (row.empty()) continue;
    lines.push_back(label("approvals") + words + ": p50 " +
                    std::to_string(number(row, "p50")) + "ms, p95 " +
                    std::to_string(number(row, "p95")) + "ms over " +
                    std::to_string(number(row, "count")) + " (machinery " +
                    std::to_string(number(row, "machinery_p50")) + "ms/" +
                    std::to_string(number(row, "machinery_p95")) +
                    "ms; rest is a thumb)");
  }
  return lines;
}

}  // namespace StatusLines

namespace Pretty {
std::string render(const json& object) {
  return object.dump(2, ' ', false, json::error_handler_t::replace);
}
}  // namespace Pretty

}  // namespace tolvanger::service
