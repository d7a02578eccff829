#include "tolvanger/service/service.h"

#include <algorithm>
#include <chrono>
#include <cstdint>

#include "tolvanger/kit/build.h"
#include "tolvanger/kit/canonical.h"
#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/fingerprint.h"
#include "tolvanger/kit/ids.h"
#include "tolvanger/kit/secret_json.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/sign_in.h"
#include "tolvanger/kit/summary.h"
#include "tolvanger/kit/text.h"
#include "tolvanger/service/cloud_road.h"

namespace tolvanger::service {

using nlohmann::json;

namespace {

Home ensured(Home home) {
  home.ensure();
  return home;
}

int64_t nowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// The `client` a journal line names: the request's text field, or "-".
std::string clientOf(const StoredRequest& request) {
  return request.fields.text("client").value_or("-");
}

// The longest address a sign-in may open, in characters.
constexpr size_t kMaxSite = 2048;

}  // namespace

Service::Service(Home h, std::optional<Config> c)
    : home(ensured(std::move(h))),
      config(c ? std::move(*c) : Config::load(home)),
      identity_(home),
      devices_(home),
      pairing_(devices_, identity_, config),
      store_(home, config.redeemGraceSeconds),
      credentials_(config.credentialTTLSeconds),
      secrets_(home),
      journal_(home),
      chain_(home),
      nudges_(300),
      tripwire_(home, config.tripwire) {
  identity_.daemonID = config.daemonID;
  identity_.ensure();
  allowances_.setEnded([this](const Allowance& ended, std::string_view why) {
    journal_.write("allowance-ended",
                   {{"request", ended.requestID},
                    {"credential", ended.name},
                    {"why", std::string(why)},
                    {"uses", ended.uses},
                    {"client", ended.client.empty() ? "-" : ended.client}});
    events_.emit(json{{"event", "allowance.ended"},
                      {"request_id", ended.requestID},
                      {"why", why}});
  });
}

StoredRequest Service::raise(const std::string& operation, Fields fields,
                             const RaiseOptions& options) {
  if (!Ids::isOperation(operation)) {
    throw ServiceError::refused("that is not an operation name");
  }
  if (options.credentialName) {
    const std::string& name = *options.credentialName;
    if (!Ids::isID(name))
      throw ServiceError::refused("that is not a secret's name");
    if (!secrets_.has(name)) {
      throw ServiceError::refused("no phone here holds a secret called " +
                                  name);
    }
  }
  if (devices_.empty()) {
    throw ServiceError::refused("no phone is paired with this Mac");
  }
  if (options.credentialName) fields.set("credential", *options.credentialName);

  const int64_t now = nowSeconds();
  StoredRequest request;
  request.operation = operation;
  request.issuedAt = now;
  request.expiresAt =
      now + (options.fixedLifetime ? *options.fixedLifetime
                                   : config.window(options.ttlSeconds));
  request.id = store_.mint();
  try {
    request.canonical =
        Canonical::encode(json{{"daemon_id", config.daemonID},
                               {"expires_at", request.expiresAt},
                               {"fields", fields.any()},
                               {"issued_at", request.issuedAt},
                               {"operation", operation},
                               {"request_id", request.id},
                               {"version", 1}});
  } catch (const CanonicalError& e) {
    throw ServiceError::refused(e.what());
  }
  request.notice = tripwire_.notice(static_cast<double>(now));
  request.digest = Canonical::digestOfText(request.canonical);
  request.summary = Summary::of(operation, fields);
  request.fields = std::move(fields);
  request.credentialName = options.credentialName;
  request.http = options.wire;
  request.profile = options.profile;
  request.agentProcess = options.agent;
  store_.put(request);
  // A use of an allowance never reaches a phone, so it has no chain row.
  if (options.allowed == nullptr) chain_.raised(request.id);
  journal_.write("raised",
                 {{"request", request.id},
                  {"operation", operation},
                  {"credential", options.credentialName.value_or("-")},
                  {"client", clientOf(request)},
                  {"off-profile", request.notice.has_value()}});
  // A use of an allowance settles at once: no phone is told.
  if (options.allowed != nullptr) return settle(request, *options.allowed);
  if (const auto road = cloud_.load().lock()) road->notify(request);
  return request;
}

StoredRequest Service::settle(const StoredRequest& request,
                              AllowanceUse& allowed) {
  StoredRequest decided;
  try {
    decided =
        store_.decide(request.id, RequestState::kApproved, allowed.deviceID);
  } catch (...) {
    allowed.value.wipe();
    throw;
  }
  const std::string name = request.credentialName.value_or("");
  credentials_.put(decided.id, name, allowed.kind, allowed.value.reveal(),
                   std::nullopt, allowed.deviceID);
  allowed.value.wipe();
  journal_.write("approved", {{"request", decided.id},
                              {"device", allowed.deviceID},
                              {"road", "allowance"},
                              {"allowance", allowed.requestID},
                              {"credential", name.empty() ? "-" : name},
                              {"client", clientOf(decided)}});
  events_.emit(json{{"event", "decided"},
                    {"request_id", decided.id},
                    {"state", "approved"},
                    {"credential", true}});
  return decided;
}

bool Service::isCredentialKind(std::string_view kind) {
  return kind == "bearer" || kind == "api_key" || kind == "basic" ||
         kind == "cookie";
}

StoredRequest Service::approve(const Approval& a) {
  // Steps that only check: nothing changes until the store decides.
  const auto found = store_.get(a.requestID);
  if (!found) throw ServiceError::refused("no such request");
  const StoredRequest& request = *found;
  if (request.state != RequestState::kPending) {
    throw ServiceError::refused("that request was already " +
                                std::string(toText(request.state)));
  }
  if (request.expiresAt <= nowSeconds()) {
    throw ServiceError::refused("that request has expired");
  }
  const auto device = devices_.device(a.deviceID);
  const DeviceKeys::Parsed keys =
      device ? deviceKeys_.of(*device) : DeviceKeys::Parsed{};
  const auto& key = keys.key;
  if (!key) throw ServiceError::refused("that device is not paired here");
  if (!constantTimeEqual(request.digest, a.digest)) {
    throw ServiceError::refused("that is not this request's digest");
  }
  // The binding is rebuilt from what was stored, never from the approval.
  const std::string bound = binding(request);
  const auto signature = fromBase64(a.signatureBase64);
  if (!signature || !key->verify(asBytes(bound), *signature)) {
    journal_.write("refused", {{"request", request.id},
                               {"device", a.deviceID},
                               {"why", "signature"}});
    throw ServiceError::refused("that signature is not this device's");
  }
  if (const auto& pqKey = keys.pq) {
    const auto pqSignature =
        a.pqSignatureBase64 ? fromBase64(*a.pqSignatureBase64) : std::nullopt;
    if (!pqSignature || !pqKey->verify(asBytes(bound), *pqSignature)) {
      journal_.write("refused", {{"request", request.id},
                                 {"device", a.deviceID},
                                 {"why", "pq-signature"}});
      throw ServiceError::refused(
          "that approval lacks this device's post-quantum signature");
    }
  }
  std::optional<OpenedCredential> opened;
  if (a.credentialEnvelope != nullptr) {
    opened = openCredential(*a.credentialEnvelope, request);
  } else if (request.credentialName) {
    throw ServiceError::refused(
        "this request asks for a credential and none came with the approval");
  }

  // The decision. `opened` wipes its value when it goes out of scope, on
  // this path and every other.
  StoredRequest decided =
      store_.decide(request.id, RequestState::kApproved, a.deviceID);
  if (opened) {
    credentials_.put(decided.id, opened->name, opened->kind,
                     opened->value.reveal(), opened->expiry, a.deviceID);
    // A hold opens an allowance, but only for a request whose process is
    // known: without one there is nobody it could be kept for.
    if (opened->hold && decided.agentProcess) {
      const std::string client = decided.fields.text("client").value_or("");
      if (const auto allowance = allowances_.open(
              decided.id, opened->name, opened->kind, opened->value.reveal(),
              a.deviceID, client, *decided.agentProcess, *opened->hold)) {
        journal_.write("allowed",
                       {{"request", decided.id},
                        {"credential", opened->name},
                        {"seconds", allowance->until - allowance->openedAt},
                        {"client", client.empty() ? "-" : client}});
      }
    }
    opened->value.wipe();
  }
  chain_.answered(decided.id, a.road, a.stamps);
  journal_.write("approved",
                 {{"request", decided.id},
                  {"device", a.deviceID},
                  {"road", a.road},
                  {"credential", opened ? opened->name : std::string("-")},
                  {"client", clientOf(decided)}});
  events_.emit(json{{"event", "decided"},
                    {"request_id", decided.id},
                    {"state", "approved"},
                    {"credential", opened.has_value()}});
  return decided;
}

OpenedCredential Service::openCredential(const json& envelopeObject,
                                         const StoredRequest& request) {
  CloudEnvelope envelope;
  try {
    envelope = CloudEnvelope::from(envelopeObject);
  } catch (const std::exception&) {
    throw ServiceError::refused("that is not a credential for this request");
  }
  if (envelope.kind != "cred" || envelope.id != request.id) {
    throw ServiceError::refused("that is not a credential for this request");
  }
  SecretJson offer;
  try {
    SecretBytes plain = CloudSeal::open(envelope, identity_.cloudKey());
    const ByteView bytes = plain.reveal();
    offer = SecretJson::parse(bytes.begin(), bytes.end(), nullptr, false);
  } catch (const std::exception&) {
    throw ServiceError::refused("the credential did not open");
  }
  if (!offer.is_object())
    throw ServiceError::refused("the credential did not open");
  const auto text = [&](const char* k) -> const SecretString* {
    const auto it = offer.find(k);
    return it != offer.end() && it->is_string()
               ? &it->get_ref<const SecretString&>()
               : nullptr;
  };
  const auto integer = [&](const char* k) -> std::optional<int64_t> {
    const auto it = offer.find(k);
    if (it == offer.end()) return std::nullopt;
    if (it->is_number_unsigned()) {
      return static_cast<int64_t>(
          std::min<uint64_t>(it->get<uint64_t>(), INT64_MAX));
    }
    if (it->is_number_integer()) return it->get<int64_t>();
    return std::nullopt;
  };
  const SecretString* id = text("request_id");
  if (id == nullptr || *id != request.id.c_str()) {
    throw ServiceError::refused("that credential is for another request");
  }
  const SecretString* name = text("name");
  if (name == nullptr || !request.credentialName ||
      *name != request.credentialName->c_str()) {
    throw ServiceError::refused("that credential is not the one asked for");
  }
  const SecretString* value = text("value");
  if (value == nullptr || value->empty()) {
    throw ServiceError::refused("that credential has no value in it");
  }
  const SecretString* kind = text("kind");
  if (kind == nullptr || !isCredentialKind(std::string_view(*kind))) {
    throw ServiceError::refused(
        "that credential's kind is not one this Mac knows");
  }
  OpenedCredential out{std::string(*name), std::string(*kind),
                       SecretBytes(asBytes(std::string_view(*value))),
                       std::nullopt, std::nullopt};
  if (const auto hold = integer("hold_seconds"); hold && *hold >= 1)
    out.hold = hold;
  out.expiry = integer("expires_at");
  return out;
}

StoredRequest Service::cancel(const std::string& requestID) {
  StoredRequest request = store_.decide(requestID, RequestState::kCancelled);
  credentials_.discard(request.id);
  journal_.write("cancelled",
                 {{"request", request.id}, {"client", clientOf(request)}});
  return request;
}

StoredRequest Service::deny(const std::string& requestID,
                            const std::string& road, const json* stamps) {
  StoredRequest request = store_.decide(requestID, RequestState::kDenied);
  chain_.answered(request.id, road, stamps);
  journal_.write(
      "denied",
      {{"request", request.id}, {"road", road}, {"client", clientOf(request)}});
  events_.emit(json{
      {"event", "decided"}, {"request_id", request.id}, {"state", "denied"}});
  return request;
}

std::string Service::binding(const StoredRequest& request) const {
  std::string out(kBindingVersion);
  out += '\n';
  out += config.daemonID;
  out += '\n';
  out += request.id;
  out += '\n';
  out += request.digest;
  out += '\n';
  out += std::to_string(request.issuedAt);
  out += '\n';
  out += std::to_string(request.expiresAt);
  return out;
}

json Service::requestPayload(const StoredRequest& request) {
  const std::string bound = binding(request);
  const Bytes sig = identity_.sign(asBytes(bound));
  const Bytes sigPQ = identity_.signPQ(asBytes(bound));
  json payload{{"ok", true},
               {"version", 1},
               {"daemon_id", config.daemonID},
               {"request_id", request.id},
               {"canonical", request.canonical},
               {"digest", request.digest},
               {"issued_at", request.issuedAt},
               {"expires_at", request.expiresAt},
               {"summary", request.summary},
               {"daemon_sig", toBase64(sig)},
               {"daemon_sig_pq", toBase64(sigPQ)}};
  if (const auto text = request.notice
                            ? Tripwire::noticeText(request.id, *request.notice)
                            : std::nullopt) {
    payload["notice"] = *request.notice;
    // Without a signature the phone drops the notice, not the request.
    try {
      payload["notice_sig"] = toBase64(identity_.sign(asBytes(*text)));
    } catch (const std::exception&) {
    }
  }
  return payload;
}

json Service::deviceRows() {
  const uint64_t before = devices_.version();
  {
    MutexLock lock(rowsMu_);
    if (deviceRows_ && deviceRows_->first == before) return deviceRows_->second;
  }
  json rows = json::array();
  for (const Device& d : devices_.all()) {
    const bool hasCloudKey = d.cloudKey.has_value();
    rows.push_back(json{{"device_id", d.deviceID},
                        {"name", d.name},
                        {"fingerprint", d.fingerprint()},
                        {"fingerprint_pq", d.pqFingerprint().value_or("-")},
                        {"recovery_left", d.recovery.size()},
                        {"sealed", hasCloudKey},
                        {"cloud", hasCloudKey}});
  }
  // Kept only when no change slipped in between the count and the copy.
  if (devices_.version() == before) {
    MutexLock lock(rowsMu_);
    deviceRows_.emplace(before, rows);
  }
  return rows;
}

json Service::status() {
  json deviceRows = this->deviceRows();
  json secretNames = json::array();
  for (const SecretName& s : secrets_.all()) secretNames.push_back(s.name);
  return json{{"ok", true},
              {"daemon_id", config.daemonID},
              {"host", config.host},
              {"version", 1},
              {"fingerprint", identity_.fingerprint()},
              {"fingerprint_pq", identity_.pqFingerprint()},
              {"devices", std::move(deviceRows)},
              {"secrets", std::move(secretNames)},
              {"pending", store_.pendingCount()},
              {"credentials_held", credentials_.count()},
              {"allowances", openAllowances().size()},
              {"require_sealed", config.requireSealed},
              {"max_phones", config.maxPhones},
              {"listen", config.listen},
              {"listen_port", config.listenPort},
              {"addresses", phoneAddresses()},
              {"chain", chain_.report()},
              {"tripwire", json{{"loaded", tripwire_.load()},
                                {"stale", tripwire_.isStale(nowSeconds())}}},
              {"cloud", cloudState()},
              {"build", kBuildNumber}};
}

json Service::openedReply(const StoredRequest& request) const {
  return json{{"ok", true},
              {"request_id", request.id},
              {"digest", request.digest},
              {"expires_at", request.expiresAt},
              {"summary", request.summary},
              {"push", cloudConnected()}};
}

Nudge Service::nudge(const std::string& kind) {
  if (devices_.empty()) {
    throw ServiceError::refused("no phone is paired with this Mac");
  }
  Nudge raised = nudges_.raise(kind);
  journal_.write("nudged", {{"kind", raised.kind}, {"nudge", raised.id}});
  if (const auto road = cloud_.load().lock()) road->nudge(raised);
  return raised;
}

Announced Service::announce(const json& list, std::optional<int64_t> seq,
                            const std::string& deviceID) {
  const int64_t now = nowSeconds();
  std::vector<std::string> added;
  size_t count = 0;
  bool stale = false;
  bool seqMoved = false;
  {
    // The check, the replace and the new sequence number are one step, so
    // of two announcements at once the higher sequence always stands last.
    MutexLock lock(announceMu_);
    if (seq) {
      const auto device = devices_.device(deviceID);
      stale = device && device->announceSeq && *device->announceSeq >= *seq;
    }
    if (!stale) {
      std::vector<SecretName> names = buildSecretNames(list, now);
      count = names.size();
      added = secrets_.replaceInMemory(std::move(names));
      if (seq) {
        seqMoved = devices_.editInMemory(
            deviceID, [&](Device& d) { d.announceSeq = *seq; });
      }
    }
  }
  if (stale) {
    journal_.write("secrets", {{"device", deviceID}, {"stale", *seq}});
    return Announced{{}, true};
  }
  // The files follow outside the lock; each registry writes only a state
  // newer than the one it wrote last.
  secrets_.writeFile();
  if (seqMoved) devices_.writeFile();
  std::string joinedAdded;
  for (const auto& name : added) {
    if (!joinedAdded.empty()) joinedAdded += ',';
    joinedAdded += name;
  }
  journal_.write(
      "secrets",
      {{"device", deviceID}, {"count", count}, {"added", joinedAdded}});
  for (const auto& name : added) {
    events_.emit(
        json{{"event", "secret.available"}, {"name", name}, {"at", now}});
  }
  return Announced{std::move(added), false};
}

bool Service::credentialWaiting(const std::string& requestID) {
  return credentials_.waiting(requestID);
}

bool Service::cloudConnected() const {
  const auto road = cloud_.load().lock();
  return road && road->connected();
}

json Service::cloudState() const {
  if (const auto road = cloud_.load().lock()) return road->state();
  return json{{"enabled", config.cloud.enabled},
              {"container", config.cloud.container},
              {"connected", false},
              {"error", config.cloud.enabled ? "not started" : ""}};
}

void Service::setCloudRoad(const std::shared_ptr<CloudRoad>& road) {
  cloud_.store(road);
}

void Service::pokeCloud() {
  if (const auto road = cloud_.load().lock()) road->poke();
}

std::vector<Device> Service::devices() const { return devices_.all(); }

std::vector<std::string> Service::phoneAddresses() const {
  std::vector<std::string> out;
  for (const auto& address : listenAddresses_) {
    if (address.rfind("127.", 0) == 0 || address == "::1") continue;
    out.push_back(address + ":" + std::to_string(config.listenPort));
  }
  return out;
}

std::string Service::pairingHost() const {
  for (const auto& address : listenAddresses_) {
    if (address != "127.0.0.1" && address != "::1") return address;
  }
  return listenAddresses_.empty() ? "127.0.0.1" : listenAddresses_.front();
}

void Service::setListenAddresses(std::vector<std::string> addresses) {
  listenAddresses_ = std::move(addresses);
}

Spent Service::spendCredential(const std::string& requestID) {
  const StoredRequest request = store_.take(requestID);
  std::optional<Spent> spent = credentials_.take(requestID);
  // The request stays taken: a lost credential means a new approval.
  if (!spent) throw ServiceError::refused(std::string(kCredentialGone));
  journal_.write("spent",
                 {{"request", request.id},
                  {"credential", spent->name},
                  {"client", request.fields.text("client").value_or("-")}});
  return std::move(*spent);
}

// Filing a request for the person to sign in to a site on the phone. The
// session it yields stays on the phone; the service only ever learns of it
// from the phone's announcement of its secrets.
StoredRequest Service::askSignIn(const json& site, const json& secret,
                                 const json& reason, const std::string& agent,
                                 const std::optional<std::string>& client) {
  const std::string* address =
      site.is_string() ? &site.get_ref<const std::string&>() : nullptr;
  const std::optional<std::string> host =
      address != nullptr && !Text::longerThan(*address, kMaxSite)
          ? SignIn::host(*address)
          : std::nullopt;
  if (!host) {
    throw ServiceError::refused(
        "a sign-in needs an https address, with no port and no credentials "
        "in it");
  }

  std::string name;
  if (secret.is_string() && !secret.get_ref<const std::string&>().empty()) {
    name = secret.get<std::string>();
  } else {
    name = SignIn::defaultName(*host).value_or("");
  }
  if (!SignIn::isName(name)) {
    throw ServiceError::refused("that is not a name a secret can have");
  }
  // Asking again under a cookie secret's name replaces that session; any
  // other kind under the name would be lost to it.
  if (const std::optional<SecretName> held = secrets_.get(name);
      held && held->kind != "cookie") {
    throw ServiceError::refused("the phone already holds " + name + " as a " +
                                held->kind +
                                " secret; save the session under another "
                                "name");
  }

  // The reason is the agent's own text: it passes the same checks as any
  // request's text field, so the phone shows nothing a request could not.
  Fields fields;
  if (reason.is_string() && !reason.get_ref<const std::string&>().empty()) {
    const json given = {{"reason", reason}};
    fields = Fields::from(&given);
  } else {
    fields.set("reason",
               "sign in so calls to " + *host + " can carry your session");
  }
  fields.set("site", *address);
  fields.set("secret", name);
  fields.set("agent", agent);
  if (client) fields.set("client", *client);

  RaiseOptions options;
  options.fixedLifetime = SignIn::kWindow;
  return raise(std::string(SignIn::kOperation), std::move(fields), options);
}

// ---- The agents' doors.

StoredRequest Service::redeem(const std::string& requestID,
                              const std::optional<std::string>& client) {
  if (const auto stored = store_.get(requestID); stored && stored->http) {
    throw ServiceError::refused(
        "that approval carries a credential \u2014 perform the request it "
        "authorises");
  }
  StoredRequest taken = store_.take(requestID);
  journal_.write("redeemed",
                 {{"request", requestID}, {"client", client.value_or("-")}});
  return taken;
}

std::optional<StoredRequest> Service::request(std::string_view requestID) {
  return store_.get(requestID);
}

std::vector<StoredRequest> Service::pendingRequests() {
  return store_.pending();
}

std::vector<SecretName> Service::secretNames() const { return secrets_.all(); }

std::optional<SecretName> Service::secretName(std::string_view name) const {
  return secrets_.get(name);
}

bool Service::forgetDevice(std::string_view deviceID) {
  return devices_.forget(deviceID);
}

void Service::record(std::string_view event, const JournalFields& fields) {
  journal_.write(event, fields);
}

std::vector<std::string> Service::journalTail(size_t n) const {
  return journal_.tail(n);
}

PairOpened Service::openPairing(std::optional<std::string> host) {
  return pairing_.open(std::move(host));
}

json Service::pairingStatus() const { return pairing_.status(); }

void Service::cancelPairing() { pairing_.cancel(); }

void Service::callerHello(std::string client, std::string agent,
                          std::string scope) {
  callers_.hello(std::move(client), std::move(agent), std::move(scope));
}

void Service::callerGoodbye(std::string_view client, std::string_view agent) {
  callers_.goodbye(client, agent);
}

std::vector<Caller> Service::callers() const { return callers_.all(); }

bool Service::callersConnected() const { return callers_.connected(); }

int64_t Service::subscribe(Events::Sink sink) {
  return events_.subscribe(std::move(sink));
}

void Service::unsubscribe(int64_t key) { events_.unsubscribe(key); }

// ---- The phone's road.

std::optional<Device> Service::authenticate(std::string_view deviceID,
                                            std::string_view secret) const {
  return devices_.authenticate(deviceID, secret);
}

std::optional<Device> Service::device(std::string_view deviceID) const {
  return devices_.device(deviceID);
}

bool Service::setDeviceCloudKey(std::string_view deviceID, const Bytes& key) {
  return devices_.edit(deviceID,
                       [&](Device& stored) { stored.cloudKey = key; });
}

json Service::pairOffer(const json& body) { return pairing_.offer(body); }

PairResult Service::pairConfirm(const json& body) {
  PairResult result = pairing_.confirm(body);
  const Device& device = result.device;
  journal_.write("paired", {{"device", device.deviceID},
                            {"fingerprint", device.fingerprint()},
                            {"pq", device.pqFingerprint().value_or("-")}});
  return result;
}

PairResult Service::pairRecover(const json& body) {
  PairResult result = pairing_.recover(body);
  const Device& device = result.device;
  journal_.write("recovered", {{"device", device.deviceID},
                               {"left", device.recovery.size()}});
  return result;
}

json Service::cardOffer() { return identity_.cardOffer(); }

const crypto::XWingPrivateKey& Service::cloudKey() const {
  return identity_.cloudKey();
}

std::optional<Nudge> Service::currentNudge() { return nudges_.current(); }

bool Service::clearNudgeIf(std::string_view nudgeID) {
  return nudges_.clearIf(nudgeID);
}

// ---- The process's own.

std::string Service::fingerprint() { return identity_.fingerprint(); }

std::string Service::pqFingerprint() { return identity_.pqFingerprint(); }

void Service::scrubCredentials() { credentials_.scrubAll(); }

// ---- Allowances.

std::optional<AllowanceUse> Service::useAllowance(std::string_view name,
                                                  const AgentProcess& agent) {
  return allowances_.use(name, agent);
}

void Service::sweepAllowances() { allowances_.sweep(); }

std::vector<Allowance> Service::openAllowances() {
  allowances_.sweep();
  return allowances_.all();
}

std::optional<Allowance> Service::endAllowance(std::string_view requestID,
                                               std::string_view why) {
  return allowances_.end(requestID, why);
}

std::vector<Allowance> Service::endAllowances(std::string_view why) {
  return allowances_.endAll(why);
}

}  // namespace tolvanger::service
