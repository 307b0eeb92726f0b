#pragma once

#include <functional>
#include <string_view>
#include <vector>

#include "async/Loop.h"
#include "replica/model/Edit.h"
#include "replica/plan/Names.h"
#include "replica/plan/Step.h"

namespace kestrowan::replica::pull {

/// Carries out what settles a difference by a change of the states alone, with what programs see
/// beside the states: attributes stay with what they were set on, and a file that shows other bytes
/// is another item, so that a program that has the old one open goes on reading the old bytes.
/// Usable from every thread, within an edit.
class Settler {
 public:
  /// Whether something holds of an item. Called within edits, from every thread.
  using Question = std::function<bool(model::ItemNumber)>;

  /// `isOpen`: a program has the file open. `isWritten`: to be written. `isAwaited`: a call waits
  /// for the provider's word on the item. `names` and `loop` must outlive it.
  Settler(const plan::Names& names, const async::Loop& loop, Question isOpen, Question isWritten,
          Question isAwaited);

  /// Settles everything that can be settled without a request. A file that a program has open to be
  /// written stays as it is, until it is closed; and a call that waits for the provider's word is
  /// answered before its item gets another name.
  void settleAll(model::Edit& edit) const;

  /// Settles one item. Whether the step could be carried out.
  bool settle(model::Edit& edit, const plan::Settle& step) const;

  const plan::Names& names() const { return names_; }

 private:
  bool mustWait(const model::Edit& edit, const plan::Settle& step) const;
  void pull(model::Edit& edit, model::ItemNumber number) const;
  static void layBeside(model::Edit& edit, const plan::Settle& step);
  static void show(model::Edit& edit, const plan::Settle& step);

  const plan::Names& names_;
  const async::Loop& loop_;
  const Question isOpen_;
  const Question isWritten_;
  const Question isAwaited_;
};

}  // namespace kestrowan::replica::pull
