// Tests of the software phone's console over a pipe, as a script feeds it.
#include "tolvanger/phone/console.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "tolvanger/phone/phone_home.h"

namespace tolvanger::phone {
namespace {

// A pipe holding `text`, its writing end closed.
class Fed {
 public:
  explicit Fed(const std::string& text) {
    EXPECT_EQ(pipe(fds_), 0);
    EXPECT_EQ(write(fds_[1], text.data(), text.size()),
              static_cast<ssize_t>(text.size()));
    close(fds_[1]);
  }
  ~Fed() { close(fds_[0]); }
  int fd() const { return fds_[0]; }

 private:
  int fds_[2] = {-1, -1};
};

std::string text(const SecretBytes& bytes) { return toString(bytes.reveal()); }

TEST(ConsoleTest, ReadsLinesWithoutReadingAhead) {
  const Fed input("approve\r\nvalue\n\nlast");
  std::FILE* out = std::tmpfile();
  const Console console(input.fd(), out);
  EXPECT_FALSE(console.interactive());
  console.ask("Type approve: ");
  EXPECT_EQ(console.line(), "approve");
  // A second reader of the descriptor finds the rest where it was.
  EXPECT_EQ(text(Console(input.fd(), out).secretLine()), "value");
  EXPECT_EQ(console.line(), "");
  EXPECT_EQ(console.line(), "last");
  EXPECT_EQ(console.line(), std::nullopt);
  EXPECT_TRUE(console.secretLine().empty());
  // No question is written when no person is at a terminal.
  EXPECT_EQ(std::ftell(out), 0);
  std::fclose(out);
}

TEST(ConsoleTest, RefusesASecretLongerThanAllowed) {
  const Fed fits("12345\r\n");
  EXPECT_EQ(text(Console(fits.fd(), stdout).secretLine(5)), "12345");
  const Fed tooLong("1234567\n");
  try {
    Console(tooLong.fd(), stdout).secretLine(5);
    ADD_FAILURE() << "read a value past its limit";
  } catch (const Refusal& e) {
    EXPECT_STREQ(e.what(), "That value is longer than this phone will send.");
  }
}

}  // namespace
}  // namespace tolvanger::phone
