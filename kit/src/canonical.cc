#include "tolvanger/kit/canonical.h"

#include <charconv>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <type_traits>
#include <vector>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/digest.h"

namespace tolvanger {

using nlohmann::json;

// `encode` walks objects in the order of their own storage, which must be the
// order of the keys' UTF-8 bytes. nlohmann's default object is a std::map
// compared with std::less over std::string, and std::string compares through
// char_traits<char>, which orders characters as unsigned char: byte order.
static_assert(std::is_same_v<
              json::object_t,
              std::map<std::string, json, json::default_object_comparator_t>>);
static_assert(
    std::is_same_v<json::default_object_comparator_t, std::less<>> ||
    std::is_same_v<json::default_object_comparator_t, std::less<std::string>>);

CanonicalError::CanonicalError(Kind kind, std::string description,
                               std::string detail, int64_t integer)
    : std::runtime_error(std::move(description)),
      kind_(kind),
      detail_(std::move(detail)),
      integer_(integer) {}

CanonicalError CanonicalError::badKey(std::string key) {
  std::string description = "key not canonical: " + key;
  return CanonicalError(Kind::kBadKey, std::move(description), std::move(key),
                        0);
}

CanonicalError CanonicalError::unsupported(std::string word) {
  std::string description = "cannot encode " + word;
  return CanonicalError(Kind::kUnsupported, std::move(description),
                        std::move(word), 0);
}

CanonicalError CanonicalError::outOfRange(int64_t integer) {
  return CanonicalError(
      Kind::kOutOfRange,
      "integer out of portable range: " + std::to_string(integer), {}, integer);
}

CanonicalError CanonicalError::notAnObject() {
  return CanonicalError(Kind::kNotAnObject, "top level must be an object", {},
                        0);
}

namespace Canonical {

namespace {

// The length of the well-formed UTF-8 sequence that starts with the non-ASCII
// byte at s[i], or 0 if it is ill-formed (stray continuation, overlong,
// surrogate, beyond U+10FFFF, cut short).
size_t sequenceLength(const uint8_t* s, size_t i, size_t n) {
  const uint8_t lead = s[i];
  auto continues = [&](size_t k) {
    return i + k < n && (s[i + k] & 0xC0) == 0x80;
  };
  if (lead >= 0xC2 && lead <= 0xDF) return continues(1) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    if (!continues(1) || !continues(2)) return 0;
    const uint8_t second = s[i + 1];
    if (lead == 0xE0 && second < 0xA0) return 0;
    if (lead == 0xED && second > 0x9F) return 0;
    return 3;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    if (!continues(1) || !continues(2) || !continues(3)) return 0;
    const uint8_t second = s[i + 1];
    if (lead == 0xF0 && second < 0x90) return 0;
    if (lead == 0xF4 && second > 0x8F) return 0;
    return 4;
  }
  return 0;
}

// Appends the quoted text. Runs of bytes that need no escape are copied in
// one append each.
void appendString(std::string& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  const auto* s = reinterpret_cast<const uint8_t*>(text.data());
  const size_t n = text.size();
  out.push_back('"');
  size_t run = 0;
  size_t i = 0;
  while (i < n) {
    const uint8_t c = s[i];
    if (c >= 0x80) {
      const size_t length = sequenceLength(s, i, n);
      if (length == 0)
        throw CanonicalError::unsupported("text that is not UTF-8");
      i += length;
      continue;
    }
    if (c >= 0x20 && c != '"' && c != '\\') {
      ++i;
      continue;
    }
    out.append(text.data() + run, i - run);
    if (c == '"') {
      out.append("\\\"");
    } else if (c == '\\') {
      out.append("\\\\");
    } else {
      const char escape[] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
      out.append(escape, sizeof escape);
    }
    run = ++i;
  }
  out.append(text.data() + run, n - run);
  out.push_back('"');
}

void appendInteger(std::string& out, const json& number) {
  const std::optional<int64_t> whole = wholeNumber(number);
  if (!whole) throw CanonicalError::unsupported("non-integer number");
  if (*whole >= maxInt || *whole <= -maxInt) {
    throw CanonicalError::outOfRange(*whole);
  }
  char digits[24];
  const auto result = std::to_chars(digits, digits + sizeof digits, *whole);
  out.append(digits, result.ptr);
}

void appendObject(std::string& out, const json& object);

// Appends any value; objects go through appendObject.
void appendValue(std::string& out, const json& any) {
  switch (any.type()) {
    case json::value_t::boolean:
      out.append(any.get<bool>() ? "true" : "false");
      return;
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
    case json::value_t::number_float:
      appendInteger(out, any);
      return;
    case json::value_t::string:
      appendString(out, any.get_ref<const std::string&>());
      return;
    case json::value_t::array: {
      out.push_back('[');
      bool first = true;
      for (const json& item : any) {
        if (!item.is_string()) {
          throw CanonicalError::unsupported("a list item that is not text");
        }
        if (!first) out.push_back(',');
        first = false;
        appendString(out, item.get_ref<const std::string&>());
      }
      out.push_back(']');
      return;
    }
    case json::value_t::object:
      appendObject(out, any);
      return;
    case json::value_t::null:
      throw CanonicalError::unsupported("null");
    default:
      throw CanonicalError::unsupported(any.type_name());
  }
}

// Appends an object. Nested objects are walked with an explicit stack rather
// than by recursion, so deeply nested input cannot exhaust the thread's stack.
void appendObject(std::string& out, const json& object) {
  struct Frame {
    json::object_t::const_iterator next;
    json::object_t::const_iterator end;
    bool first;
  };
  std::vector<Frame> stack;
  const auto& top = object.get_ref<const json::object_t&>();
  out.push_back('{');
  stack.push_back({top.begin(), top.end(), true});
  while (!stack.empty()) {
    Frame& frame = stack.back();
    if (frame.next == frame.end) {
      out.push_back('}');
      stack.pop_back();
      continue;
    }
    const auto& [key, item] = *frame.next++;
    if (!isCanonicalKey(key)) throw CanonicalError::badKey(key);
    if (!frame.first) out.push_back(',');
    frame.first = false;
    // A canonical key is plain ASCII with nothing to escape.
    out.push_back('"');
    out.append(key);
    out.append("\":");
    if (item.is_object()) {
      const auto& inner = item.get_ref<const json::object_t&>();
      out.push_back('{');
      stack.push_back({inner.begin(), inner.end(), true});  // frame now stale
    } else {
      appendValue(out, item);
    }
  }
}

}  // namespace

bool isCanonicalKey(std::string_view key) {
  if (key.empty() || key.size() > 32) return false;
  if (key[0] < 'a' || key[0] > 'z') return false;
  for (const char c : key.substr(1)) {
    const bool ok =
        (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
    if (!ok) return false;
  }
  return true;
}

std::optional<int64_t> wholeNumber(const json& value) {
  switch (value.type()) {
    case json::value_t::number_integer:
      return value.get<int64_t>();
    case json::value_t::number_unsigned: {
      const uint64_t u = value.get<uint64_t>();
      if (u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        return std::nullopt;
      }
      return static_cast<int64_t>(u);
    }
    case json::value_t::number_float: {
      const double d = value.get<double>();
      // -2^63 <= d < 2^63, written so that NaN fails too.
      if (!(d >= -9223372036854775808.0 && d < 9223372036854775808.0)) {
        return std::nullopt;
      }
      if (std::trunc(d) != d) return std::nullopt;
      return static_cast<int64_t>(d);
    }
    default:
      return std::nullopt;
  }
}

std::string string(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  appendString(out, text);
  return out;
}

std::string value(const json& any) {
  std::string out;
  appendValue(out, any);
  return out;
}

std::string encode(const json& object) {
  if (!object.is_object()) throw CanonicalError::notAnObject();
  std::string out;
  appendObject(out, object);
  return out;
}

std::string reencode(std::string_view text) {
  const json parsed = json::parse(text.begin(), text.end());
  return encode(parsed);
}

std::string digestOfText(std::string_view text) {
  return crypto::sha256Hex(asBytes(text));
}

std::string digestOf(const json& object) {
  return digestOfText(encode(object));
}

}  // namespace Canonical

}  // namespace tolvanger
