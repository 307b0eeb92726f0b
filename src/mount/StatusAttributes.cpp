#include "mount/StatusAttributes.h"

#include "platform/foundation/NSString.h"
#include "platform/types/UTType.h"

namespace kestrowan::mount {

namespace {

constexpr std::string_view kPrefix = "user.kestrowan.";

std::string yesOrNo(bool yes) {
  return yes ? "yes" : "no";
}

std::optional<std::string> unlessEmpty(const std::string& text) {
  return text.empty() ? std::nullopt : std::optional(text);
}

std::string typeOf(const replica::ItemStatus& status) {
  if (status.kind == replica::ItemKind::folder) return UTType::folder().identifier();
  const auto extension = pathExtension(status.path);
  return UTType::type(extension, UTType::data()).value_or(UTType::data()).identifier();
}

}  // namespace

bool isStatusAttribute(std::string_view name) {
  return name.starts_with(kPrefix);
}

std::optional<std::string> statusAttribute(const replica::ItemStatus& status,
                                           std::string_view name) {
  if (!isStatusAttribute(name)) return std::nullopt;
  name.remove_prefix(kPrefix.size());
  if (name == "identifier") return unlessEmpty(status.identifier);
  if (name == "version") return unlessEmpty(status.version);
  if (name == "state") return replica::name(status.state);
  if (name == "type") return typeOf(status);
  if (name == "changes") return unlessEmpty(status.changes);
  if (name == "downloaded") return yesOrNo(status.downloaded);
  if (name == "pinned") return yesOrNo(status.pinned);
  if (name == "conflict") return unlessEmpty(status.conflict);
  if (name == "error" && status.failure) return unlessEmpty(status.failure->text);
  return std::nullopt;
}

}  // namespace kestrowan::mount
