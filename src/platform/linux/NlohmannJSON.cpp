#include <charconv>

#include "platform/foundation/JSONValue.h"
#include "platform/foundation/UTF8.h"
#include "platform/linux/NlohmannSax.h"

namespace kestrowan {

namespace {

/// Builds the value from the events; the open arrays and objects stand on a stack.
class ValueReader : public NlohmannSax {
 public:
  JSONValue take() { return std::move(result_); }

  bool null() override { return add(nullptr); }
  bool boolean(bool value) override { return add(value); }
  bool number_integer(number_integer_t value) override { return add(value); }
  bool number_unsigned(number_unsigned_t value) override {
    if (value > INT64_MAX) return add(static_cast<double>(value));
    return add(static_cast<std::int64_t>(value));
  }
  bool number_float(number_float_t value, const string_t&) override { return add(value); }
  bool string(string_t& text) override { return add(std::move(text)); }
  bool key(string_t& name) override {
    open_.back().name = std::move(name);
    return true;
  }
  bool start_object(std::size_t) override { return begin(true); }
  bool end_object() override {
    auto members = std::move(open_.back().object);
    return end() && add(std::move(members));
  }
  bool start_array(std::size_t) override { return begin(false); }
  bool end_array() override {
    auto elements = std::move(open_.back().array);
    return end() && add(std::move(elements));
  }

 private:
  struct Open {
    bool isObject;
    std::string name;
    JSONValue::Object object;
    JSONValue::Array array;
  };

  bool begin(bool isObject) {
    open_.push_back({isObject, {}, {}, {}});
    return enter();
  }

  bool end() {
    open_.pop_back();
    leave();
    return true;
  }

  bool add(JSONValue value) {
    if (open_.empty()) {
      result_ = std::move(value);
    } else if (auto& parent = open_.back(); parent.isObject) {
      parent.object.emplace_back(std::move(parent.name), std::move(value));
    } else {
      parent.array.push_back(std::move(value));
    }
    return true;
  }

  std::vector<Open> open_;
  JSONValue result_;
};

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

bool isPlain(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte >= 0x20 && byte < 0x80 && byte != '"' && byte != '\\';
}

void appendEscaped(std::string& out, char character) {
  constexpr std::string_view kHex = "0123456789abcdef";
  switch (character) {
    case '"':
      out += "\\\"";
      return;
    case '\\':
      out += "\\\\";
      return;
    case '\b':
      out += "\\b";
      return;
    case '\f':
      out += "\\f";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
    default:
      out += "\\u00";
      out += kHex[static_cast<unsigned char>(character) >> 4];
      out += kHex[static_cast<unsigned char>(character) & 15];
  }
}

void append(std::string& out, std::string_view text) {
  out += '"';
  while (!text.empty()) {
    std::size_t plain = 0;
    while (plain < text.size() && isPlain(text[plain])) ++plain;
    out += text.substr(0, plain);
    text.remove_prefix(plain);
    if (text.empty()) break;
    const auto length = utf8SequenceLength(text);
    if (length == 1) {
      appendEscaped(out, text.front());
    } else {
      out += length == 0 ? kReplacement : text.substr(0, length);
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  out += '"';
}

void append(std::string& out, std::int64_t number) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  out.append(digits, end);
}

void append(std::string& out, const JSONValue& value);

void append(std::string& out, const JSONValue::Array& elements) {
  out += '[';
  bool isFirst = true;
  for (const auto& element : elements) {
    if (!isFirst) out += ',';
    isFirst = false;
    append(out, element);
  }
  out += ']';
}

void append(std::string& out, const JSONValue::Object& members) {
  out += '{';
  bool isFirst = true;
  for (const auto& [name, value] : members) {
    if (!isFirst) out += ',';
    isFirst = false;
    append(out, std::string_view(name));
    out += ':';
    append(out, value);
  }
  out += '}';
}

void append(std::string& out, const JSONValue& value) {
  if (const auto* text = value.string()) {
    append(out, std::string_view(*text));
  } else if (const auto* integer = value.integer()) {
    append(out, *integer);
  } else if (const auto* boolean = value.boolean()) {
    out += *boolean ? "true" : "false";
  } else if (const auto* number = value.number()) {
    out += nlohmann::json(*number).dump();
  } else if (const auto* array = value.array()) {
    append(out, *array);
  } else if (const auto* object = value.object()) {
    append(out, *object);
  } else {
    out += "null";
  }
}

}  // namespace

std::optional<JSONValue> JSONValue::parse(std::string_view text) {
  ValueReader reader;
  if (!readJSON(text, reader)) return std::nullopt;
  return reader.take();
}

std::string JSONValue::serialized() const {
  std::string text;
  append(text, *this);
  return text;
}

const JSONValue* JSONValue::member(std::string_view name) const {
  if (const auto* members = object()) {
    for (const auto& [itsName, value] : *members) {
      if (itsName == name) return &value;
    }
  }
  return nullptr;
}

}  // namespace kestrowan
