// Small helpers for protocol text that is ASCII by definition: header and
// host names, methods, blanks around a value, lists joined for a sentence.
// Bytes outside ASCII pass through unchanged.
//
// Thread safety: pure functions; safe from any thread.
#ifndef TOLVANGER_KIT_ASCII_H_
#define TOLVANGER_KIT_ASCII_H_

#include <string>
#include <string_view>

namespace tolvanger::Ascii {

// `text` with A-Z turned to a-z.
inline std::string lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

// `text` with a-z turned to A-Z.
inline std::string upper(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return out;
}

// `text` without the characters of `set` at either end; blanks and tabs
// unless told otherwise.
inline std::string_view trim(std::string_view text,
                             std::string_view set = " \t") {
  const size_t first = text.find_first_not_of(set);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(set) - first + 1);
}

// The items with `separator` between each two.
template <typename List>
std::string join(const List& items, std::string_view separator) {
  std::string out;
  bool first = true;
  for (const auto& item : items) {
    if (!first) out += separator;
    out += item;
    first = false;
  }
  return out;
}

}  // namespace tolvanger::Ascii

#endif  // TOLVANGER_KIT_ASCII_H_
