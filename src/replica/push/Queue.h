#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>

#include "async/Scope.h"
#include "replica/Options.h"
#include "replica/model/State.h"

namespace kestrowan::replica::push {

/// The items that wait to be sent, and how much is sent at once. An item waits for a time, for a
/// free place, for another item or for an answer; or it is taken, and something is done about it.
/// What is done about it is for the owner to know. Owned by the outbox. Calls may come from every
/// thread, also with the tree's lock. Times are of the scope's clock.
class Queue {
 public:
  Queue(const async::Scope& scope, const Options& options);
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  /// The item was changed, and is due after `delay`; after it was taken, when that has ended.
  void noteChange(model::ItemNumber item, std::chrono::milliseconds delay);
  /// The same for one that later changes do not put off.
  void noteUrgent(model::ItemNumber item, std::chrono::milliseconds delay);
  /// The item is due, unless it waits for its time already or is taken.
  void note(model::ItemNumber item);
  /// The item is no more.
  void forget(model::ItemNumber item);
  /// Ends the waiting time of everything that failed; what was refused stays so.
  void retryAll(const model::State& state);
  /// All pending items wait, those that failed until their next try.
  void restore(const model::State& state);

  /// What is due waits for a free place from now on.
  void makeReady(const model::State& state);
  /// Takes the next item for which there is a place.
  std::optional<model::ItemNumber> take();
  /// When the next item will be due; absent when none waits for its time.
  std::optional<async::Loop::Moment> nextDue() const;

  // What was taken ends with one of these.
  /// The item is due again after `delay`; without one when it is changed or tried again.
  void finish(model::ItemNumber item, std::optional<std::chrono::milliseconds> delay);
  /// There is nothing to be done about the item, unless it was changed meanwhile.
  void end(model::ItemNumber item);
  /// The item waits for `other`, which is due unless it waits already.
  void waitFor(model::ItemNumber item, model::ItemNumber other);
  /// The item waits for the next answer to any request.
  void waitForAnswer(model::ItemNumber item);
  /// The item waits for `other`, which is taken in its place. False when `other` was taken before.
  bool yieldTo(model::ItemNumber item, model::ItemNumber other);

  /// What is sent of the item now is all that was urgent about it.
  void noteSent(model::ItemNumber item);
  /// There was an answer: what waits for one is due.
  void noteAnswer();

  bool isTaken(model::ItemNumber item) const;
  /// Whether nothing is taken.
  bool isIdle() const;
  /// Whether an item is taken, or will be by itself.
  bool isBusy() const;
  bool isEmpty() const;
  /// When the item was changed last; absent when it does not wait.
  std::optional<model::Time> changedAt(model::ItemNumber item) const;
  /// The order in which items are to be sent; 0 for one that does not wait.
  std::uint64_t order(model::ItemNumber item) const;

 private:
  enum class Stage : std::uint8_t { delayed, ready, blocked, taken };

  struct Entry {
    Stage stage = Stage::delayed;
    std::uint64_t order = 0;
    async::Loop::Moment due;
    model::Time changedAt;
    bool isUpload = false;
    bool isLarge = false;
    /// The item that is waited for.
    model::ItemNumber blocker = model::ItemNumber::none;
    /// It was changed while it was taken.
    bool isChanged = false;
    std::chrono::milliseconds nextDelay{0};
    bool isUrgent = false;
  };
  /// By whether it is a large upload, then by age.
  using Ready = std::map<std::pair<bool, std::uint64_t>, model::ItemNumber>;

  // With the lock.
  Entry& entry(model::ItemNumber item);
  Ready& readyWith(const Entry& entry);
  unsigned& takenWith(const Entry& entry);
  void enqueue(model::ItemNumber item, Entry& entry, std::chrono::milliseconds delay);
  void takeOut(model::ItemNumber item, Entry& entry);
  void block(model::ItemNumber item, Entry& entry, model::ItemNumber blocker);
  void release(model::ItemNumber blocker);

  model::Time now() const;

  const async::Scope& scope_;
  const Options& options_;

  mutable std::mutex mutex_;  // guards what follows; a leaf
  std::unordered_map<model::ItemNumber, Entry> entries_;
  std::uint64_t lastOrder_ = 0;
  std::set<std::pair<async::Loop::Moment, model::ItemNumber>> delayed_;
  Ready readyNames_;
  Ready readyContents_;
  std::unordered_map<model::ItemNumber, std::set<model::ItemNumber>> blocked_;
  unsigned namesTaken_ = 0;
  unsigned contentsTaken_ = 0;
};

}  // namespace kestrowan::replica::push
