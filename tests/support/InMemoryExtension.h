#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "async/Loop.h"
#include "platform/fileprovider/NSFileProviderReplicatedExtension.h"
#include "support/Faults.h"
#include "support/MemoryServer.h"

namespace kestrowan::test {

struct InMemoryOptions {
  /// Identifiers are "node:17" and stay through renames; otherwise they are paths, and those that
  /// do not begin with "/" mean the root, whatever is done with them.
  bool opaqueIdentifiers = false;
  /// Entries of one page of a listing; 0 for all.
  std::size_t pageSize = 0;
  /// How contents arrive for which nothing else is said; all at once when nothing is.
  std::optional<Arriving> arriving = std::nullopt;
  /// Whether the replica is told of contents that arrive.
  bool tellsOfArrivals = true;
  /// Whether the replica can know what the server answered.
  bool tellsAnswers = true;
  /// What can only be read; empty for nothing.
  std::function<bool(std::string_view path)> isProtected = {};
  /// Whose versions have "W/" before them; empty for none.
  std::function<bool(std::string_view path)> isWeak = {};
};

class CallRunner;
class MemoryAnswers;
class MemoryItems;

/// A provider that projects the tree of a `MemoryServer`, with the manners of one that speaks
/// WebDAV: creating replaces silently, whatever the server refuses is `serverUnreachable`, moves
/// never replace, several requests make up one call, folders are deleted with all that is in them.
///
/// Every call completes on the loop, which must outlive all calls; the object need not. Usable from
/// every thread.
class InMemoryExtension : public NSFileProviderReplicatedExtension {
 public:
  /// `directory` is where fetched files are put.
  InMemoryExtension(async::Loop& loop, std::string directory, std::shared_ptr<MemoryServer> server,
                    InMemoryOptions options = {});
  ~InMemoryExtension() override;

  MemoryServer& server() const;
  /// From the beginning of a call to its effect and its completion.
  void setLatency(std::chrono::milliseconds latency);
  /// Nobody listens: every call fails, and has no effect.
  void setDown(bool isDown);
  /// An empty function ends all faults.
  void setFaults(FaultHook hook);
  /// What tells the replica of contents that arrive.
  MemoryArrivals& arrivals() const { return *arrivals_; }
  /// What tells the replica of the server's answers.
  MemoryAnswers& answers() const;
  /// Completes the calls that hang, with what they came to. Says how many there were.
  std::size_t releaseHung();

  /// The calls since the start or `clearCalls`, in order, as `Call::text` gives them.
  std::vector<std::string> calls() const;
  std::size_t count(CallKind kind) const;
  std::size_t count() const;
  void clearCalls();
  /// How many calls have not completed, and how many of a kind there were at the same time at most.
  std::size_t running() const;
  std::size_t mostAtOnce(CallKind kind) const;
  /// What the host did wrong: contents that changed while they were sent.
  std::vector<std::string> violations() const;
  bool isInvalidated() const;

  void invalidate() override;
  std::shared_ptr<NSFileProviderEnumerator> enumerator(
      const NSFileProviderItemIdentifier& forContainer,
      const NSFileProviderRequest& request) override;
  std::shared_ptr<NSProgress> item(const NSFileProviderItemIdentifier& forIdentifier,
                                   const NSFileProviderRequest& request,
                                   ItemCompletion completionHandler) override;
  std::shared_ptr<NSProgress> fetchContents(const NSFileProviderItemIdentifier& forIdentifier,
                                            const std::optional<NSFileProviderItemVersion>& version,
                                            const NSFileProviderRequest& request,
                                            FetchCompletion completionHandler) override;
  std::shared_ptr<NSProgress> createItem(NSFileProviderItemPtr basedOnTemplate,
                                         NSFileProviderItemFields fields,
                                         std::optional<NSURL> contents,
                                         NSFileProviderCreateItemOptions options,
                                         const NSFileProviderRequest& request,
                                         WriteCompletion completionHandler) override;
  std::shared_ptr<NSProgress> modifyItem(NSFileProviderItemPtr item,
                                         const NSFileProviderItemVersion& baseVersion,
                                         NSFileProviderItemFields changedFields,
                                         std::optional<NSURL> contents,
                                         NSFileProviderModifyItemOptions options,
                                         const NSFileProviderRequest& request,
                                         WriteCompletion completionHandler) override;
  std::shared_ptr<NSProgress> deleteItem(const NSFileProviderItemIdentifier& identifier,
                                         const NSFileProviderItemVersion& baseVersion,
                                         NSFileProviderDeleteItemOptions options,
                                         const NSFileProviderRequest& request,
                                         DeleteCompletion completionHandler) override;

 private:
  async::Loop& loop_;
  const std::shared_ptr<CallRunner> runner_;
  const std::shared_ptr<const MemoryItems> items_;
  const std::optional<Arriving> arriving_;
  const std::shared_ptr<MemoryArrivals> arrivals_;
  const std::string directory_;
};

}  // namespace kestrowan::test
