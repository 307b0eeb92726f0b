#pragma once

#include <cstdint>

#include "replica/calls/OpenContents.h"
#include "replica/calls/Rooms.h"

namespace kestrowan::replica::calls {

/// Changes of contents by programs: before the first byte is changed, it stands on disk that the
/// contents are no longer the provider's, and what is being sent, or was there before, lies in a
/// file of its own. Usable from every thread. Throws `NSError`.
class ContentChanges {
 public:
  explicit ContentChanges(const Rooms& rooms) : rooms_(rooms) {}

  /// Makes the contents such that they may be changed in place.
  void prepare(model::ItemNumber file, OpenContents& contents);
  /// They were changed.
  void noteWritten(model::ItemNumber file, OpenContents& contents);
  /// Keeps what is known of contents that were changed for after their last handle.
  void keepWritten(model::ItemNumber file, OpenContents& contents);
  /// Makes a file empty, without a look at what it was.
  void empty(model::ItemNumber file);

 private:
  /// What is to be done before contents may be changed.
  struct Preparation {
    /// The item's own contents; otherwise the open file is all there is.
    bool isItems = false;
    /// They are on their way: they must not change.
    bool mustCopy = false;
    /// The provider has them, too.
    bool isShared = false;
    friend bool operator==(const Preparation&, const Preparation&) = default;
  };

  Preparation preparation(const model::State& state, model::ItemNumber file,
                          model::Content content) const;
  store::Contents::Made copy(model::ItemNumber file, int source);
  std::optional<store::Contents::Made> cloneForHistory(int source, Confirmed confirmed);
  void keepVersion(model::ItemNumber file, int source);
  void apply(model::ItemNumber file, OpenContents& contents, const Preparation& todo,
             std::optional<store::Contents::Made>& made);
  void dropPrivileges(model::ItemNumber file);

  const Rooms& rooms_;
};

}  // namespace kestrowan::replica::calls
