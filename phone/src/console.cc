#include "tolvanger/phone/console.h"

#include <termios.h>
#include <unistd.h>

#include <cerrno>

#include "tolvanger/phone/phone_home.h"

namespace tolvanger::phone {
namespace {

// Turns the terminal's echo off while a secret is typed, and ends the hidden
// line on `output` when it is done.
class EchoOff {
 public:
  EchoOff(int input, std::FILE* output, bool interactive)
      : input_(input), output_(output) {
    if (!interactive || tcgetattr(input_, &saved_) != 0) return;
    termios quiet = saved_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    active_ = tcsetattr(input_, TCSAFLUSH, &quiet) == 0;
  }
  ~EchoOff() {
    if (!active_) return;
    tcsetattr(input_, TCSAFLUSH, &saved_);
    std::fputs("\n", output_);
    std::fflush(output_);
  }
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;

 private:
  int input_;
  std::FILE* output_;
  termios saved_{};
  bool active_ = false;
};

}  // namespace

bool Console::interactive() const { return isatty(input_) == 1; }

void Console::ask(const std::string& question) const {
  if (!interactive()) return;
  std::fputs(question.c_str(), output_);
  std::fflush(output_);
}

std::optional<std::string> Console::line() const {
  std::string line;
  char c = 0;
  bool any = false;
  for (;;) {
    const ssize_t n = read(input_, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    any = true;
    if (c == '\n') break;
    line.push_back(c);
  }
  if (!any) return std::nullopt;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

SecretBytes Console::secretLine(size_t maxSize) const {
  EchoOff echoOff(input_, output_, interactive());
  SecretBytes buffer(maxSize + 1);
  size_t size = 0;
  char c = 0;
  for (;;) {
    const ssize_t n = read(input_, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0 || c == '\n') break;
    if (size == buffer.size()) {
      wipe(&c, 1);
      throw Refusal("That value is longer than this phone will send.");
    }
    buffer.mutableData()[size++] = static_cast<uint8_t>(c);
  }
  wipe(&c, 1);
  if (size > 0 && buffer.reveal()[size - 1] == '\r') --size;
  return SecretBytes(buffer.reveal().first(size));
}

}  // namespace tolvanger::phone
