// The service: one object that owns every registry of a running
// tolvanger-service and the operations that span them (raising and settling
// requests, the status object, announcements, nudges).
//
// Built once per process and alive as long as it. There is no service-wide
// lock: each registry has its own, and `Store::decide` arbitrates between
// answers racing on one request, so of two exactly one goes through.
// Announcements of secrets are ordered by a lock of their own, held only
// while memory changes.
//
// Thread safety: every public member may be called from any thread.
// `config` is fixed after construction; `setListenAddresses` is called once,
// before any listener starts.
#ifndef TOLVANGER_SERVICE_SERVICE_H_
#define TOLVANGER_SERVICE_SERVICE_H_

#include <atomic>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/fields.h"
#include "tolvanger/service/agent_process.h"
#include "tolvanger/service/allowances.h"
#include "tolvanger/service/broker.h"
#include "tolvanger/service/callers.h"
#include "tolvanger/service/chain.h"
#include "tolvanger/service/config.h"
#include "tolvanger/service/credentials.h"
#include "tolvanger/service/device_keys.h"
#include "tolvanger/service/devices.h"
#include "tolvanger/service/events.h"
#include "tolvanger/service/home.h"
#include "tolvanger/service/identity.h"
#include "tolvanger/service/journal.h"
#include "tolvanger/service/nudges.h"
#include "tolvanger/service/pairing.h"
#include "tolvanger/service/secret_names.h"
#include "tolvanger/service/store.h"
#include "tolvanger/service/tripwire.h"

namespace tolvanger::service {

class CloudRoad;

// The first line of the six that both sides sign for a request.
inline constexpr std::string_view kBindingVersion = "tolvanger-v1";

// What `raise` may be given besides the operation and its fields.
struct RaiseOptions {
  std::optional<std::string> credentialName;
  std::optional<int64_t> ttlSeconds;  // asked for; clamped by the config
  // A lifetime fixed by the operation itself, used as it stands in place of
  // `ttlSeconds` (a sign-in always has ten minutes).
  std::optional<int64_t> fixedLifetime;
  std::optional<std::string> profile;
  std::optional<AgentProcess> agent;
  std::optional<Wire> wire;  // the outgoing call of a brokered request
  // A use of an open allowance that covers this request: it is then settled
  // as approved at once, without the phone, and the value is wiped. Must
  // outlive the call.
  AllowanceUse* allowed = nullptr;
};

// A phone's answer of yes, as a road hands it over. The pointers may be null
// and must outlive the call.
struct Approval {
  std::string requestID;
  std::string deviceID;
  std::string digest;
  std::string signatureBase64;
  std::optional<std::string> pqSignatureBase64;
  const nlohmann::json* credentialEnvelope = nullptr;
  std::string road;
  const nlohmann::json* stamps = nullptr;
};

// A credential opened from the envelope that came with an approval.
struct OpenedCredential {
  std::string name;
  std::string kind;
  SecretBytes value;
  std::optional<int64_t> expiry;  // the phone's limit, whole seconds
  std::optional<int64_t> hold;    // seconds of reuse the phone allowed
};

// The result of an announcement of secrets from a phone.
struct Announced {
  std::vector<std::string> added;
  bool stale = false;
};

class Service {
 public:
  // Makes the home, loads the configuration unless one is given, and loads or
  // makes the keys. Throws what `Home::ensure`, `Identity` or the device
  // registry throw.
  explicit Service(Home home, std::optional<Config> config = std::nullopt);

  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // Files a request for the phone. Throws ServiceError::refused with the
  // sentence of the first check that fails; nothing is filed then.
  StoredRequest raise(const std::string& operation, Fields fields,
                      const RaiseOptions& options = {});

  // Calls off a pending request. Throws the store's refusal.
  StoredRequest cancel(const std::string& requestID);

  // The phone's yes. Every check runs before anything changes; a refusal
  // (ServiceError::refused with its sentence) leaves the request pending, so
  // a corrected approval may follow. Of two approvals racing, exactly one
  // passes. A credential that came with it is held in memory for this
  // request, and every other copy of its bytes is wiped.
  StoredRequest approve(const Approval& approval);

  // The kinds of credential this service knows how to attach.
  static bool isCredentialKind(std::string_view kind);

  // The phone's no. `stamps` are the phone's timing stamps, or null. Throws
  // the store's refusal.
  StoredRequest deny(const std::string& requestID, const std::string& road,
                     const nlohmann::json* stamps = nullptr);

