#include "tolvanger/phone/phone_request.h"

#include <unicode/ustring.h>

#include <cstdio>
#include <set>
#include <utility>

#include "tolvanger/kit/canonical.h"
#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/fields.h"
#include "tolvanger/kit/json_fields.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/kit/summary.h"
#include "tolvanger/kit/text.h"

namespace tolvanger::phone {

using nlohmann::json;

namespace {

constexpr std::string_view kNoticeDomain = "tolvanger-notice-v1";

const std::string* textAt(const json& object, const char* key) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return nullptr;
  return &it->get_ref<const std::string&>();
}

// `text` with its first user-perceived character upper-cased by the full
// Unicode mapping, so that "élan" reads "Élan".
std::string upperFirst(std::string_view text) {
  const std::string first = Text::prefix(text, 1);
  if (first.empty()) return std::string(text);
  const std::string_view rest = text.substr(first.size());
  if (first.size() == 1) {
    const char c = first[0];
    if (c >= 'a' && c <= 'z') {
      return static_cast<char>(c - 'a' + 'A') + std::string(rest);
    }
    return std::string(text);
  }
  UErrorCode status = U_ZERO_ERROR;
  UChar wide[64];
  int32_t wideLength = 0;
  u_strFromUTF8(wide, 64, &wideLength, first.data(),
                static_cast<int32_t>(first.size()), &status);
  if (U_FAILURE(status) || wideLength > 64) return std::string(text);
  UChar upper[128];
  const int32_t upperLength =
      u_strToUpper(upper, 128, wide, wideLength, "", &status);
  if (U_FAILURE(status) || upperLength > 128) return std::string(text);
  char narrow[512];
  int32_t narrowLength = 0;
  u_strToUTF8(narrow, sizeof narrow, &narrowLength, upper, upperLength,
              &status);
  if (U_FAILURE(status) || narrowLength > static_cast<int32_t>(sizeof narrow)) {
    return std::string(text);
  }
  return std::string(narrow, static_cast<size_t>(narrowLength)) +
         std::string(rest);
}

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' ||
         c == '\f';
}

// Every run of white space as one blank.
std::string squeezeBlanks(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  bool inRun = false;
  for (const char c : text) {
    if (isBlank(c)) {
      if (!inRun) out.push_back(' ');
      inRun = true;
    } else {
      out.push_back(c);
      inRun = false;
    }
  }
  return out;
}

// A random version 4 UUID in its usual upper-case form.
std::string drawUUID() {
  Bytes b = Random::bytes(16);
  b[6] = static_cast<uint8_t>((b[6] & 0x0F) | 0x40);
  b[8] = static_cast<uint8_t>((b[8] & 0x3F) | 0x80);
  std::string hex = toHex(b);
  for (char& c : hex) {
    if (c >= 'a' && c <= 'f') c = static_cast<char>(c - 'a' + 'A');
  }
  return hex.substr(0, 8) + "-" + hex.substr(8, 4) + "-" + hex.substr(12, 4) +
         "-" + hex.substr(16, 4) + "-" + hex.substr(20);
}

bool verifiesP256(ByteView pinnedSPKI, const std::string* signatureBase64,
                  std::string_view message) {
  if (signatureBase64 == nullptr) return false;
  const std::optional<Bytes> signature = fromBase64(*signatureBase64);
  if (!signature) return false;
  const auto key = crypto::P256PublicKey::fromDER(pinnedSPKI);
  return key && key->verify(asBytes(message), *signature);
}

bool verifiesMLDSA(ByteView pinnedRaw, const std::string* signatureBase64,
                   std::string_view message) {
  if (signatureBase64 == nullptr) return false;
  const std::optional<Bytes> signature = fromBase64(*signatureBase64);
  if (!signature) return false;
  const auto key = crypto::MLDSA65PublicKey::fromRaw(pinnedRaw);
  return key && key->verify(asBytes(message), *signature);
}

}  // namespace

std::string Binding::message(std::string_view daemonID,
                             std::string_view requestID,
                             std::string_view digest, int64_t issuedAt,
                             int64_t expiresAt) {
  std::string out(version);
  for (std::string_view line : {daemonID, requestID, digest}) {
    out += '\n';
    out += line;
  }
  out += '\n';
  out += std::to_string(issuedAt);
  out += '\n';
  out += std::to_string(expiresAt);
  return out;
}

