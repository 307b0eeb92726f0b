#include "cli/drive/DriveArguments.h"

#include <stdexcept>
#include <utility>

#include "cli/JSONForms.h"
#include "platform/fileprovider/TemplateItem.h"

namespace kestrowan::cli {

namespace {

[[noreturn]] void refuse(std::string_view name, std::string_view why) {
  throw std::invalid_argument("\"" + std::string(name) + "\" " + std::string(why));
}

/// The member, or null when it is absent or JSON's null.
const JSONValue* present(const JSONValue& object, std::string_view name) {
  const JSONValue* member = object.member(name);
  return member == nullptr || member->isNull() ? nullptr : member;
}

/// The texts of an array; none when the member is absent or null.
std::vector<std::string> textsArgument(const JSONValue& request, std::string_view name) {
  std::vector<std::string> texts;
  const JSONValue* member = present(request, name);
  if (member == nullptr) return texts;
  if (member->array() == nullptr) refuse(name, "is no array");
  for (const auto& element : *member->array()) {
    if (element.string() == nullptr) refuse(name, "holds something that is no text");
    texts.push_back(*element.string());
  }
  return texts;
}

}  // namespace

std::optional<std::string> optionalTextArgument(const JSONValue& object, std::string_view name) {
  const JSONValue* member = present(object, name);
  if (member == nullptr) return std::nullopt;
  if (member->string() == nullptr) refuse(name, "is no text");
  return *member->string();
}

std::string textArgument(const JSONValue& object, std::string_view name) {
  auto text = optionalTextArgument(object, name);
  if (!text) refuse(name, "is missing");
  return *std::move(text);
}

std::optional<NSURL> contentsArgument(const JSONValue& request) {
  const auto path = optionalTextArgument(request, "contents");
  if (!path) return std::nullopt;
  return NSURL::fileURLWithPath(*path);
}

NSFileProviderItemVersion baseVersionArgument(const JSONValue& request) {
  const JSONValue* version = present(request, "baseVersion");
  if (version == nullptr) return {};
  return {textArgument(*version, "contentVersion"), textArgument(*version, "metadataVersion")};
}

NSFileProviderItemFields changedFieldsArgument(const JSONValue& request) {
  NSFileProviderItemFields fields = 0;
  for (const auto& name : textsArgument(request, "changedFields")) {
    const auto field = fieldNamed(name);
    if (!field) refuse("changedFields", "holds the unknown field \"" + name + "\"");
    fields |= *field;
  }
  return fields;
}

NSFileProviderDeleteItemOptions deleteOptionsArgument(const JSONValue& request) {
  NSFileProviderDeleteItemOptions options = 0;
  for (const auto& name : textsArgument(request, "options")) {
    if (name != "recursive") refuse("options", "holds the unknown option \"" + name + "\"");
    options |= NSFileProviderDeleteItemOption::recursive;
  }
  return options;
}

NSFileProviderItemPtr itemArgument(const JSONValue& request, bool identified) {
  const JSONValue* item = present(request, "item");
  if (item == nullptr || item->object() == nullptr) refuse("item", "is missing or no object");
  const auto type = optionalTextArgument(*item, "contentType");
  return std::make_shared<const TemplateItem>(TemplateItem::Values{
      .itemIdentifier = identified ? textArgument(*item, "itemIdentifier") : "",
      .parentItemIdentifier = textArgument(*item, "parentItemIdentifier"),
      .filename = textArgument(*item, "filename"),
      .contentType = type ? std::optional(UTType(*type)) : std::nullopt});
}

}  // namespace kestrowan::cli