  // The six lines both sides sign for `request`, joined by newlines.
  std::string binding(const StoredRequest& request) const;

  // The object that represents `request` to a phone, signed by both keys.
  // Throws if a key or a signature cannot be had.
  nlohmann::json requestPayload(const StoredRequest& request);

  // The status object that the socket's `hello` and `status` carry.
  nlohmann::json status();

  // The reply to an agent whose request was filed.
  nlohmann::json openedReply(const StoredRequest& request) const;

  // Raises a nudge for the phone. Throws ServiceError::refused.
  Nudge nudge(const std::string& kind);

  // Replaces the list of announced secrets with a phone's list. A `seq` not
  // above the device's last accepted one changes nothing (`stale`); of
  // announcements racing, the highest sequence wins and the device's
  // sequence never goes back. Throws ServiceError::refused and changes
  // nothing on a bad list.
  Announced announce(const nlohmann::json& secrets, std::optional<int64_t> seq,
                     const std::string& deviceID);

  // Spends an approval together with its credential: the request turns taken
  // and the credential leaves the registry; journal line "spent". Throws the
  // store's refusal, or kCredentialGone when no credential is held (the
  // request stays taken: a lost credential means a new approval).
  Spent spendCredential(const std::string& requestID);

  // Files a request for the person to sign in to `site` on the phone, the
  // session to be kept under `secret` (or the site's host). The arguments are
  // the raw JSON values an agent sent, any of them null. Throws
  // ServiceError::refused with the sign-in's sentences or raise's.
  StoredRequest askSignIn(const nlohmann::json& site,
                          const nlohmann::json& secret,
                          const nlohmann::json& reason,
                          const std::string& agent,
                          const std::optional<std::string>& client);

  // ---- The tripwire.

  // The operation under which a profile replacement is approved.
  static constexpr std::string_view kProfileOperation = "tripwire.replace";

  // The text of an agent's `profile` argument: a non-empty string of at most
  // kProfileLimit characters. Throws ServiceError::refused.
  static std::string packedProfile(const nlohmann::json& value);
  // Checks an offered profile in full (Base64, gzip, inspection), then files
  // a `tripwire.replace` request that carries it. Throws the first refusal;
  // no request exists then.
  StoredRequest offerProfile(const nlohmann::json& blob,
                             const nlohmann::json& reason,
                             const std::string& agent,
                             const std::optional<std::string>& client);
  // Installs the profile of an approved `tripwire.replace` request: the
  // approval is spent once the package has unpacked, and stays spent if the
  // profile then cannot be stored. Journal line "profile-installed". Returns
  // the new profile's `about`. Throws ServiceError.
  nlohmann::json installProfile(const std::string& requestID);
  // Passes an agent's report of a sent message to the tripwire.
  Tripwire& tripwire() { return tripwire_; }

  // True when a released credential waits in memory for this request.
  bool credentialWaiting(const std::string& requestID);
  // True when the cloud road is up and connected, so phones are rung.
  bool cloudConnected() const;
  // The cloud road that raise, nudge and status use, held weakly; set by
  // the runtime around the road's life, null to forget it.
  void setCloudRoad(const std::shared_ptr<CloudRoad>& road);
  // Ends the cloud road's nap, if there is a road: new work for it.
  void pokeCloud();
  // The paired phones, in the registry's order.
  std::vector<Device> devices() const;

  // Addresses a phone can reach, as "address:port".
  std::vector<std::string> phoneAddresses() const;
  // The address a pairing link names.
  std::string pairingHost() const;

  void setListenAddresses(std::vector<std::string> addresses);

  const std::vector<std::string>& listenAddresses() const {
    return listenAddresses_;
  }

  // ---- What the agents' doors read and change.

