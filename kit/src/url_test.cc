// Tests of the URL splitter: parts come back exactly as written, and what
// cannot be split one way only is refused.
#include "tolvanger/kit/url.h"

#include <gtest/gtest.h>

namespace tolvanger {
namespace {

TEST(Url, SplitsWithoutNormalising) {
  const auto u =
      Url::parse("HTTPS://me:pw@API.Host:8443/a/%2F/b c?x=%41&y#frag");
  ASSERT_TRUE(u.has_value());
  EXPECT_EQ(u->scheme, "HTTPS");
  EXPECT_EQ(u->user, "me");
  EXPECT_EQ(u->password, "pw");
  EXPECT_EQ(u->host, "API.Host");
  EXPECT_EQ(u->port, 8443);
  EXPECT_EQ(u->path, "/a/%2F/b c");
  EXPECT_EQ(u->query, "x=%41&y");
  EXPECT_EQ(u->fragment, "frag");

  const auto v6 = Url::parse("https://[::1]:8443?a?b/c");
  ASSERT_TRUE(v6.has_value());
  EXPECT_EQ(v6->host, "[::1]");
  EXPECT_EQ(v6->path, "");
  EXPECT_EQ(v6->query, "a?b/c");
  // A path that looks like an authority stays a path.
  EXPECT_EQ(Url::parse("https://h//evil.example/x")->host, "h");
  EXPECT_EQ(Url::parse("https://@h")->user, "");
}

TEST(Url, RefusesWhatItCannotSplitCleanly) {
  for (const char* text : {
           "",
           "h/x",
           "https:/h/x",
           "1x://h",
           "https://",
           "https://:443/",
           "https://h:",
           "https://h:0",
           "https://h:65536",
           "https://h:0443",
           "https://a@b@c/",     // two user parts
           "https://h\\@evil/",  // read as host "h" by some, "evil" by others
           "https://h%41/",
           "https://h!/",
           "https://[::1",
           "https://[::1]x/",
           "https://[fe80::1%25en0]/",
           "https://[1.2.3.4]/",
           "https://h/%4",
           "https://h/?q=%g1",
       }) {
    EXPECT_FALSE(Url::parse(text).has_value()) << text;
  }
}

}  // namespace
}  // namespace tolvanger
