// Tests of the kit's small shared helpers: byte forms, ids, random, text
// counting and fingerprints.
#include <gtest/gtest.h>

#include <string>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/fingerprint.h"
#include "tolvanger/kit/ids.h"
#include "tolvanger/kit/json_fields.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/kit/text.h"

namespace tolvanger {
namespace {

TEST(Bytes, Base64IsStrictAndRoundTrips) {
  for (std::string s : {"", "f", "fo", "foo", "foob", "fooba", "foobar"}) {
    const auto back = fromBase64(toBase64(asBytes(s)));
    ASSERT_TRUE(back.has_value()) << s;
    EXPECT_EQ(toString(*back), s);
  }
  EXPECT_EQ(toBase64(asBytes("foobar")), "Zm9vYmFy");
  for (const char* bad :
       {"Zm9", "Zm9v\n", "Zm=v", "Z===", "Zm9v YmFy", "Zm9-"}) {
    EXPECT_FALSE(fromBase64(bad).has_value()) << bad;
  }
}

TEST(Bytes, HexAndConstantTimeEqual) {
  EXPECT_EQ(toHex(Bytes{0x00, 0xab, 0xff}), "00abff");
  EXPECT_EQ(fromHex("00ABff"), (Bytes{0x00, 0xab, 0xff}));
  EXPECT_FALSE(fromHex("abc").has_value());
  EXPECT_FALSE(fromHex("zz").has_value());
  EXPECT_TRUE(constantTimeEqual(std::string_view("abc"), "abc"));
  EXPECT_FALSE(constantTimeEqual(std::string_view("abc"), "abd"));
  EXPECT_FALSE(constantTimeEqual(std::string_view("abc"), "abcd"));
}

TEST(Bytes, SecretBytesMovesAndWipes) {
  SecretBytes a(asBytes("secret"));
  SecretBytes b = std::move(a);
  EXPECT_TRUE(a.empty());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(toString(b.reveal()), "secret");
  b.wipe();
  EXPECT_TRUE(b.empty());
}

TEST(Ids, Grammar) {
  for (const char* good : {"a", "0", "r0123abcd", "a.b-c_d", "mail.send"}) {
    EXPECT_TRUE(Ids::isID(good)) << good;
  }
  for (const char* bad : {"", "-a", "A", "a b", "é", ".a"}) {
    EXPECT_FALSE(Ids::isID(bad)) << bad;
  }
  EXPECT_TRUE(Ids::isID(std::string(64, 'a')));
  EXPECT_FALSE(Ids::isID(std::string(65, 'a')));
  EXPECT_TRUE(Ids::isOperation("mail.send"));
  EXPECT_FALSE(Ids::isOperation("1mail"));
}

TEST(Random, HexHasTwoDigitsAByteAndDiffers) {
  const std::string a = Random::hex(8), b = Random::hex(8);
  EXPECT_EQ(a.size(), 16u);
  EXPECT_NE(a, b);
  EXPECT_TRUE(Ids::isID(a));
}

TEST(Text, CountsUserPerceivedCharacters) {
  // "e" + combining acute, a flag (two regional indicators), a family emoji
  // joined by ZWJs: three characters, many scalars.
  const std::string s =
      "e\u0301\U0001F1F8\U0001F1EA\U0001F468\u200D\U0001F469\u200D\U0001F467";
  EXPECT_EQ(Text::characterCount(s), 3u);
  EXPECT_EQ(Text::prefix(s, 1), "e\u0301");
  EXPECT_EQ(Text::prefix(s, 5), s);
  EXPECT_TRUE(Text::longerThan(s, 2));
  EXPECT_FALSE(Text::longerThan(s, 3));
  EXPECT_EQ(Text::characterCount("\r\n"), 1u);
  EXPECT_TRUE(Text::isValidUTF8("é"));
  EXPECT_FALSE(Text::isValidUTF8("\xc3"));
  EXPECT_FALSE(Text::isValidUTF8("\xed\xa0\x80"));  // a surrogate
}

TEST(Fingerprint, FormOfTheDigest) {
  EXPECT_EQ(Fingerprint::of({}), "e3b0-c442-98fc-1c14");
  EXPECT_EQ(Fingerprint::of(asBytes("abc")), "ba78-16bf-8f01-cfea");
}

// One rule for integers from outside: whole numbers that fit int64_t, nothing
// else, whichever way nlohmann stored them.
TEST(JsonFields, IntegersFitSixtyFourSignedBitsOrAreAbsent) {
  const nlohmann::json o = nlohmann::json::parse(
      R"({"small":-3,"max":9223372036854775807,"over":9223372036854775808,
          "huge":18446744073709551615,"float":2.0,"flag":true,"text":"7"})");
  EXPECT_EQ(JsonFields::integer(o, "small"), -3);
  EXPECT_EQ(JsonFields::integer(o, "max"), INT64_MAX);
  for (const char* key : {"over", "huge", "float", "flag", "text", "none"}) {
    EXPECT_EQ(JsonFields::integer(o, key), std::nullopt) << key;
  }
  EXPECT_EQ(JsonFields::integer(nlohmann::json::array({1}), "small"),
            std::nullopt);
  EXPECT_EQ(JsonFields::text(o, "text"), "7");
  EXPECT_EQ(JsonFields::text(o, "small"), std::nullopt);
  EXPECT_EQ(JsonFields::texts(nlohmann::json::parse(R"(["a",1])")),
            std::nullopt);
}

}  // namespace
}  // namespace tolvanger

TEST(Text, WhitespaceIsExactlyTheTwentyNineScalars) {
  int count = 0;
  for (char32_t c = 0; c <= 0x10FFFF; ++c)
    count += tolvanger::Text::isWhitespace(c);
  EXPECT_EQ(count, 29);
  EXPECT_TRUE(tolvanger::Text::isWhitespace(0x3000));
  EXPECT_FALSE(tolvanger::Text::isWhitespace(0x200B));  // zero-width space
  EXPECT_FALSE(
      tolvanger::Text::isWhitespace(0x180E));  // Mongolian vowel separator
}
