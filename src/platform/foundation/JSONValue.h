#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace kestrowan {

/// Any JSON value: null, boolean, whole number, number, string, array or object. Objects keep the
/// order in which their members were added. A plain value.
class JSONValue {
 public:
  using Array = std::vector<JSONValue>;
  using Object = std::vector<std::pair<std::string, JSONValue>>;

  JSONValue() = default;
  JSONValue(std::nullptr_t) {}
  JSONValue(bool value) : value_(value) {}
  JSONValue(int value) : value_(static_cast<std::int64_t>(value)) {}
  JSONValue(std::int64_t value) : value_(value) {}
  JSONValue(double value) : value_(value) {}
  JSONValue(const char* value) : value_(std::string(value)) {}
  JSONValue(std::string_view value) : value_(std::string(value)) {}
  JSONValue(std::string value) : value_(std::move(value)) {}
  JSONValue(Array value) : value_(std::move(value)) {}
  JSONValue(Object value) : value_(std::move(value)) {}
  /// The value, or null.
  template <typename T>
  JSONValue(const std::optional<T>& value) {
    if (value) *this = JSONValue(*value);
  }

  /// The value that `text` spells; nothing when it is not one well-formed JSON value in UTF-8, or
  /// nested more than 512 deep.
  static std::optional<JSONValue> parse(std::string_view text);
  /// The value as one line of JSON. Bytes that are not valid UTF-8 are written as U+FFFD.
  std::string serialized() const;

  bool isNull() const { return std::holds_alternative<std::monostate>(value_); }
  /// Pointers to the value when it is of that kind, else null.
  const bool* boolean() const { return std::get_if<bool>(&value_); }
  const std::int64_t* integer() const { return std::get_if<std::int64_t>(&value_); }
  const double* number() const { return std::get_if<double>(&value_); }
  const std::string* string() const { return std::get_if<std::string>(&value_); }
  const Array* array() const { return std::get_if<Array>(&value_); }
  const Object* object() const { return std::get_if<Object>(&value_); }
  /// The first member of that name; null when absent or when this is no object.
  const JSONValue* member(std::string_view name) const;

  friend bool operator==(const JSONValue&, const JSONValue&) = default;

 private:
  std::variant<std::monostate, bool, std::int64_t, double, std::string, Array, Object> value_;
};

}  // namespace kestrowan
