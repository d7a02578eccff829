// Tests of the named operations' renderers and their text helpers: what the
// phone shows for a mail or a post, and what is refused instead.
#include "tolvanger/service/ops.h"

#include <gtest/gtest.h>

#include <string>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/provider_hosts.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/text.h"

namespace tolvanger::service {
namespace {

using nlohmann::json;

// A Gmail send body for `message`, in the URL-safe alphabet without
// padding, as Gmail's own clients write it.
std::string sendBody(const std::string& message) {
  std::string raw = toBase64(asBytes(message));
  for (char& c : raw) {
    if (c == '+') c = '-';
    if (c == '/') c = '_';
  }
  while (!raw.empty() && raw.back() == '=') raw.pop_back();
  return json{{"raw", raw}}.dump();
}

Wire mailWire(std::string body) {
  Wire wire{"POST", "https", std::string(ProviderHosts::gmail), 443,
            "/gmail/v1/users/me/messages/send"};
  wire.body = std::move(body);
  return wire;
}

Wire graphWire(std::string path, std::string body) {
  Wire wire{"POST", "https", std::string(ProviderHosts::instagramGraph), 443,
            std::move(path)};
  wire.body = std::move(body);
  return wire;
}

template <typename F>
std::string refusal(F f) {
  try {
    f();
  } catch (const ServiceError& e) {
    return e.what();
  }
  return "(no refusal)";
}

TEST(OpsTest, ParsesQueryStringsKeepingOrderAndRepeats) {
  using Pairs = std::vector<std::pair<std::string, std::string>>;
  EXPECT_EQ(Ops::parseQSL("b=2&&a=1&b=3&flag&=v&k=a=b"), (Pairs{{"b", "2"},
                                                                {"a", "1"},
                                                                {"b", "3"},
                                                                {"flag", ""},
                                                                {"", "v"},
                                                                {"k", "a=b"}}));
  EXPECT_EQ(Ops::parseQSL("c%61ption=caf%C3%A9+au%20lait%2b%zz%4"),
            (Pairs{{"caption", "caf\u00e9 au lait+%zz%4"}}));
  EXPECT_EQ(Ops::unquote("%E9t%C3"), "\uFFFDt\uFFFD");
  EXPECT_TRUE(Ops::parseQSL("&&").empty());
}

TEST(OpsTest, FoldsTextOntoOneLineAndTrimsItsEnd) {
  EXPECT_EQ(Ops::oneLine(std::nullopt), "");
  EXPECT_EQ(Ops::oneLine(" \t a\r\n\u00a0\u3000b\u2028c\u200b d \u205f"),
            "a b c\u200b d");
  EXPECT_EQ(Ops::text("a\r\nb\rc\n\n  \u00a0\r\n"), "a\nb\nc");
  EXPECT_EQ(Ops::text("\n  indented"), "\n  indented");
}

TEST(OpsTest, TheTableAndThePresenter) {
  EXPECT_EQ(Ops::names(),
            (std::vector<std::string>{"mail.send", "instagram.container",
                                      "instagram.publish"}));
  EXPECT_EQ(Ops::get("mail.send")->credential, "gmail");
  EXPECT_EQ(Ops::get("tripwire.replace"), nullptr);
  EXPECT_EQ(Ops::presenter(mailWire("")), Ops::get("mail.send"));
  Wire upload = mailWire("");
  upload.path = "/upload/gmail/v1/users/me/messages/send?uploadType=media";
  EXPECT_EQ(Ops::presenter(upload), Ops::get("mail.send"));
  EXPECT_EQ(Ops::presenter(graphWire("/v23.0/me/media_publish", "")),
            Ops::get("instagram.publish"));
  Wire read = mailWire("");
  read.method = "GET";
  EXPECT_EQ(Ops::presenter(read), nullptr);
  Wire elsewhere = mailWire("");
  elsewhere.host = "gmail.example";
  EXPECT_EQ(Ops::presenter(elsewhere), nullptr);
}

TEST(MailTest, ShowsToCcSubjectAndThePlainBody) {
  const json fields = Mail::render(mailWire(sendBody(
      "To: =?utf-8?B?QW5uYSBCavZyaw==?= <a@x.example>, \r\n b@x.example\r\n"
      "Cc: =?iso-8859-1?Q?J=F6rg?= <j@x.example>\r\n"
      "Subject: =?utf-8?Q?Caf=C3=A9?=\r\n =?utf-8?Q?_tomorrow?=\r\n"
      "Content-Type: multipart/alternative; boundary=\"=_b\"\r\n\r\n"
      "--=_b\r\nContent-Type: text/html\r\n\r\n<b>hi</b>\r\n"
      "--=_b\r\nContent-Type: text/plain; charset=utf-8\r\n"
      "Content-Transfer-Encoding: quoted-printable\r\n\r\n"
      "Hi Anna,=\r\n see you=20\r\nthere.\r\n\r\n\r\n--=_b--\r\n")));
  // A To that is not UTF-8 in its encoded word is left as written.
  EXPECT_EQ(fields["to"],
            "=?utf-8?B?QW5uYSBCavZyaw==?= <a@x.example>, b@x.example");
  EXPECT_EQ(fields["cc"], "J\u00f6rg <j@x.example>");
  EXPECT_EQ(fields["subject"], "Caf\u00e9 tomorrow");
  EXPECT_EQ(fields["body"], "Hi Anna, see you \nthere.");

  // The standard alphabet with padding reads the same; no subject and no
  // readable body.
  const std::string message = "To: x@y.example\n\n\xff\xfe?>>";
  EXPECT_EQ(
      Mail::render(mailWire(json{{"raw", toBase64(asBytes(message))}}.dump())),
      (json{{"to", "x@y.example"}, {"subject", "(no subject)"}}));
}

TEST(MailTest, RefusesWhatThePersonCouldNotRead) {
  const auto refused = [](const std::string& body) {
    return refusal([&] { Mail::render(mailWire(body)); });
  };
  const std::string wants =
      "mail.send wants a Gmail send body: {\"raw\": \"<base64 rfc822>\"}";
  EXPECT_EQ(refused("not json"), wants);
  EXPECT_EQ(refused(R"({"message":"x"})"), wants);
  EXPECT_EQ(refused(R"({"raw":7})"), "the raw message must be a base64 string");
  EXPECT_EQ(refused(R"({"raw":"a b"})"),
            "the raw message is not urlsafe base64");
  EXPECT_NE(refused(R"({"raw":"VG86IGFAYg","raw":"VG86IGJAYg"})")
                .find("names a key twice"),
            std::string::npos);
  const std::string noTo =
      "the message has no To: address, and an address the user cannot read "
      "is one the user cannot approve";
  EXPECT_EQ(refused(sendBody("Subject: hi\n\nbody")), noTo);
  // Decoded first: a To that is only an encoded blank is no address.
  EXPECT_EQ(refused(sendBody("To: =?utf-8?B?wqA=?=\n\nbody")), noTo);

  // 20000 characters pass, 20001 do not; characters, not bytes.
  const auto withBody = [](size_t characters) {
    std::string body;
    for (size_t i = 0; i < characters; ++i) body += "\u00e9";
    return sendBody(
        "To: x@y.example\nContent-Type: text/plain; charset=utf-8\n\n" + body +
        "\n\n");
  };
  EXPECT_EQ(
      Text::characterCount(
          Mail::render(mailWire(withBody(20000)))["body"].get<std::string>()),
      20000u);
  EXPECT_EQ(refused(withBody(20001)),
            "the message body is over 20000 characters \u2014 a mail the user "
            "cannot read on a phone is a mail the user approves without "
            "reading");
}

TEST(InstagramTest, ReadsTheFormQueryFirstAndRefusesSecondSpellings) {
  EXPECT_EQ(Instagram::form(graphWire("/v23.0/me/media?b=1", "a=2")),
            (std::map<std::string, std::string>{{"a", "2"}, {"b", "1"}}));
  EXPECT_EQ(refusal([] {
              Instagram::form(graphWire("/v23.0/me/media?caption=a",
                                        "image_url=u&c%61ption=b"));
            }),
            "caption is given twice, and two spellings of one parameter are "
            "two different posts");
  const std::string token =
      "there is an access_token in this request. The credential is the "
      "broker's to attach, and Meta would prefer yours over the one on the "
      "screen \u2014 take it out and send the authorization header empty";
  EXPECT_EQ(refusal([] {
              Instagram::form(
                  graphWire("/v23.0/me/media?access_token=t", "image_url=u"));
            }),
            token);
  EXPECT_EQ(refusal([] {
              Instagram::form(graphWire("/v23.0/me/media", "access_token"));
            }),
            token);
  // The op's second look runs the same reading.
  EXPECT_EQ(refusal([] {
              Ops::get("instagram.publish")
                  ->recheck(graphWire("/v23.0/me/media_publish",
                                      "creation_id=1&access_token=t"));
            }),
            token);
}

TEST(InstagramTest, ShowsWhatIsStagedAndWhatIsPublished) {
  EXPECT_EQ(
      Instagram::render(graphWire(
          "/v23.0/me/media",
          "image_url=https%3A%2F%2Fimg.example%2Fa.jpg&caption=Day+one%0D%0A"
          "by+the+sea%0D%0A%20&alt_text=a%0Abeach&is_carousel_item=TRUE")),
      (json{{"platform", "Instagram"},
            {"media", {"https://img.example/a.jpg"}},
            {"note",
             "one slide of a carousel \u2014 staged on its own, and "
             "publishable by nothing but the carousel"},
            {"text", "Day one\nby the sea"},
            {"alt_text", "a beach"}}));
  EXPECT_EQ(
      Instagram::render(graphWire("/v23.0/me/media", "image_url=u"))["note"],
      "staged \u2014 nothing is public until it is published");
  const json carousel = Instagram::render(
      graphWire("/v23.0/me/media", "media_type=carousel&children=1,%20,,2"));
  EXPECT_EQ(carousel["slides"], 2);
  EXPECT_EQ(carousel["note"],
            "the carousel itself, 2 slides \u2014 staged, and not public "
            "until it is published");
  EXPECT_FALSE(carousel.contains("media"));
  EXPECT_EQ(refusal([] {
              Instagram::render(graphWire("/v23.0/me/media",
                                          "media_type=CAROUSEL&children=,,,"));
            }),
            "a carousel names the containers it is made of");
  EXPECT_EQ(refusal([] {
              Instagram::render(graphWire("/v23.0/me/media", "caption=x"));
            }),
            "this op stages an image post: it wants an image_url, or a "
            "CAROUSEL naming its children");

  EXPECT_EQ(Instagram::renderPublish(
                graphWire("/v23.0/me/media_publish?creation_id=17", "")),
            (json{{"platform", "Instagram"},
                  {"note", "this is the step that makes the post public"},
                  {"container", "17"}}));
  EXPECT_EQ(refusal([] {
              Instagram::renderPublish(
                  graphWire("/v23.0/me/media_publish", "creation_id="));
            }),
            "a publish names the container it publishes");
}

}  // namespace
}  // namespace tolvanger::service
