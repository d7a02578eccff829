// A request as the phone reads it. The phone believes nothing that the
// network tells it: `TolvangerRequest::fromDaemon` is the gate that proves a
// payload is what the paired Mac signed (canonical text rebuilt byte for
// byte, digest recomputed, both of the Mac's signatures over the binding
// checked against the keys pinned at pairing) and only then exposes its
// fields. The same type turns a request into the words a person reads before
// approving: a headline, a sentence and a few labelled facts.
//
// Thread safety: `TolvangerRequest`, `PlainRequest` and `RequestError` are
// plain values; concurrent reads are safe. Every static function is pure,
// apart from the clock read by `secondsLeft()` and `binding()`.
#ifndef TOLVANGER_PHONE_PHONE_REQUEST_H_
#define TOLVANGER_PHONE_PHONE_REQUEST_H_

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/sign_in.h"

namespace tolvanger::phone {

// The six lines that both sides sign for a request.
namespace Binding {

inline constexpr std::string_view version = "tolvanger-v1";

// `version`, the daemon id, the request id, the digest, and the two times in
// plain decimal, joined by "\n" with no newline after the last.
std::string message(std::string_view daemonID, std::string_view requestID,
                    std::string_view digest, int64_t issuedAt,
                    int64_t expiresAt);

}  // namespace Binding

// Why a request cannot be shown or signed. `what()` is the description:
// "malformed request: <text>", the text itself for kDaemon and kUnreachable,
// "the request was rewritten on the way here", "the daemon's digest is not
// the one this request hashes to", "the request is not signed by the daemon
// this phone paired with" or "this request has expired".
class RequestError : public std::runtime_error {
 public:
  enum class Kind {
    kMalformed,
    kDaemon,
    kUnreachable,
    kNotCanonical,
    kDigestMismatch,
    kNotFromMyDaemon,
    kExpired,
  };

  static RequestError malformed(std::string text);
  static RequestError daemon(std::string text);
  static RequestError unreachable(std::string text);
  static RequestError notCanonical();
  static RequestError digestMismatch();
  static RequestError notFromMyDaemon();
  static RequestError expired();

  Kind kind() const { return kind_; }

 private:
  RequestError(Kind kind, std::string description)
      : std::runtime_error(std::move(description)), kind_(kind) {}
  Kind kind_;
};

// What a person reads before approving: one sentence and, in order, the
// facts worth a glance (Why first).
struct PlainRequest {
  struct Fact {
    std::string label;
    std::string value;
    bool operator==(const Fact&) const = default;
  };

  std::string sentence;
  std::vector<Fact> facts;
  // True when the request's fields hold keys that no fact shows.
  bool hasMore = false;

  // Who is asking, in words, from the `client` field: "An agent" for none,
  // the known clients by their own spelling ("Claude", "Codex", "Pi", "omp",
  // "Hermes", "OpenClaw"), anything else with its first letter upper-cased.
  static std::string asker(std::string_view client);
};

class TolvangerRequest {
 public:
  // One field in display form.
  struct Field {
    // A random UUID, drawn when the request is read; lets a screen tell rows
    // apart.
    std::string id;
    std::string label;
    std::string value;
    // True for values that need more room than one line: more than 80
    // characters, or a line break.
    bool isLong = false;
  };

  int64_t version = 0;
  std::string daemonID;
  std::string requestID;
  // The exact text that the digest covers.
  std::string canonicalText;
  std::string digest;
  int64_t issuedAt = 0;
  int64_t expiresAt = 0;
  // The request's short line, rebuilt from the signed text.
  std::string summary;
  // The Mac's warning, present only when its signature checked out.
  std::optional<std::string> notice;
  std::string operation;
  // In the byte order of their keys.
  std::vector<Field> fields;
  // The fields as compact JSON text.
  std::string payloadJSON;
  // Each field's display text by key.
  std::map<std::string, std::string> named;

  // Checks a request payload against the Mac's pinned P-256 key (DER
  // SubjectPublicKeyInfo) and, when given, its pinned ML-DSA-65 key (raw).
  // All or nothing: throws RequestError — kMalformed ("the daemon left a
  // field out", "no operation and fields inside"), kNotCanonical,
  // kDigestMismatch or kNotFromMyDaemon, first failure wins. A pin that
  // does not parse counts as kNotFromMyDaemon. A notice whose signature does
  // not check out is dropped without failing the request. Expiry is not
  // judged here; `binding()` judges it.
  static TolvangerRequest fromDaemon(
      const nlohmann::json& payload, ByteView pinnedDaemonSPKI,
      const std::optional<Bytes>& pinnedDaemonPQ);

  // The bytes the phone signs, both times: Binding::message of this request.
  // Throws RequestError::expired() when no second is left, so that nothing
  // is signed at the last moment.
  Bytes binding() const;
  Bytes binding(int64_t now) const;

  // expiresAt minus the present (or given) whole second, never below 0.
  int64_t secondsLeft() const;
  int64_t secondsLeft(int64_t now) const;

  PlainRequest plain() const;
  // A short title, e.g. "Send mail as you"; the summary for operations
  // without a title of their own.
  std::string headline() const;
  // The line beneath the title: the summary.
  std::string subject() const;
  // The name of a platform symbol for lists ("sparkle" by default).
  std::string symbol() const;
  // PlainRequest::asker of the `client` field.
  std::string asker() const;
  // The `credential` field's text, if one is named.
  std::optional<std::string> credentialName() const;
  // payloadJSON parsed back into an object.
  nlohmann::json payload() const;
  // What a sign-in asks for: present only when the operation is a sign-in,
  // the `site` field is text that SignIn::host accepts and the `secret` field
  // is a name by SignIn::isName. Anything else is an ordinary request the
  // phone cannot act on as a sign-in.
  std::optional<SignInAsk> signIn() const;

  // The notice of `payload` when it is a one-line text that is not blank and
  // `notice_sig` is Base64 of a DER ECDSA signature by `pinnedSPKI` over
  // "tolvanger-notice-v1\n<requestID>\n<notice>". Nothing otherwise.
  static std::optional<std::string> checkedNotice(const nlohmann::json& payload,
                                                  std::string_view requestID,
                                                  ByteView pinnedSPKI);

  // A field's value as text: `amount_minor` as units and hundredths
  // ("12.05"), lists joined with ", ", texts as they stand, anything else in
  // its plain JSON form.
  static std::string show(std::string_view key, const nlohmann::json& value);
  // A field's label: a fixed one for known keys, otherwise the key with its
  // first letter upper-cased and underscores as blanks.
  static std::string label(std::string_view key);

 private:
  // The display text of `key`, empty when the field is absent.
  std::string text(const std::string& key) const;
};

}  // namespace tolvanger::phone

#endif  // TOLVANGER_PHONE_PHONE_REQUEST_H_
