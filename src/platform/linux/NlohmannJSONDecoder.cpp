#include <map>
#include <set>
#include <variant>

#include "platform/foundation/JSONDecoder.h"
#include "platform/foundation/JSONEncoding.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/WholeNumber.h"
#include "platform/linux/JSONText.h"
#include "platform/linux/NlohmannSax.h"

namespace kestrowan {

namespace {

/// A value that is neither a whole number nor text.
struct OtherValue {};

using Member = std::variant<OtherValue, std::int64_t, std::string>;
using MemberMap = std::map<std::string, Member, std::less<>>;

/// Collects the members of the outermost object.
class MemberReader : public NlohmannSax {
 public:
  MemberReader(MemberMap& members, const std::set<std::size_t>& brokenStrings)
      : members_(members), brokenStrings_(brokenStrings) {}

  bool null() override { return add(OtherValue()); }
  bool boolean(bool) override { return add(OtherValue()); }
  bool number_integer(number_integer_t value) override { return add(value); }
  bool number_unsigned(number_unsigned_t value) override {
    if (value > INT64_MAX) return add(OtherValue());
    return add(static_cast<std::int64_t>(value));
  }
  bool number_float(number_float_t, const string_t& token) override {
    if (const auto whole = wholeNumberFromJSONToken(token)) return add(*whole);
    return add(OtherValue());
  }
  bool string(string_t& text) override {
    if (brokenStrings_.contains(strings_++)) return add(OtherValue());
    return add(std::move(text));
  }
  bool key(string_t& name) override {
    ++strings_;
    if (depth() == 1) name_ = std::move(name);
    return true;
  }
  bool start_object(std::size_t) override {
    if (depth() > 0) add(OtherValue());
    return enter();
  }
  bool end_object() override { return finish(); }
  bool start_array(std::size_t) override { return add(OtherValue()) && enter(); }
  bool end_array() override { return finish(); }

 private:
  bool finish() {
    leave();
    return true;
  }

  /// Takes a value that stands where the reader is; false outside of any object.
  bool add(Member value) {
    if (depth() == 1) members_.try_emplace(name_, std::move(value));
    return depth() > 0;
  }

  MemberMap& members_;
  const std::set<std::size_t>& brokenStrings_;
  std::size_t strings_ = 0;  // so far
  std::string name_;
};

NSError decodingError(NSCocoaErrorCode code, std::string_view key) {
  return NSError(NSCocoaErrorDomain, code, {{"NSCodingPath", std::string(key)}});
}

}  // namespace

struct KeyedDecodingContainer::Members {
  MemberMap byName;

  const Member& member(std::string_view key) const {
    const auto found = byName.find(key);
    if (found == byName.end()) throw decodingError(NSCoderValueNotFoundError, key);
    return found->second;
  }

  template <typename Value>
  const Value& value(std::string_view key) const {
    const auto* value = std::get_if<Value>(&member(key));
    if (!value) throw decodingError(NSCoderReadCorruptError, key);
    return *value;
  }
};

KeyedDecodingContainer::KeyedDecodingContainer(std::string_view json)
    : members_(std::make_unique<Members>()) {
  const auto text = utf8FromJSONText(json);
  if (!text) throw decodingError(NSCoderReadCorruptError, "");
  const auto readable = readableJSON(*text);
  MemberReader reader(members_->byName, readable.brokenStrings);
  if (!readJSON(readable.text, reader)) throw decodingError(NSCoderReadCorruptError, "");
}

KeyedDecodingContainer::~KeyedDecodingContainer() = default;

std::int64_t KeyedDecodingContainer::decodeInt64(std::string_view key) const {
  return members_->value<std::int64_t>(key);
}

std::string KeyedDecodingContainer::decodeString(std::string_view key) const {
  return members_->value<std::string>(key);
}

}  // namespace kestrowan
