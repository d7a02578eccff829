#include "tolvanger/kit/text.h"

#include <unicode/ubrk.h>
#include <unicode/utext.h>
#include <unicode/utf8.h>

#include <memory>

namespace tolvanger::Text {

namespace {

struct BreakIteratorCloser {
  void operator()(UBreakIterator* it) const { ubrk_close(it); }
};

// One character break iterator per thread: opening one loads ICU's rules,
// which is far dearer than the walk itself.
UBreakIterator* characterIterator() {
  thread_local std::unique_ptr<UBreakIterator, BreakIteratorCloser> it = [] {
    UErrorCode status = U_ZERO_ERROR;
    UBreakIterator* raw = ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status);
    if (U_FAILURE(status)) raw = nullptr;
    return std::unique_ptr<UBreakIterator, BreakIteratorCloser>(raw);
  }();
  return it.get();
}

// Calls `f(end)` with the byte offset of the end of each character, in order,
// until it returns false. Returns false if ICU could not be used, in which
// case nothing was called.
template <typename F>
bool forEachBoundary(std::string_view utf8, F f) {
  UBreakIterator* it = characterIterator();
  if (it == nullptr) return false;
  UErrorCode status = U_ZERO_ERROR;
  UText text = UTEXT_INITIALIZER;
  utext_openUTF8(&text, utf8.data(), static_cast<int64_t>(utf8.size()),
                 &status);
  if (U_FAILURE(status)) return false;
  ubrk_setUText(it, &text, &status);
  if (U_FAILURE(status)) {
    utext_close(&text);
    return false;
  }
  for (int32_t end = ubrk_next(it); end != UBRK_DONE; end = ubrk_next(it)) {
    if (!f(static_cast<size_t>(end))) break;
  }
  utext_close(&text);
  return true;
}

}  // namespace

bool isValidUTF8(std::string_view bytes) {
  int32_t i = 0;
  const int32_t n = static_cast<int32_t>(bytes.size());
  const auto* s = reinterpret_cast<const uint8_t*>(bytes.data());
  while (i < n) {
    UChar32 c;
    U8_NEXT(s, i, n, c);
    if (c < 0) return false;
  }
  return true;
}

size_t characterCount(std::string_view utf8) {
  size_t count = 0;
  if (!forEachBoundary(utf8, [&](size_t) {
        ++count;
        return true;
      })) {
    return scalars(utf8).size();
  }
  return count;
}

bool longerThan(std::string_view utf8, size_t n) {
  if (utf8.size() <= n) return false;  // a character has at least one byte
  size_t count = 0;
  forEachBoundary(utf8, [&](size_t) { return ++count <= n; });
  return count > n;
}

std::string prefix(std::string_view utf8, size_t n) {
  if (n == 0) return {};
  size_t count = 0;
  size_t cut = utf8.size();
  forEachBoundary(utf8, [&](size_t end) {
    if (++count == n) {
      cut = end;
      return false;
    }
    return true;
  });
  return std::string(utf8.substr(0, cut));
}

std::vector<char32_t> scalars(std::string_view utf8) {
  std::vector<char32_t> out;
  out.reserve(utf8.size());
  int32_t i = 0;
  const int32_t n = static_cast<int32_t>(utf8.size());
  const auto* s = reinterpret_cast<const uint8_t*>(utf8.data());
  while (i < n) {
    UChar32 c;
    U8_NEXT(s, i, n, c);
    out.push_back(c < 0 ? U'\uFFFD' : static_cast<char32_t>(c));
  }
  return out;
}

void appendUTF8(std::string& out, char32_t scalar) {
  if (scalar > 0x10FFFF || (scalar >= 0xD800 && scalar <= 0xDFFF)) {
    scalar = U'\uFFFD';
  }
  uint8_t buffer[U8_MAX_LENGTH];
  int32_t length = 0;
  // The buffer always has room and the scalar is valid, so it cannot fail.
  U8_APPEND_UNSAFE(buffer, length, static_cast<UChar32>(scalar));
  out.append(reinterpret_cast<const char*>(buffer),
             static_cast<size_t>(length));
}

std::string repaired(std::string_view bytes) {
  if (isValidUTF8(bytes)) return std::string(bytes);
  std::string out;
  out.reserve(bytes.size() + 8);
  for (char32_t c : scalars(bytes)) appendUTF8(out, c);
  return out;
}

}  // namespace tolvanger::Text
