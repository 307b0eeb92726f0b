#include "replica/store/StartRepair.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <utility>

#include "platform/foundation/CaughtError.h"
#include "platform/foundation/Logger.h"
#include "replica/Log.h"
#include "replica/model/View.h"
#include "replica/store/FormerRecovery.h"

namespace kestrowan::replica::store {

using model::Attributes;
using model::Content;
using model::Edit;
using model::FileTime;
using model::Here;
using model::Intent;
using model::Item;
using model::ItemNumber;
using model::Shared;
using model::State;
using model::There;
using model::Time;
using model::View;

namespace {

constexpr std::int64_t kNanoseconds = 1'000'000'000;

const Logger& replicaLog() {
  static const Logger log("com.kestrowan.app.FileProvider", "replica");
  return log;
}

ContentNumber plain(Content content) {
  return static_cast<ContentNumber>(content);
}

FileTime fileTime(const timespec& time) {
  return FileTime(std::chrono::nanoseconds(time.tv_sec * kNanoseconds + time.tv_nsec));
}

/// Programs are to see contents of which the item does not say what they are.
bool hasNothing(const Item& item) {
  return item.here() && item.here()->content == Content::none &&
         (!item.agreed() || item.agreed()->content != Content::none);
}

Shared<There> without(const Shared<There>& state,
                      const std::unordered_set<ContentNumber>& unusable) {
  if (!state || !unusable.contains(plain(state->content))) return state;
  There there = *state;
  there.content = Content::none;
  return there;
}

}  // namespace

StartRepair::StartRepair(std::string directory, model::Tree& tree, Contents& contents,
                         TreeJournal& journal, History& history, const async::Loop& loop,
                         bool machineStopped)
    : directory_(std::move(directory)),
      tree_(tree),
      contents_(contents),
      journal_(journal),
      history_(history),
      loop_(loop),
      machineStopped_(machineStopped) {}

void StartRepair::run() {
  findOut();
  mendItems();
  if (isOutdated_) doubtFolders();
  history_.load(present_);
  keepOrphans();
  if (journal_.leftOut() > 0) journal_.forgetLeftOut();
  takeOverFormerRecovery();
}

void StartRepair::log(const char* what, std::size_t count) const {
  replicaLog().error(std::string(what) + ": %{public}s", {std::to_string(count)});
}

void StartRepair::findOut() {
  for (const ContentNumber number : contents_.files().numbers()) present_.insert(number);
  const auto free = plain(journal_.firstFreeContent());
  isOutdated_ = std::any_of(present_.begin(), present_.end(),
                            [free](ContentNumber number) { return number >= free; });
  isWhole_ = journal_.leftOut() == 0 && !isOutdated_;
  if (journal_.leftOut() > 0) log("rows that make no sense were left out", journal_.leftOut());
  const View view(tree_);
  const bool isNew = view->count() == 1 && !view->root().attributes().modified;
  isLost_ = isNew && journal_.leftOut() == 0 && !present_.empty();
  view->forEach([this](const Item& item) {
    if (item.isFile()) checkFile(item);
  });
  for (const Intent& intent : view->intents().all()) referredTo_.insert(plain(intent.content));
}

/// Decides whether an item's contents can be used as they are.
void StartRepair::checkFile(const Item& item) {
  Finding finding;
  finding.item = item.number();
  std::unordered_set<ContentNumber> all;
  if (item.here()) all.insert(plain(item.here()->content));
  if (item.there()) all.insert(plain(item.there()->content));
  if (item.agreed()) all.insert(plain(item.agreed()->content));
  all.erase(0);
  for (const ContentNumber content : all) {
    if (isUsable(item, content, finding)) {
      referredTo_.insert(content);
    } else {
      finding.unusable.insert(content);
    }
  }
  finding.isLostHere =
      hasNothing(item) || (item.here() && finding.unusable.contains(plain(item.here()->content)));
  const bool isLost = finding.isLostHere || !finding.unusable.empty();
  if (isLost || finding.size || finding.modified) {
    findings_.push_back(std::move(finding));
  }
}

bool StartRepair::isUsable(const Item& item, ContentNumber content, Finding& finding) const {
  struct stat status;
  const auto path = contents_.files().path(content);
  const bool isPresent = present_.contains(content) && ::stat(path.c_str(), &status) == 0;
  if (!isPresent) return false;
  for (const Shared<There>* state : {&item.agreed(), &item.there()}) {
    if (!*state || plain((*state)->content) != content) continue;
    // What can be fetched again was never synced.
    return !machineStopped_ && status.st_size == (*state)->size;
  }
  const Attributes& attributes = item.attributes();
  if (attributes.size != status.st_size) finding.size = status.st_size;
  // It was written to after its row was.
  if (attributes.modified != fileTime(status.st_mtim)) {
    finding.modified = fileTime(status.st_mtim);
  }
  return true;
}

void StartRepair::mendItems() {
  Edit edit(tree_);
  for (const Finding& finding : findings_) mend(edit, finding);
  edit.commit();
  for (const Finding& finding : findings_) {
    for (const ContentNumber content : finding.unusable) {
      contents_.files().removeIfPossible(content);
      present_.erase(content);
    }
  }
}

void StartRepair::mend(Edit& edit, const Finding& finding) const {
  const Item& item = edit->item(finding.item);
  Attributes attributes = item.attributes();
  if (finding.size) attributes.size = finding.size;
  if (finding.modified) {
    attributes.modified = *finding.modified;
    attributes.changed = std::max(attributes.changed.value_or(FileTime()), *finding.modified);
  }
  if (finding.unusable.empty() && !finding.isLostHere) {
    edit.setAttributes(finding.item, std::move(attributes));
    return;
  }
  logItem("its contents are missing here", *edit, finding.item);
  edit.setThere(finding.item, without(item.there(), finding.unusable));
  edit.setAgreed(finding.item, without(item.agreed(), finding.unusable));
  if (finding.isLostHere) {
    if (!item.agreed() && !item.there()) {
      edit.drop(finding.item);
      return;
    }
    if (!item.agreed()) edit.setAgreed(finding.item, item.there());
    edit.setHere(finding.item, Here{item.here()->place, item.agreed()->content});
    attributes.size.reset();
    attributes.modified.reset();
  }
  attributes.changed = FileTime(Time(std::chrono::milliseconds(loop_.wallClock())));
  edit.setAttributes(finding.item, std::move(attributes));
}

/// Items are missing: what was known of folders is no proof any more.
void StartRepair::doubtFolders() {
  std::vector<ItemNumber> folders;
  {
    const View view(tree_);
    view->forEach([&](const Item& item) {
      if (item.isFolder() && item.attributes().listedAt) folders.push_back(item.number());
    });
  }
  Edit edit(tree_);
  for (const ItemNumber number : folders) {
    Attributes attributes = edit->item(number).attributes();
    attributes.listedAt = Time();
    edit.setAttributes(number, std::move(attributes));
  }
  edit.commit();
}

std::unordered_set<ContentNumber> StartRepair::orphans() const {
  std::vector<ContentNumber> numbers;
  for (const ContentNumber number : present_) {
    if (!referredTo_.contains(number)) numbers.push_back(number);
  }
  std::unordered_set<ContentNumber> result(numbers.begin(), numbers.end());
  for (const ContentNumber number : history_.among(numbers)) {
    result.erase(number);
    struct stat status;
    // What was never synced may be less than its row says.
    const bool mayBeLess =
        machineStopped_ && ::stat(contents_.files().path(number).c_str(), &status) == 0;
    if (mayBeLess) history_.resize(number, status.st_size);
  }
  return result;
}

/// Contents that no row names were given up, or never became an item's, unless rows may be missing.
void StartRepair::keepOrphans() {
  std::map<ContentNumber, std::string> names;
  for (const auto& orphan : journal_.orphans()) names.emplace(plain(orphan.content), orphan.name);
  const auto now =
      std::chrono::floor<std::chrono::seconds>(std::chrono::milliseconds(loop_.wallClock()));
  const bool isGivenUp = isWhole_ && !machineStopped_;
  std::vector<HistoryEntry> entries;
  for (const ContentNumber number : orphans()) {
    struct stat status;
    if (::stat(contents_.files().path(number).c_str(), &status) != 0) continue;
    if (status.st_size == 0) {
      contents_.files().remove(number);
      continue;
    }
    const auto name = names.find(number);
    const bool hasName = name != names.end();
    HistoryEntry entry;
    entry.content = number;
    if (hasName) entry.path = name->second;
    entry.size = status.st_size;
    entry.modified = status.st_mtim.tv_sec * kNanoseconds + status.st_mtim.tv_nsec;
    entry.at = isWhole_ ? std::min<std::int64_t>(status.st_mtim.tv_sec, now.count()) : now.count();
    entry.reason = isLost_ ? HistoryReason::lost : HistoryReason::found;
    entry.confirmed = isGivenUp && !hasName ? Confirmed::once : Confirmed::never;
    entries.push_back(std::move(entry));
  }
  history_.keep(entries);
  if (!names.empty()) journal_.forgetOrphans();
  if (!entries.empty()) log("contents without a name were kept in the history", entries.size());
  if (isLost_) log("the database was lost; all contents were kept in the history", entries.size());
}

/// Makes what an earlier version kept in a folder of its own part of the history. Rows come first:
/// a file that stays behind is taken over at the next start.
void StartRepair::takeOverFormerRecovery() {
  const auto files = formerRecovery(directory_);
  if (files.empty()) {
    removeFormerRecovery(directory_);
    return;
  }
  std::vector<HistoryEntry> entries;
  for (const FormerFile& file : files) {
    HistoryEntry entry;
    entry.content = plain(contents_.next());
    entry.path = file.name;
    entry.reason = file.isOfLostDatabase ? HistoryReason::lost : HistoryReason::found;
    entry.size = file.size;
    entry.modified = file.modified;
    entry.at = std::clamp(file.at, kFirstDate, kLastDate);
    entries.push_back(std::move(entry));
  }
  history_.keep(entries);
  journal_.sync();
  std::vector<HistoryEntry> left;
  for (std::size_t at = 0; at < files.size(); ++at) {
    try {
      contents_.files().adopt(entries[at].content, files[at].path);
      history_.resize(entries[at].content, files[at].size);
    } catch (const NSError& error) {
      replicaLog().error("cannot be taken into the history: %{public}s",
                         {error.localizedDescription()});
      left.push_back(entries[at]);
    }
  }
  history_.remove(left);
  contents_.files().syncNames();
  removeFormerRecovery(directory_);
  log("what an earlier version had kept is in the history", files.size() - left.size());
}

}  // namespace kestrowan::replica::store
