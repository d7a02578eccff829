// Tests of reading a request as the phone does: every check that stands
// between the network and the screen, and the words a person reads.
#include "tolvanger/phone/phone_request.h"

#include <gtest/gtest.h>

#include <functional>

#include "tolvanger/kit/canonical.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"

namespace tolvanger::phone {
namespace {

using nlohmann::json;

constexpr int64_t kIssued = 1760000000;
constexpr int64_t kExpires = 1760000300;
const std::string kDaemon = "tolvanger-1a2b3c4d";
const std::string kRequest = "r0123456789abcdef";

// A Mac's two signing keys.
struct Mac {
  crypto::P256PrivateKey key = crypto::P256PrivateKey::generate();
  crypto::MLDSA65PrivateKey pq = crypto::MLDSA65PrivateKey::generate();
};
const Mac& paired() {
  static const Mac mac;
  return mac;
}
const Mac& stranger() {
  static const Mac mac;
  return mac;
}

// Signs the payload's binding, as the service does, for `daemonID` (the
// payload's own if empty).
void sign(json& payload, const Mac& by, std::string daemonID = "") {
  if (daemonID.empty()) daemonID = payload["daemon_id"];
  const std::string message = Binding::message(
      daemonID, payload["request_id"].get<std::string>(),
      payload["digest"].get<std::string>(), payload["issued_at"].get<int64_t>(),
      payload["expires_at"].get<int64_t>());
  payload["daemon_sig"] = toBase64(by.key.sign(asBytes(message)));
  payload["daemon_sig_pq"] = toBase64(by.pq.sign(asBytes(message)));
}

// Puts in a canonical text with its digest, signed by the paired Mac.
void setCanonical(json& payload, const std::string& canonical) {
  payload["canonical"] = canonical;
  payload["digest"] = Canonical::digestOfText(canonical);
  sign(payload, paired());
}

json payloadFor(const std::string& operation, const json& fields) {
  const std::string canonical = Canonical::encode(json{{"daemon_id", kDaemon},
                                                       {"expires_at", kExpires},
                                                       {"fields", fields},
                                                       {"issued_at", kIssued},
                                                       {"operation", operation},
                                                       {"request_id", kRequest},
                                                       {"version", 1}});
  json payload = {{"ok", true},
                  {"version", 1},
                  {"daemon_id", kDaemon},
                  {"request_id", kRequest},
                  {"issued_at", kIssued},
                  {"expires_at", kExpires},
                  {"summary", "as the service wrote it"}};
  setCanonical(payload, canonical);
  return payload;
}

TolvangerRequest read(const json& payload) {
  return TolvangerRequest::fromDaemon(payload, paired().key.publicKey().der(),
                                      paired().pq.publicKey().raw());
}

void signNotice(json& payload, const std::string& notice, const Mac& by) {
  payload["notice"] = notice;
  payload["notice_sig"] = toBase64(
      by.key.sign(asBytes("tolvanger-notice-v1\n" + kRequest + "\n" + notice)));
}

const json kCall = {{"client", "claude"},
                    {"credential", "sheets"},
                    {"reason", "read rows"},
                    {"method", "GET"},
                    {"host", "sheets.example.com"},
                    {"path", "/v4/values"},
                    {"headers", {"accept", "user-agent"}},
                    {"body_bytes", 0}};

TEST(PhoneRequestTest, ReadsAGoodRequest) {
  json payload = payloadFor("http.request", kCall);
  signNotice(payload, "This does not read like you.", paired());
  const TolvangerRequest r = read(payload);

  // Rebuilt from the signed text, not taken from the payload.
  EXPECT_EQ(r.summary, "http.request · sheets — read rows");
  EXPECT_EQ(r.notice, "This does not read like you.");
  EXPECT_EQ(r.payload(), kCall);
  EXPECT_EQ(r.named.at("headers"), "accept, user-agent");
  ASSERT_EQ(r.fields.size(), kCall.size());
  EXPECT_EQ(r.fields.front().label, "Body bytes");
  EXPECT_EQ(r.fields.front().value, "0");

  const PlainRequest plain = r.plain();
  EXPECT_EQ(plain.sentence,
            "Claude wants to send a request to sheets.example.com with your "
            "sheets key.");
  EXPECT_EQ(plain.facts,
            (std::vector<PlainRequest::Fact>{{"Why", "read rows"},
                                             {"Call", "GET /v4/values"}}));
  EXPECT_TRUE(plain.hasMore);

  EXPECT_EQ(toString(r.binding(kExpires - 1)),
            "tolvanger-v1\n" + kDaemon + "\n" + kRequest + "\n" +
                payload["digest"].get<std::string>() +
                "\n1760000000\n1760000300");
  EXPECT_EQ(r.secondsLeft(kExpires + 10), 0);
  try {
    r.binding(kExpires);
    FAIL() << "signed at the last moment";
  } catch (const RequestError& e) {
    EXPECT_EQ(e.kind(), RequestError::Kind::kExpired);
  }

  // Without a post-quantum pin only the P-256 signature is needed.
  payload.erase("daemon_sig_pq");
  EXPECT_NO_THROW(TolvangerRequest::fromDaemon(
      payload, paired().key.publicKey().der(), std::nullopt));
}

TEST(PhoneRequestTest, RefusesEveryTampering) {
  using K = RequestError::Kind;
  const char* kLeftOut = "malformed request: the daemon left a field out";
  const char* kNoOp = "malformed request: no operation and fields inside";
  const char* kRewritten = "the request was rewritten on the way here";
  const char* kDigest =
      "the daemon's digest is not the one this request hashes to";
  const char* kNotMine =
      "the request is not signed by the daemon this phone paired with";
  auto edited = [](const json& p, const std::string& from,
                   const std::string& to) {
    std::string text = p["canonical"];
    return text.replace(text.find(from), from.size(), to);
  };
  // Keeps one of the paired Mac's signatures and puts a stranger's in for
  // the other.
  auto strangerSigns = [](json& p, const char* key) {
    const json kept = p[key];
    sign(p, stranger());
    p[key] = kept;
  };
  const struct {
    const char* what;
    std::function<void(json&)> tamper;
    K kind;
    const char* sentence;
  } cases[] = {
      {"a byte of the text",
       [&](json& p) { p["canonical"] = edited(p, "read rows", "reap rows"); },
       K::kDigestMismatch, kDigest},
      {"the text re-hashed, not re-signed",
       [&](json& p) {
         p["canonical"] = edited(p, "GET", "PUT");
         p["digest"] =
             Canonical::digestOfText(p["canonical"].get<std::string>());
       },
       K::kNotFromMyDaemon, kNotMine},
      {"a blank, hashed and signed",
       [&](json& p) { setCanonical(p, edited(p, ":1}", ": 1}")); },
       K::kNotCanonical, kRewritten},
      {"a short escape, hashed and signed",
       [&](json& p) { setCanonical(p, edited(p, "d rows", "d\\nrows")); },
       K::kNotCanonical, kRewritten},
      {"not JSON", [](json& p) { setCanonical(p, "{\"a\""); }, K::kNotCanonical,
       kRewritten},
      {"the wrong digest",
       [](json& p) {
         p["digest"] = Canonical::digestOfText("{}");
         sign(p, paired());
       },
       K::kDigestMismatch, kDigest},
      {"P-256 by another key",
       [&](json& p) { strangerSigns(p, "daemon_sig_pq"); }, K::kNotFromMyDaemon,
       kNotMine},
      {"ML-DSA by another key",
       [&](json& p) { strangerSigns(p, "daemon_sig"); }, K::kNotFromMyDaemon,
       kNotMine},
      {"ML-DSA missing", [](json& p) { p.erase("daemon_sig_pq"); },
       K::kNotFromMyDaemon, kNotMine},
      {"ML-DSA garbled", [](json& p) { p["daemon_sig_pq"] = "not*base64"; },
       K::kNotFromMyDaemon, kNotMine},
      {"signed for another daemon id",
       [](json& p) { sign(p, paired(), "tolvanger-99999999"); },
       K::kNotFromMyDaemon, kNotMine},
      {"issued_at as text", [](json& p) { p["issued_at"] = "1760000000"; },
       K::kMalformed, kLeftOut},
      {"expires_at as a fraction", [](json& p) { p["expires_at"] = 1.0e9; },
       K::kMalformed, kLeftOut},
      {"no canonical text", [](json& p) { p.erase("canonical"); },
       K::kMalformed, kLeftOut},
      {"no operation inside",
       [](json& p) { setCanonical(p, R"({"fields":{}})"); }, K::kMalformed,
       kNoOp},
      {"fields as text",
       [](json& p) { setCanonical(p, R"({"fields":"x","operation":"x"})"); },
       K::kMalformed, kNoOp},
  };
  for (const auto& c : cases) {
    json payload = payloadFor("http.request", kCall);
    c.tamper(payload);
    try {
      read(payload);
      ADD_FAILURE() << c.what << ": accepted";
    } catch (const RequestError& e) {
      EXPECT_EQ(e.kind(), c.kind) << c.what;
      EXPECT_STREQ(e.what(), c.sentence) << c.what;
    }
  }

  // A pin that is not a key proves nothing.
  EXPECT_THROW(TolvangerRequest::fromDaemon(payloadFor("x", json::object()),
                                            toBytes("not a key"), std::nullopt),
               RequestError);
  EXPECT_THROW(TolvangerRequest::fromDaemon(json::array(), {}, std::nullopt),
               RequestError);
}

TEST(PhoneRequestTest, DropsANoticeItCannotProve) {
  const struct {
    const char* what;
    std::string notice;
    const Mac& by;
  } cases[] = {
      {"signed by another key", "Not like you.", stranger()},
      {"over two lines", "Not like you.\nApprove anyway.", paired()},
      {"blank", "   ", paired()},
  };
  for (const auto& c : cases) {
    json payload = payloadFor("ping", json::object());
    signNotice(payload, c.notice, c.by);
    EXPECT_EQ(read(payload).notice, std::nullopt) << c.what;
  }
  json unsigned_ = payloadFor("ping", json::object());
  unsigned_["notice"] = "Not like you.";
  EXPECT_EQ(read(unsigned_).notice, std::nullopt);
}

TEST(PhoneRequestTest, SaysEachOperationInItsOwnWords) {
  const struct {
    const char* operation;
    json fields;
    const char* sentence;
    const char* headline;
  } cases[] = {
      {"mail.send",
       {{"client", "codex"}, {"to", {"a@x.org", "b@y.org"}}},
       "Codex wants to send an email to a@x.org, b@y.org as you.",
       "Send mail as you"},
      {"money.move",
       {{"amount_minor", 1205}, {"currency", "EUR"}, {"payee", "Ann"}},
       "Move 12.05 EUR to Ann.",
       "Move 12.05 EUR"},
      {"money.move",
       {{"amount_minor", -5}, {"currency", "EUR"}},
       "Move -0.05 EUR to someone.",
       "Move -0.05 EUR"},
      {"foo.bar", json::object(), "An agent asks for permission: foo.bar.",
       "foo.bar"},
      {"post.publish",
       {{"platform", "Mastodon"}, {"client", "élan"}},
       "Élan asks for permission: post.publish.",
       "Publish on Mastodon as you"},
      {"credential.use",
       {{"credential", "sheets"}, {"client", "omp"}},
       "omp wants to use your sheets key.",
       "credential.use · sheets"},
      {"tripwire.replace",
       {{"fitted", "2025-01-01"}, {"messages", 340}},
       "Replace the profile of how you write, fitted 2025-01-01 on 340 "
       "messages.",
       "Replace your behaviour profile"},
      {"http.request",
       {{"method", "POST"}},
       "An agent wants to send something to a server.",
       "http.request"},
      {"http.request",
       {{"method", "PATCH"}, {"host", "h.example"}},
       "An agent wants to change something on h.example.",
       "http.request"},
  };
  for (const auto& c : cases) {
    const TolvangerRequest r = read(payloadFor(c.operation, c.fields));
    EXPECT_EQ(r.plain().sentence, c.sentence) << c.operation;
    EXPECT_EQ(r.headline(), c.headline) << c.operation;
  }

  const PlainRequest mail = read(payloadFor("mail.send", {{"to", "a@x.org"},
                                                          {"subject", "Hi"},
                                                          {"cc", ""},
                                                          {"body", "Dear Ann"},
                                                          {"reason", "reply"}}))
                                .plain();
  EXPECT_EQ(mail.facts,
            (std::vector<PlainRequest::Fact>{
                {"Why", "reply"}, {"Subject", "Hi"}, {"Message", "Dear Ann"}}));
  EXPECT_TRUE(mail.hasMore);  // the empty cc is not shown

  // A body is squeezed to single blanks and cut from 161 characters on.
  const std::string words = "a \n\t b ";
  std::string body;
  while (body.size() < 400) body += words;
  const PlainRequest post =
      read(payloadFor("http.request", {{"body_text", body}})).plain();
  ASSERT_EQ(post.facts.size(), 1u);
  std::string squeezed;
  while (squeezed.size() < 157) squeezed += "a b ";
  EXPECT_EQ(post.facts[0].value, squeezed.substr(0, 157) + "…");
  EXPECT_FALSE(post.hasMore);
  const std::string short160(160, 'y');
  EXPECT_EQ(read(payloadFor("http.request", {{"body_text", short160}}))
                .plain()
                .facts[0]
                .value,
            short160);
}

TEST(PhoneRequestTest, LabelsAndShowsFields) {
  EXPECT_EQ(TolvangerRequest::label("alt_text"), "Alt text");
  EXPECT_EQ(TolvangerRequest::label("replaces"), "Replaces the one fitted");
  EXPECT_EQ(TolvangerRequest::show("amount_minor", 5), "0.05");
  EXPECT_EQ(TolvangerRequest::show("amount_minor", "12"), "12");
  EXPECT_EQ(TolvangerRequest::show("count", 1205), "1205");
  EXPECT_EQ(PlainRequest::asker(""), "An agent");
  EXPECT_EQ(PlainRequest::asker("hermes"), "Hermes");
}

TEST(PhoneRequestTest, ActsOnlyOnAUsableSignIn) {
  const json good = {{"site", "https://Example.com/login"},
                     {"secret", "example.com"},
                     {"reason", "read my orders"}};
  EXPECT_EQ(
      read(payloadFor("site.signin", good)).signIn(),
      (SignInAsk{"https://Example.com/login", "example.com", "example.com"}));

  json otherPort = good;
  otherPort["site"] = "https://example.com:8443/";
  json upperName = good;
  upperName["secret"] = "Example";
  json listSite = good;
  listSite["site"] = json::array({"https://example.com/"});
  json noSecret = good;
  noSecret.erase("secret");
  for (const json& fields : {otherPort, upperName, listSite, noSecret}) {
    EXPECT_EQ(read(payloadFor("site.signin", fields)).signIn(), std::nullopt)
        << fields;
  }
  EXPECT_EQ(read(payloadFor("tolvanger.test", good)).signIn(), std::nullopt);
}

}  // namespace
}  // namespace tolvanger::phone
