// Canonical JSON text: the one exact byte form of a request that both the
// service and the phone rebuild from its parsed form and sign. Objects have
// their keys sorted by UTF-8 bytes and restricted to a small grammar; values
// are booleans, portable whole numbers, texts, lists of text and objects of
// the same. There is no whitespace, and control characters are always
// written as `\u00xx`.
//
// Thread safety: `Canonical` is a namespace of pure functions; safe from any
// thread. `CanonicalError` is immutable after construction.
#ifndef TOLVANGER_KIT_CANONICAL_H_
#define TOLVANGER_KIT_CANONICAL_H_

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tolvanger {

// Why a value has no canonical form. `what()` is the description as callers
// show it: "key not canonical: <key>", "cannot encode <word>", "integer out of
// portable range: <integer>" or "top level must be an object".
class CanonicalError : public std::runtime_error {
 public:
  enum class Kind { kBadKey, kUnsupported, kOutOfRange, kNotAnObject };

  static CanonicalError badKey(std::string key);
  static CanonicalError unsupported(std::string word);
  static CanonicalError outOfRange(int64_t integer);
  static CanonicalError notAnObject();

  Kind kind() const { return kind_; }
  // The key (kBadKey) or the word (kUnsupported); empty otherwise.
  const std::string& detail() const { return detail_; }
  // The integer (kOutOfRange); 0 otherwise.
  int64_t integer() const { return integer_; }

 private:
  CanonicalError(Kind kind, std::string description, std::string detail,
                 int64_t integer);
  Kind kind_;
  std::string detail_;
  int64_t integer_;
};

namespace Canonical {

// 2^53. A whole number is portable when its magnitude is below this, so that
// every JSON reader holds it exactly.
inline constexpr int64_t maxInt = 9007199254740992;

// True when `key` has 1 to 32 characters, starts with `a`-`z` and continues
// with `a`-`z`, `0`-`9` or `_`.
bool isCanonicalKey(std::string_view key);

// The value of a JSON number (not a boolean) when it converts exactly to a
// 64-bit signed integer: integers as they are, floats such as 1.0 or 1e3 when
// they are whole and in range. Nothing for anything else. Does not check the
// portable range.
std::optional<int64_t> wholeNumber(const nlohmann::json& value);

// `text` quoted: backslash and double quote escaped, U+0000 to U+001F as
// `\u00xx` with lowercase digits, everything else as its own UTF-8 bytes.
// Throws CanonicalError::unsupported("text that is not UTF-8") when `text` is
// not well-formed UTF-8, since such bytes have no form the phone could rebuild.
std::string string(std::string_view text);

// The canonical form of one value: a boolean, a whole number of magnitude at
// most maxInt - 1, a text, a list of texts or an object. Throws CanonicalError
// for anything else (null, a fraction, a nested list, an object in a list).
std::string value(const nlohmann::json& any);

// The canonical form of an object: pairs sorted by the keys' UTF-8 bytes,
// each `"key":value`, joined by `,` inside `{}`. The first bad key or value in
// sorted order (depth first) decides the CanonicalError thrown. A non-object
// throws notAnObject. Nesting depth is bounded only by memory.
std::string encode(const nlohmann::json& object);

// Parses `text` as JSON and returns its canonical form. A parser failure is
// thrown as the parser's own nlohmann::json::exception: parse_error for text
// that is not JSON, including ill-formed UTF-8 or a lone surrogate in a
// string (what() names the position and the problem), out_of_range for a
// number too large for a double. A top level other than an object throws
// CanonicalError::notAnObject; the rest as `encode`.
std::string reencode(std::string_view text);

// SHA-256 over the text's bytes, as 64 lowercase hexadecimal digits.
std::string digestOfText(std::string_view text);

// digestOfText(encode(object)); throws as `encode`.
std::string digestOf(const nlohmann::json& object);

}  // namespace Canonical

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_CANONICAL_H_
