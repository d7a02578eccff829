#include "tolvanger/service/service.h"

#include <algorithm>
#include <chrono>
#include <cstdint>

#include "tolvanger/kit/canonical.h"
#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/fingerprint.h"
#include "tolvanger/kit/ids.h"
#include "tolvanger/kit/secret_json.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/summary.h"

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

}  // namespace

Service::Service(Home h, std::optional<Config> c)
    : home(ensured(std::move(h))),
      config(c ? std::move(*c) : Config::load(home)),
      identity(home),
      devices(home),
      pairing(devices, identity, config),
      store(home, config.redeemGraceSeconds),
      credentials(config.credentialTTLSeconds),
      secrets(home),
      journal(home),
      chain(home),
      nudges(300) {
  identity.daemonID = config.daemonID;
  identity.ensure();
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
    if (!secrets.has(name)) {
      throw ServiceError::refused("no phone here holds a secret called " +
                                  name);
    }
  }
  if (devices.empty()) {
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
  request.id = store.mint();
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
  request.digest = Canonical::digestOfText(request.canonical);
  request.summary = Summary::of(operation, fields);
  request.fields = std::move(fields);
  request.credentialName = options.credentialName;
  request.http = options.wire;
  request.profile = options.profile;
  request.agentProcess = options.agent;
  store.put(request);
  chain.raised(request.id);
  journal.write("raised", {{"request", request.id},
                           {"operation", operation},
                           {"credential", options.credentialName.value_or("-")},
                           {"client", clientOf(request)},
                           {"off-profile", request.notice.has_value()}});
  return request;
}

bool Service::isCredentialKind(std::string_view kind) {
  return kind == "bearer" || kind == "api_key" || kind == "basic" ||
         kind == "cookie";
}

StoredRequest Service::approve(const Approval& a) {
  // Steps that only check: nothing changes until the store decides.
  const auto found = store.get(a.requestID);
  if (!found) throw ServiceError::refused("no such request");
  const StoredRequest& request = *found;
  if (request.state != RequestState::kPending) {
    throw ServiceError::refused("that request was already " +
                                std::string(toText(request.state)));
  }
  if (request.expiresAt <= nowSeconds()) {
    throw ServiceError::refused("that request has expired");
  }
  const auto device = devices.device(a.deviceID);
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
    journal.write("refused", {{"request", request.id},
                              {"device", a.deviceID},
                              {"why", "signature"}});
    throw ServiceError::refused("that signature is not this device's");
  }
  if (const auto& pqKey = keys.pq) {
    const auto pqSignature =
        a.pqSignatureBase64 ? fromBase64(*a.pqSignatureBase64) : std::nullopt;
    if (!pqSignature || !pqKey->verify(asBytes(bound), *pqSignature)) {
      journal.write("refused", {{"request", request.id},
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
      store.decide(request.id, RequestState::kApproved, a.deviceID);
  if (opened) {
    credentials.put(decided.id, opened->name, opened->kind,
                    opened->value.reveal(), opened->expiry, a.deviceID);
    opened->value.wipe();
  }
  chain.answered(decided.id, a.road, a.stamps);
  journal.write("approved",
                {{"request", decided.id},
                 {"device", a.deviceID},
                 {"road", a.road},
                 {"credential", opened ? opened->name : std::string("-")},
                 {"client", clientOf(decided)}});
  events.emit(json{{"event", "decided"},
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
    SecretBytes plain = CloudSeal::open(envelope, identity.cloudKey());
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
  StoredRequest request = store.decide(requestID, RequestState::kCancelled);
  credentials.discard(request.id);
  journal.write("cancelled",
                {{"request", request.id}, {"client", clientOf(request)}});
  return request;
}

StoredRequest Service::deny(const std::string& requestID,
                            const std::string& road, const json* stamps) {
  StoredRequest request = store.decide(requestID, RequestState::kDenied);
  chain.answered(request.id, road, stamps);
  journal.write(
      "denied",
      {{"request", request.id}, {"road", road}, {"client", clientOf(request)}});
  events.emit(json{
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
  const Bytes sig = identity.sign(asBytes(bound));
  const Bytes sigPQ = identity.signPQ(asBytes(bound));
  return json{{"ok", true},
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
}

json Service::status() {
  json deviceRows = json::array();
  for (const Device& d : devices.all()) {
    const bool hasCloudKey = d.cloudKey.has_value();
    deviceRows.push_back(
        json{{"device_id", d.deviceID},
             {"name", d.name},
             {"fingerprint", d.fingerprint()},
             {"fingerprint_pq", d.pqFingerprint().value_or("-")},
             {"recovery_left", d.recovery.size()},
             {"sealed", hasCloudKey},
             {"cloud", hasCloudKey}});
  }
  json secretNames = json::array();
  for (const SecretName& s : secrets.all()) secretNames.push_back(s.name);
  return json{
      {"ok", true},
      {"daemon_id", config.daemonID},
      {"host", config.host},
      {"version", 1},
      {"fingerprint", Fingerprint::of(identity.spki())},
      {"fingerprint_pq", Fingerprint::of(identity.pqPublicKey())},
      {"devices", std::move(deviceRows)},
      {"secrets", std::move(secretNames)},
      {"pending", store.pendingCount()},
      {"credentials_held", credentials.count()},
      {"allowances", 0},
      {"require_sealed", config.requireSealed},
      {"max_phones", config.maxPhones},
      {"listen", config.listen},
      {"listen_port", config.listenPort},
      {"addresses", phoneAddresses()},
      {"chain", chain.report()},
      {"tripwire", json{{"loaded", false}, {"stale", false}}},
      {"cloud", json{{"enabled", config.cloud.enabled},
                     {"container", config.cloud.container},
                     {"connected", false},
                     {"error", config.cloud.enabled ? "not started" : ""}}}};
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
  if (devices.empty()) {
    throw ServiceError::refused("no phone is paired with this Mac");
  }
  Nudge raised = nudges.raise(kind);
  journal.write("nudged", {{"kind", raised.kind}, {"nudge", raised.id}});
  return raised;
}

Announced Service::announce(const json& list, std::optional<int64_t> seq,
                            const std::string& deviceID) {
  if (seq) {
    const auto device = devices.device(deviceID);
    if (device && device->announceSeq && *device->announceSeq >= *seq) {
      journal.write("secrets", {{"device", deviceID}, {"stale", *seq}});
      return Announced{{}, true};
    }
  }
  const int64_t now = nowSeconds();
  std::vector<SecretName> names = buildSecretNames(list, now);
  const size_t count = names.size();
  std::vector<std::string> added = secrets.replace(std::move(names));
  if (seq && devices.device(deviceID)) {
    devices.edit(deviceID, [&](Device& d) { d.announceSeq = *seq; });
  }
  std::string joinedAdded;
  for (const auto& name : added) {
    if (!joinedAdded.empty()) joinedAdded += ',';
    joinedAdded += name;
  }
  journal.write(
      "secrets",
      {{"device", deviceID}, {"count", count}, {"added", joinedAdded}});
  for (const auto& name : added) {
    events.emit(
        json{{"event", "secret.available"}, {"name", name}, {"at", now}});
  }
  return Announced{std::move(added), false};
}

bool Service::credentialWaiting(const std::string& requestID) {
  return credentials.waiting(requestID);
}

bool Service::cloudConnected() const { return false; }

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

}  // namespace tolvanger::service
