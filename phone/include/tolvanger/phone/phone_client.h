// The phone's plain HTTP client of the computer's phone routes, and the one
// sentence a person reads for whatever went wrong on the phone's side.
//
// `DaemonClient` speaks JSON over plain http to one base address: every
// operation is one `call`, which gives back the answer's object when its `ok`
// is true and throws `RequestError::daemon` with the computer's own words
// otherwise. The bytes travel through an `HTTPTransport`; `CurlTransport` is
// the real one (plain http only, no proxy, a timeout and a cap on the answer's
// size), and tests put a fake in its place. `Failures::of` turns any error the
// phone's code throws into a `Failure`: a sentence for the person, the raw
// description beside it, and whether the person called it off.
//
// The records of what waits on a computer (`PendingList`, `Nudge`,
// `OpenAllowance`) and the timing stamps sent with an answer
// (`AnswerStamps`) are shared by every road.
//
// Thread safety: `DaemonClient` keeps no state between calls and may be used
// from many threads at once, provided its transport may; `CurlTransport` may
// (each call uses an easy handle of its own). The records and `Failures` are
// plain values and pure functions.
#ifndef TOLVANGER_PHONE_PHONE_CLIENT_H_
#define TOLVANGER_PHONE_PHONE_CLIENT_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/phone/phone_request.h"
#include "tolvanger/phone/signer.h"

namespace tolvanger::phone {

// Small readers shared by the phone's clients.
namespace PhoneJSON {

// The text under `key` of an object; null when the value is absent or no
// text, or `object` is no object.
const std::string* text(const nlohmann::json& object, const char* key);
// The integer under `key` (not a float such as 1.0) when it fits 64 bits.
std::optional<int64_t> integer(const nlohmann::json& object, const char* key);
// Parses a JSON object no deeper than 64 levels, so that an answer from the
// network cannot nest deep enough to exhaust the stack; anything else gives
// a discarded value.
nlohmann::json parseObject(std::string_view text);
// Compact JSON text; a text that is not UTF-8 is written with replacement
// characters, so this never throws.
std::string dump(const nlohmann::json& value);

}  // namespace PhoneJSON

// One HTTP exchange as the phone asks for it.
struct HTTPCall {
  // "GET" or "POST".
  std::string method;
  // The whole URL, http scheme.
  std::string url;
  // The JSON text of a POST; sent with content-type application/json.
  std::optional<std::string> body;
  std::chrono::milliseconds timeout{15000};
};

struct HTTPAnswer {
  // The HTTP status; 0 when the answer was not HTTP.
  long status = 0;
  std::string body;
};

// Why an exchange failed below HTTP. The codes keep the distinctions that
// decide what a person reads (see Failures::of).
class TransportError : public std::runtime_error {
 public:
  enum class Code {
    // The platform refuses plain http to this address.
    kInsecureNotAllowed,
    kCannotFindHost,
    kCannotConnectToHost,
    kTimedOut,
    kNetworkConnectionLost,
    kNotConnectedToInternet,
    kBadURL,
    kUnsupportedURL,
    kCancelled,
    kOther,
  };

  TransportError(Code code, std::string description)
      : std::runtime_error(std::move(description)), code_(code) {}
  Code code() const { return code_; }

 private:
  Code code_;
};

// What moves the bytes. Implementations throw TransportError for every
// failure below HTTP; any HTTP status, 200 or not, is an answer.
class HTTPTransport {
 public:
  virtual ~HTTPTransport() = default;
  virtual HTTPAnswer send(const HTTPCall& call) = 0;
};

// libcurl, restricted to plain http: no proxy whatever the environment says,
// no redirects followed, no signals, the call's timeout for the whole
// exchange, and an answer larger than `maxBody` refused with
// TransportError::Code::kOther.
class CurlTransport final : public HTTPTransport {
 public:
  // Far above any answer the routes give; a sealed answer is at most a few
  // hundred kilobytes.
  static constexpr size_t kDefaultMaxBody = 4 << 20;

  explicit CurlTransport(size_t maxBody = kDefaultMaxBody);
  HTTPAnswer send(const HTTPCall& call) override;

 private:
  size_t maxBody_;
};

// How the phone came by the request that it answers.
enum class DrawnFrom { kPush, kCloud, kPoll };

// The timing stamps that go with an approval or a denial.
namespace AnswerStamps {

// "push", "cloud" or "poll".
std::string_view name(DrawnFrom from);

// A time as whole milliseconds since 1970, rounded.
int64_t milliseconds(std::chrono::system_clock::time_point at);

// {"timing": {"posted_at": <now, ms>, "source": <from>, "drawn_at": <ms>}},
// with "drawn_at" only when `drawnAt` is given.
nlohmann::json of(std::optional<std::chrono::system_clock::time_point> drawnAt,
                  DrawnFrom from);

}  // namespace AnswerStamps

// The computer's request for the phone's attention.
struct Nudge {
  std::string id;
  std::string kind;
  int64_t expiresAt = 0;

  // From the keys "id", "kind" (texts) and "expires_at" (integer); nothing if
  // any is missing or of another type.
  static std::optional<Nudge> from(const nlohmann::json& object);
};

// A standing permission to reuse a credential, as the phone shows it.
struct OpenAllowance {
  std::string requestID;
  std::string name;
  std::string client;
  // Whole seconds since 1970 on the phone's own clock: `now` plus the
  // computer's "seconds_left", since the two clocks can differ.
  int64_t until = 0;
  int64_t uses = 0;

