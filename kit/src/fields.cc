#include "tolvanger/kit/fields.h"

#include <algorithm>

#include "tolvanger/kit/canonical.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/text.h"

namespace tolvanger {

using nlohmann::json;

namespace {

// One value of `Fields::from`, named `name` in the sentences it throws.
FieldValue fieldValue(const std::string& name, const json& value) {
  switch (value.type()) {
    case json::value_t::boolean:
      return FieldValue::flag(value.get<bool>());
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
    case json::value_t::number_float: {
      const std::optional<int64_t> whole = Canonical::wholeNumber(value);
      if (!whole || *whole >= Canonical::maxInt ||
          *whole <= -Canonical::maxInt) {
        throw ServiceError::refused(name + " is not a whole number");
      }
      return FieldValue::number(*whole);
    }
    case json::value_t::string: {
      const auto& text = value.get_ref<const std::string&>();
      if (Text::longerThan(text, Fields::maxText)) {
        throw ServiceError::refused(name + " is too long");
      }
      // In UTF-8 a scalar below U+0020 is exactly a byte below 0x20.
      const bool control = std::any_of(text.begin(), text.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x20 && c != '\n';
      });
      if (control) {
        throw ServiceError::refused(name + " has control characters in it");
      }
      return FieldValue::text(text);
    }
    case json::value_t::array: {
      if (value.size() > Fields::maxListItems) {
        throw ServiceError::refused(name + " has too many items");
      }
      FieldValue::List items;
      items.reserve(value.size());
      for (const json& item : value) {
        const std::string* text = item.get_ptr<const std::string*>();
        if (text == nullptr ||
            Text::longerThan(*text, Fields::maxListItemLength) ||
            text->find('\n') != std::string::npos) {
          throw ServiceError::refused(
              name + " must be a list of short one-line strings");
        }
        items.push_back(*text);
      }
      return FieldValue::list(std::move(items));
    }
    default:
      throw ServiceError::refused(
          name + " is not a kind of value a request can carry");
  }
}

}  // namespace

json FieldValue::any() const {
  switch (kind()) {
    case Kind::kText:
      return *asText();
    case Kind::kNumber:
      return *asNumber();
    case Kind::kFlag:
      return *asFlag();
    case Kind::kList:
      return *asList();
  }
  return nullptr;
}

Fields Fields::from(const json* value) {
  Fields fields;
  if (value == nullptr) return fields;
  if (!value->is_object()) {
    throw ServiceError::refused("fields must be an object");
  }
  if (value->size() > maxEntries) {
    throw ServiceError::refused("too many fields");
  }
  for (const auto& [key, item] : value->items()) {
    if (!Canonical::isCanonicalKey(key)) {
      throw ServiceError::refused("not a usable field name: " + key);
    }
    fields.entries.emplace(key, fieldValue(key, item));
  }
  return fields;
}

std::optional<std::string> Fields::text(const std::string& key) const {
  const auto it = entries.find(key);
  if (it == entries.end() || it->second.asText() == nullptr) {
    return std::nullopt;
  }
  return *it->second.asText();
}

std::optional<FieldValue> Fields::get(const std::string& key) const {
  const auto it = entries.find(key);
  if (it == entries.end()) return std::nullopt;
  return it->second;
}

void Fields::set(const std::string& key, std::string text) {
  set(key, FieldValue::text(std::move(text)));
}

void Fields::set(const std::string& key, FieldValue value) {
  entries.insert_or_assign(key, std::move(value));
}

void Fields::remove(const std::string& key) { entries.erase(key); }

json Fields::any() const {
  json object = json::object();
  for (const auto& [key, value] : entries) object[key] = value.any();
  return object;
}

}  // namespace tolvanger
