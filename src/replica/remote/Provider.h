#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "async/Loop.h"
#include "platform/base/OneShot.h"
#include "platform/base/Task.h"
#include "platform/fileprovider/NSFileProviderReplicatedExtension.h"
#include "platform/foundation/NSError.h"
#include "replica/remote/CallAnswers.h"
#include "replica/remote/CallSlots.h"
#include "replica/remote/IdentifierForm.h"

namespace kestrowan::replica::remote {

struct FetchedFile {
  /// A file that belongs to the caller from now on.
  std::string path;
  /// Never null.
  NSFileProviderItemPtr item;
};

struct WrittenItem {
  /// Null when the provider says that the item is no more.
  NSFileProviderItemPtr item;
  NSFileProviderItemFields remaining = 0;
  bool fetchAgain = false;
};

/// The provider's requests as coroutines. Started and continued on the loop; so many at once as the
/// limits allow, the others in the order in which they came. The provider may be exchanged at any
/// time: calls in flight stay with the one that they were made to. A call that is no transfer ends
/// after 90 seconds with `NSURLErrorTimedOut`; what the provider still does for a call that has
/// ended before its answer is abandoned (see `Abandonment`), so that no request is sent for it.
///
/// Each request throws the `NSError` of the provider, `notAuthenticated` while there is none, and
/// `NSURLErrorCancelled` after `stop`. An ambiguous error of the provider is replaced by the answer
/// of the server that it comes from, where that is known (see `AnswerTable`). None is made twice.
///
/// Nothing is asked for but what the form of the identifiers allows, and the root is only listed
/// and asked about: any other call throws EIO, without a word to the provider, and is logged.
class Provider {
 public:
  using Extension = std::shared_ptr<NSFileProviderReplicatedExtension>;

  struct Limits {
    unsigned metadata = 8;
    unsigned downloads = 4;
    unsigned uploads = 4;
  };
  /// Files up to this size, in bytes, do not wait for larger ones. As many of them as `downloads`
  /// are fetched at once, and more, up to `kMostSmallFiles`, while the answers are slow.
  static constexpr std::int64_t kSmallFile = 256 * 1024;
  static constexpr unsigned kMostSmallFiles = 24;
  /// So many fetches of larger files may run besides those of `downloads`.
  static constexpr std::size_t kMostExcused = 12;

  /// `watchAnswers` may be empty: no answer is known then.
  Provider(async::Loop& loop, Limits limits, IdentifierForm identifiers,
           AnswerWatch watchAnswers = {});
  Provider(const Provider&) = delete;
  Provider& operator=(const Provider&) = delete;

  /// From any thread. The one before is told that it is not needed any more.
  void setExtension(Extension extension);
  /// Ends every call, now and later. From any thread.
  void stop();

  /// Every page of a folder, begun anew once when the provider asks for that.
  Task<std::vector<NSFileProviderItemPtr>> list(NSFileProviderItemIdentifier container);
  Task<NSFileProviderItemPtr> item(NSFileProviderItemIdentifier identifier);
  /// `size` is what is known of the file's, in bytes. `begun`, which may be empty, is called just
  /// before the extension, with what the call's work is abandoned by as the current one.
  Task<FetchedFile> fetch(NSFileProviderItemIdentifier identifier, std::int64_t size,
                          std::function<void()> begun = {});
  /// A fetch of that size has begun to deliver and may take long: while the result lives, it does
  /// not count among those that run. Null when too many are excused already. On the loop.
  std::shared_ptr<void> excuse(std::int64_t size);
  /// The right to ask for one change there, given back when it goes. On the loop.
  using Turn = CallSlots::Slot;
  /// Waits for one, behind other calls: perhaps for long. What the change relies upon is to be
  /// asked again then. `hasContents`: of a file, which is a transfer.
  Task<Turn> turn(bool hasContents) { return take(hasContents ? uploads_ : metadata_); }
  Task<WrittenItem> create(Turn turn, NSFileProviderItemPtr basedOnTemplate,
                           NSFileProviderItemFields fields, std::optional<std::string> contents,
                           NSFileProviderCreateItemOptions options);
  Task<WrittenItem> modify(Turn turn, NSFileProviderItemPtr item,
                           NSFileProviderItemVersion baseVersion,
                           NSFileProviderItemFields changedFields,
                           std::optional<std::string> contents);
  Task<void> remove(Turn turn, NSFileProviderItemIdentifier identifier,
                    NSFileProviderItemVersion baseVersion, bool recursive);

 private:
  /// Makes the call of the extension and waits for its end. `make` gets the extension and what is
  /// to be given the result, and is run on the loop.
  template <typename T, typename Make>
  Task<T> call(CallSlots& slots, std::optional<std::chrono::milliseconds> limit, Make make);
  template <typename T, typename Make>
  Task<T> callIn(Turn turn, std::optional<std::chrono::milliseconds> limit, Make make);
  static Task<Turn> take(CallSlots& slots);
  Task<std::vector<NSFileProviderItemPtr>> listOnce(NSFileProviderItemIdentifier container);
  CallSlots& slotsFor(std::int64_t size) {
    return size <= kSmallFile ? smallDownloads_ : downloads_;
  }
  /// The extension that is to be asked.
  Extension requireExtension() const;
  void enroll(const std::shared_ptr<PendingResult>& result);

  /// Throws EIO unless a request may be about the item; about a new place of it.
  void requireAskable(std::string_view call, const NSFileProviderItemIdentifier& identifier) const;
  void requireItem(std::string_view call, const NSFileProviderItemIdentifier& identifier) const;
  void requirePlace(std::string_view call, const NSFileProviderItem& item) const;

  async::Loop& loop_;
  const IdentifierForm identifiers_;
  const AnswerWatch watchAnswers_;
  CallSlots metadata_;
  CallSlots downloads_;
  CallSlots smallDownloads_;
  CallSlots uploads_;
  mutable std::mutex mutex_;  // guards what follows
  Extension extension_;
  bool stopped_ = false;
  std::set<std::weak_ptr<PendingResult>, std::owner_less<>> calls_;
};

}  // namespace kestrowan::replica::remote
