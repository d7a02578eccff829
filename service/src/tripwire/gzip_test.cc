#include "tolvanger/service/gzip.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "testing/profile_maker.h"
#include "testing/temp_home.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/service/tripwire.h"

namespace tolvanger::service {
namespace {

using testing::gzipped;

std::string refusal(std::string_view data, size_t cap = kProfileLimit) {
  try {
    Gzip::unpack(data, cap);
  } catch (const ServiceError& e) {
    EXPECT_TRUE(e.isRefused()) << e.what();
    return e.what();
  }
  return "accepted";
}

// The output of the `gzip` command for `content` stored as `name`.
std::string realGzip(const std::string& dir, const std::string& name,
                     const std::string& content) {
  const std::string path = dir + "/" + name;
  std::ofstream(path, std::ios::binary) << content;
  const std::string command = "gzip -c -9 '" + path + "'";
  FILE* pipe = ::popen(command.c_str(), "r");
  std::string out;
  char buffer[65536];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
    out.append(buffer, n);
  }
  EXPECT_EQ(::pclose(pipe), 0);
  return out;
}

TEST(Gzip, ReadsWhatTheGzipCommandWritesWithItsFileName) {
  TempHome home;
  const std::string content = testing::questionProfile().dump(2);
  const std::string gz = realGzip(home.path, "behaviour.json", content);
  ASSERT_GE(gz.size(), 10u);
  ASSERT_NE(gz[3] & 0x08, 0) << "gzip wrote no file name";
  EXPECT_EQ(Gzip::unpack(gz, kProfileLimit), content);
}

TEST(Gzip, AZeroFilledBombStopsAtTheLimit) {
  const std::string bomb = gzipped(std::string(5 << 20, '\0'), 9);
  EXPECT_LT(bomb.size(), 10000u);
  EXPECT_EQ(refusal(bomb), "that profile unpacks to more than a profile is");
}

TEST(Gzip, ExactlyTheCapFitsAndOneByteMoreDoesNot) {
  const std::string exact(kProfileLimit, 'a');
  EXPECT_EQ(Gzip::unpack(gzipped(exact), kProfileLimit).size(), kProfileLimit);
  EXPECT_EQ(refusal(gzipped(exact + "a")),
            "that profile unpacks to more than a profile is");
  EXPECT_EQ(refusal(gzipped("abcd"), 3),
            "that profile unpacks to more than a profile is");
  EXPECT_EQ(Gzip::unpack(gzipped(""), kProfileLimit), "");
}

TEST(Gzip, EachFaultHasItsSentenceInTheOrderTheContainerIsRead) {
  const std::string good = gzipped("{\"a\": 1}");
  const std::string header = good.substr(0, 10);
  const std::string body = good.substr(10);
  const auto withFlags = [&](uint8_t flags, const std::string& fields) {
    std::string h = header;
    h[3] = static_cast<char>(flags);
    return h + fields + body;
  };
  const std::string p = "that profile is not gzip: ";
  EXPECT_EQ(refusal(""), p + "no gzip header");
  EXPECT_EQ(refusal(header.substr(0, 9)), p + "no gzip header");
  EXPECT_EQ(refusal("PK\x03\x04" + good.substr(4)), p + "no gzip header");
  std::string deflate64 = good;
  deflate64[2] = 9;
  EXPECT_EQ(refusal(deflate64), p + "no gzip header");

  // FEXTRA: the length bytes must be there; what they count is not checked
  // until the whole header has been walked.
  std::string shortExtra = header;
  shortExtra[3] = 0x04;
  EXPECT_EQ(refusal(shortExtra + "\x01"), p + "short extra field");
  EXPECT_EQ(refusal(withFlags(0x04, std::string("\xff\xff", 2))),
            p + "the header runs past the end");
  // A name with no zero byte never ends, and that is found before the
  // extra field's overrun.
  EXPECT_EQ(refusal(withFlags(0x04 | 0x08, std::string("\xff\xff", 2))),
            p + "a header field never ends");
  std::string noZero = header;
  noZero[3] = 0x08;
  EXPECT_EQ(refusal(noZero + "behaviour.json"),
            p + "a header field never ends");
  EXPECT_EQ(refusal(noZero), p + "a header field never ends");
  std::string comment = header;
  comment[3] = 0x10;
  EXPECT_EQ(refusal(comment + "a comment"), p + "a header field never ends");

  // Every optional field, in order, with reserved bits that are not looked at.
  EXPECT_EQ(Gzip::unpack(withFlags(0xE0 | 0x1E, std::string("\x03\x00xyz", 5) +
                                                    std::string("name\0", 5) +
                                                    std::string("note\0", 5) +
                                                    "\xAA\xBB"),
                         kProfileLimit),
            "{\"a\": 1}");
  // The header's own checksum runs past the end.
  EXPECT_EQ(refusal(header.substr(0, 3) + "\x02" + header.substr(4) + "\x01"),
            p + "the header runs past the end");

  EXPECT_EQ(refusal(header + "1234567"), p + "no trailer");
  EXPECT_EQ(refusal(header + "12345678"), p + "it ends early");
  EXPECT_EQ(
      refusal(good.substr(0, good.size() - 12) + good.substr(good.size() - 8)),
      p + "it ends early");
  EXPECT_EQ(refusal(header + "\xff\xff\xff\xff" + good.substr(good.size() - 8)),
            p + "the deflate stream is broken");

  std::string badCRC = good;
  badCRC[badCRC.size() - 8] ^= 1;
  EXPECT_EQ(refusal(badCRC), p + "the checksum does not match");
  std::string badLength = good;
  badLength[badLength.size() - 1] ^= 1;
  EXPECT_EQ(refusal(badLength), p + "the checksum does not match");
}

TEST(Gzip, OnlyTheLastEightBytesAreTheTrailer) {
  // Two members of the same text: the second's trailer fits the first's
  // content, and what lies between is not read.
  const std::string member = gzipped("same");
  EXPECT_EQ(Gzip::unpack(member + member, kProfileLimit), "same");
  EXPECT_EQ(refusal(member + gzipped("other")),
            "that profile is not gzip: the checksum does not match");
}

}  // namespace
}  // namespace tolvanger::service
