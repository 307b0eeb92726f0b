#include <algorithm>
#include <deque>
#include <optional>
#include <utility>

#include "cli/Circumstance.h"
#include "cli/Console.h"
#include "cli/ItemText.h"
#include "cli/JSONForms.h"
#include "cli/ProgressLine.h"
#include "cli/Requests.h"
#include "cli/ServerPath.h"
#include "cli/commands/Commands.h"

namespace kestrowan::cli {

namespace {

constexpr std::size_t kListingsInFlight = 16;

struct Folder {
  std::string path;
  Request<std::vector<NSFileProviderItemPtr>> listing;
};

/// Whether a listed item lies directly in the folder that was listed: a server may report
/// anything, and following it elsewhere might never end.
bool liesIn(const NSFileProviderItem& item, const std::string& folder) {
  return item.parentItemIdentifier() == identifier(folder) &&
         item.itemIdentifier().starts_with('/') && item.itemIdentifier().size() > folder.size();
}

/// Ahead of others come a later date, a larger size, and then the name in the order of its bytes.
bool isBefore(const NSFileProviderItem& one, const NSFileProviderItem& other,
              ListOptions::Order order) {
  if (order == ListOptions::Order::byDate) {
    const auto date = [](const NSFileProviderItem& item) {
      const auto modified = item.contentModificationDate();
      return modified ? std::optional(modified->timeIntervalSince1970) : std::nullopt;
    };
    if (date(one) != date(other)) return date(one) > date(other);
  }
  if (order == ListOptions::Order::bySize) {
    if (one.documentSize() != other.documentSize()) {
      return one.documentSize() > other.documentSize();
    }
  }
  return one.filename() < other.filename();
}

/// Prints folder after folder, depth first, while the next ones are already being listed.
class Listing {
 public:
  Listing(CommandContext& context, const ListOptions& options)
      : context_(context), options_(options), progress_(!context.json()) {}

  ExitCode run() {
    const std::string start = serverPath(options_.path);
    folders_.push_back({start, {}});
    std::size_t failures = 0;
    while (!folders_.empty()) {
      startListings();
      Folder folder = std::move(folders_.front());
      folders_.pop_front();
      try {
        auto items = context_.patience().await(std::move(folder.listing));
        sort(items);
        print(folder.path, items);
      } catch (const NSError& error) {
        const RequestFailure failure{folder.path, error,
                                     circumstanceOf(context_, Attempt::list, folder.path, error)};
        if (folder.path == start) throw failure;
        progress_.clear();
        context_.fail(failure);
        ++failures;
      }
    }
    progress_.clear();
    return failures == 0 ? ExitCode::done : ExitCode::partlyFailed;
  }

 private:
  void startListings() {
    const std::size_t ahead = std::min(folders_.size(), kListingsInFlight);
    for (std::size_t i = 0; i < ahead; ++i) {
      auto& folder = folders_[i];
      if (!folder.listing.answer.valid()) {
        folder.listing = listFolder(context_.extension(), identifier(folder.path));
      }
    }
  }

  void sort(std::vector<NSFileProviderItemPtr>& items) const {
    std::stable_sort(items.begin(), items.end(),
                     [this](const NSFileProviderItemPtr& one, const NSFileProviderItemPtr& other) {
                       return isBefore(*one, *other, options_.order);
                     });
    if (options_.isReversed) std::reverse(items.begin(), items.end());
  }

  void print(const std::string& path, const std::vector<NSFileProviderItemPtr>& items) {
    auto& out = Output::standard();
    if (context_.json()) {
      JSONValue::Object form{{"items", jsonForm(items)}};
      if (options_.recursive) form.insert(form.begin(), {"path", path});
      out.write(JSONValue(std::move(form)).serialized() + "\n");
    } else {
      progress_.clear();
      if (options_.recursive) {
        out.write((std::exchange(first_, false) ? "" : "\n") + out.forDisplay(path) + ":\n");
      }
      for (const auto& item : items) {
        const std::string name = out.forDisplay(item->filename());
        out.write((options_.isLong ? longLine(*item, name, options_.form) : name) + "\n");
      }
    }
    out.flush();
    itemCount_ += items.size();
    ++folderCount_;
    if (options_.recursive) {
      enqueueSubfolders(path, items);
      progress_.show(std::to_string(folderCount_) + " folders, " + std::to_string(itemCount_) +
                     " items");
    }
  }

  void enqueueSubfolders(const std::string& path, const std::vector<NSFileProviderItemPtr>& items) {
    std::vector<Folder> subfolders;
    for (const auto& item : items) {
      if (item->contentType() == UTType::folder() && liesIn(*item, path)) {
        subfolders.push_back({item->itemIdentifier(), {}});
      }
    }
    folders_.insert(folders_.begin(), std::make_move_iterator(subfolders.begin()),
                    std::make_move_iterator(subfolders.end()));
  }

  CommandContext& context_;
  const ListOptions& options_;
  ProgressLine progress_;
  std::deque<Folder> folders_;
  bool first_ = true;
  std::size_t itemCount_ = 0;
  std::size_t folderCount_ = 0;
};

}  // namespace

ExitCode list(CommandContext& context, const ListOptions& options) {
  return Listing(context, options).run();
}

}  // namespace kestrowan::cli
