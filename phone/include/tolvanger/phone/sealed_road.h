// The phone's sealed road on the local network. When the computer demands
// it (as it does by default), every phone route but the pairing ones travels
// inside one `POST /v1/sealed`: the call, with this phone's device id and
// secret, is sealed to the computer's cloud key, and the answer comes back
// sealed to this phone's own cloud key, so that somebody on the same network
// reads neither the pending list nor the approvals.
//
// The computer's cloud key is learnt from its `CloudCard`, fetched over plain
// http from `GET /v1/card` and believed only because the keys pinned at
// pairing signed it. A credential that goes with an approval is a
// `CredentialOffer`, sealed on its own to the same card as kind "cred".
// `Road` names how a phone can reach its computer at a given moment.
//
// Thread safety: `SealedRoad` may be used from several threads at once; the
// card it keeps is guarded by a lock that is never held across a network
// call. `CloudCard`, `Road` and `CredentialOffer` are plain values
// (`CredentialOffer` is move-only, as it holds a secret).
#ifndef TOLVANGER_PHONE_SEALED_ROAD_H_
#define TOLVANGER_PHONE_SEALED_ROAD_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/cloud_card.h"
#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/crypto/xwing.h"
#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/phone/phone_client.h"
#include "tolvanger/phone/phone_request.h"

namespace tolvanger::phone {

// How a phone reaches its computer: at home on the local network, away
// through iCloud, or not at all.
enum class Road { kHome, kAway, kGone };

namespace Roads {

// "home", "away" or "gone".
std::string_view name(Road road);
// True for kHome and kAway.
bool reachable(Road road);
// What the phone says about the road: "at home, on your network", "away,
// through iCloud", and for kGone "not answering" when the phone has a cloud
// road, else "only on your own network".
std::string sentence(Road road, bool hasCloud);

}  // namespace Roads

// A credential released for one approved request: the plaintext of the
// "cred" envelope that goes with the approval.
struct CredentialOffer {
  static constexpr int64_t defaultLifetime = 60;

  std::string requestID;
  std::string name;
  // "bearer", "basic", "api_key" or "cookie".
  std::string kind;
  // The credential's UTF-8 text.
  SecretBytes value;
  // Whole seconds since 1970: the phone's limit on this copy.
  int64_t expiresAt = 0;
  // How long the person allowed repeat uses; left out when absent or below 1.
  std::optional<int64_t> holdSeconds;

  // An offer for `request`, expiring `lifetime` seconds from now. Takes a
  // copy of `value`; the caller wipes its own.
  static CredentialOffer forRequest(const TolvangerRequest& request,
                                    std::string name, std::string kind,
                                    ByteView value,
                                    int64_t lifetime = defaultLifetime,
                                    std::optional<int64_t> holdSeconds = {});

  // The JSON text of the offer ("expires_at", "hold_seconds", "kind",
  // "name", "request_id", "value"), written into wipeable memory. Throws
  // std::invalid_argument when the value is empty or not UTF-8.
  SecretBytes text() const;

  // Seals `text()` to the computer's card key as kind "cred" with the
  // request's id. Throws as `text()` and CloudSeal::seal. No copy of the
  // value outlives the call.
  CloudEnvelope seal(ByteView cardKey) const;
};

// The body of an approval on a sealed road, without its credential: the
// signatures and the timing stamps. The caller seals `credential`, if any, to
// the card it holds and adds it as "credential". Throws
// std::invalid_argument when the credential is for another request, before
// any card is looked at.
nlohmann::json sealedApproval(
    std::string_view deviceID, const TolvangerRequest& request,
    ByteView signature, std::optional<ByteView> pqSignature,
    const CredentialOffer* credential,
    std::optional<std::chrono::system_clock::time_point> drawnAt,
    DrawnFrom drawnFrom);

class SealedRoad {
 public:
  // A road to `base` for the paired device. A null transport means a new
  // CurlTransport. The device secret is wiped when the road dies.
  SealedRoad(std::string base, std::string daemonID, std::string deviceID,
             std::string deviceSecret, crypto::XWingPrivateKey cloudKey,
             Bytes pinnedDaemonSPKI, std::optional<Bytes> pinnedDaemonPQ,
             std::chrono::milliseconds timeout,
             std::shared_ptr<HTTPTransport> transport = nullptr);
  ~SealedRoad();

  SealedRoad(const SealedRoad&) = delete;
  SealedRoad& operator=(const SealedRoad&) = delete;

  // Fetches `GET /v1/card`, believes it by the pins, requires that it names
  // this computer, keeps it and returns it. Throws as `plain`, and
  // RequestError::daemon("that Mac's card came back wrong").
  CloudCard refreshCard();

  // One sealed call to a phone route, fetching the card first if none is
  // kept. Returns the route's answer object when its "ok" is true. Throws:
  // TransportError; SealedError::tooLarge for a call that fits no bucket;
  // RequestError::malformed("that Mac sent something unreadable");
  // RequestError::daemon with the outer answer's "error" text, or "that was
  // not a sealed reply", "that reply is not this call's", "the reply did
  // not decode", or the route's own "error" text, or "the Mac refused".
  nlohmann::json call(std::string_view method, std::string_view path,
                      const std::optional<nlohmann::json>& body);

  PendingList pending();
  void nudgeSeen(std::string_view id);
  // The request, checked against the pins (TolvangerRequest::fromDaemon).
  TolvangerRequest request(std::string_view id);
  // Posts the approval with its timing and, when an offer is given, the
  // offer sealed to the card as kind "cred" under "credential".
  nlohmann::json approve(
      const TolvangerRequest& request, ByteView signature,
      std::optional<ByteView> pqSignature, const CredentialOffer* credential,
      std::optional<std::chrono::system_clock::time_point> drawnAt,
      DrawnFrom drawnFrom);
  nlohmann::json deny(
      std::string_view requestID,
      std::optional<std::chrono::system_clock::time_point> drawnAt,
      DrawnFrom drawnFrom);
  nlohmann::json endAllowance(std::string_view requestID);
  // Posts the phone's list of secrets (`secrets`, a list of objects) with
  // its sequence number when given. Returns "added", "count", "stale".
  nlohmann::json announce(const nlohmann::json& secrets,
                          std::optional<int64_t> seq);
  void registerCloudKey(ByteView publicKey);

  // The card kept, if any.
  std::optional<CloudCard> card() const EXCLUDES(mu_);

 private:
  // One plain exchange: a POST of `body` when given, else a GET.
  nlohmann::json plain(std::string_view path,
                       const std::optional<nlohmann::json>& body,
                       bool expectOK) const;
  CloudCard currentCard() EXCLUDES(mu_);

  std::string base_;
  std::chrono::milliseconds timeout_;
  std::shared_ptr<HTTPTransport> transport_;
  std::string daemonID_;
  std::string deviceID_;
  std::string deviceSecret_;
  crypto::XWingPrivateKey cloudKey_;
  Bytes pinnedDaemonSPKI_;
  std::optional<Bytes> pinnedDaemonPQ_;
  mutable Mutex mu_;
  std::optional<CloudCard> card_ GUARDED_BY(mu_);
};

}  // namespace tolvanger::phone

#endif  // TOLVANGER_PHONE_SEALED_ROAD_H_
