#include "tolvanger/phone/pairing_client.h"

#include <utility>

#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/fingerprint.h"
#include "tolvanger/phone/phone_request.h"

namespace tolvanger::phone {

using nlohmann::json;

namespace {

constexpr std::string_view kProofDomain = "tolvanger-paired-v1";
constexpr const char* kReplyWrong = "the pairing reply came back wrong";

// The text under `key` of a secret-bearing object, copied out.
std::optional<std::string> secretText(const SecretJson& object,
                                      const char* key) {
  if (!object.is_object()) return std::nullopt;
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return std::nullopt;
  const SecretString& value = it->get_ref<const SecretString&>();
  return std::string(value.begin(), value.end());
}

std::optional<Bytes> secretBase64(const SecretJson& object, const char* key) {
  const std::optional<std::string> text = secretText(object, key);
  if (!text) return std::nullopt;
  return fromBase64(*text);
}

json offerBody(std::string_view name, ByteView publicKeyDER,
               ByteView pqPublicKey, ByteView cloudPublicKey) {
  return json{{"name", name},
              {"public_key", toBase64(publicKeyDER)},
              {"public_key_pq", toBase64(pqPublicKey)},
              {"cloud_public_key", toBase64(cloudPublicKey)}};
}

}  // namespace

namespace PairingProof {

Bytes text(std::string_view daemonID, std::string_view deviceID,
           std::string_view fingerprint,
           std::optional<std::string_view> fingerprintPQ,
           std::optional<std::string_view> cloudFingerprint) {
  std::string joined(kProofDomain);
  for (const std::string_view field :
       {daemonID, deviceID, fingerprint, fingerprintPQ.value_or("-"),
        std::string_view("-"), cloudFingerprint.value_or("-")}) {
    joined += '|';
    joined += field;
  }
  return toBytes(joined);
}

Bytes text(std::string_view daemonID, std::string_view deviceID,
           ByteView publicKeyDER, std::optional<ByteView> pqPublicKey,
           std::optional<ByteView> cloudKey) {
  std::optional<std::string> pq;
  std::optional<std::string> cloud;
  if (pqPublicKey) pq = Fingerprint::of(*pqPublicKey);
  if (cloudKey) cloud = Fingerprint::of(*cloudKey);
  return text(daemonID, deviceID, Fingerprint::of(publicKeyDER),
              pq ? std::optional<std::string_view>(*pq) : std::nullopt,
              cloud ? std::optional<std::string_view>(*cloud) : std::nullopt);
}

}  // namespace PairingProof

Pairing::~Pairing() {
  wipe(deviceSecret);
  for (std::string& code : recoveryCodes) wipe(code);
}

Pairing Pairing::from(const SecretJson& answer) {
  Pairing pairing;
  std::optional<std::string> deviceID = secretText(answer, "device_id");
  std::optional<std::string> fingerprint = secretText(answer, "fingerprint");
  std::optional<std::string> secret = secretText(answer, "device_secret");
  const auto daemon = answer.is_object() ? answer.find("daemon") : answer.end();
  if (!deviceID || !fingerprint || !secret || daemon == answer.end() ||
      !daemon->is_object()) {
    if (secret) wipe(*secret);
    throw RequestError::malformed(kReplyWrong);
  }
  pairing.deviceSecret = std::move(*secret);
  std::optional<std::string> daemonID = secretText(*daemon, "daemon_id");
  std::optional<Bytes> spki = secretBase64(*daemon, "spki_b64");
  if (!daemonID || !spki) throw RequestError::malformed(kReplyWrong);

  pairing.deviceID = std::move(*deviceID);
  pairing.fingerprint = std::move(*fingerprint);
  pairing.daemonID = std::move(*daemonID);
  pairing.daemonSPKI = std::move(*spki);
  if (const auto codes = answer.find("recovery_codes");
      codes != answer.end() && codes->is_array()) {
    for (const SecretJson& code : *codes) {
      if (!code.is_string()) continue;
      const SecretString& value = code.get_ref<const SecretString&>();
      pairing.recoveryCodes.emplace_back(value.begin(), value.end());
    }
  }
  pairing.daemonHost = secretText(*daemon, "host").value_or("");
  pairing.daemonFingerprint = secretText(*daemon, "fingerprint").value_or("");
  pairing.daemonPQ = secretBase64(*daemon, "pq_b64");
  pairing.fingerprintPQ = secretText(answer, "fingerprint_pq");
  if (const auto cloud = daemon->find("cloud");
      cloud != daemon->end() && cloud->is_boolean()) {
    pairing.cloud = cloud->get<bool>();
  }
  pairing.daemonFingerprintPQ = secretText(*daemon, "fingerprint_pq");
  pairing.proof = secretBase64(answer, "proof");
  pairing.proofPQ = secretBase64(answer, "proof_pq");
  if (const auto left = answer.find("recovery_left");
      left != answer.end() && left->is_number_integer()) {
    pairing.recoveryLeft = left->get<int64_t>();
  }
  return pairing;
}

bool Pairing::verifiesProof(ByteView myPublicKeyDER,
                            std::optional<ByteView> myPQPublicKey,
                            std::optional<ByteView> myCloudKey) const {
  if (!proof) return false;
  const auto key = crypto::P256PublicKey::fromDER(daemonSPKI);
  if (!key) return false;
  std::optional<crypto::MLDSA65PublicKey> pq;
  if (daemonPQ) {
    if (!proofPQ) return false;
    pq = crypto::MLDSA65PublicKey::fromRaw(*daemonPQ);
    if (!pq) return false;
  }
  const Bytes message = PairingProof::text(daemonID, deviceID, myPublicKeyDER,
                                           myPQPublicKey, myCloudKey);
  if (!key->verify(message, *proof)) return false;
  return !pq || pq->verify(message, *proofPQ);
}

std::optional<PairingClient> PairingClient::forLink(
    const PairURL& link, std::chrono::milliseconds timeout,
    std::shared_ptr<HTTPTransport> transport) {
  if (link.host.empty()) return std::nullopt;
  std::string host = link.host;
  if (host.find(':') != std::string::npos && host.front() != '[') {
    host = "[" + host + "]";
  }
  std::optional<DaemonClient> client = DaemonClient::atAddress(
      "http://" + host + ":" + std::to_string(link.port), timeout,
      std::move(transport));
  if (!client) return std::nullopt;
  return PairingClient(*std::move(client));
}

PairOffer PairingClient::pair(std::string_view token, std::string_view deviceID,
                              std::string_view name, ByteView publicKeyDER,
                              ByteView pqPublicKey,
                              ByteView cloudPublicKey) const {
  json body = offerBody(name, publicKeyDER, pqPublicKey, cloudPublicKey);
  body["token"] = token;
  body["device_id"] = deviceID;
  const json answer = client_.call("/v1/pair", body);

  const std::string* fingerprint = PhoneJSON::text(answer, "fingerprint");
  const auto choices = answer.find("choices");
  if (fingerprint == nullptr || choices == answer.end() ||
      !choices->is_array() || choices->size() != 3) {
    throw RequestError::malformed("the pairing offer came back wrong");
  }
  PairOffer offer{*fingerprint, std::nullopt, {}};
  for (const json& choice : *choices) {
    if (!choice.is_string()) {
      throw RequestError::malformed("the pairing offer came back wrong");
    }
    offer.choices.push_back(choice.get<std::string>());
  }
  if (const std::string* pq = PhoneJSON::text(answer, "fingerprint_pq")) {
    offer.fingerprintPQ = *pq;
  }
  return offer;
}

Pairing PairingClient::confirm(
    std::string_view token, std::string_view code, std::string_view deviceID,
    const crypto::XWingPrivateKey& unsealWith) const {
  const json answer =
      client_.call("/v1/pair/confirm", json{{"token", token}, {"code", code}});
  return Pairing::from(unwrap(answer, unsealWith, deviceID));
}

Pairing PairingClient::recover(
    std::optional<std::string_view> deviceID, std::string_view code,
    std::string_view name, ByteView publicKeyDER, ByteView pqPublicKey,
    ByteView cloudPublicKey, const crypto::XWingPrivateKey& unsealWith) const {
  json body = offerBody(name, publicKeyDER, pqPublicKey, cloudPublicKey);
  body["code"] = code;
  if (deviceID && !deviceID->empty()) body["device_id"] = *deviceID;
  json answer;
  try {
    answer = client_.call("/v1/recover", body);
  } catch (...) {
    wipe(body["code"].get_ref<std::string&>());
    throw;
  }
  wipe(body["code"].get_ref<std::string&>());
  if (deviceID && deviceID->empty()) deviceID.reset();
  return Pairing::from(unwrap(answer, unsealWith, deviceID));
}

SecretJson PairingClient::unwrap(const json& reply,
                                 const crypto::XWingPrivateKey& key,
                                 std::optional<std::string_view> deviceID) {
  const auto sealed = reply.is_object() ? reply.find("sealed") : reply.end();
  if (sealed == reply.end() || !sealed->is_object()) {
    throw RequestError::malformed("that Mac answered the pairing in the clear");
  }
  CloudEnvelope envelope;
  try {
    envelope = CloudEnvelope::from(*sealed);
  } catch (const SealedError&) {
    throw RequestError::malformed(
        "that pairing answer is not for this phone's offer");
  }
  if (envelope.kind != "pairing" || (deviceID && envelope.id != *deviceID)) {
    throw RequestError::malformed(
        "that pairing answer is not for this phone's offer");
  }
  const SecretBytes plain = CloudSeal::open(envelope, key);
  const ByteView bytes = plain.reveal();
  SecretJson answer = SecretJson::parse(bytes.begin(), bytes.end(), nullptr,
                                        /*allow_exceptions=*/false);
  if (!answer.is_object()) {
    throw RequestError::malformed("the sealed answer did not decode");
  }
  const auto id = answer.find("device_id");
  if (id == answer.end() || !id->is_string() ||
      std::string_view(id->get_ref<const SecretString&>()) != envelope.id) {
    throw RequestError::malformed("that pairing answer names another device");
  }
  return answer;
}

}  // namespace tolvanger::phone
