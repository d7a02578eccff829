// The software phone: a phone made of a `PhoneHome` and software keys, for
// development, tests and people without the phone app. `SoftwarePhone`
// answers the paired Mac's requests and announces the list of secrets;
// `PhonePairing` pairs it with a Mac in two steps around the number the
// person picks. What it asks of the person (confirmations, values, the pick)
// is the caller's to ask: nothing here reads a terminal.
//
// Every call but pairing goes sealed through `POST /v1/sealed`
// (`SealedRoad`) unless the phone is made `clear`, for a Mac whose
// require_sealed is off, or is told to use the cloud road (`CloudTransport`
// on a folder store); a credential travels sealed to the Mac's card on every
// road.
//
// Thread safety: `SoftwarePhone` and `PhonePairing` are for one thread at a
// time: they make their road and keep their keys on first use, unguarded.
// The free functions are pure.
#ifndef TOLVANGER_PHONE_SOFTWARE_PHONE_H_
#define TOLVANGER_PHONE_SOFTWARE_PHONE_H_

#include <chrono>
#include <exception>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/xwing.h"
#include "tolvanger/kit/pair_link.h"
#include "tolvanger/phone/cloud_transport.h"
#include "tolvanger/phone/pairing_client.h"
#include "tolvanger/phone/phone_client.h"
#include "tolvanger/phone/phone_home.h"
#include "tolvanger/phone/phone_request.h"
#include "tolvanger/phone/sealed_road.h"

namespace tolvanger::phone {

// How long one exchange with the Mac may take.
inline constexpr std::chrono::milliseconds kMacTimeout{15000};

class SoftwarePhone {
 public:
  // A phone kept in `home`. A null transport means a new CurlTransport.
  explicit SoftwarePhone(PhoneHome home, bool clear = false,
                         std::chrono::milliseconds timeout = kMacTimeout,
                         std::shared_ptr<HTTPTransport> transport = nullptr);

  const PhoneHome& home() const { return home_; }

  // Takes every call but pairing through records in the store that
  // `container` names ("folder:<absolute path>") instead of the network.
  // Throws Refusal for a container this phone cannot use.
  void useCloud(std::string_view container);

  // What waits on the Mac, and one request checked against the pins. These
  // and `deny` throw Refusal when the phone is not paired, and as the road
  // does (SealedRoad, DaemonClient).
  PendingList pending();
  TolvangerRequest request(std::string_view id);

  // Signs the request's binding with both keys kept in the home and posts
  // the approval, with `credential` (if any) sealed to the Mac's card.
  // Returns the Mac's answer.
  nlohmann::json approve(const TolvangerRequest& request,
                         const CredentialOffer* credential,
                         std::chrono::system_clock::time_point drawnAt);
  nlohmann::json deny(std::string_view id,
                      std::chrono::system_clock::time_point drawnAt);

  // The allowances open on the Mac that this phone granted, in the Mac's
  // order, and ending one of them (true when it was open). The Mac tells
  // these only to a phone that proved itself, so both go sealed whether or
  // not the phone is `clear`.
  std::vector<OpenAllowance> allowances();
  bool endAllowance(std::string_view requestID);

  // Sends the whole list to the Mac under a new sequence number, never
  // below the clock (so a list kept from before a lost home still counts as
  // newer), keeping it in the home first. Throws Refusal when the phone is
  // not paired ("...the list was kept here and not sent to a Mac.") or the
  // Mac holds a newer list.
  void announce(SecretList& list);

 private:
  // Loads the pairing and makes the road, once. Throws as
  // PhoneHome::requirePairing and PhoneHome::cloudKey.
  void connect();
  std::unique_ptr<SealedRoad> sealedRoad() const;

  PhoneHome home_;
  bool clear_;
  std::chrono::milliseconds timeout_;
  std::shared_ptr<HTTPTransport> transport_;
  std::unique_ptr<SavedPairing> pairing_;
  std::unique_ptr<SealedRoad> sealed_;
  std::optional<DaemonClient> plain_;
  std::optional<std::string> cloudFolder_;
  std::unique_ptr<CloudTransport> cloud_;
};

// Pairing this phone with the Mac that shows a pair link: `offer` sends the
// phone's keys and gives the three numbers; `confirm` sends the one the
// person picked, checks the Mac's proof and keeps the pairing in the home.
class PhonePairing {
 public:
  // What a finished pairing leaves: the pairing as kept, and the recovery
  // codes, shown to the person once and never kept (wiped with this value).
  struct Paired {
    SavedPairing saved;
    std::vector<std::string> recoveryCodes;

    Paired() = default;
    Paired(Paired&&) = default;
    ~Paired();
  };

  // Reads the link. Throws Refusal ("That is not a pair link: <why>." or
  // "That pair link names no address to reach the Mac at.").
  explicit PhonePairing(std::string_view link,
                        std::chrono::milliseconds timeout = kMacTimeout,
                        std::shared_ptr<HTTPTransport> transport = nullptr);

  // The name a phone goes by when none is given: "Software phone on
  // <host name>".
  static std::string defaultName();

  // Offers the keys of `home` (drawn there on first use) under `name`, or
  // `defaultName()`. A phone that pairs again keeps its device id. Returns
  // the three numbers the Mac may show. Throws as the pairing client does,
  // and Refusal when the Mac received another key than this phone's.
  const std::vector<std::string>& offer(const PhoneHome& home,
                                        std::optional<std::string> name);

  // Confirms `pick` (trimmed), after `offer`. Throws Refusal when it is not
  // one of the numbers, when the Mac's proof does not fit this phone's keys,
  // or when the Mac that answered is not the one of the link; nothing is
  // kept then.
  Paired confirm(std::string_view pick);

 private:
  PairURL link_;
  std::optional<PairingClient> client_;
  std::optional<PhoneHome> home_;
  std::string deviceID_;
  std::string name_;
  Bytes spki_;
  Bytes pq_;
  std::optional<crypto::XWingPrivateKey> cloud_;
  PairOffer offer_;
};

// Checks a pasted cookie header without keeping it: no control character,
// and at least one name=value pair. Throws a Refusal that names `host`.
void checkCookieHeader(ByteView header, std::string_view host);

// The words a person reads on the phone before approving: the headline, the
// Mac's notice, the sentence, the facts and, when they hold more, every
// field, then the seconds left; each line ends in a newline.
std::string describe(const TolvangerRequest& request);

// The one line a person reads for any failure: a Refusal as it stands,
// anything else as Failures::of words it, with the raw description where
// the sentence alone would say too little. Never holds a line break.
std::string failureLine(const std::exception& error);

}  // namespace tolvanger::phone

#endif  // TOLVANGER_PHONE_SOFTWARE_PHONE_H_
