#include "tolvanger/service/journal.h"

#include <time.h>
#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <cstdint>

#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/text.h"

namespace tolvanger::service {

namespace {

constexpr size_t kValueCharacters = 120;

std::string clockText(int64_t at) {
  time_t seconds = static_cast<time_t>(at);
  struct tm local;
  if (localtime_r(&seconds, &local) == nullptr) return "0000-00-00 00:00:00";
  char buf[64];
  size_t n = strftime(buf, sizeof(buf), "%Y-%m-%d %H:%M:%S", &local);
  return std::string(buf, n);
}

}  // namespace

std::string JournalValue::text() const {
  if (const auto* s = std::get_if<std::string>(&value_)) return *s;
  if (const auto* i = std::get_if<int64_t>(&value_)) return std::to_string(*i);
  return std::get<bool>(value_) ? "true" : "false";
}

Journal::Clock Journal::defaultClock() { return SystemClock::seconds; }

Journal::Journal(Home home, Clock now)
    : home_(std::move(home)), now_(std::move(now)) {
  // Takes the zone once; localtime_r alone need not look at TZ again.
  tzset();
}

namespace {

// True for a character that must not stand as itself on a line: one that
// could end an item or the line ("=", blanks and all other white space, line
// and paragraph separators), a control or formatting character, and "%",
// which introduces an escape.
bool escaped(UChar32 c) {
  if (c == '=' || c == '%' || c <= 0x20 || c == 0x7F) return true;
  if (c < 0x80) return false;
  switch (u_charType(c)) {
    case U_CONTROL_CHAR:
    case U_FORMAT_CHAR:
    case U_SPACE_SEPARATOR:
    case U_LINE_SEPARATOR:
    case U_PARAGRAPH_SEPARATOR:
      return true;
    default:
      return false;
  }
}

// `text` as it stands on a line: each byte of an escaped character, and
// each byte that is not part of valid UTF-8, becomes "%" and two upper-case
// hexadecimal digits. Every piece of a line passes through here, so nothing
// from outside can add an item or a line, or make the file other than UTF-8.
std::string encode(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  const auto length = static_cast<int64_t>(text.size());
  int64_t i = 0;
  while (i < length) {
    const int64_t begin = i;
    UChar32 c;
    U8_NEXT(bytes, i, length, c);
    if (c >= 0 && !escaped(c)) {
      out.append(text.substr(static_cast<size_t>(begin),
                             static_cast<size_t>(i - begin)));
      continue;
    }
    for (int64_t k = begin; k < i; ++k) {
      out += '%';
      out += kHex[bytes[k] >> 4];
      out += kHex[bytes[k] & 0xF];
    }
  }
  return out;
}

// The line for one event at one moment, without its newline.
std::string line(int64_t at, std::string_view event,
                 const JournalFields& fields) {
  std::string out = clockText(at);
  out += ' ';
  out += encode(event);
  // The map is ordered by key, so the items stand sorted.
  for (const auto& [key, value] : fields) {
    out += ' ';
    out += encode(key);
    out += '=';
    out += encode(Text::prefix(value.text(), kValueCharacters));
  }
  return out;
}

}  // namespace

void Journal::write(std::string_view event, const JournalFields& fields) {
  std::string text = line(now_(), event, fields);
  MutexLock lock(mu_);
  (void)home_.appendLine(fileName, text);
}

std::vector<std::string> Journal::tail(size_t n) const {
  std::vector<std::string> lines;
  std::optional<std::string> bytes = home_.read(fileName);
  if (!bytes || !Text::isValidUTF8(*bytes)) return lines;
  size_t start = 0;
  while (start < bytes->size()) {
    size_t end = bytes->find('\n', start);
    if (end == std::string::npos) end = bytes->size();
    if (end > start) lines.push_back(bytes->substr(start, end - start));
    start = end + 1;
  }
  if (lines.size() > n) {
    lines.erase(lines.begin(), lines.end() - static_cast<ptrdiff_t>(n));
  }
  return lines;
}

}  // namespace tolvanger::service
