#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "async/Scope.h"
#include "platform/base/OneShot.h"
#include "platform/base/Task.h"
#include "platform/foundation/NSError.h"
#include "replica/model/Item.h"
#include "replica/remote/Health.h"

namespace kestrowan::replica::push {

/// Calls that wait for the provider's word on a change. Usable from every thread; the waiting calls
/// continue on the loop.
class Verdicts {
 public:
  Verdicts(async::Scope& scope, remote::Health& health);
  Verdicts(const Verdicts&) = delete;
  Verdicts& operator=(const Verdicts&) = delete;

  /// A word that a call is going to wait for, from its beginning to its end.
  class Expected {
   public:
    Expected(Verdicts& verdicts, model::ItemNumber item, std::shared_ptr<OneShot<void>> shot);
    Expected(Expected&& other) noexcept = default;
    Expected& operator=(Expected&&) = delete;
    ~Expected();

    const std::shared_ptr<OneShot<void>>& shot() const { return shot_; }

   private:
    Verdicts& verdicts_;
    model::ItemNumber item_;
    std::shared_ptr<OneShot<void>> shot_;
  };

  /// To be called within the edit or the view that shows that there is something to wait for, so
  /// that no word comes before. `content`: what must have arrived; `none` for any word.
  Expected expect(model::ItemNumber item, model::Content content = model::Content::none);
  /// Ends once the provider has the item as it was expected; throws what the provider refused. Ends
  /// with success, too, when there is no word within `limit`, or none to be had.
  Task<void> word(Expected expected, std::chrono::milliseconds limit);
  /// The same for a caller that must know that contents arrived: throws ETIMEDOUT when there is no
  /// word within `limit`, and the reason when the provider cannot be asked.
  Task<void> arrival(Expected expected, std::chrono::milliseconds limit);
  bool isAwaited(model::ItemNumber item) const;

  /// The item was changed; null when it is no more. Answers what that is the word for.
  void note(model::ItemNumber number, const model::Item* item);
  void refuse(model::ItemNumber item, const NSError& error);
  /// There will be no word for now.
  void giveUp(const NSError& reason);

 private:
  struct Waiter {
    std::shared_ptr<OneShot<void>> shot;
    /// `none`: any word will do.
    model::Content content = model::Content::none;
    bool needsWord = false;
  };
  using Waiters = std::vector<Waiter>;

  Task<void> await(Expected expected, std::chrono::milliseconds limit);
  void forget(model::ItemNumber item, const std::shared_ptr<OneShot<void>>& shot);

  async::Scope& scope_;
  remote::Health& health_;
  mutable std::mutex mutex_;  // guards what follows; a leaf
  std::unordered_map<model::ItemNumber, Waiters> waiters_;
};

}  // namespace kestrowan::replica::push
