#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "replica/model/State.h"
#include "replica/pull/FolderListing.h"
#include "replica/store/TreeJournal.h"

namespace kestrowan::replica::pull {

/// Whether the provider changes the Unicode form of names that it is given, and what follows from
/// that: the name that was given is the one that programs see, and any of its forms leads to it.
/// Nothing of this applies before the provider was seen to do so; from then on it is known, in
/// later runs too. Usable from every thread.
class NameForms {
 public:
  /// `journal` must outlive it.
  explicit NameForms(store::TreeJournal& journal);

  /// What programs see under a name; null when there is nothing.
  const model::Item* child(const model::State& state, model::ItemNumber folder,
                           const std::string& name) const;

  /// Notes that a request gave this name to something; a listing is to show it.
  void noteGiven(model::ItemNumber folder, std::string_view name);
  /// Notes in which form the provider showed a name that it was given.
  void noteShown(std::string_view given, std::string_view shown);
  /// The listing with names as they are known here, or `listing` itself.
  std::shared_ptr<const FolderListing> known(const model::State& state, const model::Path& path,
                                             std::shared_ptr<const FolderListing> listing);
  /// Writes down what is new. Throws what the journal does; then it is still to be written.
  void keep();

 private:
  using Given = std::pair<model::ItemNumber, std::string>;

  /// Whether any name may be shown in another form.
  bool mayBeChanged() const;
  bool isGiven(model::ItemNumber folder, std::string_view name) const;
  void forgetSeen(const model::State& state, model::ItemNumber folder,
                  const FolderListing& listing);

  store::TreeJournal& journal_;
  std::atomic<bool> areChanged_;
  std::atomic<bool> isKept_;
  mutable std::mutex mutex_;
  std::set<Given> given_;  // guarded by mutex_
};

}  // namespace kestrowan::replica::pull
