#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "replica/Core.h"
#include "replica/Fetcher.h"
#include "replica/Lister.h"
#include "replica/Replica.h"
#include "replica/Sender.h"
#include "replica/remote/Health.h"
#include "replica/store/UseMark.h"

namespace kestrowan::replica {

/// The replica's parts and what its calls consist of. The calls are documented in `Replica`; the
/// helpers below them are called with the lock held unless they say otherwise.
class Replica::Implementation {
 public:
  struct Copy;

  Implementation(Replica& replica, const std::string& directory, async::Loop& loop,
                 Options options);
  ~Implementation();

  Core core;
  remote::Health health;
  Lister lister;
  Fetcher fetcher;
  Sender sender;

  void setProvider(std::shared_ptr<NSFileProviderReplicatedExtension> provider);
  void askForRoot(Completion<Done> completion);
  void stop();

  void lookUp(Rid folder, std::string_view name, Completion<Attributes> completion);
  void openFolder(Rid folder, Completion<std::shared_ptr<const FolderSnapshot>> completion);
  void setAttributes(Rid item, const AttributeChange& change, Completion<Attributes> completion);
  void openFile(Rid item, OpenMode mode, Completion<std::shared_ptr<OpenFile>> completion);
  void flush(const std::shared_ptr<OpenFile>& file, Completion<Done> completion);
  void fsync(const std::shared_ptr<OpenFile>& file, Completion<Done> completion);

  void createFile(Rid folder, std::string name, std::uint16_t mode,
                  Completion<CreatedFile> completion);
  void makeFolder(Rid folder, std::string name, std::uint16_t mode,
                  Completion<Attributes> completion);
  void removeFile(Rid folder, std::string name, Completion<Done> completion);
  void removeFolder(Rid folder, std::string name, Completion<Done> completion);
  struct Move {
    Rid folder = 0;
    std::string name;
    Rid newFolder = 0;
    std::string newName;
    bool replace = true;
  };
  void rename(Move move, Completion<Done> completion);

  void find(std::string path, Completion<Rid> completion);
  Status status(std::size_t limit) const;
  Cost cost() const;
  ItemStatus itemStatus(const Item& item) const;
  EvictionResult evict(Rid item);
  void setPinned(Rid item, bool pinned);
  void retry(Rid item);
  std::size_t discard(Rid item);
  HistoryList history(const HistoryFilter& filter, std::size_t most);
  HistoryUsage clearHistory(const HistoryFilter& filter);
  void restore(ContentNumber entry, Rid folder, std::string name, NameTaken ifTaken,
               Completion<std::string> completion);

  /// What an `OpenFile` asks for. Without the lock.
  void prepareChange(const ItemPtr& item, Contents& contents);
  void noteChange(const ItemPtr& item, const Contents& contents);
  void closed(const OpenFile& file);

 private:
  void load();
  /// Whether the record was taken as it is.
  bool loadRecord(ItemRecord record);
  /// `isWhole` when every row has been taken.
  void repair(bool isWhole);
  void checkContents(const ItemPtr& item, const std::unordered_set<ContentNumber>& present);
  bool isProper(const Item& item) const;
  void forgetBasesWithoutFolder();
  std::size_t leaveOutImproper();
  void doubtFolders();
  void settleOrphans(const std::unordered_set<ContentNumber>& orphans, bool isWhole);
  void copyForHistory(const ItemPtr& item, const Contents& contents, int file, Copy& copy);
  void noteChangedContents(const ItemPtr& item, Contents& contents, Copy& copy, Copy& version);
  void checkSizeInHistory(ContentNumber number);
  void takeOverFormerRecovery();
  void itemChangedByListing(const ItemPtr& item);

  void explain(const ItemPtr& item, const NSError& error,
               const Completion<std::shared_ptr<OpenFile>>& completion);
  void fetchAndOpen(const ItemPtr& item, OpenMode mode,
                    const Completion<std::shared_ptr<OpenFile>>& completion);
  void finishOpen(const ItemPtr& item, OpenMode mode,
                  const Completion<std::shared_ptr<OpenFile>>& completion);
  std::shared_ptr<OpenFile> open(const ItemPtr& item, bool writable);
  /// Without the lock.
  void emptyContents(const ItemPtr& item);
  static void noteDates(Item& item, int file);
  void setModified(const ItemPtr& item, std::int64_t modified);

  /// Throws what forbids an item of that name in that folder.
  void checkNewName(const ItemPtr& folder, const std::string& name, ItemKind kind) const;
  void checkChangeable(const ItemPtr& folder) const;
  bool staysHere(const std::string& name, ItemKind kind) const;
  void requireWritten(const std::function<void()>& undo);
  void addNew(const ItemPtr& item);
  void removeItem(const ItemPtr& item, Completion<Done> completion);
  /// Both give the item whose contents have to be fetched before the move can be made, or null
  /// when it is made.
  ItemPtr applyMove(const Move& move, Completion<Done>& completion);
  void checkMove(const ItemPtr& source, const ItemPtr& target, const ItemPtr& newFolder,
                 const Move& move) const;
  void syncSource(const Move& move);
  void keepHereOnly(const ItemPtr& item);
  /// Fetches for a caller during whose wait the kernel lets nobody else at the folder: waits as
  /// long as the provider answers anything, and only shortly when it does not. Without the lock.
  void fetchWhileAnswered(const ItemPtr& item, Completion<Done> completion);
  struct FetchWaiter;
  void watchFetch(const std::shared_ptr<FetchWaiter>& waiter);
  std::vector<ItemPtr> subtree(const ItemPtr& item) const;
  std::vector<ItemStatus> pendingItems(std::size_t limit) const;
  void discardOne(const ItemPtr& item);

  void visitHistory(const HistoryFilter& filter,
                    const std::function<void(std::vector<HistoryEntry>)>& visit);
  std::string addRestored(const ItemPtr& folder, std::string name, NameTaken ifTaken,
                          const HistoryEntry& entry, ContentNumber copy);

  Replica& replica_;
  const std::string directory_;
  /// There are contents, and no rows.
  bool isLost_ = false;
  const UseMark useMark_;
};

}  // namespace kestrowan::replica
