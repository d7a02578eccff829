// Named operations through the broker: which credential a named op takes,
// what the phone is shown for it (and for a plain call that an op can read),
// and the call performed against a local HTTPS server that answers under the
// provider's own name.
#include <gtest/gtest.h>

#include "https_upstream.h"
#include "testing/paired_phone.h"
#include "testing/service_internals.h"
#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/provider_hosts.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/service/broker.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {
namespace {

using nlohmann::json;
using tolvanger::testing::HTTPSUpstream;

constexpr const char* kToken = "tok-mail-81c2d";
const std::string kGmail(ProviderHosts::gmail);
const std::string kGraph(ProviderHosts::instagramGraph);
const std::string kSendURL =
    "https://" + kGmail + "/gmail/v1/users/me/messages/send";

std::string sendBody(const std::string& message) {
  return json{{"raw", toBase64(asBytes(message))}}.dump();
}

const std::string kMail =
    "To: Anna <anna@x.example>\r\nSubject: Lunch\r\n"
    "Content-Type: text/plain; charset=utf-8\r\n\r\nAt one?\r\n";

class BrokerNamedOpsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    upstream.writeCA(scratch.path + "/ca.pem");
    service = std::make_unique<Service>(Home(home.path));
    broker = std::make_unique<Broker>(
        *service, UpstreamSettings{scratch.path + "/ca.pem",
                                   {upstream.connectTo(kGmail)}});
    phone.pair(*service);
    announce({SecretName{"gmail", "bearer", {kGmail}}});
  }

  void announce(std::vector<SecretName> names) {
    ServiceInternals::secrets(*service).replace(std::move(names));
  }

  // The stored request, or the refusal.
  std::variant<StoredRequest, std::string> ask(
      json request, std::optional<std::string> op = "mail.send") {
    Broker::Ask a;
    a.operation = std::move(op);
    a.request = std::move(request);
    a.reason = "lunch";
    a.agent = "tool";
    a.client = "claude";
    try {
      const json reply = broker->request(a);
      return *ServiceInternals::store(*service).get(
          reply["request_id"].get<std::string>());
    } catch (const ServiceError& e) {
      return std::string(e.what());
    }
  }
  StoredRequest filed(json request,
                      std::optional<std::string> op = "mail.send") {
    auto result = ask(std::move(request), std::move(op));
    if (auto* sentence = std::get_if<std::string>(&result)) {
      ADD_FAILURE() << *sentence;
      return {};
    }
    return std::get<StoredRequest>(result);
  }
  std::string refusal(json request,
                      std::optional<std::string> op = "mail.send") {
    auto result = ask(std::move(request), std::move(op));
    const auto* sentence = std::get_if<std::string>(&result);
    return sentence ? *sentence : "(filed)";
  }

  static json mail(std::string body = sendBody(kMail)) {
    return {{"method", "POST"}, {"url", kSendURL}, {"body", std::move(body)}};
  }

  json performApproved(const StoredRequest& r) {
    json envelope;
    service->approve(
        phone.approveWith(*service, r, "bearer", kToken, envelope));
    return broker->perform(r.id);
  }

  TempHome home;
  TempHome scratch;
  HTTPSUpstream upstream{HTTPSUpstream::defaultHandler, {kGmail}};
  std::unique_ptr<Service> service;
  std::unique_ptr<Broker> broker;
  Phone phone;
};

