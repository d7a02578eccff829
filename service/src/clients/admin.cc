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

namespace {

std::string lineOf(const json& object) {
  return object.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

std::string helloLine(const std::optional<std::string>& client,
                      const std::string& role) {
  json hello = {{"op", "hello"}, {"role", role}};
  if (client) hello["client"] = *client;
  return lineOf(hello);
}

// Reads only the top level of a reply: whether it is an object, and its
// "ok", "error" and "event" keys. A hello's reply is the whole status, and a
// one-shot call needs no more of it than whether it succeeded.
struct TopLevel : nlohmann::json_sax<json> {
  bool object = false;
  bool ok = false;
  bool event = false;
  std::optional<std::string> error;

  bool null() override { return value(); }
  bool boolean(bool v) override {
    if (depth_ == 1 && key_ == "ok") ok = v;
    return value();
  }
  bool number_integer(number_integer_t) override { return value(); }
  bool number_unsigned(number_unsigned_t) override { return value(); }
  bool number_float(number_float_t, const string_t&) override {
    return value();
  }
  bool string(string_t& v) override {
    if (depth_ == 1 && key_ == "error") error = v;
    return value();
  }
  bool binary(binary_t&) override { return value(); }
  bool start_object(std::size_t) override {
    if (depth_ == 0) object = true;
    ++depth_;
    return true;
  }
  bool key(string_t& k) override {
    if (depth_ == 1) {
      key_ = k;
      if (k == "event") event = true;
    }
    return true;
  }
  bool end_object() override { return leave(); }
  bool start_array(std::size_t) override {
    ++depth_;
    return true;
  }
  bool end_array() override { return leave(); }
  bool parse_error(std::size_t, const std::string&,
                   const nlohmann::detail::exception&) override {
    return false;
  }

 private:
  bool value() {
    // A value at the top level that is not an object ends the reading.
    return depth_ > 0;
  }
  bool leave() {
    --depth_;
    return true;
  }
  int depth_ = 0;
  std::string key_;
};

void checkGreeting(const json& greeting) {
  if (greeting.value("ok", false) == true) return;
  const auto error = greeting.find("error");
  throw ServiceError::refused(error != greeting.end() && error->is_string()
                                  ? error->get<std::string>()
                                  : "the service refused the hello");
}

}  // namespace

Admin::Admin(const Home& home)
    : Admin(home.socketPath(), std::nullopt, "admin") {}

Admin::Admin(const std::string& path, std::optional<std::string> client,
             const std::string& role)
    : Admin(path) {
  MutexLock lock(mu_);
  sendLocked(helloLine(client, role));
  greeting_ = readReplyLocked();
  checkGreeting(greeting_);
}

Admin::Admin(const std::string& path) : path_(path) {
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
}

json Admin::callOnce(const std::string& path, std::optional<std::string> client,
                     const std::string& role, const json& object) {
  Admin admin(path);
  MutexLock lock(admin.mu_);
  // The hello and the op go out in one write: the service answers them in
  // order, so the hello's reply is read first and checked as a hello would
  // be, and the connection costs one round trip instead of two.
  admin.sendLocked(helloLine(client, role) + lineOf(object));
  admin.skipGreetingLocked();
  return admin.readReplyLocked();
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
  sendLocked(lineOf(object));
  return readReplyLocked();
}

void Admin::sendLocked(std::string_view lines) {
  if (fd_ < 0) throw ServiceError::internalFailure("the socket closed");
  while (!lines.empty()) {
    const ssize_t n = ::send(fd_, lines.data(), lines.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw ServiceError::internalFailure("the socket closed");
    lines.remove_prefix(static_cast<size_t>(n));
  }
}

std::string Admin::takeLineLocked() {
  size_t nl;
  while ((nl = buffer_.find('\n')) == std::string::npos) {
    char chunk[8192];
    const ssize_t n = ::recv(fd_, chunk, sizeof(chunk), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw ServiceError::internalFailure("the socket closed");
    buffer_.append(chunk, static_cast<size_t>(n));
  }
  std::string line = buffer_.substr(0, nl);
  buffer_.erase(0, nl + 1);
  return line;
}

json Admin::readReplyLocked() {
  for (;;) {
    json reply = json::parse(takeLineLocked(), nullptr, false);
    if (!reply.is_object()) {
      throw ServiceError::internalFailure(
          "the service sent something unreadable");
    }
    if (!reply.contains("event")) return reply;
  }
}

void Admin::skipGreetingLocked() {
  for (;;) {
    const std::string line = takeLineLocked();
    TopLevel top;
    if (!json::sax_parse(line, &top) || !top.object) {
      throw ServiceError::internalFailure(
          "the service sent something unreadable");
    }
    if (top.event) continue;
    if (top.ok) return;
    throw ServiceError::refused(top.error ? *top.error
                                          : "the service refused the hello");
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