RequestError RequestError::malformed(std::string text) {
  return RequestError(Kind::kMalformed, "malformed request: " + text);
}
RequestError RequestError::daemon(std::string text) {
  return RequestError(Kind::kDaemon, std::move(text));
}
RequestError RequestError::unreachable(std::string text) {
  return RequestError(Kind::kUnreachable, std::move(text));
}
RequestError RequestError::notCanonical() {
  return RequestError(Kind::kNotCanonical,
                      "the request was rewritten on the way here");
}
RequestError RequestError::digestMismatch() {
  return RequestError(
      Kind::kDigestMismatch,
      "the daemon's digest is not the one this request hashes to");
}
RequestError RequestError::notFromMyDaemon() {
  return RequestError(
      Kind::kNotFromMyDaemon,
      "the request is not signed by the daemon this phone paired with");
}
RequestError RequestError::expired() {
  return RequestError(Kind::kExpired, "this request has expired");
}

std::string PlainRequest::asker(std::string_view client) {
  static const std::map<std::string_view, std::string_view> kKnown = {
      {"claude", "Claude"}, {"codex", "Codex"},   {"pi", "Pi"},
      {"omp", "omp"},       {"hermes", "Hermes"}, {"openclaw", "OpenClaw"}};
  if (client.empty()) return "An agent";
  if (const auto it = kKnown.find(client); it != kKnown.end()) {
    return std::string(it->second);
  }
  return upperFirst(client);
}

TolvangerRequest TolvangerRequest::fromDaemon(
    const json& payload, ByteView pinnedDaemonSPKI,
    const std::optional<Bytes>& pinnedDaemonPQ) {
  if (!payload.is_object()) {
    throw RequestError::malformed("the daemon left a field out");
  }
  const std::string* canonical = textAt(payload, "canonical");
  const std::string* digest = textAt(payload, "digest");
  const std::string* daemonID = textAt(payload, "daemon_id");
  const std::string* requestID = textAt(payload, "request_id");
  const std::optional<int64_t> issuedAt =
      JsonFields::integer(payload, "issued_at");
  const std::optional<int64_t> expiresAt =
      JsonFields::integer(payload, "expires_at");
  if (!canonical || !digest || !daemonID || !requestID || !issuedAt ||
      !expiresAt) {
    throw RequestError::malformed("the daemon left a field out");
  }

  // Rebuilding the text from its parsed form must give back every byte:
  // this refuses any rewriting, of white space and key order too.
  bool rebuilt = false;
  try {
    rebuilt = Canonical::reencode(*canonical) == *canonical;
  } catch (const json::exception&) {
  } catch (const CanonicalError&) {
  }
  if (!rebuilt) throw RequestError::notCanonical();

  if (Canonical::digestOfText(*canonical) != *digest) {
    throw RequestError::digestMismatch();
  }

  // The text has just been parsed once without complaint.
  const json inner = json::parse(*canonical);
  const std::string* operation = textAt(inner, "operation");
  const auto fieldsAt = inner.find("fields");
  if (!operation || fieldsAt == inner.end() || !fieldsAt->is_object()) {
    throw RequestError::malformed("no operation and fields inside");
  }

  const std::string message =
      Binding::message(*daemonID, *requestID, *digest, *issuedAt, *expiresAt);
  if (!verifiesP256(pinnedDaemonSPKI, textAt(payload, "daemon_sig"), message)) {
    throw RequestError::notFromMyDaemon();
  }
  if (pinnedDaemonPQ &&
      !verifiesMLDSA(*pinnedDaemonPQ, textAt(payload, "daemon_sig_pq"),
                     message)) {
    throw RequestError::notFromMyDaemon();
  }

  TolvangerRequest request;
  // The version the signed text gives; the payload's own as a fallback.
  std::optional<int64_t> version = JsonFields::integer(inner, "version");
  if (!version) version = JsonFields::integer(payload, "version");
  request.version = version.value_or(0);
  request.daemonID = *daemonID;
  request.requestID = *requestID;
  request.canonicalText = *canonical;
  request.digest = *digest;
  request.issuedAt = *issuedAt;
  request.expiresAt = *expiresAt;
  request.operation = *operation;

  const json& fields = *fieldsAt;
  request.payloadJSON = Canonical::encode(fields);
  for (const auto& [key, value] : fields.items()) {
    std::string shown = show(key, value);
    const bool isLong =
        Text::longerThan(shown, 80) || shown.find('\n') != std::string::npos;
    request.fields.push_back(Field{drawUUID(), label(key), shown, isLong});
    request.named.emplace(key, std::move(shown));
  }

  // The payload's "summary" is not covered by any signature, so the line is
  // rebuilt from the signed text; for a genuine payload the two agree.
  Fields summarised;
  for (const char* key : {"credential", "reason"}) {
    if (const std::string* text = textAt(fields, key)) {
      summarised.set(key, *text);
    }
  }
  request.summary = Summary::of(request.operation, summarised);
  request.notice = checkedNotice(payload, request.requestID, pinnedDaemonSPKI);
  return request;
}

int64_t TolvangerRequest::secondsLeft() const {
  return secondsLeft(SystemClock::seconds());
}

