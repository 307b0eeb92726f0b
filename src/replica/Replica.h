#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "async/Loop.h"
#include "platform/base/Task.h"
#include "platform/fileprovider/NSFileProviderReplicatedExtension.h"
#include "replica/CommandCalls.h"
#include "replica/FileCalls.h"
#include "replica/Observer.h"
#include "replica/Options.h"

namespace kestrowan::replica {

class Life;

/// The replica of one provider's tree: what has been listed, what has been fetched, what is still
/// to be sent, on disk and in memory; and the work that brings both sides together.
///
/// Owned by the host, which keeps the loop and the store's directory for longer. Usable from every
/// thread. Errors are `NSError`: of `NSPOSIXErrorDomain` for what the replica itself refuses
/// (ENOENT, EEXIST, ENOTEMPTY, ENOTDIR, EISDIR, EACCES, EPERM, EINVAL, ENAMETOOLONG, ESTALE for an
/// item that is no more, ENOSPC, EIO for a disk that fails), the provider's own otherwise, made
/// definite where it was ambiguous. A change that was answered with success survives the death of
/// the process.
class Replica {
 public:
  /// Reads what `directory` (absolute, exclusively the replica's) holds, or begins anew. Sends
  /// nothing before the first `setProvider`. Throws `NSError` as `TreeJournal` and `ContentFiles`
  /// do.
  Replica(const std::string& directory, async::Loop& loop, Options options);
  Replica(const Replica&) = delete;
  Replica& operator=(const Replica&) = delete;
  /// Only when `stop` was called and every `OpenFile` is gone. What has not ended by then never
  /// does. Not on the loop.
  ~Replica();

  /// Makes `provider` the one that is asked from now on; the one before is invalidated and released
  /// when its calls have ended. What was held or waiting for a server is tried again.
  void setProvider(std::shared_ptr<NSFileProviderReplicatedExtension> provider);
  /// Lists the root, whatever is known of it; throws what prevents that.
  Task<void> askForRoot();
  /// May be null. Must outlive the replica, or be replaced.
  void setObserver(Observer* observer);
  /// From now on nothing can be opened to be written, or made: EROFS. What was begun can be ended.
  void refuseNewWork();
  /// No more calls to the provider are begun, and the calls that wait are answered.
  void stop();
  /// Waits, after `stop`, until everything that was under way has ended, for at most `limit`. Not
  /// on the loop.
  void waitUntilEnded(std::chrono::milliseconds limit);

  FileCalls& files() { return files_; }
  const FileCalls& files() const { return files_; }
  CommandCalls& commands() { return commands_; }
  const CommandCalls& commands() const { return commands_; }

  /// Begins a caller's coroutine at once, on the calling thread; it goes on where the calls end
  /// that it awaits. It is freed where it waits when the replica ends. An exception that leaves it
  /// is a line in the log. Throws when there is no memory to begin it; not after `waitUntilEnded`.
  void start(Task<void> task);

 private:
  const std::unique_ptr<Life> life_;
  FileCalls files_;
  CommandCalls commands_;
};

}  // namespace kestrowan::replica
