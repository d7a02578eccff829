// The brokered call: an agent writes out the whole HTTP request it wants made
// and names a credential; the broker checks it until nothing about it can
// surprise the person, files it for the phone, and after approval makes that
// one call with the credential attached.
//
// A `Broker` is built once by the runtime, over the service and with the
// settings its outgoing calls use. It holds no state of its own: every
// operation reads and changes the service through the service's methods.
//
// Thread safety: every member may be called from any thread. `perform`
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
#include <utility>
#include <vector>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/fields.h"
#include "tolvanger/service/agent_process.h"
#include "tolvanger/service/ops.h"
#include "tolvanger/service/pins.h"
#include "tolvanger/service/secret_names.h"
#include "tolvanger/service/wire.h"

namespace tolvanger::service {

class Service;

// How the outgoing call is made. Production uses the defaults. A test may
// name a CA file of its own, which then replaces the system's store, and
// send a provider's calls to a local server under the provider's own name:
// each `testConnectTo` entry is "HOST:PORT:ADDR:PORT", libcurl's connect-to,
// so the certificate is still checked against HOST.
struct UpstreamSettings {
  std::optional<std::string> testCAFile;
  std::vector<std::string> testConnectTo;
};

// One header to send: its name and its value, which may hold a secret and
// wipes itself.
struct OutgoingHeader {
  std::string name;
  SecretBytes value;
};

class Broker {
 public:
  static constexpr std::string_view kOperation = "http.request";
  static constexpr size_t kMaxBody = 131072;
  static constexpr size_t kCanonicalBodyMax = 8192;
  static constexpr size_t kMaxHeaders = 16;
  static constexpr size_t kMaxHeaderValue = 1024;
  static constexpr size_t kMaxURL = 4096;
  static constexpr int64_t kUpstreamTimeout = 30;
  static constexpr int64_t kUpstreamWait = 35;
  static constexpr size_t kMaxResponse = 262144;

  // `service` must outlive the broker.
  Broker(Service& service, UpstreamSettings upstream)
      : service_(service), upstream_(std::move(upstream)) {}
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;

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
  nlohmann::json request(const Ask& ask);

  // Builds the `Wire` from a request object, refusing what cannot be shown
  // exactly as it would be sent. `called` names the operation in sentences
  // ("http.request" for a plain call). The method only has to be text here;
  // whether it may be sent is for `Pins::allow` to say. Throws
  // ServiceError::refused.
  static Wire check(const nlohmann::json& request, const std::string& secret,
                    const Pins& pins, std::string_view called);

  // What an operation shows of a call: the fields its renderer wrote,
  // whether body_text is shown too, and the op that rendered them (none for
  // a plain call that no op reads).
  struct Screen {
    Fields fields;
    bool showBody = true;
    const NamedOp* by = nullptr;
  };

  // The screen of `wire` under the named `op`, whose refusal is thrown; or,
  // with no op, under the first op whose pins fit the call, where a refusal
  // means the plain view. Throws ServiceError::refused.
  static Screen screen(const NamedOp* op, const Wire& wire);

  // The fields the phone shows for `wire` and the digest covers.
  static Fields structuralFields(const Wire& wire, bool showBody);

  // The one announced name with a host in `hosts`; nothing for none or more.
  static std::optional<std::string> onlyOne(
      const std::vector<SecretName>& names,
      const std::vector<std::string>& hosts);

  // The pins of an announced name. Throws ServiceError::refused when there is
  // no such name or it has no pins.
  Pins pins(const std::string& name) const;

  // The listing agents read: one object per announced name, in name order.
  nlohmann::json credentials() const;

  // Makes the approved call once: re-reads the signed text, proves the stored
  // wire yields it, checks the pins again, spends approval and credential,
  // sends and returns the perform reply. Throws ServiceError::refused; see the
  // sentences in broker_perform.cc. A refusal before the spend leaves the
  // approval and credential as they were; from the spend on, the approval is
  // gone.
  nlohmann::json perform(const std::string& requestID);

  // One outgoing call with `headers` (empty values are not sent). Gives the
  // reply's status, headers, truncated, body and, for 3xx, redirected. Throws
  // ServiceError::refused when the call does not complete.
  static nlohmann::json send(const Wire& wire,
                             const std::vector<OutgoingHeader>& headers,
                             const UpstreamSettings& settings);

 private:
  Service& service_;
  const UpstreamSettings upstream_;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_BROKER_H_
