#include "support/Faults.h"

namespace kestrowan::test {

namespace {

const char* nameOf(CallKind kind) {
  switch (kind) {
    case CallKind::enumerateItems:
      return "enumerateItems";
    case CallKind::item:
      return "item";
    case CallKind::fetchContents:
      return "fetchContents";
    case CallKind::createItem:
      return "createItem";
    case CallKind::modifyItem:
      return "modifyItem";
    case CallKind::deleteItem:
      return "deleteItem";
  }
  return "";
}

}  // namespace

std::string Call::text() const {
  std::string text = nameOf(kind);
  text += " " + path;
  if (!target.empty()) text += " -> " + target;
  if (size) text += " " + std::to_string(*size);
  if (kind == CallKind::createItem && isFolder) text += " folder";
  return text;
}

}  // namespace kestrowan::test
