#pragma once

#include <cstddef>
#include <string>
#include <unordered_set>
#include <vector>

#include "async/Loop.h"
#include "replica/model/Edit.h"
#include "replica/store/Contents.h"
#include "replica/store/History.h"
#include "replica/store/TreeJournal.h"

namespace kestrowan::replica::store {

/// Makes rows and files agree when a replica begins: a row without a file, a file without a row, a
/// file that is not what its row says. Whatever no row refers to goes to the history. Used once, by
/// one thread, before anything else uses the tree. Throws `NSError` as the journal and the files
/// do.
class StartRepair {
 public:
  /// All must outlive it. `machineStopped`: what was written and never synced may be less than the
  /// rows say.
  StartRepair(std::string directory, model::Tree& tree, Contents& contents, TreeJournal& journal,
              History& history, const async::Loop& loop, bool machineStopped);

  void run();

 private:
  /// What is to be changed of an item.
  struct Finding {
    model::ItemNumber item = model::ItemNumber::none;
    /// Contents that cannot be used.
    std::unordered_set<ContentNumber> unusable;
    /// Those that programs saw are among them, or there are none.
    bool isLostHere = false;
    /// Of contents that are nowhere else, as their file has them.
    std::optional<std::int64_t> size;
    std::optional<model::FileTime> modified;
  };

  void findOut();
  void checkFile(const model::Item& item);
  bool isUsable(const model::Item& item, ContentNumber content, Finding& finding) const;
  void mend(model::Edit& edit, const Finding& finding) const;
  void mendItems();
  void doubtFolders();
  std::unordered_set<ContentNumber> orphans() const;
  void keepOrphans();
  void takeOverFormerRecovery();
  void log(const char* what, std::size_t count) const;

  const std::string directory_;
  model::Tree& tree_;
  Contents& contents_;
  TreeJournal& journal_;
  History& history_;
  const async::Loop& loop_;
  const bool machineStopped_;

  std::unordered_set<ContentNumber> present_;
  std::unordered_set<ContentNumber> referredTo_;
  std::vector<Finding> findings_;
  /// The database knew of items that are missing now, or is older than the contents.
  bool isWhole_ = true;
  bool isOutdated_ = false;
  bool isLost_ = false;
};

}  // namespace kestrowan::replica::store
