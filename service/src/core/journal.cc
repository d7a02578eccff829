#include "tolvanger/service/journal.h"

#include <time.h>

#include <algorithm>
#include <chrono>

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

Journal::Clock Journal::defaultClock() {
  return [] {
    return static_cast<int64_t>(
        std::chrono::duration_cast<std::chrono::seconds>(
            std::chrono::system_clock::now().time_since_epoch())
            .count());
  };
}

Journal::Journal(Home home, Clock now)
    : home_(std::move(home)), now_(std::move(now)) {
  // Takes the zone once; localtime_r alone need not look at TZ again.
  tzset();
}

namespace {

// The line for one event at one moment, without its newline.
std::string line(int64_t at, std::string_view event,
                 const JournalFields& fields) {
  std::string out = clockText(at);
  out += ' ';
  out += event;
  // The map is ordered by key, so the items stand sorted.
  for (const auto& [key, value] : fields) {
    std::string text = value.text();
    std::replace(text.begin(), text.end(), '\n', ' ');
    out += ' ';
    out += key;
    out += '=';
    out += Text::prefix(text, kValueCharacters);
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
