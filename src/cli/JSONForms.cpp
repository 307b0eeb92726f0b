#include "cli/JSONForms.h"

#include <array>
#include <utility>

#include "cli/AnsweredError.h"
#include "host/FailureReason.h"
#include "replica/remote/AnswerTable.h"

namespace kestrowan::cli {

namespace {

namespace Field = NSFileProviderItemField;

constexpr std::array<std::pair<std::string_view, NSFileProviderItemFields>, 11> kFields = {{
    {"contents", Field::contents},
    {"filename", Field::filename},
    {"parentItemIdentifier", Field::parentItemIdentifier},
    {"lastUsedDate", Field::lastUsedDate},
    {"tagData", Field::tagData},
    {"favoriteRank", Field::favoriteRank},
    {"creationDate", Field::creationDate},
    {"contentModificationDate", Field::contentModificationDate},
    {"fileSystemFlags", Field::fileSystemFlags},
    {"extendedAttributes", Field::extendedAttributes},
    {"typeAndCreator", Field::typeAndCreator},
}};

/// A date as JSON: a whole number of seconds where it is one.
JSONValue seconds(NSDate date) {
  const double value = date.timeIntervalSince1970;
  const auto whole = static_cast<std::int64_t>(value);
  return static_cast<double>(whole) == value ? JSONValue(whole) : JSONValue(value);
}

}  // namespace

JSONValue jsonForm(const NSError& error) {
  JSONValue::Object userInfo;
  for (const auto& [key, value] : error.userInfo()) userInfo.emplace_back(key, value);
  return JSONValue::Object{{"domain", error.domain()},
                           {"code", error.code()},
                           {"localizedDescription", error.localizedDescription()},
                           {"userInfo", std::move(userInfo)}};
}

std::string_view reasonOf(const NSError& error) {
  const auto status = answerStatus(error);
  const bool isPlain = host::reasonOf(error) == "refused";
  return status && isPlain ? replica::remote::AnswerTable::meaning(*status).reason
                           : host::reasonOf(error);
}

JSONValue failureForm(const NSError& error, std::string_view reason) {
  JSONValue::Object userInfo;
  for (const auto& [key, value] : plainUserInfo(error)) userInfo.emplace_back(key, value);
  return JSONValue::Object{{"domain", error.domain()},
                           {"code", error.code()},
                           {"localizedDescription", error.localizedDescription()},
                           {"userInfo", std::move(userInfo)},
                           {"status", answerStatus(error)},
                           {"reason", reason}};
}

JSONValue failureForm(const NSError& error) {
  return failureForm(error, reasonOf(error));
}

JSONValue jsonForm(const std::optional<NSError>& error) {
  return error ? jsonForm(*error) : JSONValue();
}

JSONValue jsonForm(const NSFileProviderItemPtr& item) {
  if (!item) return {};
  JSONValue::Object form;
  form.reserve(8);
  form.emplace_back("itemIdentifier", item->itemIdentifier());
  form.emplace_back("parentItemIdentifier", item->parentItemIdentifier());
  form.emplace_back("filename", item->filename());
  const auto type = item->contentType();
  form.emplace_back("contentType", type ? JSONValue(type->identifier()) : JSONValue());
  form.emplace_back("capabilities", static_cast<std::int64_t>(item->capabilities()));
  form.emplace_back("documentSize", item->documentSize());
  const auto modified = item->contentModificationDate();
  form.emplace_back("contentModificationDate", modified ? seconds(*modified) : JSONValue());
  auto version = item->itemVersion();
  form.emplace_back("itemVersion",
                    JSONValue::Object{{"contentVersion", std::move(version.contentVersion)},
                                      {"metadataVersion", std::move(version.metadataVersion)}});
  return form;
}

JSONValue jsonForm(const std::vector<NSFileProviderItemPtr>& items) {
  JSONValue::Array forms;
  forms.reserve(items.size());
  for (const auto& item : items) forms.push_back(jsonForm(item));
  return forms;
}

JSONValue fieldNames(NSFileProviderItemFields fields) {
  JSONValue::Array names;
  for (const auto& [name, field] : kFields) {
    if ((fields & field) != 0) names.emplace_back(name);
  }
  return names;
}

std::optional<NSFileProviderItemFields> fieldNamed(std::string_view name) {
  for (const auto& [known, field] : kFields) {
    if (known == name) return field;
  }
  return std::nullopt;
}

}  // namespace kestrowan::cli
