#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <random>
#include <unordered_map>

#include "async/Loop.h"
#include "platform/foundation/NSError.h"
#include "replica/model/Edit.h"
#include "replica/pull/Settler.h"
#include "replica/push/Verdicts.h"

namespace kestrowan::replica::push {

/// What becomes of a change that could not be sent: tried again later, undone, or kept for the
/// user to decide. Used on the loop.
class Refusals {
 public:
  Refusals(model::Tree& tree, const async::Loop& loop, const pull::Settler& settler,
           Verdicts& verdicts);
  Refusals(const Refusals&) = delete;
  Refusals& operator=(const Refusals&) = delete;

  /// Takes an error of a request for the item. After how long it is to be looked at again; absent
  /// when it waits for the user. Throws `NSError` when that cannot be noted.
  std::optional<std::chrono::milliseconds> take(model::ItemNumber item, const NSError& error);

  /// A refusal of contents that no `close` has reported yet; it counts as reported then.
  std::optional<NSError> takeUnreported(model::ItemNumber item);

 private:
  using Delay = std::optional<std::chrono::milliseconds>;

  model::Time now() const;
  Delay backOff(model::ItemNumber item, const NSError& error);
  Delay note(model::ItemNumber item, const NSError& error, model::FailureClass failureClass,
             Delay delay);
  Delay refuse(model::ItemNumber item, const NSError& error);
  Delay wait(model::ItemNumber item, const NSError& error);
  bool isToGo(model::ItemNumber item) const;
  bool answer(model::ItemNumber item, const NSError& error);
  Delay collide(model::ItemNumber item, const NSError& error);
  Delay lose(model::ItemNumber item, const NSError& error);
  Delay bringBack(model::ItemNumber item, const NSError& error);
  Delay keepHere(model::ItemNumber item);
  void makeWay(model::ItemNumber item, const NSError& error);
  bool undo(model::ItemNumber item);
  void bounce(model::ItemNumber item);

  model::Tree& tree_;
  const async::Loop& loop_;
  const pull::Settler& settler_;
  Verdicts& verdicts_;
  std::mt19937_64 random_;
  std::mutex mutex_;  // guards what follows; a leaf
  std::unordered_map<model::ItemNumber, NSError> unreported_;
};

}  // namespace kestrowan::replica::push
