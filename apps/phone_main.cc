// tolvanger-phone: a software phone, for development and for people without
// the phone app. It pairs with a Mac, lists and shows what waits, approves
// and denies, and announces its list of secrets; its keys live in software.
// It has no browser: approving a sign-in to a site takes the session's cookie
// header from standard input, checks it, and announces the session as a
// secret of kind cookie. Like any value, the header is never kept here; it is
// asked for again when a request needs it.
//
//   tolvanger-phone [--clear] pair <link> [--name NAME]
//   tolvanger-phone [--clear] pending
//   tolvanger-phone [--clear] show <id>
//   tolvanger-phone [--clear] approve <id> [--hold SECONDS]
//   tolvanger-phone [--clear] deny <id>
//   tolvanger-phone [--clear] secrets add <name> [--kind K] --host H [...]
//   tolvanger-phone secrets remove <name>
//   tolvanger-phone secrets list
//
// Every call but pairing goes sealed through POST /v1/sealed unless --clear
// is given (for a Mac whose require_sealed is off). Picks, confirmations,
// credential values and cookie headers come from standard input, one line
// each, so a script can pipe them; a credential value is never taken from the
// command line. A failure is one sentence on standard error and exit status 1
// (2 for a mistake in the command line).
//
// The home is $TOLVANGER_PHONE_HOME, else "$XDG_DATA_HOME/Tolvanger Phone",
// else ~/.local/share/tolvanger-phone, mode 0700. It holds the signer's keys
// (signer.bin, signer-pq.bin), this phone's X-Wing key (cloud-key.bin), what
// pairing left (pairing.json) and the list of secrets (secrets.json), every
// file mode 0600 and replaced through a temporary name and a rename.
#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/ascii.h"
#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/xwing.h"
#include "tolvanger/kit/fingerprint.h"
#include "tolvanger/kit/ids.h"
#include "tolvanger/kit/pair_link.h"
#include "tolvanger/kit/pairing_client.h"
#include "tolvanger/kit/phone_client.h"
#include "tolvanger/kit/phone_request.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/kit/sealed_road.h"
#include "tolvanger/kit/secret_json.h"
#include "tolvanger/kit/secure_memory.h"
#include "tolvanger/kit/sign_in.h"
#include "tolvanger/kit/signer.h"
#include "tolvanger/port/files.h"
#include "tolvanger/port/memory.h"
#include "tolvanger/port/system.h"

