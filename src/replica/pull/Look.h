#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "platform/foundation/NSError.h"
#include "replica/model/Edit.h"
#include "replica/pull/ListingMerge.h"
#include "replica/pull/NameForms.h"
#include "replica/pull/SlicedMerge.h"
#include "replica/pull/Touches.h"

namespace kestrowan::replica::pull {

/// One look at folders on its way: what was listed so far, and whether requests of ours may have
/// changed these folders meanwhile. It asks for nothing: its owner lists what it names, and has it
/// written then. On the loop.
class Look {
 public:
  /// All must outlive it. A folder that the provider has not got, or that is not known, is left
  /// out.
  Look(model::Tree& tree, const ListingMerge& merge, NameForms& forms, Touches& touches,
       std::vector<model::ItemNumber> folders, model::Time began);

  /// Where folders are that are to be listed next.
  const std::vector<model::Path>& paths() const { return paths_; }
  /// The folder at that path is asked for; and was listed: null when there is none.
  void noteAsked(const model::Path& path) { asked_[path] = nullptr; }
  void add(const model::Path& path, std::shared_ptr<const FolderListing> listing);
  /// It could not be listed, and may be no more, which the folder above tells.
  void fail(const model::Path& path, const NSError& error);
  /// Whether folders may have been asked for where they no longer are.
  bool isMisplaced() const;

  enum class Outcome : std::uint8_t {
    written,
    lacking,    // nothing is written: there are other paths to be listed first
    disturbed,  // nor here: requests of ours may have moved the folders meanwhile
    large,      // there is much: it is to be compared, and then to be written in slices
    more,       // another slice is to be written
  };
  /// Writes what was listed. `doubts`: what earlier looks left in doubt, and then this one. Throws
  /// what the journal does, and the error of a folder that failed and is shown by the one above;
  /// nothing is written then. Throws that of one that is not known to be gone afterwards.
  Outcome write(plan::Doubts& doubts);
  /// Of a large one: takes long, and may run beside the loop.
  void compare();
  /// After that. What was written before stays when it throws, or is disturbed.
  Outcome writeSlice(plan::Doubts& doubts);

  /// What the listing of one folder proves.
  struct Proof {
    model::ItemNumber folder = model::ItemNumber::none;
    bool isUnproved = false;
    bool hasRefused = false;
    /// When to look again for what it lacks and what is not believed yet.
    std::optional<std::chrono::milliseconds> again;
  };
  /// Lets go of what was listed: that takes long, too. Nothing else is to be asked afterwards.
  void forget();
  /// Of each folder that was written.
  const std::vector<Proof>& proofs() const { return proofs_; }

 private:
  void requireNoneListed() const;
  void requireGone(const model::State& state) const;
  void noteProofs(const model::State& state, const std::vector<model::ItemNumber>& unproved,
                  const plan::Doubts& doubts);

  model::Tree& tree_;
  const ListingMerge& merge_;
  NameForms& forms_;
  const Touches::Watch watch_;
  const std::vector<model::ItemNumber> folders_;
  const model::Time began_;
  std::vector<model::Path> paths_;
  FolderListings listings_;
  /// The folders that failed; their listings are null.
  std::map<model::Path, NSError> failed_;
  /// Where folders were asked for.
  FolderListings asked_;
  /// Of a large one.
  std::optional<SlicedMerge> slices_;
  std::vector<Proof> proofs_;
};

}  // namespace kestrowan::replica::pull
