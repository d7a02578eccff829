// The lasting record of what the service did: one text line an event,
// appended to `journal.log` in the home, which the desktop app shows.
//
// A line is the local time ("yyyy-MM-dd HH:mm:ss"), the event word, and one
// key=value item for each field in ascending order of key, separated by
// single blanks. A value is cut to its first 120 user-perceived characters.
// The event word, keys and values are then escaped in one place: blanks and
// other white space, "=", "%", control and formatting characters and bytes
// that are not UTF-8 are written "%XX", byte by byte. So no value, wherever
// it came from, can add an item or a line. No secret goes in a field.
//
// Thread safety: any thread may write. The lock is held only around the
// file's opening, writing and closing, so lines of concurrent writers never
// mix; the clock is read before it, so lines of nearly the same moment may
// stand in either order.
#ifndef TOLVANGER_SERVICE_JOURNAL_H_
#define TOLVANGER_SERVICE_JOURNAL_H_

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/service/home.h"

namespace tolvanger::service {

// A field's value: a text, an integer or a flag.
class JournalValue {
 public:
  JournalValue(const char* text) : value_(std::string(text)) {}
  JournalValue(std::string text) : value_(std::move(text)) {}
  JournalValue(std::string_view text) : value_(std::string(text)) {}
  JournalValue(bool flag) : value_(flag) {}
  template <std::integral T>
  requires(!std::same_as<T, bool>) JournalValue(T number) {
    if constexpr (std::unsigned_integral<T> && sizeof(T) >= sizeof(int64_t)) {
      // Above int64's range only as text, so the value is never misread.
      if (number > static_cast<T>(std::numeric_limits<int64_t>::max())) {
        value_ = std::to_string(number);
        return;
      }
    }
    value_ = static_cast<int64_t>(number);
  }

  // The plain form: text as it is, integers in decimal, "true" or "false".
  std::string text() const;

 private:
  std::variant<std::string, int64_t, bool> value_;
};

using JournalFields = std::map<std::string, JournalValue>;

class Journal {
 public:
  // The current time in whole seconds since 1970.
  using Clock = tolvanger::Clock;

  static constexpr std::string_view fileName = "journal.log";

  // Lines are stamped in the machine's time zone as it stands now.
  explicit Journal(Home home, Clock now = defaultClock());

  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  // Appends one line; the file is made with mode 0600 on first use. Never
  // fails: a line that cannot be written is lost.
  void write(std::string_view event, const JournalFields& fields = {})
      EXCLUDES(mu_);

  // The last `n` lines, oldest first, without newlines; blank lines are left
  // out. Empty when the file is missing, unreadable or not UTF-8.
  std::vector<std::string> tail(size_t n) const;

 private:
  static Clock defaultClock();

  const Home home_;
  const Clock now_;
  Mutex mu_;  // Serialises appends to journal.log.
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_JOURNAL_H_
