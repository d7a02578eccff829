// Tests of request fields (the gate on what an agent may send, with its
// sentences and limits) and of the summary line.
#include "tolvanger/kit/fields.h"

#include <gtest/gtest.h>

#include <string>

#include "tolvanger/kit/canonical.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/summary.h"

namespace tolvanger {
namespace {

using nlohmann::json;

// The sentence that Fields::from throws for `text` parsed as JSON.
std::string refusal(const json& value) {
  try {
    Fields::from(&value);
  } catch (const ServiceError& e) {
    EXPECT_TRUE(e.isRefused());
    return e.what();
  }
  return "(accepted)";
}

json withValue(const json& v) { return json{{"f", v}}; }

// `n` copies of a two-scalar character (e + combining acute): one character
// each, three bytes each.
std::string accented(size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s += "e\xcc\x81";
  return s;
}

TEST(Fields, TypesEachCase) {
  const json in = json::parse(
      R"({"t":"hi\nthere","n":-3,"w":2.0,"b":true,"l":["a","b\tc"],"e":[]})");
  const Fields f = Fields::from(&in);
  EXPECT_EQ(f.entries.at("t"), FieldValue::text("hi\nthere"));
  EXPECT_EQ(f.entries.at("n"), FieldValue::number(-3));
  EXPECT_EQ(f.entries.at("w"), FieldValue::number(2));
  EXPECT_EQ(f.entries.at("b"), FieldValue::flag(true));
  EXPECT_EQ(f.entries.at("l"), FieldValue::list({"a", "b\tc"}));
  EXPECT_EQ(f.entries.at("e"), FieldValue::list({}));
  EXPECT_NE(FieldValue::number(1), FieldValue::flag(true));
  EXPECT_NE(FieldValue::text("1"), FieldValue::number(1));
  EXPECT_EQ(
      Canonical::encode(f.any()),
      R"({"b":true,"e":[],"l":["a","b\u0009c"],"n":-3,"t":"hi\u000athere","w":2})");
  EXPECT_TRUE(Fields::from(nullptr).entries.empty());
}

TEST(Fields, Refusals) {
  EXPECT_EQ(refusal(json()), "fields must be an object");
  EXPECT_EQ(refusal(json::array()), "fields must be an object");
  EXPECT_EQ(refusal(json{{"Bad", 1}}), "not a usable field name: Bad");
  EXPECT_EQ(refusal(withValue(1.5)), "f is not a whole number");
  EXPECT_EQ(refusal(withValue(int64_t{9007199254740992})),
            "f is not a whole number");
  EXPECT_EQ(refusal(withValue(uint64_t{18446744073709551615u})),
            "f is not a whole number");
  EXPECT_EQ(refusal(withValue(int64_t{-9007199254740991})), "(accepted)");
  EXPECT_EQ(refusal(withValue("a\tb")), "f has control characters in it");
  EXPECT_EQ(refusal(withValue("a\rb")), "f has control characters in it");
  EXPECT_EQ(refusal(withValue(std::string("a\0b", 3))),
            "f has control characters in it");
  EXPECT_EQ(refusal(withValue("a\x7f\xc2\x85")), "(accepted)");
  EXPECT_EQ(refusal(withValue(json::array({"a\nb"}))),
            "f must be a list of short one-line strings");
  EXPECT_EQ(refusal(withValue(json::array({1}))),
            "f must be a list of short one-line strings");
  for (const json& v : {json(), json::object(), json::binary({1})}) {
    EXPECT_EQ(refusal(withValue(v)),
              "f is not a kind of value a request can carry");
  }
}

TEST(Fields, LimitsAtTheirBoundaries) {
  json many = json::object();
  for (int i = 0; i < 24; ++i) many["k" + std::to_string(i)] = i;
  EXPECT_EQ(refusal(many), "(accepted)");
  many["k24"] = 24;
  EXPECT_EQ(refusal(many), "too many fields");

  // Counted in characters: 20000 three-byte characters pass.
  EXPECT_EQ(refusal(withValue(accented(20000))), "(accepted)");
  EXPECT_EQ(refusal(withValue(accented(20001))), "f is too long");
  EXPECT_EQ(refusal(withValue(std::string(20001, 'x'))), "f is too long");

  EXPECT_EQ(refusal(withValue(std::vector<std::string>(32, "x"))),
            "(accepted)");
  EXPECT_EQ(refusal(withValue(std::vector<std::string>(33, "x"))),
            "f has too many items");
  EXPECT_EQ(refusal(withValue(json::array({accented(256)}))), "(accepted)");
  EXPECT_EQ(refusal(withValue(json::array({accented(257)}))),
            "f must be a list of short one-line strings");
}

TEST(Fields, AccessAndEdit) {
  Fields f;
  f.set("reason", "because");
  f.set("count", FieldValue::number(2));
  EXPECT_EQ(f.text("reason"), "because");
  EXPECT_EQ(f.text("count"), std::nullopt);
  EXPECT_EQ(f.text("missing"), std::nullopt);
  EXPECT_EQ(f.get("count"), FieldValue::number(2));
  EXPECT_EQ(*f.get("count")->asNumber(), 2);
  f.set("count", FieldValue::flag(false));
  EXPECT_EQ(f.get("count"), FieldValue::flag(false));
  f.remove("count");
  EXPECT_EQ(f.get("count"), std::nullopt);
  EXPECT_EQ(f.any(), json({{"reason", "because"}}));
}

TEST(Summary, Line) {
  Fields f;
  EXPECT_EQ(Summary::of("ping", f), "ping");
  f.set("credential", FieldValue::number(1));
  EXPECT_EQ(Summary::of("ping", f), "ping");
  f.set("credential", "sheets");
  f.set("reason", "read this month's invoice rows");
  EXPECT_EQ(Summary::of("http.request", f),
            "http.request · sheets — read this month's invoice rows");
  f.remove("credential");
  f.set("reason", accented(200));
  EXPECT_EQ(Summary::of("x", f), "x — " + accented(80));
}

}  // namespace
}  // namespace tolvanger