TEST_F(BrokerNamedOpsTest, ANamedOpTakesItsUsualCredentialThenTheOnlyOne) {
  EXPECT_EQ(filed(mail()).credentialName, "gmail");

  // Without "gmail": the one name pinned to the op's host, whatever it is
  // called.
  announce({SecretName{"work", "bearer", {"GMAIL.googleapis.com"}},
            SecretName{"other", "bearer", {"api.example"}}});
  EXPECT_EQ(filed(mail()).credentialName, "work");

  // Two candidates are not guessed between.
  announce({SecretName{"work", "bearer", {kGmail}},
            SecretName{"home", "bearer", {kGmail}}});
  EXPECT_EQ(refusal(mail()),
            "mail.send attaches the gmail credential and no phone here holds "
            "one \u2014 write one on your phone, pinned to " +
                kGmail +
                ", sign into the provider there, or name another with "
                "`secret`");
  // A name given wins, and "" counts as none.
  json named = mail();
  named["secret"] = "home";
  EXPECT_EQ(filed(named).credentialName, "home");
  named["secret"] = "";
  EXPECT_NE(refusal(named).find("attaches the gmail credential"),
            std::string::npos);
  EXPECT_EQ(refusal(mail(), "mail.forward"), "no such operation");
}

TEST_F(BrokerNamedOpsTest, AMailIsShownByItsMeaningAndItsShape) {
  const StoredRequest r = filed(mail());
  EXPECT_EQ(r.operation, "mail.send");
  const Fields& f = r.fields;
  EXPECT_EQ(f.text("to"), "Anna <anna@x.example>");
  EXPECT_EQ(f.text("subject"), "Lunch");
  EXPECT_EQ(f.text("body"), "At one?");
  EXPECT_EQ(f.text("reason"), "lunch");
  EXPECT_EQ(f.text("host"), kGmail);
  EXPECT_EQ(f.text("credential"), "gmail");
  EXPECT_TRUE(f.get("body_sha256").has_value());
  EXPECT_FALSE(f.get("body_text").has_value());
  EXPECT_EQ(r.summary, "mail.send \u00b7 gmail \u2014 lunch");
}

TEST_F(BrokerNamedOpsTest, ANamedOpMustFitItsOwnPinsAndThePhones) {
  json read = mail();
  read["url"] = "https://" + kGmail + "/gmail/v1/users/me/messages";
  EXPECT_EQ(refusal(read),
            "mail.send may only reach /gmail/v1/users/me/messages/send, "
            "/upload/gmail/v1/users/me/messages/send on " +
                kGmail);
  json get = mail();
  get["method"] = "GET";
  EXPECT_EQ(refusal(get), "mail.send sends POST, not GET");
  json plain = mail();
  plain["url"] = "http://" + kGmail + "/gmail/v1/users/me/messages/send";
  EXPECT_EQ(refusal(plain), "mail.send speaks https, not http");

  // The phone pinned the credential to one path: the op fits its own pins
  // but not the phone's.
  SecretName narrow{"gmail", "bearer", {kGmail}};
  narrow.rules = {AccessRule{{kGmail}, {"POST"}, {"/upload/"}}};
  announce({narrow});
  EXPECT_EQ(refusal(mail()).rfind("the gmail credential may do ", 0), 0u);

  // The renderer's refusal reaches the agent when the op was named.
  announce({SecretName{"gmail", "bearer", {kGmail}}});
  EXPECT_EQ(refusal(mail(sendBody("Subject: x\r\n\r\nno one"))),
            "the message has no To: address, and an address the user cannot "
            "read is one the user cannot approve");
  EXPECT_EQ(refusal(mail("{}")),
            "mail.send wants a Gmail send body: {\"raw\": \"<base64 "
            "rfc822>\"}");
}

TEST_F(BrokerNamedOpsTest, APlainCallAnOpCanReadIsShownThroughIt) {
  json call = mail();
  call["secret"] = "gmail";
  const StoredRequest read = filed(call, std::nullopt);
  EXPECT_EQ(read.operation, "http.request");
  EXPECT_EQ(read.fields.text("to"), "Anna <anna@x.example>");
  EXPECT_EQ(read.fields.text("body"), "At one?");
  EXPECT_FALSE(read.fields.get("body_text").has_value());

  // A body the op cannot read is shown as it is, with nothing of the op's.
  call["body"] = "{\"raw\": 7}";
  const StoredRequest raw = filed(call, std::nullopt);
  EXPECT_EQ(raw.fields.text("body_text"), "{\"raw\": 7}");
  EXPECT_FALSE(raw.fields.get("to").has_value());
  EXPECT_FALSE(raw.fields.get("subject").has_value());

  // Fields that would not pass the gate on fields are the plain view too.
  call["body"] = sendBody(
      "To: a@x.example\r\nContent-Type: text/plain; charset=utf-8\r\n\r\n"
      "tab\there\r\n");
  const StoredRequest tabbed = filed(call, std::nullopt);
  EXPECT_FALSE(tabbed.fields.get("to").has_value());
  EXPECT_EQ(tabbed.fields.text("body_text"), call["body"]);
  // Named, the same mail is refused by the gate on fields.
  EXPECT_EQ(refusal(mail(call["body"])), "body has control characters in it");
}

