// Tests of building and parsing the pair link.
#include "tolvanger/kit/pair_link.h"

#include <gtest/gtest.h>

namespace tolvanger {
namespace {

const PairURL kURL{.daemonID = "tolvanger-a1b2",
                   .host = "192.168.100.36",
                   .port = 8646,
                   .token = "7be04a91c2d35f68a1e7c90b4d26f3e1",
                   .fingerprint = "a1b2-c3d4-e5f6-0718"};

const std::string kLink =
    "tolvanger://pair?v=1&d=tolvanger-a1b2&h=192.168.100.36&p=8646"
    "&t=7be04a91c2d35f68a1e7c90b4d26f3e1&f=a1b2-c3d4-e5f6-0718";

std::string with(const std::string& from, const std::string& to) {
  std::string link = kLink;
  link.replace(link.find(from), from.size(), to);
  return link;
}

TEST(PairLinkTest, BuildsPlainLinksAndRoundTrips) {
  EXPECT_EQ(kURL.link(), kLink);
  EXPECT_EQ(PairURL::parse(kLink), kURL);
  EXPECT_EQ(kURL.address(), "192.168.100.36:8646");

  // Values a plain link cannot carry are escaped and come back whole.
  PairURL odd = kURL;
  odd.host = "fe80::1%en0";
  odd.daemonID = "a&b=c d#é";
  EXPECT_EQ(PairURL::parse(odd.link()), odd);
}

TEST(PairLinkTest, AcceptsWhatTheLinkMayVaryIn) {
  EXPECT_EQ(PairURL::parse("  " + kLink + "\n"), kURL);
  EXPECT_EQ(PairURL::parse(with("tolvanger://pair?", "tolvanger:pair?")), kURL);
  EXPECT_EQ(PairURL::parse(with("pair?", "pair/?")), kURL);
  EXPECT_EQ(PairURL::parse(with("p=8646", "p=+8646")), kURL);
  EXPECT_EQ(PairURL::parse(with("?v=1", "?x=9&flag&v=1")), kURL);
  EXPECT_EQ(PairURL::parse(with("tolvanger-a1b2", "tolvanger%2Da1b2")), kURL);

  auto upper = PairURL::parse(with("7be04a91c2d3", "7BE04A91C2D3"));
  ASSERT_TRUE(upper);
  EXPECT_EQ(upper->token, "7BE04A91C2D35f68a1e7c90b4d26f3e1");

  // Of two items of one name the later one stands.
  auto later = PairURL::parse(with("p=8646", "p=1&p=8646"));
  EXPECT_EQ(later, kURL);

  auto noHost = PairURL::parse(with("h=192.168.100.36", "h="));
  ASSERT_TRUE(noHost);
  EXPECT_EQ(noHost->host, "");
}

TEST(PairLinkTest, RefusesMalformedLinksWithAReason) {
  const std::vector<std::string> bad = {
      "",
      "https://pair?v=1",
      with("tolvanger:", "Tolvanger:"),
      with("//pair?", "//pairs?"),
      with("//pair?", "//pair/x?"),
      with("//pair?", "//user@pair?"),
      "tolvanger://pair",
      with("v=1", "v=2"),
      with("&d=tolvanger-a1b2", ""),
      with("d=tolvanger-a1b2", "d="),
      with("&h=192.168.100.36", "&h"),
      with("p=8646", "p=0"),
      with("p=8646", "p=65536"),
      with("p=8646", "p=-1"),
      with("p=8646", "p=80x"),
      with("p=8646", "p=99999999999999999999999"),
      with("7be04a91", "7be04a9"),
      with("7be04a91", "7be04a9g"),
      with("f=a1b2-c3d4-e5f6-0718", "f="),
      kLink + "#x",
      with("192.168", "192%2"),
      with("192.168", "19 2.168"),
      with("192.168", "%FF"),
  };
  for (const std::string& link : bad) {
    std::string why;
    EXPECT_FALSE(PairURL::parse(link, &why)) << link;
    EXPECT_FALSE(why.empty()) << link;
  }
  std::string why;
  PairURL::parse(with("p=8646", "p=0"), &why);
  EXPECT_EQ(why, "the port is not a number from 1 to 65535");
}

}  // namespace
}  // namespace tolvanger
