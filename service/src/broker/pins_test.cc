// Tests of pins: how they are derived from an announced secret, which calls
// they let through, and how a credential becomes its one header.
#include "tolvanger/service/pins.h"

#include <gtest/gtest.h>

#include <tuple>

#include "tolvanger/kit/service_error.h"

namespace tolvanger::service {
namespace {

using Strings = std::vector<std::string>;

Wire wire(std::string method, std::string host, int port, std::string path) {
  return Wire{std::move(method), "https", std::move(host), port,
              std::move(path)};
}

// The sentence `allow` refuses with, or "" when it lets the call through.
std::string refusal(const Pins& pins, const Wire& w) {
  try {
    pins.allow(w, "the k credential");
    return "";
  } catch (const ServiceError& e) {
    return e.what();
  }
}

TEST(Pins, Derived) {
  EXPECT_FALSE(Pins::derived(SecretName{"k", "bearer", {" ", ""}}));

  const auto plain =
      Pins::derived(SecretName{"k", "odd", {"B.host", " a.host\t", "b.host"}});
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->hosts, (Strings{"a.host", "b.host"}));
  EXPECT_EQ(plain->methods.size(), 5u);
  EXPECT_EQ(plain->templ, "Bearer {value}");  // an unknown kind is a bearer
  // Each kind the phone announces goes out in its own header and form.
  for (const auto& [kind, header, templ] :
       std::vector<std::tuple<std::string, std::string, std::string>>{
           {"bearer", "authorization", "Bearer {value}"},
           {"basic", "authorization", "Basic {value}"},
           {"api_key", "authorization", "{value}"},
           {"cookie", "cookie", "{value}"}}) {
    const auto pins = Pins::derived(SecretName{"k", kind, {"h"}});
    EXPECT_EQ(pins->header, header) << kind;
    EXPECT_EQ(pins->templ, templ) << kind;
  }

  SecretName narrowed{"k", "cookie", {"a.host"}};
  narrowed.rules = {AccessRule{{"A.host"}, {"DELETE", "GET"}, {"/v2", "/v1"}},
                    AccessRule{{"a.host"}, {"GET"}, {"/v1"}}};
  const auto pins = Pins::derived(narrowed);
  ASSERT_TRUE(pins);
  EXPECT_EQ(pins->methods, (Strings{"GET", "DELETE"}));
  EXPECT_EQ(pins->paths, (Strings{"/v1", "/v2"}));
  EXPECT_EQ(pins->rules[0].hosts, (Strings{"a.host"}));

  // One rule open to every path empties the list, not the rules.
  narrowed.rules.push_back(AccessRule{{"a.host"}, {"GET"}, {}});
  EXPECT_TRUE(Pins::derived(narrowed)->paths.empty());
}

TEST(Pins, AllowWithoutRules) {
  Pins pins = *Pins::derived(SecretName{"k", "bearer", {"api.host:8443"}});
  EXPECT_EQ(refusal(pins, wire("GET", "api.host", 8443, "/x")), "");
  EXPECT_EQ(
      refusal(pins, wire("GET", "api.host", 443, "/x")),
      "the k credential may only reach api.host:8443 \u2014 not api.host");
  // The pinned host and port exactly: not one that only ends or begins with
  // it, or with a port that shares its digits.
  for (const auto& [host, port] :
       std::vector<std::pair<std::string, int>>{{"evil-api.host", 8443},
                                                {"i.host", 8443},
                                                {"api.host.evil", 8443},
                                                {"api.hos", 8443},
                                                {"api.host", 84430},
                                                {"api.host", 844}}) {
    const Wire w = wire("GET", host, port, "/x");
    EXPECT_EQ(refusal(pins, w),
              "the k credential may only reach api.host:8443 \u2014 not " +
                  w.netloc());
  }
  pins.methods = {"GET", "POST"};
  EXPECT_EQ(refusal(pins, wire("TRACE", "api.host", 8443, "/")),
            "the k credential sends GET or POST, not TRACE");

  pins.paths = {"/v1", "/files/"};
  for (const char* ok : {"/v1", "/v1?q", "/v1/x?q", "/files/a"}) {
    EXPECT_EQ(refusal(pins, wire("GET", "api.host", 8443, ok)), "") << ok;
  }
  for (const char* no : {"/v10", "/files", "/v2?/v1"}) {
    EXPECT_EQ(refusal(pins, wire("GET", "api.host", 8443, no)),
              "the k credential may only reach /v1, /files/ on api.host:8443")
        << no;
  }
  pins.paths = {"/"};
  EXPECT_EQ(refusal(pins, wire("GET", "api.host", 8443, "/any/thing")), "");
}

TEST(Pins, RulesDecideEachForItself) {
  SecretName name{"k", "bearer", {"a.host", "b.host"}};
  name.rules = {AccessRule{{"a.host"}, {"GET"}, {}},
                AccessRule{{"b.host"}, {"GET", "POST"}, {"/v1/*/send"}}};
  const Pins pins = *Pins::derived(name);
  EXPECT_EQ(refusal(pins, wire("GET", "a.host", 443, "/anything")), "");
  EXPECT_EQ(refusal(pins, wire("POST", "b.host", 443, "/v1/me/send?x=/")), "");
  // a.host's open paths open neither b.host nor POST on a.host.
  const std::string expected =
      "the k credential may do GET on a.host; GET/POST on b.host under "
      "/v1/*/send \u2014 ";
  EXPECT_EQ(refusal(pins, wire("GET", "b.host", 443, "/v1//send?q")),
            expected + "not GET b.host/v1//send");
  EXPECT_EQ(refusal(pins, wire("POST", "a.host", 443, "/")),
            expected + "not POST a.host/");
}

TEST(Pins, Attach) {
  Pins pins = *Pins::derived(SecretName{"k", "basic", {"h"}});
  const auto result = [&](std::string templ, std::string_view v) {
    pins.templ = std::move(templ);
    try {
      return toString(pins.attach(asBytes(v)).second.reveal());
    } catch (const ServiceError& e) {
      return "refused: " + std::string(e.what());
    }
  };
  // The phone has already encoded a basic credential: it goes in as stored.
  EXPECT_EQ(result("Basic {value}", "dXNlcjpwdw=="), "Basic dXNlcjpwdw==");
  EXPECT_EQ(result("{value}", "ok\xff"), "ok\xef\xbf\xbd");
  EXPECT_EQ(result("}{value} {", "v"), "}v {");  // a lone "{" stands
  EXPECT_EQ(result("{user}:{value}", "v"),
            "refused: the authorization template wants user, and a credential "
            "this phone announced is one string");
  EXPECT_EQ(result("{value}", ""),
            "refused: that credential produced no header");
  for (const char* control : {"a\r\nX-Evil: 1", "a\tb", "a\x7f"}) {
    EXPECT_EQ(result("Bearer {value}", control),
              "refused: control characters in a header value are how one "
              "header becomes two")
        << control;
  }
}

}  // namespace
}  // namespace tolvanger::service
