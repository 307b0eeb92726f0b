#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "platform/base/Task.h"
#include "replica/FileCalls.h"
#include "replica/calls/Files.h"
#include "replica/calls/NewWork.h"
#include "replica/calls/Rooms.h"

namespace kestrowan::replica::calls {

/// What programs do with names: what is made, removed and renamed. The calls are documented in
/// `FileCalls`; they are coroutines, which begin on the caller's thread and continue on the loop.
/// Throws `NSError`.
class Names {
 public:
  Names(const Rooms& rooms, Files& files, const NewWork& newWork);

  Task<CreatedFile> createFile(model::ItemNumber folder, std::string name, std::uint16_t mode);
  Task<Attributes> makeFolder(model::ItemNumber folder, std::string name, std::uint16_t mode);
  Task<void> removeFile(model::ItemNumber folder, std::string name);
  Task<void> removeFolder(model::ItemNumber folder, std::string name);

  struct Move {
    model::Place source;
    model::Place target;
    bool replaces = true;
  };
  Task<void> rename(Move move);

  /// Throws what prevents an item of that name in the folder, but for one that has it.
  void checkNewName(const model::State& state, const model::Item& folder, const std::string& name,
                    model::Kind kind) const;
  /// A new item of programs, with contents of no bytes. To be committed by the caller.
  model::ItemNumber makeItem(model::Edit& edit, const model::Place& place, model::Kind kind,
                             std::optional<std::uint16_t> mode, model::Content content) const;

  /// Ends the conflict that the item is a side of, if it is one. To be committed by the caller.
  void endConflict(model::Edit& edit, model::ItemNumber item) const;

 private:
  /// What a rename came to.
  struct Moved {
    model::ItemNumber item = model::ItemNumber::none;
    /// Its contents have to be fetched before it can be made.
    bool needsContents = false;
    std::optional<push::Verdicts::Expected> word;
  };

  bool staysHere(const std::string& name, model::Kind kind) const;
  void checkRemoval(const model::Item& item) const;
  const model::Item& requireChild(const model::State& state, const model::Place& place) const;
  void checkMove(const model::State& state, const Move& move) const;
  Task<void> prepare(model::ItemNumber folder, pull::Refresher::Need need);
  Task<model::ItemNumber> childToRemove(model::ItemNumber folder, std::string name,
                                        model::Kind kind);
  Task<void> removeItem(model::ItemNumber item);
  void leave(model::Edit& edit, model::ItemNumber item) const;
  void syncSource(const Move& move) const;
  Moved apply(Move move);
  Task<void> fetchWhileAnswered(model::ItemNumber file);
  Task<void> fetchFor(model::ItemNumber file, std::shared_ptr<OneShot<void>> shot);
  Task<void> watchFetch(model::ItemNumber file, std::shared_ptr<OneShot<void>> shot);

  const Rooms& rooms_;
  Files& files_;
  const NewWork& newWork_;
};

}  // namespace kestrowan::replica::calls
