#include "tolvanger/phone/phone_home.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tolvanger/kit/ids.h"
#include "tolvanger/kit/secret_json.h"
#include "tolvanger/phone/phone_client.h"
#include "tolvanger/port/files.h"
#include "tolvanger/port/system.h"

namespace tolvanger::phone {
namespace {

using nlohmann::json;

constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kFileMode = 0600;

std::string errorText(int error) { return std::strerror(error); }

std::string secretText(const SecretJson& object, const char* key) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return "";
  const SecretString& value = it->get_ref<const SecretString&>();
  return std::string(value.begin(), value.end());
}

}  // namespace

SavedPairing::~SavedPairing() { wipe(deviceSecret); }

// --- Secrets -----------------------------------------------------------------

std::string SecretEntry::normalHost(std::string_view text) {
  std::string normal;
  for (const char c : text) {
    normal += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
  }
  const bool bad =
      normal.empty() || std::any_of(normal.begin(), normal.end(), [](char c) {
        return c == '/' || static_cast<unsigned char>(c) <= ' ' || c == 0x7f;
      });
  if (bad) throw Refusal("That is not a host: \"" + std::string(text) + "\".");
  return normal;
}

void SecretEntry::check() const {
  if (!Ids::isID(name)) {
    throw Refusal(
        "That is not a name a secret can have: use lower-case letters, "
        "digits, '-', '.' and '_', at most 64.");
  }
  if (kind != "bearer" && kind != "basic" && kind != "api_key" &&
      kind != "cookie") {
    throw Refusal("A secret's kind is bearer, basic, api_key or cookie.");
  }
}

const SecretEntry* SecretList::find(std::string_view name) const {
  const auto it =
      std::find_if(entries.begin(), entries.end(),
                   [&](const SecretEntry& e) { return e.name == name; });
  return it == entries.end() ? nullptr : &*it;
}

std::string SecretList::kindOf(std::string_view name) const {
  const SecretEntry* entry = find(name);
  return entry != nullptr ? entry->kind : "bearer";
}

void SecretList::put(SecretEntry entry) {
  remove(entry.name);
  const auto at =
      std::lower_bound(entries.begin(), entries.end(), entry.name,
                       [](const SecretEntry& e, const std::string& name) {
                         return e.name < name;
                       });
  entries.insert(at, std::move(entry));
}

bool SecretList::remove(std::string_view name) {
  return std::erase_if(
             entries, [&](const SecretEntry& e) { return e.name == name; }) > 0;
}

void SecretList::checkSession(const SignInAsk& ask) const {
  const SecretEntry* held = find(ask.secret);
  if (held != nullptr && held->kind != "cookie") {
    throw Refusal("This phone already holds " + ask.secret + " as a " +
                  held->kind + " secret, so nothing was signed.");
  }
}

void SecretList::putSession(const SignInAsk& ask, int64_t now) {
  put(SecretEntry{
      ask.secret, "cookie", {ask.host}, now, "tolvanger-phone", {}});
}

json SecretList::announcement() const {
  json list = json::array();
  for (const SecretEntry& e : entries) {
    json item = {{"name", e.name}, {"kind", e.kind}, {"hosts", e.hosts}};
    if (e.signedInAt) item["signed_in_at"] = *e.signedInAt;
    if (e.userAgent) item["user_agent"] = *e.userAgent;
    if (!e.rules.empty()) item["rules"] = AccessRule::asList(e.rules);
    list.push_back(std::move(item));
  }
  return list;
}

// --- The home ----------------------------------------------------------------

std::string PhoneHome::defaultPath() {
  if (const char* home = std::getenv("TOLVANGER_PHONE_HOME");
      home != nullptr && *home != '\0') {
    return home;
  }
  if (const char* data = std::getenv("XDG_DATA_HOME");
      data != nullptr && *data != '\0') {
    return std::string(data) + "/Tolvanger Phone";
  }
  const std::optional<std::string> user = port::userHomeDirectory();
  if (!user) {
    throw Refusal(
        "There is no home directory to keep this phone's keys in; set "
        "TOLVANGER_PHONE_HOME.");
  }
  return *user + "/.local/share/tolvanger-phone";
}

PhoneHome PhoneHome::open(const std::string& path) {
  for (size_t at = path.find('/', 1);; at = path.find('/', at + 1)) {
    const std::string part = path.substr(0, at);
    if (mkdir(part.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
      throw Refusal("Could not make " + part + " (" + errorText(errno) + ").");
    }
    if (at == std::string::npos) break;
  }
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) ||
      chmod(path.c_str(), kDirectoryMode) != 0) {
    throw Refusal("Could not use " + path + " as this phone's home.");
  }
  return PhoneHome(path);
}

std::string PhoneHome::file(std::string_view name) const {
  return path_ + "/" + std::string(name);
}

std::optional<SecretBytes> PhoneHome::read(std::string_view name) const {
  const std::string path = file(name);
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) {
    if (errno == ENOENT) return std::nullopt;
    throw Refusal("Could not read " + path + " (" + errorText(errno) + ").");
  }
  SecretBytes buffer(kMaxFile + 1);
  size_t size = 0;
  while (size < buffer.size()) {
    const ssize_t n =
        ::read(fd, buffer.mutableData() + size, buffer.size() - size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    size += static_cast<size_t>(n);
  }
  close(fd);
  if (size > kMaxFile) {
    throw Refusal(path + " is too large to be this phone's.");
  }
  return SecretBytes(buffer.reveal().first(size));
}

void PhoneHome::write(std::string_view name, ByteView data) const {
  const std::string path = file(name);
  if (const int error =
          port::replaceFile(path, data.data(), data.size(), kFileMode)) {
    throw Refusal("Could not write " + path + " (" + errorText(error) + ").");
  }
}

