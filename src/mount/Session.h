#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "mount/Channel.h"
#include "mount/Fuse.h"
#include "mount/Handles.h"
#include "mount/Invalidation.h"
#include "mount/MarkerFiles.h"
#include "mount/ProgramKinds.h"
#include "mount/RefusedReads.h"
#include "mount/SeenContents.h"
#include "mount/WatchEvents.h"
#include "replica/Replica.h"

namespace kestrowan::mount {

/// How items are shown.
struct Appearance {
  /// To whom every item belongs.
  uid_t user = 0;
  gid_t group = 0;
  /// How many seconds the kernel takes names and attributes for good without asking.
  double cacheTime = 1;
};

/// One open file of the kernel's.
struct FileHandle {
  std::shared_ptr<replica::OpenFile> file;
  RefusedReads refusedReads;
};

/// One open folder of the kernel's.
struct FolderHandle {
  replica::Rid folder = 0;
  std::mutex mutex;  // guards what follows
  std::shared_ptr<const replica::FolderSnapshot> snapshot;
  /// How often names of the folder had changed when the snapshot was taken.
  std::uint32_t changes = 0;
  bool wasRead = false;
};

/// Counts changes of names, by folder: equal counts say that no name of the folder has changed.
/// Usable from every thread.
class NameChanges {
 public:
  void count(replica::Rid folder) { ++of(folder); }
  std::uint32_t counted(replica::Rid folder) { return of(folder); }

 private:
  std::atomic<std::uint32_t>& of(replica::Rid folder) { return counts_[folder % counts_.size()]; }

  std::array<std::atomic<std::uint32_t>, 1024> counts_ = {};
};

/// What the requests of one mount share. Owned by the mount and by every request that has no answer
/// yet. Usable from every thread.
class Session : public std::enable_shared_from_this<Session>, public replica::Observer {
 public:
  /// Throws `NSError`. The replica must outlive the session.
  /// `events` may be null.
  Session(replica::Replica& replica, Appearance appearance,
          std::shared_ptr<const ProgramKinds> programs, MarkerFiles markers,
          std::shared_ptr<WatchEvents> events);

  /// The session that `request` came in.
  static Session& of(fuse_req_t request) {
    return *static_cast<Session*>(fuse_req_userdata(request));
  }

  replica::Replica& replica() { return replica_; }
  const Appearance& appearance() const { return appearance_; }
  const std::shared_ptr<const ProgramKinds>& programs() const { return programs_; }
  const MarkerFiles& markers() const { return markers_; }
  Channel& channel() { return channel_; }
  Invalidation& invalidation() { return invalidation_; }
  Handles<FileHandle>& files() { return files_; }
  Handles<FolderHandle>& folders() { return folders_; }
  SeenContents& seenContents() { return seenContents_; }
  NameChanges& nameChanges() { return nameChanges_; }
  /// Null when watchers are told of nothing.
  WatchEvents* events() const { return events_.get(); }
  /// Whether the kernel must not keep what the name stands for, because a call that tells of it is
  /// to come, and would be none for the same item.
  bool isUntold(replica::Rid folder, const std::string& name) const;

  void entryChanged(replica::Rid folder, const std::string& name) override;
  void itemChanged(replica::Rid item, bool contents) override;
  void watchedNamesChanged(const std::vector<replica::NameChange>& changes) override;

  /// The kernel and libfuse have agreed on what they can do, and requests come.
  void setReady() { setState(State::ready); }
  /// No more requests come.
  void setEnded() { setState(State::ended); }
  /// Waits for either; true when requests come.
  bool waitUntilReady() const;

  /// Lets go of everything that the kernel has open.
  void closeHandles();

 private:
  enum class State : int { starting, ready, ended };

  void setState(State state);

  replica::Replica& replica_;
  const Appearance appearance_;
  const std::shared_ptr<const ProgramKinds> programs_;
  const MarkerFiles markers_;
  const std::shared_ptr<WatchEvents> events_;
  std::atomic<State> state_ = State::starting;
  Handles<FileHandle> files_;
  Handles<FolderHandle> folders_;
  SeenContents seenContents_;
  NameChanges nameChanges_;
  Channel channel_;
  Invalidation invalidation_;
};

}  // namespace kestrowan::mount
