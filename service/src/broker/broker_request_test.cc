// Tests of building a brokered request: what an agent wrote becomes a Wire
// and the fields the phone shows, or is refused with a sentence it can act
// on and nothing is filed.
#include <gtest/gtest.h>

#include "testing/paired_phone.h"
#include "testing/service_internals.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/service/broker.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {
namespace {

using nlohmann::json;

class BrokerRequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    service = std::make_unique<Service>(Home(home.path));
    broker = std::make_unique<Broker>(*service, UpstreamSettings{});
    phone.pair(*service);
    SecretName session{"site", "cookie", {"www.host"}, {}, 7, 5, 9};
    session.userAgent = "Browser/1";
    ServiceInternals::secrets(*service).replace(
        {SecretName{"api", "bearer", {"API.Host:8443"}},
         SecretName{"loose", "bearer", {" "}}, std::move(session)});
  }

  // The stored request, or the refusal (checking that nothing was filed).
  std::variant<StoredRequest, std::string> ask(
      json request, std::optional<std::string> op = {}) {
    const size_t before = ServiceInternals::store(*service).pending().size();
    Broker::Ask a{
        std::move(op), std::move(request), " \n read it \r\n", {}, "tool",
        "claude"};
    try {
      const json reply = broker->request(a);
      return *ServiceInternals::store(*service).get(
          reply["request_id"].get<std::string>());
    } catch (const ServiceError& e) {
      EXPECT_EQ(ServiceInternals::store(*service).pending().size(), before);
      return std::string(e.what());
    }
  }
  std::string refusal(json request, std::optional<std::string> op = {}) {
    auto result = ask(std::move(request), std::move(op));
    const auto* sentence = std::get_if<std::string>(&result);
    return sentence ? *sentence : "";
  }
  static json call(std::string url, json headers = json::object(),
                   std::string body = "") {
    return {{"method", "get"},
            {"url", std::move(url)},
            {"secret", "api"},
            {"headers", std::move(headers)},
            {"body", std::move(body)}};
  }

  TempHome home;
  std::unique_ptr<Service> service;
  std::unique_ptr<Broker> broker;
  Phone phone;
};

TEST_F(BrokerRequestTest, FilesTheWireAndShowsItsShape) {
  auto result = ask(call("https://API.host:8443/v1/a%20b?q=1",
                         {{"X-Trace", "t"}, {"Authorization", ""}},
                         "line one\nline two"));
  ASSERT_TRUE(std::holds_alternative<StoredRequest>(result))
      << std::get<std::string>(result);
  const StoredRequest& stored = std::get<StoredRequest>(result);
  const Wire& wire = stored.http.value();
  EXPECT_EQ(wire.url(), "https://api.host:8443/v1/a%20b?q=1");
  EXPECT_EQ(wire.headers, (std::map<std::string, std::string>{
                              {"authorization", ""}, {"x-trace", "t"}}));
  const Fields& f = stored.fields;
  EXPECT_EQ(f.text("host"), "api.host:8443");
  EXPECT_EQ(f.text("path"), "/v1/a%20b?q=1");
  EXPECT_EQ(f.text("body_text"), "line one\nline two");
  EXPECT_EQ(f.get("headers"), FieldValue::list({"authorization", "x-trace"}));
  EXPECT_EQ(stored.summary, "http.request \u00b7 api \u2014 read it");

  // A site session goes out as its browser unless the agent names its own.
  const auto userAgent = [&](json headers) {
    json r = call("https://www.host/", std::move(headers));
    r["secret"] = "site";
    return std::get<StoredRequest>(ask(r)).http->headers.at("user-agent");
  };
  EXPECT_EQ(userAgent(json::object()), "Browser/1");
  EXPECT_EQ(userAgent({{"User-Agent", "mine"}}), "mine");
}

TEST_F(BrokerRequestTest, RefusesTheShapeOfTheRequest) {
  const json ok = call("https://api.host:8443/");
  EXPECT_EQ(refusal(ok, "mail.forward"), "no such operation");
  json extra = ok;
  extra["timeout"] = 5;
  extra["Zeta"] = 1;
  EXPECT_EQ(refusal(extra),
            "a request is body, headers, method, secret, url and nothing else "
            "\u2014 not Zeta, timeout");
  json other = ok;
  for (const auto& [secret, sentence] :
       std::vector<std::pair<json, std::string>>{
           {"", "http.request needs the name of the credential to attach"},
           {"nope", "no credential called nope"},
           {"loose", "nothing says where loose may be sent"}}) {
    other["secret"] = secret;
    EXPECT_TRUE(refusal(other).starts_with(sentence)) << secret;
  }
  other = ok;
  other.erase("method");
  EXPECT_EQ(refusal(other),
            "http.request sends GET or POST or PUT or PATCH or DELETE, and no "
            "method was named");
  EXPECT_EQ(refusal(call("https://api.host:8443/", json::object(),
                         std::string(131073, 'b'))),
            "the body is over 131072 bytes");
  EXPECT_EQ(refusal(call("https://api.host:8443/", json::object(),
                         std::string(131072, 'b'))),
            "");
}

