#include "tolvanger/phone/software_phone.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "tolvanger/kit/ascii.h"
#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/fingerprint.h"
#include "tolvanger/kit/folder_cloud.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/port/system.h"

namespace tolvanger::phone {
namespace {

using nlohmann::json;

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

}  // namespace

// --- Answering the Mac -------------------------------------------------------

SoftwarePhone::SoftwarePhone(PhoneHome home, bool clear,
                             std::chrono::milliseconds timeout,
                             std::shared_ptr<HTTPTransport> transport)
    : home_(std::move(home)),
      clear_(clear),
      timeout_(timeout),
      transport_(std::move(transport)) {}

void SoftwarePhone::useCloud(std::string_view container) {
  const std::optional<std::string> folder =
      FolderCloudStore::folderOf(container);
  if (!folder) {
    throw Refusal(
        "This phone reaches the cloud road only through a synced folder: "
        "give --cloud folder:<absolute path>.");
  }
  cloudFolder_ = folder;
}

void SoftwarePhone::connect() {
  if (sealed_ || plain_ || cloud_) return;
  if (!pairing_) pairing_ = home_.requirePairing();
  if (cloudFolder_) {
    cloud_ = CloudTransport::connect(
        std::make_shared<FolderCloudStore>(*cloudFolder_,
                                           home_.file("cloud-cursor.json")),
        pairing_->daemonSPKI, pairing_->daemonPQ, pairing_->deviceID,
        pairing_->deviceSecret, home_.cloudKey());
  } else if (clear_) {
    plain_.emplace(pairing_->address, timeout_, transport_);
  } else {
    sealed_ = sealedRoad();
  }
}

std::unique_ptr<SealedRoad> SoftwarePhone::sealedRoad() const {
  return std::make_unique<SealedRoad>(
      pairing_->address, pairing_->daemonID, pairing_->deviceID,
      pairing_->deviceSecret, home_.cloudKey(), pairing_->daemonSPKI,
      pairing_->daemonPQ, timeout_, transport_);
}

PendingList SoftwarePhone::pending() {
  connect();
  if (cloud_) return cloud_->pending();
  return sealed_ ? sealed_->pending() : plain_->pending();
}

TolvangerRequest SoftwarePhone::request(std::string_view id) {
  connect();
  if (cloud_) return cloud_->request(id);
  return sealed_
             ? sealed_->request(id)
             : plain_->request(id, pairing_->daemonSPKI, pairing_->daemonPQ);
}

json SoftwarePhone::approve(const TolvangerRequest& request,
                            const CredentialOffer* credential,
                            std::chrono::system_clock::time_point drawnAt) {
  connect();
  const Bytes binding = request.binding();
  const SoftwareSigner signer = home_.signer();
  const Bytes signature = signer.signature(binding);
  const Bytes pqSignature = signer.pqSignature(binding);
  if (cloud_) {
    return cloud_->approve(request, signature, pqSignature, credential, drawnAt,
                           DrawnFrom::kCloud);
  }
  if (sealed_) {
    return sealed_->approve(request, signature, pqSignature, credential,
                            drawnAt, DrawnFrom::kPoll);
  }
  std::optional<json> envelope;
  if (credential != nullptr) {
    // Even in the clear a credential travels sealed to the Mac's card.
    const CloudCard card = sealedRoad()->refreshCard();
    envelope = credential->seal(card.key).asDictionary();
  }
  return plain_->approve(request, pairing_->deviceID, signature, pqSignature,
                         drawnAt, DrawnFrom::kPoll, envelope);
}

json SoftwarePhone::deny(std::string_view id,
                         std::chrono::system_clock::time_point drawnAt) {
  connect();
  if (cloud_) return cloud_->deny(id, drawnAt, DrawnFrom::kCloud);
  return sealed_ ? sealed_->deny(id, drawnAt, DrawnFrom::kPoll)
                 : plain_->deny(id, drawnAt, DrawnFrom::kPoll);
}

std::vector<OpenAllowance> SoftwarePhone::allowances() {
  connect();
  PendingList list = sealed_ ? sealed_->pending() : sealedRoad()->pending();
  return list.allowances.value_or(std::vector<OpenAllowance>{});
}

bool SoftwarePhone::endAllowance(std::string_view requestID) {
  connect();
  const json answer = sealed_ ? sealed_->endAllowance(requestID)
                              : sealedRoad()->endAllowance(requestID);
  const auto ended = answer.find("ended");
  return ended != answer.end() && ended->is_boolean() && ended->get<bool>();
}

void SoftwarePhone::announce(SecretList& list) {
  if (!pairing_) pairing_ = home_.pairing();
  if (!pairing_) {
    throw Refusal(
        "This phone is not paired, so the list was kept here and not sent to "
        "a Mac.");
  }
  // Never below the clock, so a list kept from before a lost home still
  // counts as newer.
  const int64_t next =
      list.seq < std::numeric_limits<int64_t>::max() ? list.seq + 1 : list.seq;
  list.seq = std::max(next, SystemClock::seconds());
  home_.saveSecrets(list);
  connect();
  json answer;
  if (cloud_) {
    answer = cloud_->announce(list.announcement(), list.seq);
  } else if (sealed_) {
    answer = sealed_->announce(list.announcement(), list.seq);
  } else {
    json body = {{"secrets", list.announcement()},
                 {"seq", list.seq},
                 {"device_id", pairing_->deviceID},
                 {"device_secret", pairing_->deviceSecret}};
    try {
      answer = plain_->call("/v1/secrets", body);
    } catch (...) {
      wipe(body["device_secret"].get_ref<std::string&>());
      throw;
    }
    wipe(body["device_secret"].get_ref<std::string&>());
  }
  if (const auto stale = answer.find("stale");
      stale != answer.end() && stale->is_boolean() && stale->get<bool>()) {
    throw Refusal("The Mac already holds a newer list than this one.");
  }
}

// --- Pairing -----------------------------------------------------------------

PhonePairing::Paired::~Paired() {
  for (std::string& code : recoveryCodes) wipe(code);
}

PhonePairing::PhonePairing(std::string_view link,
                           std::chrono::milliseconds timeout,
                           std::shared_ptr<HTTPTransport> transport) {
  std::string why;
  std::optional<PairURL> parsed = PairURL::parse(link, &why);
  if (!parsed) throw Refusal("That is not a pair link: " + why + ".");
  link_ = *std::move(parsed);
  client_ = PairingClient::forLink(link_, timeout, std::move(transport));
  if (!client_) {
    throw Refusal("That pair link names no address to reach the Mac at.");
  }
}

std::string PhonePairing::defaultName() {
  const std::string host = port::hostName();
  return host.empty() ? "Software phone" : "Software phone on " + host;
}

const std::vector<std::string>& PhonePairing::offer(
    const PhoneHome& home, std::optional<std::string> name) {
  home_ = home;
  const SoftwareSigner signer = home.signer();
  cloud_ = home.cloudKey();
  spki_ = signer.publicKeyDER();
  pq_ = signer.pqPublicKey();
  const Bytes cloudPublic = cloud_->publicKey().raw();
  const std::unique_ptr<SavedPairing> before = home.pairing();
  deviceID_ = before ? before->deviceID : "phone-" + Random::hex(8);
  name_ = name ? *std::move(name) : defaultName();

  offer_ =
      client_->pair(link_.token, deviceID_, name_, spki_, pq_, cloudPublic);
  if (offer_.fingerprint != Fingerprint::of(spki_)) {
    throw Refusal(
        "The Mac received another key than this phone's, so this phone did "
        "not pair.");
  }
  return offer_.choices;
}

PhonePairing::Paired PhonePairing::confirm(std::string_view pick) {
  const std::string code(Ascii::trim(pick));
  if (std::find(offer_.choices.begin(), offer_.choices.end(), code) ==
      offer_.choices.end()) {
    throw Refusal(
        "That is not one of the three numbers, so this phone did not pair.");
  }
  const Pairing pairing =
      client_->confirm(link_.token, code, deviceID_, *cloud_);
  const Bytes cloudPublic = cloud_->publicKey().raw();
  if (!pairing.verifiesProof(spki_, ByteView(pq_), ByteView(cloudPublic))) {
    throw Refusal(
        "The Mac's proof does not fit this phone's keys, so the pairing was "
        "not kept.");
  }
  const std::string daemonFingerprint = Fingerprint::of(pairing.daemonSPKI);
  if (daemonFingerprint != link_.fingerprint ||
      pairing.daemonID != link_.daemonID) {
    throw Refusal(
        "The Mac that answered is not the one in the pair link, so the "
        "pairing was not kept.");
  }

  Paired paired;
  paired.recoveryCodes = pairing.recoveryCodes;
  SavedPairing& state = paired.saved;
  state.address = client_->client().base();
  state.deviceID = pairing.deviceID;
  state.deviceName = name_;
  state.deviceSecret = pairing.deviceSecret;
  state.daemonID = pairing.daemonID;
  state.daemonHost = pairing.daemonHost;
  state.daemonFingerprint = daemonFingerprint;
  state.daemonSPKI = pairing.daemonSPKI;
  state.daemonPQ = pairing.daemonPQ;
  state.cloud = pairing.cloud;
  state.pairedAt = SystemClock::seconds();
  home_->savePairing(state);
  return paired;
}

// --- Words for the person ----------------------------------------------------

void checkCookieHeader(ByteView header, std::string_view host) {
  const std::string where(host);
  if (header.empty()) {
    throw Refusal("No cookie header was given for " + where +
                  ", so nothing was signed.");
  }
  if (std::any_of(header.begin(), header.end(),
                  [](uint8_t c) { return c < 0x20 || c == 0x7F; })) {
    throw Refusal("The cookie header for " + where +
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
    throw Refusal("That is not a cookie header for " + where +
                  ": it needs at least one name=value pair, so nothing was "
                  "signed.");
  }
}

std::string describe(const TolvangerRequest& request) {
  const PlainRequest plain = request.plain();
  std::string out = request.headline() + "\n";
  if (request.notice) out += "Notice: " + *request.notice + "\n";
  out += plain.sentence + "\n";
  for (const auto& fact : plain.facts) {
    out += fact.label + ": " + indented(fact.value, "  ") + "\n";
  }
  if (plain.hasMore) {
    out += "Details:\n";
    for (const auto& field : request.fields) {
      out += "  " + field.label + ": " + indented(field.value, "    ") + "\n";
    }
  }
  out += "Expires in " + std::to_string(request.secondsLeft()) + " seconds.\n";
  return out;
}

std::string failureLine(const std::exception& error) {
  std::string line;
  if (dynamic_cast<const Refusal*>(&error) != nullptr) {
    line = error.what();
  } else {
    const Failure failure = Failures::of(error);
    const auto* request = dynamic_cast<const RequestError*>(&error);
    if (failure.isCancellation) {
      line = "Cancelled.";
    } else if (failure.sentence == "Something went wrong." &&
               !failure.detail.empty()) {
      line = Failures::finish(failure.detail);
    } else if (request != nullptr &&
               request->kind() == RequestError::Kind::kMalformed) {
      line = failure.sentence.substr(0, failure.sentence.size() - 1) + " (" +
             failure.detail + ").";
    } else {
      line = failure.sentence;
    }
  }
  for (char& c : line) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  return line;
}

}  // namespace tolvanger::phone
