#include "replica/Replica.h"

#include <cerrno>
#include <utility>

#include "replica/Implementation.h"

namespace kestrowan::replica {

namespace {

constexpr std::size_t kMostAttributeBytes = 65536;

/// Runs `call`, which completes or throws.
template <typename T, typename Call>
void completing(const Completion<T>& completion, Call&& call) {
  try {
    call();
  } catch (const NSError& error) {
    completion(error);
  }
}

}  // namespace

Replica::Replica(const std::string& directory, async::Loop& loop, Options options)
    : implementation_(
          std::make_shared<Implementation>(*this, directory, loop, std::move(options))) {}

Replica::~Replica() = default;

void Replica::setProvider(std::shared_ptr<NSFileProviderReplicatedExtension> provider) {
  implementation_->setProvider(std::move(provider));
}

void Replica::askForRoot(Completion<Done> completion) {
  completing(completion, [&] { implementation_->askForRoot(completion); });
}

void Replica::setObserver(Observer* observer) {
  std::lock_guard lock(implementation_->core.mutex);
  implementation_->core.observer = observer;
}

void Replica::refuseNewWork() {
  std::lock_guard lock(implementation_->core.mutex);
  implementation_->core.refusesNewWork = true;
}

void Replica::stop() {
  implementation_->stop();
}

void Replica::waitUntilEnded(std::chrono::milliseconds limit) {
  implementation_->core.loop.waitUntilEmpty(limit);
}

void Replica::lookUp(Rid folder, std::string_view name, Completion<Attributes> completion) {
  completing(completion, [&] { implementation_->lookUp(folder, name, completion); });
}

Attributes Replica::attributes(Rid item) const {
  const auto& core = implementation_->core;
  std::lock_guard lock(core.mutex);
  return core.attributes(*core.require(item));
}

void Replica::setAttributes(Rid item, const AttributeChange& change,
                            Completion<Attributes> completion) {
  completing(completion, [&] { implementation_->setAttributes(item, change, completion); });
}

void Replica::openFolder(Rid folder, Completion<std::shared_ptr<const FolderSnapshot>> completion) {
  completing(completion, [&] { implementation_->openFolder(folder, completion); });
}

void Replica::closeFolder(Rid folder) {
  std::lock_guard lock(implementation_->core.mutex);
  if (const auto item = implementation_->core.table.find(folder)) {
    implementation_->lister.setOpen(item, false);
  }
}

void Replica::remember(Rid item) {
  std::lock_guard lock(implementation_->core.mutex);
  if (const auto known = implementation_->core.table.find(item)) ++known->lookups;
}

void Replica::forget(Rid item, std::uint64_t count) {
  std::lock_guard lock(implementation_->core.mutex);
  const auto known = implementation_->core.table.find(item);
  if (!known) return;
  known->lookups -= std::min(known->lookups, count);
  implementation_->core.releaseIfUnused(known);
}

void Replica::openFile(Rid item, OpenMode mode, Completion<std::shared_ptr<OpenFile>> completion) {
  completing(completion, [&] { implementation_->openFile(item, mode, completion); });
}

void Replica::createFile(Rid folder, std::string_view name, std::uint16_t mode,
                         Completion<CreatedFile> completion) {
  completing(completion,
             [&] { implementation_->createFile(folder, std::string(name), mode, completion); });
}

void Replica::makeFolder(Rid folder, std::string_view name, std::uint16_t mode,
                         Completion<Attributes> completion) {
  completing(completion,
             [&] { implementation_->makeFolder(folder, std::string(name), mode, completion); });
}

void Replica::removeFile(Rid folder, std::string_view name, Completion<Done> completion) {
  completing(completion,
             [&] { implementation_->removeFile(folder, std::string(name), completion); });
}

void Replica::removeFolder(Rid folder, std::string_view name, Completion<Done> completion) {
  completing(completion,
             [&] { implementation_->removeFolder(folder, std::string(name), completion); });
}

void Replica::rename(Rid folder, std::string_view name, Rid newFolder, std::string_view newName,
                     bool replace, Completion<Done> completion) {
  completing(completion, [&] {
    implementation_->rename({folder, std::string(name), newFolder, std::string(newName), replace},
                            completion);
  });
}

void Replica::flush(const std::shared_ptr<OpenFile>& file, Completion<Done> completion) {
  completing(completion, [&] { implementation_->flush(file, completion); });
}

void Replica::fsync(const std::shared_ptr<OpenFile>& file, Completion<Done> completion) {
  completing(completion, [&] { implementation_->fsync(file, completion); });
}

void Replica::fsyncFolder(Rid) {
  // A name is nothing without the contents behind it.
  auto& core = implementation_->core;
  core.contents.syncNames();
  {
    std::lock_guard lock(core.mutex);
    core.rows.requireWritten();
  }
  core.store.sync();
}

std::string Replica::userAttribute(Rid item, std::string_view name) const {
  const auto& core = implementation_->core;
  std::lock_guard lock(core.mutex);
  const auto known = core.require(item);
  if (!known->attributes) throw posixError(ENODATA);
  const auto found = known->attributes->find(std::string(name));
  if (found == known->attributes->end()) throw posixError(ENODATA);
  return found->second;
}

std::vector<std::string> Replica::userAttributes(Rid item) const {
  const auto& core = implementation_->core;
  std::lock_guard lock(core.mutex);
  std::vector<std::string> names;
  const auto known = core.require(item);
  if (!known->attributes) return names;
  for (const auto& attribute : *known->attributes) names.push_back(attribute.first);
  return names;
}

void Replica::setUserAttribute(Rid item, std::string_view name, std::string_view value,
                               SetMode mode) {
  auto& core = implementation_->core;
  std::lock_guard lock(core.mutex);
  const auto known = core.require(item);
  AttributeMap attributes = known->attributes ? *known->attributes : AttributeMap();
  const bool isThere = attributes.contains(std::string(name));
  if (isThere && mode == SetMode::create) throw posixError(EEXIST);
  if (!isThere && mode == SetMode::replace) throw posixError(ENODATA);
  attributes[std::string(name)] = std::string(value);
  std::size_t bytes = 0;
  for (const auto& attribute : attributes)
    bytes += attribute.first.size() + attribute.second.size();
  if (bytes > kMostAttributeBytes) throw posixError(ENOSPC);
  known->attributes = std::move(attributes);
  core.stamp(*known);
  if (known->gone) return;
  core.save(known);
  core.rows.requireWritten();
}

void Replica::removeUserAttribute(Rid item, std::string_view name) {
  auto& core = implementation_->core;
  std::lock_guard lock(core.mutex);
  const auto known = core.require(item);
  if (!known->attributes || known->attributes->erase(std::string(name)) == 0) {
    throw posixError(ENODATA);
  }
  if (known->attributes->empty()) known->attributes.reset();
  core.stamp(*known);
  if (known->gone) return;
  core.save(known);
  core.rows.requireWritten();
}

std::int64_t Replica::allocated(const Attributes& attributes) const {
  const auto& contents = implementation_->core.contents;
  return contents.allocated(attributes.content).value_or(attributes.size);
}

ContentFiles::Space Replica::space() const {
  return implementation_->core.contents.space();
}

ItemStatus Replica::itemStatus(Rid item) const {
  const auto& core = implementation_->core;
  std::lock_guard lock(core.mutex);
  return implementation_->itemStatus(*core.require(item));
}

void Replica::find(std::string_view path, Completion<Rid> completion) {
  implementation_->find(std::string(path), std::move(completion));
}

Status Replica::status(std::size_t limit) const {
  return implementation_->status(limit);
}

Cost Replica::cost() const {
  return implementation_->cost();
}

void Replica::waitUntilSynced(std::chrono::milliseconds limit, Completion<Done> completion) {
  implementation_->sender.waitUntilSynced(limit, std::move(completion));
}

EvictionResult Replica::evict(Rid item) {
  return implementation_->evict(item);
}

void Replica::setPinned(Rid item, bool pinned) {
  implementation_->setPinned(item, pinned);
}

void Replica::retry(Rid item) {
  implementation_->retry(item);
}

std::size_t Replica::discard(Rid item) {
  return implementation_->discard(item);
}

std::optional<HistoryEntry> Replica::historyEntry(ContentNumber entry) const {
  auto& core = implementation_->core;
  std::lock_guard lock(core.mutex);
  return core.departures.history().find(entry);
}

HistoryList Replica::history(const HistoryFilter& filter, std::size_t most) const {
  return implementation_->history(filter, most);
}

HistoryUsage Replica::clearHistory(const HistoryFilter& filter) {
  return implementation_->clearHistory(filter);
}

void Replica::restore(ContentNumber entry, Rid folder, std::string_view name, NameTaken ifTaken,
                      Completion<std::string> completion) {
  completing(completion, [&] {
    implementation_->restore(entry, folder, std::string(name), ifTaken, completion);
  });
}

}  // namespace kestrowan::replica
