// Readers for fields of JSON objects that arrive from outside: a socket line,
// an HTTP body, a file in the home. Each has one rule, the same everywhere:
//
// - an integer is a JSON number written without fraction or exponent whose
//   value fits in int64_t. A float (even 2.0), a boolean, a text and an
//   integer beyond int64_t are not integers: the reader gives nothing, and the
//   caller decides whether that is a default or a refusal;
// - a text is a JSON string;
// - a field of something that is not an object is absent.
//
// Thread safety: pure functions; safe from any thread.
#ifndef TOLVANGER_KIT_JSON_FIELDS_H_
#define TOLVANGER_KIT_JSON_FIELDS_H_

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tolvanger::JsonFields {

// `value` as an integer, by the rule above.
template <typename J>
std::optional<int64_t> integer(const J& value) {
  if (value.is_number_unsigned()) {
    const auto u = value.template get<uint64_t>();
    if (u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      return std::nullopt;
    }
    return static_cast<int64_t>(u);
  }
  if (value.is_number_integer()) return value.template get<int64_t>();
  return std::nullopt;
}

// The field `key` of `object` as an integer; nothing when it is absent.
template <typename J>
std::optional<int64_t> integer(const J& object, std::string_view key) {
  if (!object.is_object()) return std::nullopt;
  const auto it = object.find(key);
  if (it == object.end()) return std::nullopt;
  return integer(*it);
}

// The field `key` of `object` as a text; nothing when it is absent or not a
// string.
template <typename J>
std::optional<std::string> text(const J& object, std::string_view key) {
  if (!object.is_object()) return std::nullopt;
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return std::nullopt;
  return it->template get<std::string>();
}

// `value` as a list of texts; nothing when it is not an array or any item is
// not a string.
template <typename J>
std::optional<std::vector<std::string>> texts(const J& value) {
  if (!value.is_array()) return std::nullopt;
  std::vector<std::string> out;
  out.reserve(value.size());
  for (const auto& item : value) {
    if (!item.is_string()) return std::nullopt;
    out.push_back(item.template get<std::string>());
  }
  return out;
}

}  // namespace tolvanger::JsonFields

#endif  // TOLVANGER_KIT_JSON_FIELDS_H_
