#include "mount/EventCall.h"

namespace kestrowan::mount {

using replica::ItemKind;
using replica::NameChange;

namespace {

EventCall callOf(const NameChange& change, EventKind kind, replica::Rid item,
                 replica::Rid other = 0) {
  return {kind, change.folder, change.name, item, other};
}

/// The calls for a name that is free before, or bears a file that is replaced.
EventCall comingOf(const NameChange& change, replica::Rid replaced) {
  if (change.now->kind == ItemKind::folder) {
    return callOf(change, EventKind::makeFolder, change.now->item);
  }
  return callOf(change, EventKind::placeFile, change.now->item, replaced);
}

/// The calls for a file in the place of `replaced`, which is 0 for the file itself. File managers
/// take one that is moved over a name that they show for gone, until its attributes change.
std::vector<EventCall> replacing(const NameChange& change, replica::Rid replaced) {
  return {comingOf(change, replaced), callOf(change, EventKind::touch, change.now->item)};
}

}  // namespace

std::vector<EventCall> callsFor(const NameChange& change) {
  const auto& before = change.before;
  const auto& now = change.now;
  if (!before && !now) return {};
  if (!before) return {comingOf(change, 0)};
  if (before == now) {
    if (change.hasOtherContents && now->kind == ItemKind::file) return replacing(change, 0);
    return {callOf(change, EventKind::touch, now->item)};
  }
  const bool isFile = before->kind == ItemKind::file;
  if (now && isFile && now->kind == ItemKind::file) return replacing(change, before->item);
  std::vector<EventCall> calls = {callOf(change,
                                         isFile ? EventKind::removeFile : EventKind::removeFolder,
                                         before->item, now ? now->item : 0)};
  if (now) calls.push_back(comingOf(change, 0));
  return calls;
}

EventCall callForFolder(replica::Rid folder) {
  return {EventKind::touch, folder, {}, folder, 0};
}

}  // namespace kestrowan::mount