  // Nothing unless "request_id", "name", "client" are texts and
  // "seconds_left" an integer; "uses" is read when it is an integer.
  static std::optional<OpenAllowance> from(const nlohmann::json& object,
                                           int64_t now);
  // `until` minus `now`, never below 0.
  int64_t secondsLeft(int64_t now) const;
};

// What waits on the computer, as `GET /v1/pending` tells it.
struct PendingList {
  struct Row {
    std::string id;
    int64_t expiresAt = 0;
  };

  // Oldest first, as sent.
  std::vector<Row> rows;
  std::optional<Nudge> nudge;
  // Absent when the list was fetched without a device (in the clear).
  std::optional<std::vector<OpenAllowance>> allowances;

  // Reads an answer of the route. A row without a text "request_id" and an
  // integer "expires_at", and an allowance that cannot be read, are skipped.
  static PendingList from(const nlohmann::json& answer, int64_t now);
};

// What `GET /v1/health` tells.
struct Health {
  std::string daemonID;
  std::string host;
  int64_t version = 0;
  bool cloud = false;
};

class DaemonClient {
 public:
  // A client of `base` (e.g. "http://192.168.1.4:8645"). A null transport
  // means a new CurlTransport.
  DaemonClient(std::string base, std::chrono::milliseconds timeout,
               std::shared_ptr<HTTPTransport> transport = nullptr);

  // The base URL for an address as a person or a pair link gives it: white
  // space and new lines trimmed, "http://" put before it when it holds no
  // "://", and nothing if the result is no URL.
  static std::optional<std::string> baseFor(std::string_view address);
  // A client of `baseFor(address)`, or nothing.
  static std::optional<DaemonClient> atAddress(
      std::string_view address, std::chrono::milliseconds timeout,
      std::shared_ptr<HTTPTransport> transport = nullptr);

  const std::string& base() const { return base_; }

  // The one road of every operation: a POST of `body` when one is given,
  // else a GET, to `base` + `path` ("/v1/..."). Returns the answer's object
  // when its "ok" is true, whatever the HTTP status. Throws TransportError
  // as the transport does; RequestError::daemon("the daemon sent something
  // unreadable") when the answer is no JSON object; RequestError::daemon
  // with the answer's "error" text, or "the daemon refused (<status>)"
  // without one, otherwise.
  nlohmann::json call(std::string_view path,
                      const std::optional<nlohmann::json>& body) const;

  Health health() const;
  PendingList pending() const;

  // Fetches `GET /v1/request/<id>` and checks it with
  // TolvangerRequest::fromDaemon against the pins. Throws as `call` does,
  // RequestError::malformed("that is not a request id") for an id that
  // could not be one, and the RequestError of the checks.
  TolvangerRequest request(std::string_view id, ByteView pinnedDaemonSPKI,
                           const std::optional<Bytes>& pinnedDaemonPQ) const;

  // Posts the approval: "request_id", "device_id", "digest", "signature"
  // and "signature_pq" (Base64) when given, "timing", and "credential" when
  // a sealed credential is given. Returns the answer ("state", and
  // "allowed_until", "seconds_left" when an allowance opened).
  nlohmann::json approve(
      const TolvangerRequest& request, std::string_view deviceID,
      ByteView signature, std::optional<ByteView> pqSignature,
      std::optional<std::chrono::system_clock::time_point> drawnAt,
      DrawnFrom drawnFrom,
      const std::optional<nlohmann::json>& credential = std::nullopt) const;

  // Posts the denial of `requestID` with its timing.
  nlohmann::json deny(
      std::string_view requestID,
      std::optional<std::chrono::system_clock::time_point> drawnAt,
      DrawnFrom drawnFrom) const;

  // Tells the computer that the nudge `id` was seen, naming the device.
  void nudgeSeen(std::string_view id, std::string_view deviceID,
                 std::string_view deviceSecret) const;

 private:
  std::string base_;
  std::chrono::milliseconds timeout_;
  std::shared_ptr<HTTPTransport> transport_;
};

// What a person reads about a failure.
struct Failure {
  // Empty for a cancellation.
  std::string sentence;
  // The error's own description, for a log or a disclosure.
  std::string detail;
  // The person called it off; show nothing.
  bool isCancellation = false;
};

namespace Failures {

// A refusal of the computer as a sentence: trimmed, "The daemon refused."
// when nothing is left, else with its first character upper-cased and one
// "." added unless it ends in one.
std::string finish(std::string_view text);

// The sentence for a signer's failure. A kSign failure whose text holds
// "-128", "-2", "usercancel", "userCancel", "canceled" or "cancelled"
// (without regard to case) is a cancellation.
Failure signing(const SignerError& error, std::string detail);

// The sentence for any error: RequestError by its kind, SignerError as
// `signing`, TransportError by its code, OAuthError as `finish` of its
// description, anything else "Something went wrong.".
Failure of(const std::exception& error);
// As above for a caught exception; a non-standard one is "Something went
// wrong." with an empty detail.
Failure of(std::exception_ptr error);

}  // namespace Failures

}  // namespace tolvanger::phone

#endif  // TOLVANGER_PHONE_PHONE_CLIENT_H_
