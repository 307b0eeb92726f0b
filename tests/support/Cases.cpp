#include "support/Cases.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace kestrowan::test {

namespace {

std::string textMember(const JSONValue& value, std::string_view name) {
  const auto* member = value.member(name);
  return member && member->string() ? *member->string() : std::string();
}

double numberOf(const JSONValue& value) {
  return value.integer() ? static_cast<double>(*value.integer()) : *value.number();
}

bool isNumber(const JSONValue& value) {
  return value.integer() || value.number();
}

std::string replacingAll(std::string text, std::string_view from, const std::string& to) {
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

std::string repeated(const std::string& text, std::int64_t count) {
  std::string all;
  for (std::int64_t i = 0; i < count; ++i) all += replacingAll(text, "{i}", std::to_string(i));
  return all;
}

/// A recipe is a prefix, so many times "item" or "open", so many times "close", and a suffix.
std::string bytesOfRecipe(const JSONValue& recipe) {
  const auto* repeat = recipe.member("repeat");
  const std::int64_t count = repeat && repeat->integer() ? *repeat->integer() : 0;
  return textMember(recipe, "prefix") + repeated(textMember(recipe, "item"), count) +
         repeated(textMember(recipe, "open"), count) +
         repeated(textMember(recipe, "close"), count) + textMember(recipe, "suffix");
}

std::string inputBytes(const JSONValue& members) {
  if (const auto* recipe = members.member("input_recipe")) return bytesOfRecipe(*recipe);
  for (const auto* name : {"input_hex", "body_hex"}) {
    if (members.member(name)) return bytesFromHex(textMember(members, name));
  }
  return textMember(members, members.member("body") ? "body" : "input");
}

Case makeCase(const JSONValue& members) {
  Case made;
  made.id = textMember(members, "id");
  made.op = textMember(members, "op");
  made.certainty = textMember(members, "certainty");
  if (const auto* input = members.member("input")) made.input = *input;
  made.bytes = inputBytes(members);
  for (const auto* name : {"expected", "expected_hex"}) {
    if (const auto* expected = members.member(name)) made.expected = *expected;
  }
  if (const auto* acceptable = members.member("acceptable"); acceptable && acceptable->array()) {
    made.acceptable = *acceptable->array();
  }
  made.members = members;
  return made;
}

JSONValue parsedFile(std::string_view file) {
  const auto path = std::string(KFP_TEST_DATA "/").append(file).append(".json");
  std::ifstream stream(path, std::ios::binary);
  std::ostringstream text;
  text << stream.rdbuf();
  auto value = JSONValue::parse(text.str());
  if (!value) ADD_FAILURE() << path << " is missing or not well-formed";
  return value.value_or(JSONValue());
}

bool haveSameMembers(const JSONValue::Object& a, const JSONValue& b) {
  return a.size() == b.object()->size() && std::all_of(a.begin(), a.end(), [&](const auto& member) {
           const auto* other = b.member(member.first);
           return other && isSameJSON(member.second, *other);
         });
}

}  // namespace

bool isSameJSON(const JSONValue& a, const JSONValue& b) {
  if (a.integer() && b.integer()) return *a.integer() == *b.integer();
  if (isNumber(a) && isNumber(b)) return numberOf(a) == numberOf(b);
  if (a.object() && b.object()) return haveSameMembers(*a.object(), b);
  if (a.array() && b.array()) {
    return std::equal(a.array()->begin(), a.array()->end(), b.array()->begin(), b.array()->end(),
                      isSameJSON);
  }
  return a == b;
}

bool Case::accepts(const JSONValue& answer) const {
  return isSameJSON(answer, expected) ||
         std::any_of(acceptable.begin(), acceptable.end(),
                     [&](const JSONValue& other) { return isSameJSON(answer, other); });
}

std::vector<Case> casesOf(std::string_view file, std::string_view op) {
  std::vector<Case> cases;
  const auto whole = parsedFile(file);
  if (const auto* all = whole.member("cases"); all && all->array()) {
    for (const auto& members : *all->array()) {
      if (textMember(members, "op") == op) cases.push_back(makeCase(members));
    }
  }
  EXPECT_FALSE(cases.empty()) << "no cases for " << op << " in " << file;
  return cases;
}

void checkCases(std::string_view file, std::string_view op,
                const std::function<JSONValue(const Case&)>& answer,
                const KnownDifferences& differences) {
  std::size_t differencesSeen = 0;
  for (const auto& one : casesOf(file, op)) {
    const auto given = answer(one);
    if (const auto known = differences.find(one.id); known != differences.end()) {
      ++differencesSeen;
      EXPECT_NE(one.certainty, "certain") << one.id << " allows no difference";
      EXPECT_FALSE(one.accepts(given)) << one.id << " does not differ: " << known->second;
    } else {
      EXPECT_TRUE(one.accepts(given))
          << "answered " << given.serialized() << " to " << one.members.serialized();
    }
  }
  EXPECT_EQ(differencesSeen, differences.size()) << "a known difference names no case";
}

std::string hexFromBytes(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string hex;
  for (const char byte : bytes) {
    hex += kDigits[static_cast<unsigned char>(byte) >> 4];
    hex += kDigits[static_cast<unsigned char>(byte) & 15];
  }
  return hex;
}

std::string bytesFromHex(std::string_view hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
  }
  return bytes;
}

}  // namespace kestrowan::test