namespace {

using nlohmann::json;
using tolvanger::Bytes;
using tolvanger::ByteView;
using tolvanger::SecretBytes;
using tolvanger::SecretJson;
using tolvanger::SecretString;

constexpr const char* kUsage =
    "usage: tolvanger-phone [--clear] <command> [arguments]\n"
    "\n"
    "commands:\n"
    "  pair <link> [--name NAME]      pair with the Mac that shows this link\n"
    "  pending                        list what waits: id, title, sentence\n"
    "  show <id>                      show a request as the phone reads it\n"
    "  approve <id> [--hold SECONDS]  approve it; type \"approve\" to confirm\n"
    "                                 (a sign-in then asks for the site's\n"
    "                                 cookie header)\n"
    "  deny <id>                      deny it\n"
    "  secrets add <name> [--kind bearer|basic|api_key|cookie] --host H "
    "[--host H2 ...]\n"
    "  secrets remove <name>\n"
    "  secrets list\n"
    "\n"
    "Picks, confirmations, credential values and cookie headers are read\n"
    "from standard input, one line each; values and cookie headers are never\n"
    "kept here. --clear talks to the Mac without the sealed road,\n"
    "for a Mac whose require_sealed is off. The home is $TOLVANGER_PHONE_HOME\n"
    "if set.\n";

constexpr std::chrono::milliseconds kTimeout{15000};
// The longest credential value read from standard input.
constexpr size_t kMaxValue = 64 * 1024;
// Far above any file this program writes.
constexpr size_t kMaxFile = 1 << 20;
constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kFileMode = 0600;

constexpr const char* kPairingFile = "pairing.json";
constexpr const char* kSecretsFile = "secrets.json";
constexpr const char* kCloudKeyFile = "cloud-key.bin";

// A failure worded for the person: printed as it stands.
class Refusal : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A mistake in the command line: printed with a pointer to the usage.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

int64_t nowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string errorText(int error) { return std::strerror(error); }

bool interactive() { return isatty(STDIN_FILENO) == 1; }

// A question for the person, shown only when a person is at the terminal.
void prompt(const std::string& text) {
  if (!interactive()) return;
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
}

// --- Standard input ------------------------------------------------------
//
// Read one byte at a time with read(2), so that nothing is buffered ahead:
// a credential value on a later line never passes through a buffer this
// program cannot wipe.

// One line without its line end (and a carriage return before it); nothing
// at the end of input.
std::optional<std::string> readLine() {
  std::string line;
  char c = 0;
  bool any = false;
  for (;;) {
    const ssize_t n = read(STDIN_FILENO, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    any = true;
    if (c == '\n') break;
    line.push_back(c);
  }
  if (!any) return std::nullopt;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

// Turns the terminal's echo off while a secret is typed.
class EchoOff {
 public:
  EchoOff() {
    if (!interactive() || tcgetattr(STDIN_FILENO, &saved_) != 0) return;
    termios quiet = saved_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    active_ = tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) == 0;
  }
  ~EchoOff() {
    if (!active_) return;
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_);
    std::fputs("\n", stdout);
    std::fflush(stdout);
  }
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;

 private:
  termios saved_{};
  bool active_ = false;
};

// One line of secret text, straight into wipeable memory.
SecretBytes readSecretLine() {
  EchoOff echoOff;
  SecretBytes buffer(kMaxValue + 1);
  size_t size = 0;
  char c = 0;
  for (;;) {
    const ssize_t n = read(STDIN_FILENO, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0 || c == '\n') break;
    if (size == buffer.size()) {
      tolvanger::wipe(&c, 1);
      throw Refusal("That value is longer than this phone will send.");
    }
    buffer.mutableData()[size++] = static_cast<uint8_t>(c);
  }
  tolvanger::wipe(&c, 1);
  if (size > 0 && buffer.reveal()[size - 1] == '\r') --size;
  return SecretBytes(buffer.reveal().first(size));
}

// --- The home --------------------------------------------------------------

std::string homeDirectory() {
  if (const char* home = std::getenv("TOLVANGER_PHONE_HOME");
      home != nullptr && *home != '\0') {
    return home;
  }
  if (const char* data = std::getenv("XDG_DATA_HOME");
      data != nullptr && *data != '\0') {
    return std::string(data) + "/Tolvanger Phone";
  }
  const std::optional<std::string> user = tolvanger::port::userHomeDirectory();
  if (!user) {
    throw Refusal(
        "There is no home directory to keep this phone's keys in; set "
        "TOLVANGER_PHONE_HOME.");
  }
  return *user + "/.local/share/tolvanger-phone";
}

// Makes the home and any missing parent (each 0700), and gives the home
// mode 0700 whatever the umask.
std::string ensureHome() {
  const std::string home = homeDirectory();
  for (size_t at = home.find('/', 1);; at = home.find('/', at + 1)) {
    const std::string part = home.substr(0, at);
    if (mkdir(part.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
      throw Refusal("Could not make " + part + " (" + errorText(errno) + ").");
    }
    if (at == std::string::npos) break;
  }
  struct stat st;
  if (stat(home.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) ||
      chmod(home.c_str(), kDirectoryMode) != 0) {
    throw Refusal("Could not use " + home + " as this phone's home.");
  }
  return home;
}

std::string inHome(const std::string& home, const char* name) {
  return home + "/" + name;
}

// Replaces `path` through "<path>.tmp", mode 0600, flushed, then renamed, so
// a reader sees the old file or the new one.
void writeAtomically(const std::string& path, ByteView data) {
  if (const int error = tolvanger::port::replaceFile(path, data.data(),
                                                     data.size(), kFileMode)) {
    throw Refusal("Could not write " + path + " (" + errorText(error) + ").");
  }
}

// A file's bytes in wipeable memory; nothing if it does not exist.
std::optional<SecretBytes> readFile(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) {
    if (errno == ENOENT) return std::nullopt;
    throw Refusal("Could not read " + path + " (" + errorText(errno) + ").");
  }
  SecretBytes buffer(kMaxFile + 1);
  size_t size = 0;
  while (size < buffer.size()) {
    const ssize_t n =
        read(fd, buffer.mutableData() + size, buffer.size() - size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    size += static_cast<size_t>(n);
  }
  close(fd);
  if (size > kMaxFile)
    throw Refusal(path + " is too large to be this phone's.");
  return SecretBytes(buffer.reveal().first(size));
}

// This phone's X-Wing key, drawn and kept on first use.
tolvanger::crypto::XWingPrivateKey cloudKey(const std::string& home) {
  const std::string path = inHome(home, kCloudKeyFile);
  if (std::optional<SecretBytes> seed = readFile(path)) {
    auto key = tolvanger::crypto::XWingPrivateKey::fromSeed(seed->reveal());
    if (!key) throw Refusal(path + " does not hold a key.");
    return *std::move(key);
  }
  auto key = tolvanger::crypto::XWingPrivateKey::generate();
  writeAtomically(path, key.seed().reveal());
  return key;
}

// --- What pairing left -----------------------------------------------------

struct PhoneState {
  std::string address;
  std::string deviceID;
  std::string deviceName;
  std::string deviceSecret;
  std::string daemonID;
  std::string daemonHost;
  std::string daemonFingerprint;
  Bytes daemonSPKI;
  std::optional<Bytes> daemonPQ;
  bool cloud = false;
  int64_t pairedAt = 0;

  PhoneState() = default;
  PhoneState(const PhoneState&) = delete;
  PhoneState& operator=(const PhoneState&) = delete;
  ~PhoneState() { tolvanger::wipe(deviceSecret); }
};

std::string secretText(const SecretJson& object, const char* key) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return "";
  const SecretString& value = it->get_ref<const SecretString&>();
  return std::string(value.begin(), value.end());
}

// The pairing kept in the home; nothing if this phone has not paired.
std::unique_ptr<PhoneState> loadPairing(const std::string& home) {
  const std::string path = inHome(home, kPairingFile);
  const std::optional<SecretBytes> bytes = readFile(path);
  if (!bytes) return nullptr;
  const ByteView view = bytes->reveal();
  const SecretJson stored =
      SecretJson::parse(view.begin(), view.end(), nullptr, false);
  auto state = std::make_unique<PhoneState>();
  if (stored.is_object()) {
    state->address = secretText(stored, "address");
    state->deviceID = secretText(stored, "device_id");
    state->deviceName = secretText(stored, "device_name");
    state->deviceSecret = secretText(stored, "device_secret");
    state->daemonID = secretText(stored, "daemon_id");
    state->daemonHost = secretText(stored, "daemon_host");
    state->daemonFingerprint = secretText(stored, "daemon_fingerprint");
    state->daemonSPKI =
        tolvanger::fromBase64(secretText(stored, "daemon_spki_b64"))
            .value_or(Bytes{});
    const std::string pq = secretText(stored, "daemon_pq_b64");
    if (!pq.empty()) state->daemonPQ = tolvanger::fromBase64(pq);
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
    throw Refusal(path + " is damaged; pair this phone again.");
  }
  return state;
}

std::unique_ptr<PhoneState> requirePairing(const std::string& home) {
  std::unique_ptr<PhoneState> state = loadPairing(home);
  if (!state) {
    throw Refusal(
        "This phone is not paired; run tolvanger-phone pair <link> first.");
  }
  return state;
}

void savePairing(const std::string& home, const PhoneState& state) {
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
  put("daemon_spki_b64", tolvanger::toBase64(state.daemonSPKI));
  if (state.daemonPQ)
    put("daemon_pq_b64", tolvanger::toBase64(*state.daemonPQ));
  stored["cloud"] = state.cloud;
  stored["paired_at"] = state.pairedAt;
  const SecretString text = stored.dump(2);
  writeAtomically(inHome(home, kPairingFile),
                  {reinterpret_cast<const uint8_t*>(text.data()), text.size()});
}

// --- The list of secrets ---------------------------------------------------

struct SecretEntry {
  std::string name;
  std::string kind;
  std::vector<std::string> hosts;
  // For a site session: when it was signed in, and the browser that did it.
  std::optional<int64_t> signedInAt;
  std::optional<std::string> userAgent;
};

struct SecretList {
  int64_t seq = 0;
  std::vector<SecretEntry> entries;  // sorted by name