TEST_F(BrokerRequestTest, RefusesUrlsThatCouldMislead) {
  const std::string base = "https://api.host:8443";
  const std::string spaced = "the path has a space or a control character";
  const std::string dots = "the path has a \".\" or \"..\" step in it";
  const std::string slashes = "the path has a \"\\\" or an encoded \"/\"";
  const std::string host = "the host must be a plain name";
  for (const auto& [url, sentence] :
       std::vector<std::pair<std::string, std::string>>{
           {base + "/" + std::string(4075, 'a'), "the url is missing"},
           {"http://api.host:8443/", "http.request speaks https, not http"},
           {"https://me@api.host:8443/", "credentials in the url are not"},
           {base + "/a b", spaced},
           {base + "/caf\u00e9", "the path has a character beyond ASCII"},
           {base + "/v1/../admin", dots},
           {base + "/v1/%2E%2e/admin", dots},
           {base + "/v1%2fadmin", slashes},
           {base + "/v1\\admin", slashes},
           {"https://api.host./", host},
           {"https://[::1]:8443/", host},
           {"https://api.host/",
            "the api credential may only reach "
            "api.host:8443 \u2014 not api.host"},
       }) {
    EXPECT_TRUE(refusal(call(url)).starts_with(sentence)) << url;
  }
  // An encoded blank, dots inside a step, "%2F" in the query, 4096 characters.
  EXPECT_EQ(refusal(call(base + "/a%20b/v1.2/.x?next=%2Fhome%5C")), "");
  EXPECT_EQ(refusal(call(base + "/" + std::string(4074, 'a'))), "");
}

TEST_F(BrokerRequestTest, RefusesHeadersThatCannotBeShown) {
  for (const auto& [headers, sentence] :
       std::vector<std::pair<json, std::string>>{
           {{{"1x", ""}}, "header name not usable: 1x"},
           {{{"X-A", ""}, {"x-a", ""}},
            "x-a is named twice, and two spellings of one header are two "
            "requests"},
           {{{"Content-Length", "1"}},
            "Content-Length belongs to the transport, not to the caller"},
           {{{"X", std::string(1025, 'v')}},
            "X: expected text under 1024 characters"},
           {{{"X", "a\r\nHost: evil"}},
            "X: control characters in a header value are how one header "
            "becomes two"},
           {{{"Authorization", "x"}},
            "authorization is the broker's to fill \u2014 send it empty, or "
            "leave it out"},
       }) {
    EXPECT_EQ(refusal(call("https://api.host:8443/", headers)), sentence)
        << headers;
  }
}

TEST(BrokerFields, BodyTextOnlyWhenReadableAndShort) {
  Wire wire{"POST", "https", "h", 443, "/"};
  const auto shown = [&](std::string body, bool showBody = true) {
    wire.body = std::move(body);
    return Broker::structuralFields(wire, showBody).text("body_text");
  };
  EXPECT_EQ(shown(std::string(8192, 'x')), std::string(8192, 'x'));
  EXPECT_FALSE(shown(std::string(8193, 'x')));
  EXPECT_FALSE(shown("a\tb"));
  EXPECT_FALSE(shown("a", false));
  EXPECT_EQ(Broker::structuralFields(wire, true).text("body_sha256"),
            "ca978112ca1bbdcafac231b39a23dc4da786eff8147c4e72b9807785afee48bb");
}

TEST_F(BrokerRequestTest, CredentialsListingAndOnlyOne) {
  const json list = broker->credentials();
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list[0]["spend"], "attach");
  EXPECT_EQ(list[0]["hosts"], json({"api.host:8443"}));
  EXPECT_EQ(list[0]["header"], "authorization");
  EXPECT_EQ(list[1]["spend"], "none");
  EXPECT_EQ(list[1]["methods"], json::array());
  EXPECT_TRUE(list[1].contains("note") && !list[1].contains("header"));
  EXPECT_EQ(list.dump().find("Browser/1"), std::string::npos);

  const auto all = ServiceInternals::secrets(*service).all();
  EXPECT_EQ(Broker::onlyOne(all, {"WWW.HOST"}), "site");
  EXPECT_FALSE(Broker::onlyOne(all, {"www.host", "api.host:8443"}));
  EXPECT_FALSE(Broker::onlyOne(all, {"none.host"}));
}

}  // namespace
}  // namespace tolvanger::service
