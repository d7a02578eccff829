// Tests of reading a mail the way a mail client would: which part is the
// body, and what its text and headers say.
#include "tolvanger/service/mime.h"

#include <gtest/gtest.h>

#include <string>

namespace tolvanger::service {
namespace {

// The text of the part `body("plain")` picks, or "(none)".
std::string shown(const std::string& message) {
  const auto part = MIMEPart::parse(message).body("plain");
  if (!part) return "(none)";
  return part->textContent().value_or("(unreadable)");
}

TEST(MIMEPartTest, ReadsHeadersFoldedAndUnfoldedWithEitherLineEnd) {
  for (const std::string end : {"\r\n", "\n"}) {
    const MIMEPart part = MIMEPart::parse(
        "Subject: a long" + end + " \t subject line" + end + "not a header" +
        end + "TO :  x@y.example " + end + "To: second@y.example" + end + end +
        "body" + end + end + "more");
    EXPECT_EQ(part.header("subject"), "a long subject line");
    EXPECT_EQ(part.header("to"), "x@y.example");  // the first, any case
    EXPECT_EQ(part.headers.size(), 3u);
    EXPECT_EQ(part.payload, "body" + end + end + "more");
  }
  // No blank line: all of it is headers. A leading blank line: no headers.
  EXPECT_EQ(MIMEPart::parse("A: 1\r\nB: 2").headers.size(), 2u);
  EXPECT_EQ(MIMEPart::parse("A: 1\r\nB: 2").payload, "");
  const MIMEPart bare = MIMEPart::parse("\r\nA: not a header");
  EXPECT_TRUE(bare.headers.empty());
  EXPECT_EQ(bare.payload, "A: not a header");
  // Raw bytes in a header are repaired rather than passed on as non-text.
  EXPECT_EQ(MIMEPart::parse("X: caf\xe9\n\n").header("x"), "caf\uFFFD");
}

TEST(MIMEPartTest, ReadsContentTypeParametersQuotedOrNot) {
  const auto type =
      MIMEPart::parse(
          "Content-Type: Multipart/Mixed; BOUNDARY=\"a;b \\\"c\\\"\"; x=1\n\n")
          .contentType();
  EXPECT_EQ(type.type, "multipart");
  EXPECT_EQ(type.subtype, "mixed");
  EXPECT_EQ(type.params.at("boundary"), "a;b \"c\"");
  EXPECT_EQ(type.params.at("x"), "1");
  const auto none = MIMEPart::parse("X: 1\n\n").contentType();
  EXPECT_EQ(none.type + "/" + none.subtype, "text/plain");
}

TEST(MIMEPartTest, CutsPartsBetweenDelimiterLinesOnly) {
  const MIMEPart message = MIMEPart::parse(
      "Content-Type: multipart/mixed; boundary=b\r\n\r\n"
      "preamble\r\n"
      "--b\r\n"
      "Content-Type: text/plain\r\n\r\n"
      "one\r\n--bx not a delimiter\r\n"
      "--b \t\r\n"
      "\r\n"
      "two\r\n"
      "--b--\r\n"
      "epilogue\r\n--b\r\nthree\r\n");
  const auto parts = message.parts();
  ASSERT_EQ(parts.size(), 2u);
  EXPECT_EQ(parts[0].payload, "one\r\n--bx not a delimiter");
  EXPECT_TRUE(parts[1].headers.empty());
  EXPECT_EQ(parts[1].payload, "two");
  // Without a boundary there are no parts; without a closing delimiter the
  // last part runs to the end.
  EXPECT_TRUE(MIMEPart::parse("Content-Type: multipart/mixed\n\n--\nx\n")
                  .parts()
                  .empty());
  const auto open = MIMEPart::parse(
                        "Content-Type: multipart/mixed; boundary=q\n\n--q\n\n"
                        "last\n")
                        .parts();
  ASSERT_EQ(open.size(), 1u);
  EXPECT_EQ(open[0].payload, "last\n");
}

TEST(MIMEPartTest, PrefersPlainTextAndFallsBackToTheFirstTextPart) {
  const std::string alternative =
      "Content-Type: multipart/alternative; boundary=alt\n\n"
      "--alt\nContent-Type: text/html\n\n<p>html</p>\n"
      "--alt\nContent-Type: text/plain; charset=utf-8\n\nplain\n"
      "--alt--\n";
  EXPECT_EQ(shown(alternative), "plain");
  EXPECT_EQ(shown("Content-Type: multipart/alternative; boundary=alt\n\n"
                  "--alt\nContent-Type: text/html\n\n<p>only</p>\n--alt--\n"),
            "<p>only</p>");
  // An attachment never is the body, even a text one that comes first; the
  // body is found inside a nested multipart.
  EXPECT_EQ(shown("Content-Type: multipart/mixed; boundary=mix\n\n"
                  "--mix\nContent-Type: text/plain\n"
                  "Content-Disposition: Attachment; filename=a.txt\n\n"
                  "attached\n"
                  "--mix\n" +
                  alternative + "--mix--\n"),
            "plain");
  // A related multipart looks at its start first.
  EXPECT_EQ(shown("Content-Type: multipart/related; boundary=r; "
                  "start=\"<root@x>\"\n\n"
                  "--r\nContent-Type: text/html\n\nfirst\n"
                  "--r\nContent-ID: <root@x>\nContent-Type: text/html\n\n"
                  "root\n--r--\n"),
            "root");
  EXPECT_EQ(shown("Content-Type: image/png\n\nxx"), "(none)");
  EXPECT_EQ(shown("Content-Type: multipart/mixed\n\n--b\n\nx\n--b--\n"),
            "(none)");
}

TEST(MIMEPartTest, LooksOnlySoDeepIntoNestedMultiparts) {
  const auto nested = [](size_t levels) {
    std::string message = "Content-Type: text/plain\n\ndeep";
    for (size_t i = 0; i < levels; ++i) {
      message = "Content-Type: multipart/mixed; boundary=b" +
                std::to_string(i) + "\n\n--b" + std::to_string(i) + "\n" +
                message + "\n--b" + std::to_string(i) + "--\n";
    }
    return message;
  };
  EXPECT_EQ(shown(nested(MIMEPart::kMaxDepth)), "deep");
  EXPECT_EQ(shown(nested(MIMEPart::kMaxDepth + 1)), "(none)");
}

TEST(MIMEPartTest, UndoesTransferEncodingsAndReadsCharsets) {
  const auto text = [](const std::string& headers, const std::string& body) {
    return MIMEPart::parse(headers + (headers.empty() ? "\n" : "\n\n") + body)
        .textContent();
  };
  EXPECT_EQ(text("Content-Transfer-Encoding: BASE64 ", "aGVs\r\nbG8=\r\n"),
            "hello");
  EXPECT_EQ(text("Content-Transfer-Encoding: quoted-printable\n"
                 "Content-Type: text/plain; charset=UTF-8",
                 "caf=C3=a9 =\r\nau =\nlait=3D=ZZ="),
            "caf\u00e9 au lait==ZZ=");
  EXPECT_EQ(
      text("Content-Type: text/plain; charset=ISO-8859-1", "caf\xe9 \xa9"),
      "caf\u00e9 \u00a9");
  EXPECT_EQ(text("Content-Type: text/plain; charset=cp1252", "\x80 \x93q\x94"),
            "\u20ac \u201cq\u201d");
  // Bytes that are not text in their charset give nothing, not a repair.
  EXPECT_EQ(text("Content-Type: text/plain; charset=utf-8", "caf\xe9"),
            std::nullopt);
  EXPECT_EQ(text("", "caf\xe9"), std::nullopt);
  EXPECT_EQ(text("", "caf\xc3\xa9"), "caf\u00e9");
  EXPECT_EQ(text("Content-Type: text/plain; charset=koi8-r", "x"),
            std::nullopt);
  EXPECT_EQ(text("Content-Transfer-Encoding: 8bit", "as=3Dis"), "as=3Dis");
}

TEST(Base64Test, UrlsafeTakesBothAlphabetsPaddedOrNotAndNothingElse) {
  EXPECT_EQ(Base64::urlsafe("-_-_"), "\xfb\xff\xbf");
  EXPECT_EQ(Base64::urlsafe("+/+/"), "\xfb\xff\xbf");
  EXPECT_EQ(Base64::urlsafe("aGk"), "hi");
  EXPECT_EQ(Base64::urlsafe("aGk="), "hi");
  EXPECT_EQ(Base64::urlsafe("aA"), "h");
  EXPECT_EQ(Base64::urlsafe(""), "");
  EXPECT_EQ(Base64::urlsafe("aGk\n"), std::nullopt);
  EXPECT_EQ(Base64::urlsafe("aG=k"), std::nullopt);
  EXPECT_EQ(Base64::urlsafe("aGkaG"), std::nullopt);
  EXPECT_EQ(Base64::urlsafe("aA==="), std::nullopt);
}

TEST(Base64Test, LenientDropsWhatIsNotBase64AndGivesNothingForABadLength) {
  EXPECT_EQ(Base64::lenient(" aG\r\nk=\t"), "hi");
  EXPECT_EQ(Base64::lenient("aGk=aGk="), "hi\x1a\x1a");  // inner "=" dropped
  EXPECT_EQ(Base64::lenient("aGkaG"), "");
}

TEST(RFC2047Test, DecodesEncodedWordsAndLeavesTheRest) {
  EXPECT_EQ(RFC2047::word("=?UTF-8?B?Y2Fmw6k=?="), "caf\u00e9");
  EXPECT_EQ(RFC2047::word("=?iso-8859-1?q?caf=E9_cr=e8me?="),
            "caf\u00e9 cr\u00e8me");
  EXPECT_EQ(RFC2047::word("=?utf-8*en?Q?x?="), "x");
  EXPECT_EQ(RFC2047::word("=?utf-8?X?x?="), std::nullopt);
  EXPECT_EQ(RFC2047::word("=?utf-8?Q?=E9?="), std::nullopt);
  EXPECT_EQ(RFC2047::word("=?utf-8?Q?a?b?="), std::nullopt);

  // Blanks between two words vanish; between a word and text they stay.
  EXPECT_EQ(RFC2047::decode("=?utf-8?Q?caf?=  \t =?utf-8?B?w6k=?= ok"),
            "caf\u00e9 ok");
  EXPECT_EQ(RFC2047::decode("Re: =?utf-8?Q?caf=C3=A9?= and =?bad?Q?x?= "
                            "=?utf-8?Q?y?="),
            "Re: caf\u00e9 and =?bad?Q?x?= y");
  EXPECT_EQ(RFC2047::decode("a =?utf-8?Q?x y?= b =? c"),
            "a =?utf-8?Q?x y?= b =? c");
}

}  // namespace
}  // namespace tolvanger::service
