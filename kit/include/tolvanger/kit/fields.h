// A request's typed parameters, as an agent may give them: a map from
// canonical keys to text, whole numbers, flags and lists of short texts.
// `Fields::from` is the gate on the way in: whatever it accepts has a
// canonical form (see canonical.h), within the size limits below.
//
// Thread safety: plain values; no shared state. Concurrent reads are safe,
// writes need the owner's own exclusion.
#ifndef TOLVANGER_KIT_FIELDS_H_
#define TOLVANGER_KIT_FIELDS_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace tolvanger {

// One field's value: exactly one of text, number, flag or list of text.
// Made only through the named constructors, so a literal can never turn into
// the wrong case. Equal when case and payload are equal.
class FieldValue {
 public:
  using List = std::vector<std::string>;
  enum class Kind { kText, kNumber, kFlag, kList };

  static FieldValue text(std::string text) {
    return FieldValue(std::in_place_index<0>, std::move(text));
  }
  static FieldValue number(int64_t number) {
    return FieldValue(std::in_place_index<1>, number);
  }
  static FieldValue flag(bool flag) {
    return FieldValue(std::in_place_index<2>, flag);
  }
  static FieldValue list(List items) {
    return FieldValue(std::in_place_index<3>, std::move(items));
  }

  Kind kind() const { return static_cast<Kind>(payload_.index()); }

  // The payload when the value is of that case; nullptr otherwise. The
  // pointer lives as long as this value is neither changed nor destroyed.
  const std::string* asText() const { return std::get_if<0>(&payload_); }
  const int64_t* asNumber() const { return std::get_if<1>(&payload_); }
  const bool* asFlag() const { return std::get_if<2>(&payload_); }
  const List* asList() const { return std::get_if<3>(&payload_); }

  // The payload as a plain JSON value: string, integer, boolean or array of
  // strings.
  nlohmann::json any() const;

  bool operator==(const FieldValue&) const = default;

 private:
  using Payload = std::variant<std::string, int64_t, bool, List>;
  // Builds the payload in place; a temporary variant moved in trips a false
  // uninitialised-use warning in GCC 12 under sanitizers.
  template <size_t I, typename T>
  FieldValue(std::in_place_index_t<I> index, T&& payload)
      : payload_(index, std::forward<T>(payload)) {}
  Payload payload_;
};

struct Fields {
  static constexpr size_t maxEntries = 24;
  // Limits in user-perceived characters, not bytes.
  static constexpr size_t maxText = 20000;
  static constexpr size_t maxListItems = 32;
  static constexpr size_t maxListItemLength = 256;

  std::map<std::string, FieldValue> entries;

  // Checks and types what an agent sent. `value` is nullptr when nothing was
  // given (an empty Fields results); a JSON null counts as given and is not
  // an object. Throws ServiceError::refused with the first problem met:
  // "fields must be an object", "too many fields", "not a usable field name:
  // <key>", "<key> is not a whole number", "<key> is too long", "<key> has
  // control characters in it", "<key> has too many items", "<key> must be a
  // list of short one-line strings", "<key> is not a kind of value a request
  // can carry". Text may hold newlines but no other control character; list
  // items may not hold a newline but are otherwise unchecked.
  static Fields from(const nlohmann::json* value);

  // The text under `key`; nothing when absent or of another case.
  std::optional<std::string> text(const std::string& key) const;
  // The entry under `key`, if any.
  std::optional<FieldValue> get(const std::string& key) const;
  // Sets an entry without any check (service code only).
  void set(const std::string& key, std::string text);
  void set(const std::string& key, FieldValue value);
  void remove(const std::string& key);

  // The entries as a JSON object of plain values, as Canonical::encode takes
  // it.
  nlohmann::json any() const;

  bool operator==(const Fields&) const = default;
};

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_FIELDS_H_