  json announcement() const {
    json list = json::array();
    for (const SecretEntry& e : entries) {
      json item = {{"name", e.name}, {"kind", e.kind}, {"hosts", e.hosts}};
      if (e.signedInAt) item["signed_in_at"] = *e.signedInAt;
      if (e.userAgent) item["user_agent"] = *e.userAgent;
      list.push_back(std::move(item));
    }
    return list;
  }
};

SecretList loadSecrets(const std::string& home) {
  SecretList list;
  const std::optional<SecretBytes> bytes = readFile(inHome(home, kSecretsFile));
  if (!bytes) return list;
  const ByteView view = bytes->reveal();
  const json stored = json::parse(view.begin(), view.end(), nullptr, false);
  if (!stored.is_object()) return list;
  if (const auto seq = tolvanger::PhoneJSON::integer(stored, "seq")) {
    list.seq = *seq;
  }
  const auto secrets = stored.find("secrets");
  if (secrets == stored.end() || !secrets->is_array()) return list;
  for (const json& item : *secrets) {
    const std::string* name = tolvanger::PhoneJSON::text(item, "name");
    const std::string* kind = tolvanger::PhoneJSON::text(item, "kind");
    if (name == nullptr || kind == nullptr) continue;
    SecretEntry entry{*name, *kind, {}, std::nullopt, std::nullopt};
    entry.signedInAt = tolvanger::PhoneJSON::integer(item, "signed_in_at");
    if (const std::string* agent =
            tolvanger::PhoneJSON::text(item, "user_agent")) {
      entry.userAgent = *agent;
    }
    if (const auto hosts = item.find("hosts");
        hosts != item.end() && hosts->is_array()) {
      for (const json& host : *hosts) {
        if (host.is_string()) entry.hosts.push_back(host.get<std::string>());
      }
    }
    list.entries.push_back(std::move(entry));
  }
  return list;
}

void saveSecrets(const std::string& home, const SecretList& list) {
  const std::string text =
      json{{"seq", list.seq}, {"secrets", list.announcement()}}.dump(2) + "\n";
  writeAtomically(inHome(home, kSecretsFile), tolvanger::asBytes(text));
}

// --- The road to the Mac ---------------------------------------------------

// One way of reaching the paired Mac: sealed (the default) or in the clear.
class Connection {
 public:
  Connection(const std::string& home, const PhoneState& state, bool clear)
      : state_(state), home_(home) {
    if (clear) {
      clear_.emplace(state.address, kTimeout);
    } else {
      sealed_ = road();
    }
  }