  // Hands a plain approval to the agent that asked: the request turns taken;
  // journal line "redeemed". A brokered approval is refused, since only the
  // call it authorises may spend it. Throws the store's refusal otherwise.
  StoredRequest redeem(const std::string& requestID,
                       const std::optional<std::string>& client);
  // The request as stored, unless it is unknown or has left memory.
  std::optional<StoredRequest> request(std::string_view requestID);
  // The pending requests, oldest raised first.
  std::vector<StoredRequest> pendingRequests();
  // The announced secrets, by name.
  std::vector<SecretName> secretNames() const;
  std::optional<SecretName> secretName(std::string_view name) const;
  // Forgets a paired phone; false when none has that id.
  bool forgetDevice(std::string_view deviceID);
  // Writes one journal line.
  void record(std::string_view event, const JournalFields& fields = {});
  // The journal's last `n` lines, oldest first.
  std::vector<std::string> journalTail(size_t n) const;
  // The pairing window: open it for `host`, read it, close it.
  PairOpened openPairing(std::optional<std::string> host);
  nlohmann::json pairingStatus() const;
  void cancelPairing();
  // The agents that said hello, and whether any is still connected.
  void callerHello(std::string client, std::string agent, std::string scope);
  void callerGoodbye(std::string_view client, std::string_view agent);
  std::vector<Caller> callers() const;
  bool callersConnected() const;
  // The event stream: a sink gets every event until it is unsubscribed.
  int64_t subscribe(Events::Sink sink);
  void unsubscribe(int64_t key);

  // ---- What the phone's road reads and changes.

  // The device, if it is known and `secret` is its secret (constant time).
  std::optional<Device> authenticate(std::string_view deviceID,
                                     std::string_view secret) const;
  std::optional<Device> device(std::string_view deviceID) const;
  // Records the key a device's answers are sealed to; false when the device
  // was forgotten meanwhile.
  bool setDeviceCloudKey(std::string_view deviceID, const Bytes& key);
  // The pairing window's steps from the phone's side. A confirmed pairing
  // writes "paired", a recovery "recovered". Throw Pairing's refusals.
  nlohmann::json pairOffer(const nlohmann::json& body);
  PairResult pairConfirm(const nlohmann::json& body);
  PairResult pairRecover(const nlohmann::json& body);
  // The service's card, signed by both identity keys.
  nlohmann::json cardOffer();
  // The key sealed envelopes to this service are opened with.
  const crypto::XWingPrivateKey& cloudKey() const;
  std::optional<Nudge> currentNudge();
  // Clears the nudge only if it is still the one named.
  bool clearNudgeIf(std::string_view nudgeID);

  // ---- The process's own.

  // Fingerprints of the identity keys, as a person compares them.
  std::string fingerprint();
  std::string pqFingerprint();
  // Wipes every credential still held; at shutdown.
  void scrubCredentials();

  // ---- Allowances.

  // Draws once on the allowance open for `name` and `agent`, if any.
  std::optional<AllowanceUse> useAllowance(std::string_view name,
                                           const AgentProcess& agent);
  // Ends what ran out of time or lost its process.
  void sweepAllowances();
  // The open allowances after a sweep, in opening order.
  std::vector<Allowance> openAllowances();
  // Ends one, or all, with `why` ("phone", "stopped", "sleep", "lock", ...);
  // each writes "allowance-ended" and emits "allowance.ended".
  std::optional<Allowance> endAllowance(std::string_view requestID,
                                        std::string_view why);
  std::vector<Allowance> endAllowances(std::string_view why);

  const Home home;
  const Config config;

 private:
  // Tests reach the registries through this, and nothing else does.
  friend struct ServiceInternals;

  Identity identity_;
  Devices devices_;
  Pairing pairing_;
  Store store_;
  Credentials credentials_;
  SecretNames secrets_;
  Journal journal_;
  Chain chain_;
  Events events_;
  Nudges nudges_;
  Callers callers_;
  DeviceKeys deviceKeys_;
  Allowances allowances_;
  Tripwire tripwire_;

  nlohmann::json cloudState() const;
  OpenedCredential openCredential(const nlohmann::json& envelope,
                                  const StoredRequest& request);
  // Approves a request that an open allowance covers, without the phone.
  StoredRequest settle(const StoredRequest& request, AllowanceUse& allowed);

  std::vector<std::string> listenAddresses_;
  // Loaded anew at each use, since the road may be gone.
  std::atomic<std::weak_ptr<CloudRoad>> cloud_;
  // Makes each announcement's staleness check, its replace of the secret
  // names and its new `announceSeq` one step. It guards no field of its own:
  // the registries' locks nest inside it, and no file is written under it.
  Mutex announceMu_;

  // The devices' rows of `status`, kept while the registry stays at
  // `version`: hashing every phone's keys on each hello would make the
  // hello's cost grow with the phones' key sizes for nothing.
  nlohmann::json deviceRows();
  Mutex rowsMu_;
  std::optional<std::pair<uint64_t, nlohmann::json>> deviceRows_
      GUARDED_BY(rowsMu_);
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_SERVICE_H_
