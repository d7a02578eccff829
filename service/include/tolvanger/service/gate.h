// What the MCP server needs of the service: four blocking operations in terms
// an agent understands. Each files a request, waits for the human's answer,
// finishes the job and hands back one value.
//
// `Gate` is abstract so that a test double can stand in for the real socket
// client (`SocketGate`). The result types are plain values.
//
// Thread safety: the values are plain and may be copied freely. A `Gate`
// implementation states its own contract; the MCP server calls one from a
// single thread.
#ifndef TOLVANGER_SERVICE_GATE_H_
#define TOLVANGER_SERVICE_GATE_H_

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tolvanger::service {

// How a request ended, as the agent is told.
enum class Verdict {
  kApproved,
  kDenied,
  kExpired,
  kCancelled,
  kFailed,
};

// The verdict's word: "approved", "denied", "expired", "cancelled", "failed".
inline std::string_view toText(Verdict verdict) {
  switch (verdict) {
    case Verdict::kApproved:
      return "approved";
    case Verdict::kDenied:
      return "denied";
    case Verdict::kExpired:
      return "expired";
    case Verdict::kCancelled:
      return "cancelled";
    case Verdict::kFailed:
      break;
  }
  return "failed";
}

namespace gate_detail {
// `text` without blanks at either end.
inline std::string trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return "";
  const size_t last = text.find_last_not_of(" \t");
  return std::string(text.substr(first, last - first + 1));
}
}  // namespace gate_detail

// The result of a plain approval request.
struct GateAnswer {
  Verdict state = Verdict::kFailed;
  std::string requestID;  // empty when no request was filed
  std::string summary;    // the service's summary of the request
  std::string why;        // a reason on failure; otherwise empty

  // "<state> <requestID> — <summary>", the summary part only when there is
  // one, with blanks trimmed at both ends.
  std::string line() const {
    std::string out = std::string(toText(state)) + " " + requestID;
    if (!summary.empty()) out += " — " + summary;
    return gate_detail::trimmed(out);
  }
};

// The result of a brokered HTTP call.
struct Sent {
  Verdict state = Verdict::kFailed;
  std::string requestID;
  int64_t status = 0;  // upstream status; 0 when nothing went out
  std::string body;
  bool truncated = false;
  bool redirected = false;
  std::string why;

  // Approved: "sent <requestID> — upstream <status>", plus " (truncated)"
  // when cut. Otherwise "<state> <requestID> — <why>", the why part only
  // when there is one. Blanks are trimmed at both ends.
  std::string line() const {
    std::string out;
    if (state == Verdict::kApproved) {
      out = "sent " + requestID + " — upstream " + std::to_string(status);
      if (truncated) out += " (truncated)";
    } else {
      out = std::string(toText(state)) + " " + requestID;
      if (!why.empty()) out += " — " + why;
    }
    return gate_detail::trimmed(out);
  }
};

// The result of a site sign-in on the phone.
struct SignedIn {
  Verdict state = Verdict::kFailed;
  std::string requestID;
  std::string secret;                // the credential's name
  std::vector<std::string> hosts;    // where it may go
  std::optional<int64_t> expiresBy;  // whole seconds since 1970
  bool arrived = false;              // the session has reached this computer
  std::string why;
};

// The one failure a gate throws: the service cannot be reached or would not
// answer. `what()` is the whole sentence.
class GateError : public std::runtime_error {
 public:
  enum class Kind { kDown };

  static GateError down(std::string sentence) {
    return GateError(Kind::kDown, std::move(sentence));
  }

  Kind kind() const { return kind_; }

 private:
  GateError(Kind kind, std::string sentence)
      : std::runtime_error(std::move(sentence)), kind_(kind) {}
  Kind kind_;
};

class Gate {
 public:
  virtual ~Gate() = default;

  // Asks the human to approve `operation` with `fields` (a JSON object);
  // `reason`, when given, is shown among the fields. Blocks until answered.
  // Never throws: every failure is a `kFailed` answer with a sentence in
  // `why`.
  virtual GateAnswer ask(const std::string& operation,
                         const nlohmann::json& fields,
                         const std::optional<std::string>& reason) = 0;

  // Asks for approval of one HTTP call with the named credential attached,
  // and on approval has the service make it. Never throws.
  virtual Sent send(
      const std::string& secret, const std::string& method,
      const std::string& url,
      const std::optional<std::map<std::string, std::string>>& headers,
      const std::optional<std::string>& body,
      const std::optional<std::string>& reason) = 0;

  // Asks the human to sign in to `site` on the phone, the session to be kept
  // under `secret` (or a name from the site's host). Never throws.
  virtual SignedIn signIn(const std::string& site,
                          const std::optional<std::string>& secret,
                          const std::optional<std::string>& reason) = 0;

  // The credentials an agent may ask for, one JSON object each. Throws
  // GateError when the list cannot be had.
  virtual std::vector<nlohmann::json> credentials() = 0;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_GATE_H_
