#include "mount/ExpectedCall.h"

#include <algorithm>

namespace kestrowan::mount {

using replica::ItemKind;
using replica::Rid;
using Kind = ExpectedLookup::Kind;

bool ExpectedCall::isAt(Rid folder, const std::string& name) const {
  return call_.folder == folder && call_.name == name && !name.empty();
}

ExpectedLookup ExpectedCall::lookUp(Rid folder, const std::string& name) const {
  if (isAt(folder, name)) {
    switch (call_.kind) {
      case EventKind::touch:
        return {Kind::item, call_.item};
      case EventKind::removeFile:
      case EventKind::removeFolder:
        return {Kind::departed, call_.item};
      case EventKind::placeFile:
        if (call_.other != 0) return {Kind::departed, call_.other};
        return {Kind::absent, 0};
      case EventKind::makeFolder:
        return {Kind::absent, 0};
    }
  }
  if (call_.kind == EventKind::placeFile) {
    if (folder == replica::kRootRid && name == kStagingName) return {Kind::staging, kStagingFolder};
    if (folder == kStagingFolder && name == kPlaceholderName) return {Kind::item, call_.item};
  }
  const auto step = std::find_if(path_.begin(), path_.end(), [&](const auto& each) {
    return each.folder == folder && each.name == name;
  });
  if (step != path_.end()) return {Kind::item, step->item};
  return {};
}

bool ExpectedCall::isMakingFolder(Rid folder, const std::string& name) const {
  return call_.kind == EventKind::makeFolder && isAt(folder, name);
}

bool ExpectedCall::isRemoving(Rid folder, const std::string& name, ItemKind kind) const {
  const auto removal = kind == ItemKind::folder ? EventKind::removeFolder : EventKind::removeFile;
  return call_.kind == removal && isAt(folder, name);
}

bool ExpectedCall::isPlacing(Rid folder, const std::string& name, Rid newFolder,
                             const std::string& newName) const {
  return call_.kind == EventKind::placeFile && folder == kStagingFolder &&
         name == kPlaceholderName && isAt(newFolder, newName);
}

bool ExpectedCall::isTouching(Rid item) const {
  return call_.kind == EventKind::touch && call_.item == item;
}

}  // namespace kestrowan::mount