  tolvanger::PendingList pending() {
    return sealed_ ? sealed_->pending() : clear_->pending();
  }

  tolvanger::TolvangerRequest request(std::string_view id) {
    return sealed_ ? sealed_->request(id)
                   : clear_->request(id, state_.daemonSPKI, state_.daemonPQ);
  }

  json approve(const tolvanger::TolvangerRequest& request, ByteView signature,
               ByteView pqSignature,
               const tolvanger::CredentialOffer* credential,
               std::chrono::system_clock::time_point drawnAt) {
    if (sealed_) {
      return sealed_->approve(request, signature, pqSignature, credential,
                              drawnAt, tolvanger::DrawnFrom::kPoll);
    }
    std::optional<json> envelope;
    if (credential != nullptr) {
      // Even in the clear a credential travels sealed to the Mac's card.
      const tolvanger::CloudCard card = road()->refreshCard();
      envelope = credential->seal(card.key).asDictionary();
    }
    return clear_->approve(request, state_.deviceID, signature, pqSignature,
                           drawnAt, tolvanger::DrawnFrom::kPoll, envelope);
  }

  json deny(std::string_view id,
            std::chrono::system_clock::time_point drawnAt) {
    return sealed_ ? sealed_->deny(id, drawnAt, tolvanger::DrawnFrom::kPoll)
                   : clear_->deny(id, drawnAt, tolvanger::DrawnFrom::kPoll);
  }

  json announce(const json& secrets, int64_t seq) {
    if (sealed_) return sealed_->announce(secrets, seq);
    json body = {{"secrets", secrets},
                 {"seq", seq},
                 {"device_id", state_.deviceID},
                 {"device_secret", state_.deviceSecret}};
    json answer;
    try {
      answer = clear_->call("/v1/secrets", body);
    } catch (...) {
      tolvanger::wipe(body["device_secret"].get_ref<std::string&>());
      throw;
    }
    tolvanger::wipe(body["device_secret"].get_ref<std::string&>());
    return answer;
  }

 private:
  std::unique_ptr<tolvanger::SealedRoad> road() const {
    return std::make_unique<tolvanger::SealedRoad>(
        state_.address, state_.daemonID, state_.deviceID, state_.deviceSecret,
        cloudKey(home_), state_.daemonSPKI, state_.daemonPQ, kTimeout);
  }

