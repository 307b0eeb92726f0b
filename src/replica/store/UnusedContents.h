#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "async/Scope.h"
#include "replica/model/Tree.h"
#include "replica/store/ContentFiles.h"
#include "replica/store/History.h"
#include "replica/store/TreeJournal.h"

namespace kestrowan::replica::store {

/// Removes the files of contents that nothing refers to any more: no state of an item, no request
/// without an answer, no row of the history, and no caller that holds them. It does so a while
/// after, once a power failure cannot bring back a row that referred to them. Usable from every
/// thread.
class UnusedContents {
 public:
  /// Whether a caller holds contents. Asked under the tree's lock.
  using Question = std::function<bool(ContentNumber)>;

  /// All must outlive it.
  UnusedContents(const model::Tree& tree, async::Scope& scope, ContentFiles& files,
                 TreeJournal& journal, const History& history, Question isHeld);
  UnusedContents(const UnusedContents&) = delete;
  UnusedContents& operator=(const UnusedContents&) = delete;

  /// Counts what the states of an item refer to. From a watcher of the tree.
  void note(const model::ItemChange& change);
  /// Contents that perhaps nothing refers to.
  void add(const std::vector<ContentNumber>& numbers);
  /// Removes those of them that nothing refers to. Blocks on the disk; without a tree's lock. What
  /// cannot be done is a line in the log, and is tried again.
  void removeNow();
  /// The same for contents that could be fetched again: nothing is lost with them when a row comes
  /// back that refers to them.
  void removeAtOnce(const std::vector<ContentNumber>& numbers);

  /// Whether a state of an item refers to the contents.
  bool isReferredTo(ContentNumber number) const;

 private:
  struct Sorted {
    std::vector<ContentNumber> unused;
    std::vector<ContentNumber> busy;
  };

  void count(const model::Item* item, int by);
  void removeLater();
  std::vector<ContentNumber> removeUnused(std::vector<ContentNumber> numbers);
  Sorted sort(const std::vector<ContentNumber>& numbers) const;

  const model::Tree& tree_;
  async::Scope& scope_;
  ContentFiles& files_;
  TreeJournal& journal_;
  const History& history_;
  const Question isHeld_;

  mutable std::mutex mutex_;  // guards what follows; a leaf
  std::unordered_map<ContentNumber, std::uint32_t> references_;
  std::vector<ContentNumber> candidates_;
  bool isDue_ = false;
};

}  // namespace kestrowan::replica::store
