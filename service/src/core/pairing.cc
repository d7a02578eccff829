#include "tolvanger/service/pairing.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <utility>

#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/crypto/xwing.h"
#include "tolvanger/kit/fingerprint.h"
#include "tolvanger/kit/ids.h"
#include "tolvanger/kit/pair_link.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/text.h"

namespace tolvanger::service {

using nlohmann::json;

namespace {

constexpr std::string_view kProofDomain = "tolvanger-paired-v1";
constexpr std::string_view kNoRecovery = "that code will not open this Mac";
constexpr size_t kNameLimit = 64;
constexpr size_t kSecretBytes = 24;
constexpr size_t kTokenBytes = 16;
constexpr const char* kDefaultHost = "127.0.0.1";

// The DER header of a SubjectPublicKeyInfo for an uncompressed P-256 point:
// SEQUENCE { SEQUENCE { id-ecPublicKey, prime256v1 }, BIT STRING (66 bytes) }.
constexpr uint8_t kP256SPKIHeader[] = {0x30, 0x59, 0x30, 0x13, 0x06, 0x07, 0x2a,
                                       0x86, 0x48, 0xce, 0x3d, 0x02, 0x01, 0x06,
                                       0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03,
                                       0x01, 0x07, 0x03, 0x42, 0x00};

// Thrown out of a `Devices::edit` change so that nothing is stored.
struct LeaveUntouched {};

// A uniformly drawn index below `bound` (at most 256).
size_t randomBelow(size_t bound) {
  const size_t limit = 256 - 256 % bound;
  while (true) {
    const size_t b = Random::bytes(1)[0];
    if (b < limit) return b % bound;
  }
}

std::string twoDigits() {
  char buffer[3];
  std::snprintf(buffer, sizeof buffer, "%02d", Random::bytes(1)[0] % 100);
  return buffer;
}

std::string optionalFingerprint(const std::optional<Bytes>& key) {
  return key ? Fingerprint::of(*key) : "-";
}

const std::string* text(const json& body, const char* key) {
  if (!body.is_object()) return nullptr;
  auto it = body.find(key);
  if (it == body.end() || !it->is_string()) return nullptr;
  return &it->get_ref<const std::string&>();
}

std::optional<Bytes> base64(const json& body, const char* key) {
  const std::string* value = text(body, key);
  return value == nullptr ? std::nullopt : fromBase64(*value);
}

}  // namespace

OfferedKeys OfferedKeys::make(ByteView spki, std::optional<Bytes> pq,
                              std::optional<Bytes> cloudKey) {
  auto key = crypto::P256PublicKey::fromDER(spki);
  if (!key && spki.size() == 65 && spki[0] == 0x04) {
    Bytes der(std::begin(kP256SPKIHeader), std::end(kP256SPKIHeader));
    der.insert(der.end(), spki.begin(), spki.end());
    key = crypto::P256PublicKey::fromDER(der);
  }
  if (!key) throw ServiceError::refused("that is not a P-256 public key");
  if (pq && !crypto::MLDSA65PublicKey::fromRaw(*pq)) {
    throw ServiceError::refused("that is not an ML-DSA-65 public key");
  }
  if (cloudKey && !crypto::XWingPublicKey::fromRaw(*cloudKey)) {
    throw ServiceError::refused("that is not an X-Wing public key");
  }
  return OfferedKeys{key->der(), std::move(pq), std::move(cloudKey)};
}

OfferedKeys OfferedKeys::fromBody(const json& body) {
  auto spki = base64(body, "public_key");
  if (!spki) throw ServiceError::refused("that offer has no public key");
  return make(*spki, base64(body, "public_key_pq"),
              base64(body, "cloud_public_key"));
}

json PairOpened::toJSON() const {
  return {
      {"ok", true}, {"url", url}, {"host", host}, {"fingerprint", fingerprint}};
}

json PairOffer::toJSON() const {
  json out = {{"ok", true}, {"fingerprint", fingerprint}, {"choices", choices}};
  if (fingerprintPQ) out["fingerprint_pq"] = *fingerprintPQ;
  return out;
}

int64_t Pairing::systemNow() { return SystemClock::seconds(); }

Pairing::Pairing(Devices& devices, Identity& identity, Config config, Clock now)
    : devices_(devices),
      identity_(identity),
      config_(std::move(config)),
      now_(std::move(now)) {}

void Pairing::room() const {
  const int64_t limit = std::max<int64_t>(config_.maxPhones, 1);
  if (static_cast<int64_t>(devices_.count()) < limit) return;
  if (config_.maxPhones > 1) {
    throw ServiceError::refused(
        "This Mac already has " + std::to_string(config_.maxPhones) +
        " phones, which is its limit. Forget one to pair another.");
  }
  throw ServiceError::refused(
      "This Mac already has its phone. Forget it to pair another, or replace "
      "it with a recovery code.");
}

PairOpened Pairing::open(std::optional<std::string> host,
                         std::optional<int64_t> seconds) {
  room();
  PairSession session;
  session.token = Random::hex(kTokenBytes);
  session.state = PairSession::kOpen;
  PairURL link{.daemonID = config_.daemonID,
               .host = host ? std::move(*host) : kDefaultHost,
               .port = static_cast<int>(config_.listenPort),
               .token = session.token,
               .fingerprint = identity_.fingerprint()};
  int64_t expiresAt;
  {
    MutexLock lock(mu_);
    session.opensAt = now_();
    session.expiresAt =
        session.opensAt + seconds.value_or(config_.pairWindowSeconds);
    expiresAt = session.expiresAt;
    current_ = std::move(session);
  }
  return PairOpened{.url = link.link(),
                    .host = link.host,
                    .fingerprint = link.fingerprint,
                    .expiresAt = expiresAt};
}

std::optional<PairSession> Pairing::session() const {
  MutexLock lock(mu_);
  if (!current_ || current_->expiresAt <= now_()) return std::nullopt;
  return current_;
}

json Pairing::status() const {
  const auto s = session();
  if (!s) return {{"ok", true}, {"state", "none"}};
  return {{"ok", true},
          {"state", s->state},
          {"expires_at", s->expiresAt},
          {"code", s->code},
          {"device_id", s->deviceID},
          {"name", s->name}};
}

void Pairing::cancel() {
  MutexLock lock(mu_);
  current_.reset();
}

PairOffer Pairing::offer(std::string_view token, std::string_view deviceID,
                         std::string_view name, const OfferedKeys& keys) {
  // Held throughout, so that two phones cannot both offer on one window.
  MutexLock lock(mu_);
  if (!current_ || current_->expiresAt <= now_()) {
    throw ServiceError::refused("no pairing window is open");
  }
  PairSession& session = *current_;
  if (!constantTimeEqual(session.token, token)) {
    throw ServiceError::refused("that token is not the one on the screen");
  }
  if (session.state == PairSession::kOffered && session.deviceID == deviceID &&
      session.spki == keys.spki) {
    // The same phone asking again gets the same numbers.
    return PairOffer{
        Fingerprint::of(session.spki),
        session.pq ? std::optional(Fingerprint::of(*session.pq)) : std::nullopt,
        session.choices};
  }
  if (session.state != PairSession::kOpen) {
    throw ServiceError::refused("a pairing is already waiting to be confirmed");
  }
  if (!Ids::isID(deviceID)) {
    throw ServiceError::refused("that is not a device id");
  }
  if (!keys.cloudKey) {
    throw ServiceError::refused(
        "that offer carries no key to seal the answer to");
  }
  room();

  std::vector<std::string> choices = {twoDigits()};
  const std::string code = choices.front();
  while (choices.size() < 3) {
    std::string other = twoDigits();
    if (std::find(choices.begin(), choices.end(), other) == choices.end()) {
      choices.push_back(std::move(other));
    }
  }
  for (size_t i = choices.size() - 1; i > 0; --i) {
    std::swap(choices[i], choices[randomBelow(i + 1)]);
  }

  session.state = PairSession::kOffered;
  session.code = code;
  session.choices = choices;
  session.deviceID = deviceID;
  session.name = Text::prefix(name, kNameLimit);
  session.spki = keys.spki;
  session.pq = keys.pq;
  session.cloudKey = keys.cloudKey;
  return PairOffer{
      Fingerprint::of(keys.spki),
      keys.pq ? std::optional(Fingerprint::of(*keys.pq)) : std::nullopt,
      std::move(choices)};
}

json Pairing::offer(const json& body) {
  const std::string* token = text(body, "token");
  const std::string* deviceID = text(body, "device_id");
  if (token == nullptr || deviceID == nullptr) {
    throw ServiceError::refused("that offer is missing something");
  }
  const std::string* name = text(body, "name");
  const OfferedKeys keys = OfferedKeys::fromBody(body);
  return offer(*token, *deviceID, name ? std::string_view(*name) : "phone",
               keys)
      .toJSON();
}

PairResult Pairing::confirm(std::string_view token, std::string_view code) {
  PairSession session;
  int64_t now;
  {
    MutexLock lock(mu_);
    now = now_();
    if (!current_ || current_->expiresAt <= now ||
        current_->state != PairSession::kOffered ||
        !constantTimeEqual(current_->token, token)) {
      throw ServiceError::refused("no pairing is waiting to be confirmed");
    }
    const bool right = constantTimeEqual(current_->code, code);
    session = std::move(*current_);
    // Right or wrong, the window is spent: a wrong pick means starting over.
    current_.reset();
    if (!right) {
      throw ServiceError::refused("that is not the code on the terminal");
    }
  }

  std::vector<std::string> codes = Recovery::mint();
  Device device{.deviceID = session.deviceID,
                .name = session.name,
                .spki = session.spki,
                .pq = session.pq,
                .secret = Random::hex(kSecretBytes),
                .cloudKey = session.cloudKey,
                .announceSeq = std::nullopt,
                .pairedAt = now,
                .recovery = Recovery::hashes(codes),
                .recoveryFailures = 0};
  devices_.put(device);

  PairResult result{paired(device), std::move(device)};
  result.payload["recovery_codes"] = codes;
  for (std::string& c : codes) wipe(c);
  return result;
}

PairResult Pairing::confirm(const json& body) {
  const std::string* token = text(body, "token");
  const std::string* code = text(body, "code");
  if (token == nullptr || code == nullptr) {
    throw ServiceError::refused("that confirmation is missing something");
  }
  return confirm(*token, *code);
}

std::optional<Device> Pairing::takeOver(std::string_view id,
                                        std::string_view code,
                                        std::string_view name,
                                        const OfferedKeys& keys, bool named) {
  std::string secret = Random::hex(kSecretBytes);
  std::optional<Device> opened;
  // The match and the change happen under the registry's lock, so one code
  // cannot be spent twice by two calls at once.
  try {
    devices_.edit(id, [&](Device& device) {
      if (named && device.recoveryFailures >= kNamedLimit) {
        throw LeaveUntouched{};
      }
      const auto index = Recovery::match(code, device.recovery);
      if (!index) {
        // The blind road counts its failures apart from the device.
        if (!named) throw LeaveUntouched{};
        ++device.recoveryFailures;
        return;
      }
      device.recovery.erase(device.recovery.begin() +
                            static_cast<std::ptrdiff_t>(*index));
      device.secret = secret;
      device.spki = keys.spki;
      device.pq = keys.pq;
      device.cloudKey = keys.cloudKey;
      device.announceSeq.reset();
      device.recoveryFailures = 0;
      if (!name.empty()) device.name = Text::prefix(name, kNameLimit);
      opened = device;
    });
  } catch (const LeaveUntouched&) {
  }
  wipe(secret);
  return opened;
}

PairResult Pairing::recover(std::string_view code, std::string_view name,
                            const OfferedKeys& keys,
                            std::optional<std::string_view> deviceID) {
  std::optional<Device> opened;
  if (deviceID && !deviceID->empty()) {
    opened = takeOver(*deviceID, code, name, keys, /*named=*/true);
  } else {
    int64_t now;
    {
      MutexLock lock(mu_);
      now = now_();
      if (blindPausedUntil_ > now)
        throw ServiceError::refused(std::string(kNoRecovery));
    }
    for (const Device& device : devices_.all()) {
      if (!Recovery::match(code, device.recovery)) continue;
      opened = takeOver(device.deviceID, code, name, keys, /*named=*/false);
      if (opened) break;
    }
    if (!opened) {
      MutexLock lock(mu_);
      if (++blindFailures_ >= kBlindLimit) {
        blindFailures_ = 0;
        blindPausedUntil_ = now + kBlindPauseSeconds;
      }
    }
  }
  if (!opened) throw ServiceError::refused(std::string(kNoRecovery));
  {
    MutexLock lock(mu_);
    blindFailures_ = 0;
  }
  PairResult result{paired(*opened), std::move(*opened)};
  result.payload["recovery_left"] = result.device.recovery.size();
  return result;
}

PairResult Pairing::recover(const json& body) {
  const std::string* code = text(body, "code");
  if (code == nullptr) {
    throw ServiceError::refused("that recovery is missing something");
  }
  const std::string* name = text(body, "name");
  const OfferedKeys keys = OfferedKeys::fromBody(body);
  const std::string* deviceID = text(body, "device_id");
  return recover(
      *code, name ? std::string_view(*name) : "", keys,
      deviceID ? std::optional<std::string_view>(*deviceID) : std::nullopt);
}

Bytes Pairing::proof(std::string_view daemonID, const Device& device) {
  std::string text(kProofDomain);
  text += '|';
  text += daemonID;
  text += '|';
  text += device.deviceID;
  text += '|';
  text += Fingerprint::of(device.spki);
  text += '|';
  text += optionalFingerprint(device.pq);
  // The sixth field is empty on purpose; the phone's check expects it.
  text += "|-|";
  text += optionalFingerprint(device.cloudKey);
  return toBytes(text);
}

json Pairing::paired(const Device& device) {
  const Bytes signedBytes = proof(config_.daemonID, device);
  Bytes signature;
  Bytes signaturePQ;
  try {
    signature = identity_.sign(signedBytes);
    signaturePQ = identity_.signPQ(signedBytes);
  } catch (const ServiceError&) {
    throw;
  } catch (const std::exception& e) {
    throw ServiceError::internalFailure(e.what());
  }
  const Bytes spki = identity_.spki();
  const Bytes pq = identity_.pqPublicKey();
  json out = {
      {"ok", true},
      {"paired", true},
      {"device_id", device.deviceID},
      {"fingerprint", Fingerprint::of(device.spki)},
      {"device_secret", device.secret},
      {"proof", toBase64(signature)},
      {"proof_pq", toBase64(signaturePQ)},
      {"daemon",
       {{"daemon_id", config_.daemonID},
        {"host", config_.host},
        {"spki_b64", toBase64(spki)},
        {"fingerprint", Fingerprint::of(spki)},
        {"pq_b64", toBase64(pq)},
        {"fingerprint_pq", Fingerprint::of(pq)},
        {"cloud", config_.cloud.enabled}}},
  };
  if (device.pq) out["fingerprint_pq"] = Fingerprint::of(*device.pq);
  return out;
}

}  // namespace tolvanger::service
