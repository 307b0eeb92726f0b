#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "async/Loop.h"
#include "platform/base/OneShot.h"
#include "platform/base/Task.h"
#include "platform/base/UniqueFd.h"
#include "replica/model/Numbers.h"
#include "replica/model/Version.h"
#include "replica/remote/ArrivingContents.h"

namespace kestrowan::replica::pull {

/// The contents of one file on their way here, for programs that read them meanwhile. Outlives the
/// fetch for as long as a program has the file open. Usable from every thread. Offsets and sizes
/// are bytes.
///
/// What a program was given stays true: contents that break off are continued by those of another
/// fetch of the same version, from their beginning, or every later read fails with EIO. What is
/// fetched keeps a little ahead of its readers at first, until one of them goes on.
class Stream : public std::enable_shared_from_this<Stream> {
 public:
  /// So much comes beyond what was asked for, until that is more than the second, or the file has
  /// been open for so long.
  static constexpr std::int64_t kAhead = 128 * 1024;
  static constexpr std::int64_t kPeek = 2 << 20;
  static constexpr std::chrono::milliseconds kPeekTime{2000};
  /// So long after its last reader a fetch that nothing else needs is cancelled.
  static constexpr std::chrono::milliseconds kUnreadTime{2000};

  /// Of the provider's `version`. `number` is what the contents will bear once they are here.
  /// `unread` is called on the loop when they have had no reader for `kUnreadTime`; not after
  /// `finish` or `fail`.
  Stream(async::Loop& loop, model::Version version, model::Content number, std::int64_t size,
         std::function<void()> unread);
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  // For readers.

  /// A hold of one reader.
  using Reader = std::shared_ptr<Stream>;
  Reader reader();

  const model::Version& version() const { return version_; }
  model::Content number() const { return number_; }
  std::int64_t size() const { return size_; }
  /// A part of the contents in a file of its own.
  struct Part {
    std::shared_ptr<const UniqueFd> file;
    std::size_t size = 0;
  };
  /// What of `size` bytes from `offset` on lies before the end of the file; absent while some of it
  /// is not here. Throws EIO for contents that will not come.
  std::optional<Part> part(std::int64_t offset, std::size_t size) const;
  /// Waits for the bytes before `end`, for `finish` or for `stir`, on the loop. Throws EIO.
  static Task<void> arrival(std::shared_ptr<Stream> stream, std::int64_t end);
  /// How many readers wait.
  std::size_t waiting() const;
  /// Has those that wait look again.
  void stir();

  // For the fetch.

  /// Contents of the right size and version begin to arrive. False without a descriptor for them.
  bool goOn(const std::shared_ptr<remote::ArrivingContents>& contents);
  /// They have come to their end, whole or not; others may follow.
  void pause();
  /// The fetch has succeeded. When the contents came whole, they stay in the file that was last.
  void finish();
  /// No more will come. Does nothing after `finish`.
  void fail();
  /// Something else waits for the end of them: they come as fast as they can.
  void hurry();

  bool isWhole() const;
  bool hasFailed() const;
  /// Whether no program has the file open.
  bool isUnread() const;
  /// Whether so little is missing that it is not worth breaking off.
  bool isNearlyWhole() const;

 private:
  using Waiters = std::multimap<std::int64_t, std::shared_ptr<OneShot<void>>>;

  void addReader();
  void removeReader();
  void readLong(std::uint64_t turn);
  void unreadLong(std::uint64_t turn);
  std::int64_t limit() const;
  std::int64_t bytes() const { return contents_ ? contents_->bytes() : bytes_; }
  bool lacksLittle() const;
  void pace();
  void await();
  void noteReached();

  async::Loop& loop_;
  const model::Version version_;
  const model::Content number_;
  const std::int64_t size_;
  const std::function<void()> unread_;

  mutable std::mutex mutex_;                            // guards what follows; a leaf
  std::shared_ptr<remote::ArrivingContents> contents_;  // null between two fetches
  std::shared_ptr<const UniqueFd> file_;
  std::int64_t bytes_ = 0;    // of the file that was last
  std::int64_t asked_ = 0;    // the farthest offset
  std::int64_t awaited_ = 0;  // the offset at which the contents will tell; 0 for none
  bool isHurried_ = false;
  bool isWhole_ = false;
  bool hasFailed_ = false;
  std::size_t readers_ = 0;
  std::uint64_t turn_ = 0;  // changes when there are readers again, or none any more
  Waiters waiters_;
};

}  // namespace kestrowan::replica::pull
