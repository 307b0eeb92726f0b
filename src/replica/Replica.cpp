#include "replica/Replica.h"

#include <cerrno>
#include <utility>

#include "platform/foundation/CaughtError.h"
#include "replica/Life.h"

namespace kestrowan::replica {

using model::ItemNumber;

namespace {

template <typename T>
Task<void> complete(Task<T> task, Completion<T> completion) {
  std::optional<Outcome<T>> outcome;
  try {
    outcome.emplace(co_await std::move(task));
  } catch (...) {
    outcome.emplace(caughtError());
  }
  completion(std::move(*outcome));
}

Task<void> complete(Task<void> task, Completion<Done> completion) {
  std::optional<NSError> error;
  try {
    co_await std::move(task);
  } catch (...) {
    error = caughtError();
  }
  if (error) {
    completion(*error);
  } else {
    completion(Done{});
  }
}

Task<void> completeFind(Task<ItemNumber> task, Completion<Rid> completion) {
  std::optional<Outcome<Rid>> outcome;
  try {
    outcome.emplace(static_cast<Rid>(co_await std::move(task)));
  } catch (...) {
    outcome.emplace(caughtError());
  }
  completion(std::move(*outcome));
}

}  // namespace

Replica::Replica(const std::string& directory, async::Loop& loop, Options options)
    : life_(std::make_unique<Life>(*this, directory, loop, std::move(options))) {}

Replica::~Replica() = default;

void Replica::setProvider(std::shared_ptr<NSFileProviderReplicatedExtension> provider) {
  life_->setProvider(std::move(provider));
}

void Replica::askForRoot(Completion<Done> completion) {
  life_->scope.start(
      complete(life_->refresher.prepare(ItemNumber::root, pull::Refresher::Need::forced),
               std::move(completion)));
}

void Replica::setObserver(Observer* observer) {
  life_->observer = observer;
}

void Replica::refuseNewWork() {
  life_->newWork.refuse();
}

void Replica::stop() {
  life_->stop();
}

void Replica::lookUp(Rid folder, std::string_view name, Completion<Attributes> completion) {
  life_->scope.start(complete(life_->folders.lookUp(ItemNumber{folder}, std::string(name)),
                              std::move(completion)));
}

Attributes Replica::attributes(Rid item) const {
  return life_->files.attributes(ItemNumber{item});
}

void Replica::setAttributes(Rid item, const AttributeChange& change,
                            Completion<Attributes> completion) {
  life_->scope.start(
      complete(life_->files.setAttributes(ItemNumber{item}, change), std::move(completion)));
}

void Replica::openFolder(Rid folder, Completion<std::shared_ptr<const FolderSnapshot>> completion) {
  life_->scope.start(complete(life_->folders.open(ItemNumber{folder}), std::move(completion)));
}

void Replica::closeFolder(Rid folder) {
  life_->folders.close(ItemNumber{folder});
}

void Replica::remember(Rid item) {
  life_->openItems.remember(ItemNumber{item});
}

void Replica::forget(Rid item, std::uint64_t count) {
  life_->openItems.forget(ItemNumber{item}, count);
}

void Replica::openFile(Rid item, OpenMode mode, Completion<std::shared_ptr<OpenFile>> completion) {
  if (mode.write && life_->newWork.isRefused()) {
    completion(posixError(EROFS));
    return;
  }
  life_->scope.start(complete(life_->files.open(ItemNumber{item}, mode), std::move(completion)));
}

void Replica::createFile(Rid folder, std::string_view name, std::uint16_t mode,
                         Completion<CreatedFile> completion) {
  life_->scope.start(
      complete(life_->nameCalls.createFile(ItemNumber{folder}, std::string(name), mode),
               std::move(completion)));
}

void Replica::makeFolder(Rid folder, std::string_view name, std::uint16_t mode,
                         Completion<Attributes> completion) {
  life_->scope.start(
      complete(life_->nameCalls.makeFolder(ItemNumber{folder}, std::string(name), mode),
               std::move(completion)));
}

void Replica::removeFile(Rid folder, std::string_view name, Completion<Done> completion) {
  life_->scope.start(complete(life_->nameCalls.removeFile(ItemNumber{folder}, std::string(name)),
                              std::move(completion)));
}

void Replica::removeFolder(Rid folder, std::string_view name, Completion<Done> completion) {
  life_->scope.start(complete(life_->nameCalls.removeFolder(ItemNumber{folder}, std::string(name)),
                              std::move(completion)));
}

void Replica::rename(Rid folder, std::string_view name, Rid newFolder, std::string_view newName,
                     bool replace, Completion<Done> completion) {
  calls::Names::Move move{{ItemNumber{folder}, std::string(name)},
                          {ItemNumber{newFolder}, std::string(newName)},
                          replace};
  life_->scope.start(complete(life_->nameCalls.rename(std::move(move)), std::move(completion)));
}

void Replica::flush(const std::shared_ptr<OpenFile>& file, Completion<Done> completion) {
  life_->scope.start(complete(life_->files.flush(file), std::move(completion)));
}

void Replica::fsync(const std::shared_ptr<OpenFile>& file, Completion<Done> completion) {
  life_->scope.start(complete(life_->files.fsync(file), std::move(completion)));
}

void Replica::fsyncFolder(Rid) {
  life_->fsyncFolder();
}

std::string Replica::userAttribute(Rid item, std::string_view name) const {
  return life_->files.userAttribute(ItemNumber{item}, name);
}

std::vector<std::string> Replica::userAttributes(Rid item) const {
  return life_->files.userAttributes(ItemNumber{item});
}

void Replica::setUserAttribute(Rid item, std::string_view name, std::string_view value,
                               SetMode mode) {
  life_->files.setUserAttribute(ItemNumber{item}, name, value, mode);
}

void Replica::removeUserAttribute(Rid item, std::string_view name) {
  life_->files.removeUserAttribute(ItemNumber{item}, name);
}

std::int64_t Replica::allocated(const Attributes& attributes) const {
  return life_->contentFiles.allocated(attributes.content).value_or(attributes.size);
}

ContentFiles::Space Replica::space() const {
  return life_->contentFiles.space();
}

ItemStatus Replica::itemStatus(Rid item) const {
  return life_->commands.itemStatus(ItemNumber{item});
}

void Replica::find(std::string_view path, Completion<Rid> completion) {
  life_->scope.start(completeFind(life_->folders.find(std::string(path)), std::move(completion)));
}

Status Replica::status(std::size_t limit) const {
  return life_->commands.status(limit);
}

void Replica::waitUntilSynced(std::chrono::milliseconds limit, Completion<Done> completion) {
  life_->scope.start(complete(life_->outbox.untilSynced(limit), std::move(completion)));
}

EvictionResult Replica::evict(Rid item) {
  return life_->commands.evict(ItemNumber{item});
}

void Replica::setPinned(Rid item, bool pinned) {
  life_->commands.setPinned(ItemNumber{item}, pinned);
}

void Replica::retry(Rid item) {
  life_->commands.retry(ItemNumber{item});
}

std::size_t Replica::discard(Rid item) {
  return life_->commands.discard(ItemNumber{item});
}

std::optional<HistoryEntry> Replica::historyEntry(ContentNumber entry) const {
  return life_->history.find(entry);
}

HistoryList Replica::history(const HistoryFilter& filter, std::size_t most) const {
  return life_->historyCalls.list(filter, most);
}

HistoryUsage Replica::clearHistory(const HistoryFilter& filter) {
  return life_->historyCalls.clear(filter);
}

void Replica::restore(ContentNumber entry, Rid folder, std::string_view name, NameTaken ifTaken,
                      Completion<std::string> completion) {
  life_->scope.start(
      complete(life_->historyCalls.restore(entry, ItemNumber{folder}, std::string(name), ifTaken),
               std::move(completion)));
}

void Replica::waitUntilEnded(std::chrono::milliseconds limit) {
  life_->scope.waitUntilEmpty(limit);
}

}  // namespace kestrowan::replica