std::unique_ptr<SavedPairing> PhoneHome::pairing() const {
  const std::optional<SecretBytes> bytes = read(kPairingFile);
  if (!bytes) return nullptr;
  const ByteView view = bytes->reveal();
  const SecretJson stored =
      SecretJson::parse(view.begin(), view.end(), nullptr, false);
  auto state = std::make_unique<SavedPairing>();
  if (stored.is_object()) {
    state->address = secretText(stored, "address");
    state->deviceID = secretText(stored, "device_id");
    state->deviceName = secretText(stored, "device_name");
    state->deviceSecret = secretText(stored, "device_secret");
    state->daemonID = secretText(stored, "daemon_id");
    state->daemonHost = secretText(stored, "daemon_host");
    state->daemonFingerprint = secretText(stored, "daemon_fingerprint");
    state->daemonSPKI =
        fromBase64(secretText(stored, "daemon_spki_b64")).value_or(Bytes{});
    const std::string pq = secretText(stored, "daemon_pq_b64");
    // A pin that does not decode counts as damaged, never as no pin.
    if (!pq.empty()) state->daemonPQ = fromBase64(pq).value_or(Bytes{});
    const auto cloud = stored.find("cloud");
    state->cloud =
        cloud != stored.end() && cloud->is_boolean() && cloud->get<bool>();
    const auto at = stored.find("paired_at");
    if (at != stored.end() && at->is_number_integer()) {
      state->pairedAt = at->get<int64_t>();
    }
  }
  if (state->address.empty() || state->deviceID.empty() ||
      state->deviceSecret.empty() || state->daemonSPKI.empty() ||
      (state->daemonPQ && state->daemonPQ->empty())) {
    throw Refusal(file(kPairingFile) + " is damaged; pair this phone again.");
  }
  return state;
}

std::unique_ptr<SavedPairing> PhoneHome::requirePairing() const {
  std::unique_ptr<SavedPairing> state = pairing();
  if (!state) {
    throw Refusal(
        "This phone is not paired; run tolvanger-phone pair <link> first.");
  }
  return state;
}

void PhoneHome::savePairing(const SavedPairing& state) const {
  SecretJson stored = SecretJson::object();
  const auto put = [&stored](const char* key, const std::string& value) {
    stored[key] = SecretString(value.begin(), value.end());
  };
  put("address", state.address);
  put("device_id", state.deviceID);
  put("device_name", state.deviceName);
  put("device_secret", state.deviceSecret);
  put("daemon_id", state.daemonID);
  put("daemon_host", state.daemonHost);
  put("daemon_fingerprint", state.daemonFingerprint);
  put("daemon_spki_b64", toBase64(state.daemonSPKI));
  if (state.daemonPQ) put("daemon_pq_b64", toBase64(*state.daemonPQ));
  stored["cloud"] = state.cloud;
  stored["paired_at"] = state.pairedAt;
  const SecretString text = stored.dump(2);
  write(kPairingFile,
        {reinterpret_cast<const uint8_t*>(text.data()), text.size()});
}

SecretList PhoneHome::secrets() const {
  SecretList list;
  const std::optional<SecretBytes> bytes = read(kSecretsFile);
  if (!bytes) return list;
  const ByteView view = bytes->reveal();
  const json stored = json::parse(view.begin(), view.end(), nullptr, false);
  const auto secrets =
      stored.is_object() ? stored.find("secrets") : stored.end();
  if (!stored.is_object() || secrets == stored.end() || !secrets->is_array()) {
    // Read as empty, the list would be announced short and the Mac would
    // forget every secret in it.
    throw Refusal(file(kSecretsFile) +
                  " is damaged; move it away and add this phone's secrets "
                  "again.");
  }
  if (const auto seq = PhoneJSON::integer(stored, "seq")) list.seq = *seq;
  for (const json& item : *secrets) {
    const std::string* name = PhoneJSON::text(item, "name");
    const std::string* kind = PhoneJSON::text(item, "kind");
    if (name == nullptr || kind == nullptr) continue;
    SecretEntry entry{*name, *kind, {}, std::nullopt, std::nullopt, {}};
    entry.signedInAt = PhoneJSON::integer(item, "signed_in_at");
    if (const std::string* agent = PhoneJSON::text(item, "user_agent")) {
      entry.userAgent = *agent;
    }
    if (const auto hosts = item.find("hosts");
        hosts != item.end() && hosts->is_array()) {
      for (const json& host : *hosts) {
        if (host.is_string()) entry.hosts.push_back(host.get<std::string>());
      }
    }
    if (const auto rules = item.find("rules");
        rules != item.end() && rules->is_array()) {
      for (const json& rule : *rules) {
        if (auto parsed = AccessRule::parse(rule)) {
          entry.rules.push_back(*std::move(parsed));
        }
      }
    }
    list.put(std::move(entry));
  }
  return list;
}

void PhoneHome::saveSecrets(const SecretList& list) const {
  const std::string text =
      json{{"seq", list.seq}, {"secrets", list.announcement()}}.dump(2) + "\n";
  write(kSecretsFile, asBytes(text));
}

crypto::XWingPrivateKey PhoneHome::cloudKey() const {
  if (std::optional<SecretBytes> seed = read(kCloudKeyFile)) {
    auto key = crypto::XWingPrivateKey::fromSeed(seed->reveal());
    if (!key) throw Refusal(file(kCloudKeyFile) + " does not hold a key.");
    return *std::move(key);
  }
  auto key = crypto::XWingPrivateKey::generate();
  write(kCloudKeyFile, key.seed().reveal());
  return key;
}

SoftwareSigner PhoneHome::signer() const { return SoftwareSigner::open(path_); }

}  // namespace tolvanger::phone