TEST_F(BrokerNamedOpsTest, ANamedOpIsPerformedUnderTheProvidersName) {
  const StoredRequest r = filed(mail());
  const json reply = performApproved(r);
  EXPECT_EQ(reply["status"], 200);
  ASSERT_EQ(upstream.received().size(), 1u);
  const auto got = upstream.received()[0];
  EXPECT_EQ(got.target, "/gmail/v1/users/me/messages/send");
  EXPECT_EQ(got.headers.at("authorization"), std::string("Bearer ") + kToken);
  EXPECT_EQ(got.body, sendBody(kMail));
  const auto lines = ServiceInternals::journal(*service).tail(10);
  EXPECT_NE(std::find_if(lines.begin(), lines.end(),
                         [&](const std::string& line) {
                           return line.find(
                                      " performed operation=mail.send "
                                      "request=" +
                                      r.id + " status=200") !=
                                  std::string::npos;
                         }),
            lines.end());

  // A plain call shown through the op is performed too: the body that was
  // not shown is not asked for when the signed text is read again.
  json call = mail();
  call["secret"] = "gmail";
  EXPECT_EQ(performApproved(filed(call, std::nullopt))["status"], 200);
  EXPECT_EQ(upstream.received().size(), 2u);
}

TEST_F(BrokerNamedOpsTest, AStoredOpIsCheckedAgainBeforeTheCall) {
  const StoredRequest filedOne = filed(mail());
  json envelope;
  service->approve(
      phone.approveWith(*service, filedOne, "bearer", kToken, envelope));
  const StoredRequest approved =
      *ServiceInternals::store(*service).get(filedOne.id);
  // The op is looked up again: a name no op has is refused before anything
  // is spent.
  StoredRequest renamed = approved;
  renamed.operation = "mail.forward";
  ServiceInternals::store(*service).put(renamed);
  try {
    broker->perform(approved.id);
    ADD_FAILURE() << "performed";
  } catch (const ServiceError& e) {
    EXPECT_STREQ(e.what(), "no such operation");
  }
  EXPECT_TRUE(upstream.received().empty());
  ServiceInternals::store(*service).put(approved);
  EXPECT_EQ(broker->perform(approved.id)["status"], 200);
}

TEST_F(BrokerNamedOpsTest, InstagramCallsAreReadFromTheirForm) {
  announce({SecretName{"instagram", "bearer", {kGraph}}});
  const StoredRequest staged =
      filed({{"method", "POST"},
             {"url", "https://" + kGraph + "/v23.0/me/media?caption=Sea"},
             {"body", "image_url=https%3A%2F%2Fimg.example%2Fa.jpg"}},
            "instagram.container");
  EXPECT_EQ(staged.fields.text("platform"), "Instagram");
  EXPECT_EQ(staged.fields.text("text"), "Sea");
  EXPECT_EQ(staged.fields.get("media"),
            FieldValue::list({"https://img.example/a.jpg"}));
  EXPECT_EQ(refusal({{"method", "POST"},
                     {"url", "https://" + kGraph +
                                 "/v23.0/me/media_publish?access_token=x"},
                     {"body", "creation_id=5"}},
                    "instagram.publish")
                .rfind("there is an access_token in this request.", 0),
            0u);
}

}  // namespace
}  // namespace tolvanger::service
