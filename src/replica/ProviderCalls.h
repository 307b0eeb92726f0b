#pragma once

#include <deque>
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
#include "replica/IdentifierForm.h"
#include "replica/Outcome.h"

namespace kestrowan::replica {

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
/// Nothing is asked for but what the form of the identifiers allows, and the root is only listed
/// and asked about: any other call ends with EIO, without a word to the provider, and is logged.
class ProviderCalls {
 public:
  struct Limits {
    unsigned metadata = 8;
    unsigned downloads = 4;
    unsigned uploads = 4;
  };

  ProviderCalls(async::Loop& loop, Limits limits, IdentifierForm identifiers);
  ProviderCalls(const ProviderCalls&) = delete;
  ProviderCalls& operator=(const ProviderCalls&) = delete;

  /// From any thread. The one before is told that it is not needed any more.
  void setProvider(std::shared_ptr<NSFileProviderReplicatedExtension> provider);
  bool hasProvider() const;
  /// Ends every call, now and later, with `NSURLErrorCancelled`. From any thread.
  void stop();

  /// Every page of a folder, begun anew once when the provider asks for that.
  Task<Outcome<std::vector<NSFileProviderItemPtr>>> list(NSFileProviderItemIdentifier container);
  Task<Outcome<NSFileProviderItemPtr>> item(NSFileProviderItemIdentifier identifier);
  Task<Outcome<FetchedFile>> fetch(NSFileProviderItemIdentifier identifier);
  Task<Outcome<WrittenItem>> create(NSFileProviderItemPtr basedOnTemplate,
                                    NSFileProviderItemFields fields,
                                    std::optional<std::string> contents,
                                    NSFileProviderCreateItemOptions options);
  Task<Outcome<WrittenItem>> modify(NSFileProviderItemPtr item,
                                    NSFileProviderItemVersion baseVersion,
                                    NSFileProviderItemFields changedFields,
                                    std::optional<std::string> contents);
  Task<Outcome<Done>> remove(NSFileProviderItemIdentifier identifier,
                             NSFileProviderItemVersion baseVersion, bool recursive);

 private:
  using Provider = std::shared_ptr<NSFileProviderReplicatedExtension>;

  /// So many calls of a kind at once. Used on the loop only.
  class Slots {
   public:
    Slots(async::Loop& loop, unsigned count) : loop_(loop), free_(count) {}
    auto take() {
      struct Awaiter {
        Slots& slots;
        bool await_ready() const noexcept {
          if (slots.free_ == 0) return false;
          --slots.free_;
          return true;
        }
        void await_suspend(std::coroutine_handle<> handle) const {
          slots.waiting_.push_back(handle);
        }
        void await_resume() const noexcept {}
      };
      return Awaiter{*this};
    }
    /// Hands the slot to the next that waits.
    void give();

   private:
    async::Loop& loop_;
    unsigned free_;
    std::deque<std::coroutine_handle<>> waiting_;
  };
  class Slot;

  /// Makes the call of the provider, which is not null, and waits for its end. `make` gets the
  /// provider and the call to complete, and is run on the loop.
  template <typename T, typename Make>
  Task<Outcome<T>> call(Slots& slots, std::optional<std::chrono::milliseconds> limit, Make make);
  Task<Outcome<std::vector<NSFileProviderItemPtr>>> listOnce(
      NSFileProviderItemIdentifier container);
  void enroll(const std::shared_ptr<PendingResult>& call);

  /// Whether an item that `item` describes can be in a folder that it describes.
  bool isPlace(const NSFileProviderItem& item) const;

  async::Loop& loop_;
  const IdentifierForm identifiers_;
  Slots metadata_;
  Slots downloads_;
  Slots uploads_;
  mutable std::mutex mutex_;  // guards what follows
  Provider provider_;
  bool stopped_ = false;
  std::set<std::weak_ptr<PendingResult>, std::owner_less<>> calls_;
};

}  // namespace kestrowan::replica