int64_t TolvangerRequest::secondsLeft(int64_t now) const {
  return expiresAt > now ? expiresAt - now : 0;
}

Bytes TolvangerRequest::binding() const {
  return binding(SystemClock::seconds());
}

Bytes TolvangerRequest::binding(int64_t now) const {
  if (secondsLeft(now) == 0) throw RequestError::expired();
  return toBytes(
      Binding::message(daemonID, requestID, digest, issuedAt, expiresAt));
}

std::optional<std::string> TolvangerRequest::checkedNotice(
    const json& payload, std::string_view requestID, ByteView pinnedSPKI) {
  if (!payload.is_object()) return std::nullopt;
  const std::string* notice = textAt(payload, "notice");
  if (notice == nullptr) return std::nullopt;
  if (notice->find_first_of("\n\r") != std::string::npos) return std::nullopt;
  bool blank = true;
  for (const char c : *notice) blank = blank && isBlank(c);
  if (blank) return std::nullopt;

  std::string message(kNoticeDomain);
  message += '\n';
  message += requestID;
  message += '\n';
  message += *notice;
  if (!verifiesP256(pinnedSPKI, textAt(payload, "notice_sig"), message)) {
    return std::nullopt;
  }
  return *notice;
}

std::string TolvangerRequest::show(std::string_view key, const json& value) {
  if (key == "amount_minor" && value.is_number_integer()) {
    if (const std::optional<int64_t> amount = Canonical::wholeNumber(value)) {
      const uint64_t magnitude = *amount < 0
                                     ? 0 - static_cast<uint64_t>(*amount)
                                     : static_cast<uint64_t>(*amount);
      char cents[4];
      std::snprintf(cents, sizeof cents, "%02d",
                    static_cast<int>(magnitude % 100));
      return (*amount < 0 ? "-" : "") + std::to_string(magnitude / 100) + "." +
             cents;
    }
  }
  if (value.is_string()) return value.get<std::string>();
  if (value.is_array()) {
    std::string out;
    bool first = true;
    for (const json& item : value) {
      if (!first) out += ", ";
      first = false;
      out += show({}, item);
    }
    return out;
  }
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string TolvangerRequest::label(std::string_view key) {
  static const std::map<std::string_view, std::string_view> kLabels = {
      {"reason", "Why"},
      {"to", "To"},
      {"cc", "Cc"},
      {"subject", "Subject"},
      {"body", "Body"},
      {"platform", "Platform"},
      {"account", "Account"},
      {"text", "Post"},
      {"attachments", "Attachments"},
      {"media", "Slides"},
      {"container", "Container"},
      {"alt_text", "Alt text"},
      {"provider", "Provider"},
      {"credential", "Credential"},
      {"change", "Change"},
      {"payee", "Payee"},
      {"amount_minor", "Amount"},
      {"currency", "Currency"},
      {"reference", "Reference"},
      {"site", "Site"},
      {"fitted", "Fitted"},
      {"replaces", "Replaces the one fitted"},
      {"messages", "Messages behind it"},
      {"checks", "Check rows replayed"},
      {"fingerprint", "Fingerprint"},
      {"secret", "Saved as"},
  };
  if (const auto it = kLabels.find(key); it != kLabels.end()) {
    return std::string(it->second);
  }
  std::string spaced(key);
  for (char& c : spaced) {
    if (c == '_') c = ' ';
  }
  return upperFirst(spaced);
}

std::string TolvangerRequest::text(const std::string& key) const {
  const auto it = named.find(key);
  return it == named.end() ? std::string() : it->second;
}

std::string TolvangerRequest::asker() const {
  return PlainRequest::asker(text("client"));
}

std::optional<std::string> TolvangerRequest::credentialName() const {
  const auto it = named.find("credential");
  if (it == named.end()) return std::nullopt;
  return it->second;
}

json TolvangerRequest::payload() const { return json::parse(payloadJSON); }

std::optional<SignInAsk> TolvangerRequest::signIn() const {
  if (operation != SignIn::kOperation) return std::nullopt;
  const json fields = json::parse(payloadJSON, nullptr, false);
  if (!fields.is_object()) return std::nullopt;
  const std::string* site = textAt(fields, "site");
  const std::string* secret = textAt(fields, "secret");
  if (site == nullptr || secret == nullptr || !SignIn::isName(*secret)) {
    return std::nullopt;
  }
  std::optional<std::string> host = SignIn::host(*site);
  if (!host) return std::nullopt;
  return SignInAsk{*site, std::move(*host), *secret};
}

std::string TolvangerRequest::subject() const { return summary; }

std::string TolvangerRequest::headline() const {
  if (operation == "mail.send") return "Send mail as you";
  if (operation == "instagram.container") return "Stage an Instagram post";
  if (operation == "instagram.publish") return "Publish on Instagram as you";
  if (operation == "post.publish") {
    const std::string platform = text("platform");
    return platform.empty() ? "Publish a post as you"
                            : "Publish on " + platform + " as you";
  }
  if (operation == "credential.change") return "Change a credential";
  if (operation == "tripwire.replace") return "Replace your behaviour profile";
  if (operation == "money.move") {
    return "Move " + text("amount_minor") + " " + text("currency");
  }
  if (operation == "tolvanger.test") return "Test approval";
  if (operation == "site.signin") {
    const std::string site = text("site");
    return site.empty() ? "Sign in to a site" : "Sign in to " + site;
  }
  return summary;
}

std::string TolvangerRequest::symbol() const {
  static const std::map<std::string_view, std::string_view> kSymbols = {
      {"mail.send", "envelope.fill"},
      {"instagram.container", "megaphone.fill"},
      {"instagram.publish", "megaphone.fill"},
      {"post.publish", "megaphone.fill"},
      {"credential.change", "key.fill"},
      {"tripwire.replace", "waveform.path.ecg"},
      {"money.move", "creditcard.fill"},
      {"tolvanger.test", "checkmark.seal.fill"},
      {"site.signin", "person.badge.key.fill"},
  };
  const auto it = kSymbols.find(operation);
  return std::string(it == kSymbols.end() ? "sparkle" : it->second);
}

PlainRequest TolvangerRequest::plain() const {
  PlainRequest out;
  std::set<std::string> shownKeys;
  // Adds a fact for a field with a value that is not empty.
  auto fact = [&](std::string label, const std::string& key) {
    std::string value = text(key);
    if (value.empty()) return;
    out.facts.push_back({std::move(label), std::move(value)});
    shownKeys.insert(key);
  };
  auto orElse = [](std::string value, const char* fallback) {
    return value.empty() ? std::string(fallback) : value;
  };

  fact("Why", "reason");
  const std::string who = asker();
  if (operation == "mail.send") {
    out.sentence =
        who + " wants to send an email to " + text("to") + " as you.";
    fact("Subject", "subject");
    fact("Cc", "cc");
    fact("Message", "body");
  } else if (operation == "instagram.container") {
    out.sentence =
        who +
        " wants to stage a post on your Instagram. Nothing is public yet.";
    fact("Caption", "text");
    fact("Image", "media");
  } else if (operation == "instagram.publish") {
    out.sentence =
        who +
        " wants to publish a post on your Instagram. This one goes public.";
    fact("Post", "container");
  } else if (operation == "credential.use") {
    out.sentence = who + " wants to use your " + text("credential") + " key.";
  } else if (operation == "tolvanger.test") {
    out.sentence = "A test from your Mac. Approving does nothing.";
  } else if (operation == "site.signin") {
    out.sentence = who + " wants you to sign in to " +
                   orElse(text("site"), "a site") + " on this phone.";
    fact("Site", "site");
    fact("Saved as", "secret");
  } else if (operation == "tripwire.replace") {
    out.sentence = "Replace the profile of how you write, fitted " +
                   text("fitted") + " on " + text("messages") + " messages.";
    fact("Fingerprint", "fingerprint");
  } else if (operation == "money.move") {
    out.sentence = "Move " + text("amount_minor") + " " + text("currency") +
                   " to " + orElse(text("payee"), "someone") + ".";
    fact("Reference", "reference");
  } else if (operation == "http.request") {
    const std::string method = text("method");
    const char* verb = "send something to";
    if (method == "GET") {
      verb = "send a request to";
    } else if (method == "DELETE" || method == "PUT" || method == "PATCH") {
      verb = "change something on";
    }
    const std::string credential = text("credential");
    out.sentence =
        who + " wants to " + verb + " " + orElse(text("host"), "a server") +
        (credential.empty() ? "" : " with your " + credential + " key") + ".";
    const std::string path = text("path");
    if (!method.empty() || !path.empty()) {
      out.facts.push_back({"Call", method.empty() || path.empty()
                                       ? method + path
                                       : method + " " + path});
      shownKeys.insert({"method", "path"});
    }
    std::string sends = squeezeBlanks(text("body_text"));
    if (!sends.empty()) {
      if (Text::longerThan(sends, 160)) sends = Text::prefix(sends, 157) + "…";
      out.facts.push_back({"Sends", std::move(sends)});
      shownKeys.insert("body_text");
    }
  } else {
    out.sentence = who + " asks for permission: " + operation + ".";
  }

  for (const auto& entry : named) {
    if (!shownKeys.contains(entry.first)) out.hasMore = true;
  }
  return out;
}

}  // namespace tolvanger::phone
