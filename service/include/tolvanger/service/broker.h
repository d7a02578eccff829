// The brokered call: an agent writes out the whole HTTP request it wants made
// and names a credential; the broker checks it until nothing about it can
// surprise the person, files it for the phone, and after approval makes that
// one call with the credential attached.
//
// `Broker` holds no state: every operation reads and writes the service's
// registries through their own locks and holds none of its own.
//
// Thread safety: every function may be called from any thread. `perform`
// blocks its caller for at most `kUpstreamWait` seconds.
#ifndef TOLVANGER_SERVICE_BROKER_H_
#define TOLVANGER_SERVICE_BROKER_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/fields.h"
#include "tolvanger/service/agent_process.h"
#include "tolvanger/service/pins.h"
#include "tolvanger/service/secret_names.h"
#include "tolvanger/service/wire.h"

namespace tolvanger::service {

class Service;

// How the outgoing call is made. Production uses the defaults; a test may
// name a CA file of its own, which then replaces the system's store.
struct UpstreamSettings {
  std::optional<std::string> testCAFile;
};

// One header to send: its name and its value, which may hold a secret and
// wipes itself.
struct OutgoingHeader {
  std::string name;
  SecretBytes value;
};

namespace Broker {

inline constexpr std::string_view kOperation = "http.request";
inline constexpr size_t kMaxBody = 131072;
inline constexpr size_t kCanonicalBodyMax = 8192;
inline constexpr size_t kMaxHeaders = 16;
inline constexpr size_t kMaxHeaderValue = 1024;
inline constexpr size_t kMaxURL = 4096;
inline constexpr int64_t kUpstreamTimeout = 30;
inline constexpr int64_t kUpstreamWait = 35;
inline constexpr size_t kMaxResponse = 262144;

// What a caller of `request` passes on from the socket.
struct Ask {
  std::optional<std::string> operation;
  nlohmann::json request;  // whatever the agent sent under "request"
  std::optional<std::string> reason;
  std::optional<int64_t> ttlSeconds;
  std::string agent;  // the peer's process name, "-" when unknown
  std::optional<std::string> client;
  std::optional<AgentProcess> process;
};

// Checks the call, files it, and gives the opened reply. Throws
// ServiceError::refused with the first refusal; nothing is filed then.
nlohmann::json request(Service& service, const Ask& ask);

// Builds the `Wire` from a request object, refusing what cannot be shown
// exactly as it would be sent. `called` names the operation in sentences
// ("http.request" for a plain call). The method only has to be text here;
// whether it may be sent is for `Pins::allow` to say. Throws
// ServiceError::refused.
Wire check(const nlohmann::json& request, const std::string& secret,
           const Pins& pins, std::string_view called);

// The fields the phone shows for `wire` and the digest covers.
Fields structuralFields(const Wire& wire, bool showBody);

// The one announced name with a host in `hosts`; nothing for none or more.
std::optional<std::string> onlyOne(const std::vector<SecretName>& names,
                                   const std::vector<std::string>& hosts);

// The pins of an announced name. Throws ServiceError::refused when there is
// no such name or it has no pins.
Pins pins(Service& service, const std::string& name);

// The listing agents read: one object per announced name, in name order.
nlohmann::json credentials(Service& service);

// Makes the approved call once: re-reads the signed text, proves the stored
// wire yields it, checks the pins again, spends approval and credential, sends
// and returns the perform reply. Throws ServiceError::refused; see the
// sentences in broker_perform.cc. A refusal before the spend leaves the
// approval and credential as they were; from the spend on, the approval is
// gone.
nlohmann::json perform(Service& service, const std::string& requestID);

// One outgoing call with `headers` (empty values are not sent). Gives the
// reply's status, headers, truncated, body and, for 3xx, redirected. Throws
// ServiceError::refused when the call does not complete.
nlohmann::json send(const Wire& wire,
                    const std::vector<OutgoingHeader>& headers,
                    const UpstreamSettings& settings);

}  // namespace Broker

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_BROKER_H_
