#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>

#include "platform/base/UniqueFd.h"
#include "platform/fileprovider/NSFileProviderItem.h"
#include "platform/foundation/NSData.h"

namespace kestrowan::replica::remote {

/// Contents that the provider is delivering for a fetch, as far as they have come. A seam: how they
/// come is not the replica's. Shared by pointer; may outlive the fetch, whose end it does not tell.
/// Usable from every thread. Offsets and sizes are bytes.
class ArrivingContents {
 public:
  static constexpr std::int64_t kNoLimit = std::numeric_limits<std::int64_t>::max();

  virtual ~ArrivingContents() = default;

  /// As it was announced; absent where nothing was.
  virtual std::optional<std::int64_t> size() const = 0;
  /// Whether the provider said with the contents which version they are of.
  virtual bool hasVersion() const = 0;
  /// Whether they are of that content version, as far as the provider said.
  virtual bool isOf(const NSData& version) const = 0;
  /// A descriptor of the caller's own of the file that grows; -1 when the system gives none.
  virtual UniqueFd open() const = 0;
  /// How much is in the file.
  virtual std::int64_t bytes() const = 0;
  /// Runs `function` once, from any thread, when so many bytes are in the file: at once, or later.
  /// Never, if they do not come. It must not block.
  virtual void whenReached(std::int64_t offset, std::function<void()> function) = 0;
  /// They stop arriving once so many are there, or somewhat more, until the limit is raised.
  virtual void setLimit(std::int64_t bytes) = 0;
  /// Breaks the fetch off, which then fails.
  virtual void cancel() = 0;
};

/// Tells of the contents of one fetch once they begin to arrive. `begun` is called at most once,
/// from any thread, and must not block. To be called where the fetch is begun; ends when the result
/// goes, which waits for `begun` to return.
using ArrivalWatch = std::function<std::shared_ptr<void>(
    const NSFileProviderItemIdentifier& file,
    std::function<void(std::shared_ptr<ArrivingContents>)> begun)>;

}  // namespace kestrowan::replica::remote