  const PhoneState& state_;
  std::string home_;
  std::unique_ptr<tolvanger::SealedRoad> sealed_;
  std::optional<tolvanger::DaemonClient> clear_;
};

// --- Commands --------------------------------------------------------------

struct Options {
  bool clear = false;
  std::vector<std::string> args;
};

// The value after `flag`, removing both from `args`; nothing if absent.
std::optional<std::string> takeOption(std::vector<std::string>& args,
                                      std::string_view flag) {
  const auto it = std::find(args.begin(), args.end(), flag);
  if (it == args.end()) return std::nullopt;
  if (it + 1 == args.end()) {
    throw UsageError(std::string(flag) + " needs a value");
  }
  std::string value = *(it + 1);
  args.erase(it, it + 2);
  return value;
}

void expectArguments(const std::vector<std::string>& args, size_t count,
                     const char* what) {
  if (args.size() != count) throw UsageError(what);
  for (const std::string& arg : args) {
    if (arg.starts_with("--")) throw UsageError("unknown option " + arg);
  }
}

void requireRequestID(const std::string& id) {
  if (!tolvanger::Ids::isID(id)) {
    throw Refusal("That is not a request id.");
  }
}

int pair(std::vector<std::string> args) {
  std::optional<std::string> name = takeOption(args, "--name");
  expectArguments(args, 1, "pair needs the pair link");
  std::string why;
  const std::optional<tolvanger::PairURL> link =
      tolvanger::PairURL::parse(args[0], &why);
  if (!link) throw Refusal("That is not a pair link: " + why + ".");
  const std::optional<tolvanger::PairingClient> client =
      tolvanger::PairingClient::forLink(*link, kTimeout);
  if (!client) {
    throw Refusal("That pair link names no address to reach the Mac at.");
  }

  const std::string home = ensureHome();
  const tolvanger::SoftwareSigner signer =
      tolvanger::SoftwareSigner::open(home);
  const tolvanger::crypto::XWingPrivateKey cloud = cloudKey(home);
  const Bytes cloudPublic = cloud.publicKey().raw();
  const Bytes spki = signer.publicKeyDER();
  const Bytes pq = signer.pqPublicKey();
  // A phone that pairs again keeps its device id.
  const std::unique_ptr<PhoneState> before = loadPairing(home);
  const std::string deviceID =
      before ? before->deviceID : "phone-" + tolvanger::Random::hex(8);
  if (!name) {
    const std::string host = tolvanger::port::hostName();
    name = host.empty() ? "Software phone" : "Software phone on " + host;
  }

  const tolvanger::PairOffer offer =
      client->pair(link->token, deviceID, *name, spki, pq, cloudPublic);
  if (offer.fingerprint != tolvanger::Fingerprint::of(spki)) {
    throw Refusal(
        "The Mac received another key than this phone's, so this phone did "
        "not pair.");
  }
  std::printf("The Mac shows one of these numbers: %s  %s  %s\n",
              offer.choices[0].c_str(), offer.choices[1].c_str(),
              offer.choices[2].c_str());
  std::fflush(stdout);
  prompt("Which one does the Mac show? ");
  const std::optional<std::string> pick = readLine();
  if (!pick) throw Refusal("No number was given, so this phone did not pair.");
  const std::string code(tolvanger::Ascii::trim(*pick));
  if (std::find(offer.choices.begin(), offer.choices.end(), code) ==
      offer.choices.end()) {
    throw Refusal(
        "That is not one of the three numbers, so this phone did not pair.");
  }

  const tolvanger::Pairing pairing =
      client->confirm(link->token, code, deviceID, cloud);
  if (!pairing.verifiesProof(spki, ByteView(pq), ByteView(cloudPublic))) {
    throw Refusal(
        "The Mac's proof does not fit this phone's keys, so the pairing was "
        "not kept.");
  }
  const std::string daemonFingerprint =
      tolvanger::Fingerprint::of(pairing.daemonSPKI);
  if (daemonFingerprint != link->fingerprint ||
      pairing.daemonID != link->daemonID) {
    throw Refusal(
        "The Mac that answered is not the one in the pair link, so the "
        "pairing was not kept.");
  }

  PhoneState state;
  state.address = client->client().base();
  state.deviceID = pairing.deviceID;
  state.deviceName = *name;
  state.deviceSecret = pairing.deviceSecret;
  state.daemonID = pairing.daemonID;
  state.daemonHost = pairing.daemonHost;
  state.daemonFingerprint = daemonFingerprint;
  state.daemonSPKI = pairing.daemonSPKI;
  state.daemonPQ = pairing.daemonPQ;
  state.cloud = pairing.cloud;
  state.pairedAt = nowSeconds();
  savePairing(home, state);

  std::printf("Paired with %s (%s) as %s.\n", state.daemonID.c_str(),
              daemonFingerprint.c_str(), state.deviceID.c_str());
  if (!pairing.recoveryCodes.empty()) {
    std::printf(
        "Recovery codes, shown only now; keep them where only you can read "
        "them:\n");
    for (const std::string& recovery : pairing.recoveryCodes) {
      std::printf("  %s\n", recovery.c_str());
    }
  }
  return 0;
}

// `value` with every line after the first indented by `indent`, so that a
// value of several lines stays under its label.
std::string indented(std::string_view value, std::string_view indent) {
  std::string out;
  for (const char c : value) {
    out += c;
    if (c == '\n') out += indent;
  }
  return out;
}

// The words a person reads on the phone before approving.
void printRequest(const tolvanger::TolvangerRequest& request) {
  const tolvanger::PlainRequest plain = request.plain();
  std::printf("%s\n", request.headline().c_str());
  if (request.notice) std::printf("Notice: %s\n", request.notice->c_str());
  std::printf("%s\n", plain.sentence.c_str());
  for (const auto& fact : plain.facts) {
    std::printf("%s: %s\n", fact.label.c_str(),
                indented(fact.value, "  ").c_str());
  }
  if (plain.hasMore) {
    std::printf("Details:\n");
    for (const auto& field : request.fields) {
      std::printf("  %s: %s\n", field.label.c_str(),
                  indented(field.value, "    ").c_str());
    }
  }
  std::printf("Expires in %lld seconds.\n",
              static_cast<long long>(request.secondsLeft()));
}

int pending(const Options& options, std::vector<std::string> args) {
  expectArguments(args, 0, "pending takes no arguments");
  const std::string home = ensureHome();
  const std::unique_ptr<PhoneState> state = requirePairing(home);
  Connection connection(home, *state, options.clear);
  for (const auto& row : connection.pending().rows) {
    std::string headline;
    std::string sentence;
    try {
      const tolvanger::TolvangerRequest request = connection.request(row.id);
      headline = request.headline();
      sentence = request.plain().sentence;
    } catch (const std::exception& error) {
      headline = "(cannot be shown)";
      sentence = tolvanger::Failures::of(error).sentence;
    }
    std::printf("%s\t%s\t%s\n", row.id.c_str(), headline.c_str(),
                sentence.c_str());
  }
  return 0;
}

int show(const Options& options, std::vector<std::string> args) {
  expectArguments(args, 1, "show needs a request id");
  requireRequestID(args[0]);
  const std::string home = ensureHome();
  const std::unique_ptr<PhoneState> state = requirePairing(home);
  Connection connection(home, *state, options.clear);
  printRequest(connection.request(args[0]));
  return 0;
}

void announce(const Options& options, const std::string& home,
              SecretList& list);

// Checks a pasted cookie header without keeping it: no control character,
// and at least one name=value pair. Throws a Refusal that names `host`.
void checkCookieHeader(ByteView header, const std::string& host) {
  if (header.empty()) {
    throw Refusal("No cookie header was given for " + host +
                  ", so nothing was signed.");
  }
  if (std::any_of(header.begin(), header.end(),
                  [](uint8_t c) { return c < 0x20 || c == 0x7F; })) {
    throw Refusal("The cookie header for " + host +
                  " has control characters in it, so nothing was signed.");
  }
  // A pair is a piece between ";" with a name before its "=".
  bool pair = false;
  size_t start = 0;
  while (!pair && start <= header.size()) {
    size_t end = start;
    while (end < header.size() && header[end] != ';') ++end;
    size_t first = start;
    while (first < end && header[first] == ' ') ++first;
    for (size_t at = first; at < end; ++at) {
      if (header[at] == '=') {
        pair = at > first;
        break;
      }
    }
    start = end + 1;
  }
  if (!pair) {
    throw Refusal("That is not a cookie header for " + host +
                  ": it needs at least one name=value pair, so nothing was "
                  "signed.");
  }
}

int approve(const Options& options, std::vector<std::string> args) {
  std::optional<int64_t> hold;
  if (const std::optional<std::string> text = takeOption(args, "--hold")) {
    char* end = nullptr;
    errno = 0;
    const long long seconds = std::strtoll(text->c_str(), &end, 10);
    if (text->empty() || *end != '\0' || errno != 0 || seconds < 1) {
      throw UsageError("--hold needs a whole number of seconds");
    }
    hold = seconds;
  }
  expectArguments(args, 1, "approve needs a request id");
  requireRequestID(args[0]);
  const std::string home = ensureHome();
  const std::unique_ptr<PhoneState> state = requirePairing(home);
  Connection connection(home, *state, options.clear);

  const auto drawnAt = std::chrono::system_clock::now();
  const tolvanger::TolvangerRequest request = connection.request(args[0]);
  printRequest(request);
  std::fflush(stdout);
  const std::optional<tolvanger::SignInAsk> ask = request.signIn();
  if (!ask && request.operation == tolvanger::SignIn::kOperation) {
    throw Refusal(
        "This sign-in names no usable https address or name to keep it "
        "under, so this phone cannot act on it.");
  }
  SecretList list;
  if (ask) {
    list = loadSecrets(home);
    for (const SecretEntry& entry : list.entries) {
      if (entry.name == ask->secret && entry.kind != "cookie") {
        throw Refusal("This phone already holds " + ask->secret + " as a " +
                      entry.kind + " secret, so nothing was signed.");
      }
    }
  }
  prompt("Type approve to sign this request: ");
  const std::optional<std::string> confirmation = readLine();
  if (!confirmation || tolvanger::Ascii::trim(*confirmation) != "approve") {
    throw Refusal(
        "Nothing was signed, because the confirmation was not the word "
        "approve.");
  }

  if (ask) {
    prompt("Paste the cookie header for " + ask->host + ": ");
    const SecretBytes header = readSecretLine();
    checkCookieHeader(header.reveal(), ask->host);
  }

  // No credential goes with a sign-in: the session is announced instead.
  std::optional<tolvanger::CredentialOffer> offer;
  if (const std::optional<std::string> name = request.credentialName();
      name && !ask) {
    std::string kind = "bearer";
    for (const SecretEntry& entry : loadSecrets(home).entries) {
      if (entry.name == *name) kind = entry.kind;
    }
    prompt("Type the value of " + *name + ": ");
    const SecretBytes value = readSecretLine();
    if (value.empty()) {
      throw Refusal("No value was given for " + *name +
                    ", so nothing was signed.");
    }
    offer = tolvanger::CredentialOffer::forRequest(
        request, *name, kind, value.reveal(),
        tolvanger::CredentialOffer::defaultLifetime, hold);
  }

  const Bytes binding = request.binding();
  const tolvanger::SoftwareSigner signer =
      tolvanger::SoftwareSigner::open(home);
  const Bytes signature = signer.signature(binding);
  const Bytes pqSignature = signer.pqSignature(binding);
  const json answer = connection.approve(request, signature, pqSignature,
                                         offer ? &*offer : nullptr, drawnAt);
  std::printf("Approved.\n");
  if (const auto left = tolvanger::PhoneJSON::integer(answer, "seconds_left")) {
    std::printf("%s may be used again for %lld seconds.\n",
                request.credentialName().value_or("The credential").c_str(),
                static_cast<long long>(*left));
  }
  if (ask) {
    std::erase_if(list.entries,
                  [&](const SecretEntry& e) { return e.name == ask->secret; });
    list.entries.push_back(SecretEntry{
        ask->secret, "cookie", {ask->host}, nowSeconds(), "tolvanger-phone"});
    std::sort(list.entries.begin(), list.entries.end(),
              [](const SecretEntry& a, const SecretEntry& b) {
                return a.name < b.name;
              });
    announce(options, home, list);
    std::printf(
        "The session for %s is announced as %s. This phone keeps no cookies, "
        "so it will ask for the cookie header again when a request needs "
        "it.\n",
        ask->host.c_str(), ask->secret.c_str());
  }
  return 0;
}

int deny(const Options& options, std::vector<std::string> args) {
  expectArguments(args, 1, "deny needs a request id");
  requireRequestID(args[0]);
  const std::string home = ensureHome();
  const std::unique_ptr<PhoneState> state = requirePairing(home);
  Connection connection(home, *state, options.clear);
  connection.deny(args[0], std::chrono::system_clock::now());
  std::printf("Denied.\n");
  return 0;
}

// Sends the whole list to the Mac under a new sequence number.
void announce(const Options& options, const std::string& home,
              SecretList& list) {
  const std::unique_ptr<PhoneState> state = loadPairing(home);
  if (!state) {
    throw Refusal(
        "This phone is not paired, so the list was kept here and not sent to "
        "a Mac.");
  }
  // Never below the clock, so a list kept from before a lost home still
  // counts as newer.
  list.seq = std::max(list.seq + 1, nowSeconds());
  saveSecrets(home, list);
  Connection connection(home, *state, options.clear);
  const json answer = connection.announce(list.announcement(), list.seq);
  if (const auto stale = answer.find("stale");
      stale != answer.end() && stale->is_boolean() && stale->get<bool>()) {
    throw Refusal("The Mac already holds a newer list than this one.");
  }
  std::printf("The Mac now knows %zu secret%s.\n", list.entries.size(),
              list.entries.size() == 1 ? "" : "s");
}

int secrets(const Options& options, std::vector<std::string> args) {
  if (args.empty()) throw UsageError("secrets needs add, remove or list");
  const std::string verb = args[0];
  args.erase(args.begin());
  const std::string home = ensureHome();
  SecretList list = loadSecrets(home);

  if (verb == "list") {
    expectArguments(args, 0, "secrets list takes no arguments");
    for (const SecretEntry& entry : list.entries) {
      std::string hosts;
      for (const std::string& host : entry.hosts) {
        hosts += (hosts.empty() ? "" : ",") + host;
      }
      std::printf("%s\t%s\t%s\n", entry.name.c_str(), entry.kind.c_str(),
                  hosts.c_str());
    }
    return 0;
  }
  if (verb == "remove") {
    expectArguments(args, 1, "secrets remove needs a name");
    const auto it =
        std::find_if(list.entries.begin(), list.entries.end(),
                     [&](const SecretEntry& e) { return e.name == args[0]; });
    if (it == list.entries.end()) {
      throw Refusal("This phone holds no secret named " + args[0] + ".");
    }
    list.entries.erase(it);
    saveSecrets(home, list);
    announce(options, home, list);
    return 0;
  }
  if (verb != "add") throw UsageError("unknown secrets command " + verb);

  SecretEntry entry;
  entry.kind = takeOption(args, "--kind").value_or("bearer");
  while (std::optional<std::string> host = takeOption(args, "--host")) {
    std::string normal;
    for (const char c : *host) {
      normal += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    }
    const bool bad =
        normal.empty() || std::any_of(normal.begin(), normal.end(), [](char c) {
          return c == '/' || static_cast<unsigned char>(c) <= ' ' || c == 0x7f;
        });
    if (bad) throw Refusal("That is not a host: \"" + *host + "\".");
    if (std::find(entry.hosts.begin(), entry.hosts.end(), normal) ==
        entry.hosts.end()) {
      entry.hosts.push_back(normal);
    }
  }
  expectArguments(args, 1, "secrets add needs a name and at least one --host");
  if (entry.hosts.empty()) {
    throw UsageError("secrets add needs at least one --host");
  }
  entry.name = args[0];
  if (!tolvanger::Ids::isID(entry.name)) {
    throw Refusal(
        "That is not a name a secret can have: use lower-case letters, "
        "digits, '-', '.' and '_', at most 64.");
  }
  if (entry.kind != "bearer" && entry.kind != "basic" &&
      entry.kind != "api_key" && entry.kind != "cookie") {
    throw Refusal("A secret's kind is bearer, basic, api_key or cookie.");
  }
  std::erase_if(list.entries,
                [&](const SecretEntry& e) { return e.name == entry.name; });
  list.entries.push_back(std::move(entry));
  std::sort(list.entries.begin(), list.entries.end(),
            [](const SecretEntry& a, const SecretEntry& b) {
              return a.name < b.name;
            });
  saveSecrets(home, list);
  announce(options, home, list);
  return 0;
}

// One line on standard error: the sentence a person reads, with the raw
// description added where the sentence alone would say too little.
int fail(const std::exception& error) {
  std::string line;
  if (dynamic_cast<const Refusal*>(&error) != nullptr) {
    line = error.what();
  } else {
    const tolvanger::Failure failure = tolvanger::Failures::of(error);
    const auto* request = dynamic_cast<const tolvanger::RequestError*>(&error);
    if (failure.isCancellation) {
      line = "Cancelled.";
    } else if (failure.sentence == "Something went wrong." &&
               !failure.detail.empty()) {
      line = tolvanger::Failures::finish(failure.detail);
    } else if (request != nullptr &&
               request->kind() == tolvanger::RequestError::Kind::kMalformed) {
      line = failure.sentence.substr(0, failure.sentence.size() - 1) + " (" +
             failure.detail + ").";
    } else {
      line = failure.sentence;
    }
  }
  for (char& c : line) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  std::fprintf(stderr, "%s\n", line.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  // The phone's keys and the secrets it releases: no core dumps, a locked
  // heap for them, and a libcurl that wipes what it frees.
  tolvanger::port::disableCoreDumps();
  tolvanger::startSecureHeap();
  tolvanger::initialiseCurl();
  Options options;
  for (int i = 1; i < argc; ++i) options.args.emplace_back(argv[i]);
  if (!options.args.empty() && options.args[0] == "--clear") {
    options.clear = true;
    options.args.erase(options.args.begin());
  }
  if (options.args.empty() || options.args[0] == "help" ||
      options.args[0] == "--help" || options.args[0] == "-h") {
    std::fputs(kUsage, options.args.empty() ? stderr : stdout);
    return options.args.empty() ? 2 : 0;
  }
  const std::string command = options.args[0];
  std::vector<std::string> args(options.args.begin() + 1, options.args.end());
  try {
    if (command == "pair") return pair(std::move(args));
    if (command == "pending") return pending(options, std::move(args));
    if (command == "show") return show(options, std::move(args));
    if (command == "approve") return approve(options, std::move(args));
    if (command == "deny") return deny(options, std::move(args));
    if (command == "secrets") return secrets(options, std::move(args));
    throw UsageError("unknown command " + command);
  } catch (const UsageError& error) {
    std::fprintf(stderr, "tolvanger-phone: %s (see tolvanger-phone --help)\n",
                 error.what());
    return 2;
  } catch (const std::exception& error) {
    return fail(error);
  }
}
