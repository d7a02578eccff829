// Counting and cutting text the way a person (and the phone) counts it: in
// user-perceived characters, that is extended grapheme clusters. Also the
// checks for well-formed UTF-8.
//
// Thread safety: pure functions; safe from any thread.
#ifndef TOLVANGER_KIT_TEXT_H_
#define TOLVANGER_KIT_TEXT_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tolvanger::Text {

// True when the bytes are well-formed UTF-8 (no overlongs, no surrogates,
// nothing above U+10FFFF).
bool isValidUTF8(std::string_view bytes);

// The number of user-perceived characters. Text that is not valid UTF-8
// counts each bad byte as one character.
size_t characterCount(std::string_view utf8);

// The first `n` user-perceived characters (the whole text if it has fewer).
std::string prefix(std::string_view utf8, size_t n);

// True when the text has more than `n` user-perceived characters; stops
// counting early, so it is cheap on long texts.
bool longerThan(std::string_view utf8, size_t n);

// The text's Unicode scalars. Invalid sequences give U+FFFD.
std::vector<char32_t> scalars(std::string_view utf8);

// Appends the UTF-8 form of a scalar; a surrogate or a value above U+10FFFF
// appends U+FFFD.
void appendUTF8(std::string& out, char32_t scalar);

// The bytes as UTF-8, each invalid sequence replaced by U+FFFD.
std::string repaired(std::string_view bytes);

// True for exactly the 29 scalars this system treats as whitespace when it
// folds a text onto one line or splits it into words: U+0009 to U+000D, U+001C
// to U+001F, U+0020, U+0085, U+00A0, U+1680, U+2000 to U+200A, U+2028,
// U+2029, U+202F, U+205F and U+3000. Zero-width spaces are not among them.
constexpr bool isWhitespace(char32_t c) {
  return (c >= 0x09 && c <= 0x0D) || (c >= 0x1C && c <= 0x20) || c == 0x85 ||
         c == 0xA0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200A) ||
         c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
         c == 0x3000;
}

}  // namespace tolvanger::Text

#endif  // TOLVANGER_KIT_TEXT_H_
