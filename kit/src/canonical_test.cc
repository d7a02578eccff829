// Tests of the canonical text: its bytes exactly, and every failure sentence.
#include "tolvanger/kit/canonical.h"

#include <gtest/gtest.h>

#include <string>

namespace tolvanger {
namespace {

using nlohmann::json;

// The description of the CanonicalError that `reencode(text)` throws.
std::string failure(std::string_view text) {
  try {
    Canonical::reencode(text);
  } catch (const CanonicalError& e) {
    return e.what();
  }
  return "(no error)";
}

TEST(Canonical, Keys) {
  for (const char* good : {"a", "ab", "a_b", "a1", "z9_"}) {
    EXPECT_TRUE(Canonical::isCanonicalKey(good)) << good;
  }
  for (const char* bad : {"", "A", "1a", "_a", "a-b", "a.b", "aB", "é"}) {
    EXPECT_FALSE(Canonical::isCanonicalKey(bad)) << bad;
  }
  EXPECT_TRUE(Canonical::isCanonicalKey(std::string(32, 'k')));
  EXPECT_FALSE(Canonical::isCanonicalKey(std::string(33, 'k')));
}

TEST(Canonical, Strings) {
  EXPECT_EQ(Canonical::string(""), R"("")");
  EXPECT_EQ(Canonical::string("a\"b\\c"), R"("a\"b\\c")");
  EXPECT_EQ(Canonical::string("\t\n\r"), R"("\u0009\u000a\u000d")");
  EXPECT_EQ(Canonical::string(std::string("\0\x1f", 2)), R"("\u0000\u001f")");
  EXPECT_EQ(Canonical::string("/\x7f"), "\"/\x7f\"");
  EXPECT_EQ(Canonical::string("é😀"), "\"é😀\"");
  // Ill-formed UTF-8: stray continuation, overlong in two and three bytes,
  // surrogate, too high, cut.
  for (const char* bad : {"\x80", "\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80",
                          "\xf4\x90\x80\x80", "a\xe2\x82"}) {
    EXPECT_THROW(Canonical::string(bad), CanonicalError) << bad;
  }
}

TEST(Canonical, EncodesSortedByBytes) {
  EXPECT_EQ(Canonical::reencode(R"({"b":1,"a":"x"})"), R"({"a":"x","b":1})");
  EXPECT_EQ(Canonical::reencode(R"({"ab":1,"a_b":2,"a_":3,"a1":4,"a":5})"),
            R"({"a":5,"a1":4,"a_":3,"a_b":2,"ab":1})");
  EXPECT_EQ(Canonical::reencode(" { } "), "{}");
  EXPECT_EQ(Canonical::reencode(R"({"o":{"z":[],"y":{}},"l":["b","a"]})"),
            R"({"l":["b","a"],"o":{"y":{},"z":[]}})");
  EXPECT_EQ(Canonical::reencode(R"({"t":true,"f":false,"n":1})"),
            R"({"f":false,"n":1,"t":true})");
  // Byte order is unsigned: "A" (0x41) comes before "é" (0xc3) and is the
  // first bad key met.
  EXPECT_EQ(failure(R"({"é":1,"A":1})"), "key not canonical: A");
  EXPECT_EQ(failure(R"({"a":{"b":null},"c":{"D":1}})"), "cannot encode null");
}

TEST(Canonical, Numbers) {
  const std::pair<const char*, const char*> cases[] = {
      {"9007199254740991", "9007199254740991"},
      {"-9007199254740991", "-9007199254740991"},
      {"1e3", "1000"},
      {"1.0", "1"},
      {"-0", "0"},
      {"-0.0", "0"},
  };
  for (const auto& [in, out] : cases) {
    EXPECT_EQ(Canonical::reencode(std::string(R"({"n":)") + in + "}"),
              std::string(R"({"n":)") + out + "}")
        << in;
  }
  EXPECT_EQ(failure(R"({"n":9007199254740992})"),
            "integer out of portable range: 9007199254740992");
  EXPECT_EQ(failure(R"({"n":-9007199254740992})"),
            "integer out of portable range: -9007199254740992");
  EXPECT_EQ(failure(R"({"n":1e17})"),
            "integer out of portable range: 100000000000000000");
  for (const char* n : {"1.5", "18446744073709551615", "1e300"}) {
    EXPECT_EQ(failure(std::string(R"({"n":)") + n + "}"),
              "cannot encode non-integer number")
        << n;
  }
}

TEST(Canonical, Failures) {
  EXPECT_EQ(failure(R"({"a":null})"), "cannot encode null");
  for (const char* list :
       {R"({"a":[1]})", R"({"a":[["x"]]})", R"({"a":[{}]})"}) {
    EXPECT_EQ(failure(list), "cannot encode a list item that is not text");
  }
  EXPECT_EQ(failure(R"({"A":1})"), "key not canonical: A");
  EXPECT_EQ(failure("[1]"), "top level must be an object");
  EXPECT_EQ(failure("\"x\""), "top level must be an object");
  EXPECT_THROW(Canonical::encode(json::array()), CanonicalError);
  try {
    Canonical::value(json::binary({1}));
    FAIL();
  } catch (const CanonicalError& e) {
    EXPECT_STREQ(e.what(), "cannot encode binary");
    EXPECT_EQ(e.kind(), CanonicalError::Kind::kUnsupported);
    EXPECT_EQ(e.detail(), "binary");
  }
}

TEST(Canonical, ReencodeRejectsWhatIsNotJson) {
  // Not JSON, trailing text, comments, and ill-formed UTF-8 or a lone
  // surrogate inside a string: each is the parser's own failure.
  for (const char* bad :
       {"", "{", R"({"a":1} x)", "{/* c */}", "{\"a\":\"\xff\"}",
        "{\"a\":\"\xc0\xaf\"}", R"({"a":"\ud800"})"}) {
    EXPECT_THROW(Canonical::reencode(bad), json::parse_error) << bad;
  }
  // A number too large for a double is the parser's failure as well.
  EXPECT_THROW(Canonical::reencode(R"({"n":1e400})"), json::out_of_range);
  // Escapes in the input are decoded and written in canonical form.
  EXPECT_EQ(Canonical::reencode(R"({"a":"\n\/\u00e9\ud83d\ude00"})"),
            "{\"a\":\"\\u000a/é😀\"}");
}

TEST(Canonical, DeepNestingDoesNotRecurse) {
  const int depth = 200000;
  std::string text;
  for (int i = 0; i < depth; ++i) text += R"({"a":)";
  text += "{}";
  text += std::string(depth, '}');
  EXPECT_EQ(Canonical::reencode(text), text);
}

TEST(Canonical, Digests) {
  EXPECT_EQ(Canonical::digestOfText("abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(Canonical::digestOf(json::parse(R"({"b":1,"a":"x"})")),
            Canonical::digestOfText(R"({"a":"x","b":1})"));
  EXPECT_THROW(Canonical::digestOf(json::parse(R"({"a":null})")),
               CanonicalError);
}

}  // namespace
}  // namespace tolvanger
