#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/NSData.h"
#include "platform/foundation/NSURL.h"

namespace kestrowan {

/// The local files of the process: the seam through which the extension reads, moves and makes
/// them. Usable from every thread. All sizes are bytes. A path that holds a NUL names no file.
class NSFileManager {
 public:
  virtual ~NSFileManager() = default;

  /// The process's file manager. Lives until the next `setDefaultManager`.
  static std::shared_ptr<NSFileManager> defaultManager();
  /// Replaces the process's file manager, for hosts with directories of their own and for tests;
  /// null brings back the platform's own.
  static void setDefaultManager(std::shared_ptr<NSFileManager> manager);

  /// The directory of an application group; nothing when there is none. Creates nothing.
  virtual std::optional<NSURL> containerURL(
      std::string_view forSecurityApplicationGroupIdentifier) = 0;
  /// The directory for short-lived files. Creates nothing.
  virtual NSURL temporaryDirectory() = 0;
  /// How much of the disk under that a download that does not end must leave free.
  virtual std::int64_t reservedCapacity() { return 0; }
  /// The whole contents of a regular file of at most 1 MiB. Throws `NSError` of
  /// `NSCocoaErrorDomain`: absent, not permitted, no regular file, or too large (unread).
  virtual NSData contents(const NSURL& at) = 0;
  /// Makes a file with `contents`, mode 0600, replacing a regular file; false when that failed.
  virtual bool createFile(const NSURL& at, std::string_view contents) = 0;
  /// Moves a file, between file systems too. Never replaces: throws `NSError` of
  /// `NSCocoaErrorDomain` when the destination exists or the move fails, and then leaves the
  /// source where it was.
  virtual void moveItem(const NSURL& at, const NSURL& to) = 0;
  /// Removes a file, or a folder with all that is in it. Throws `NSError` of `NSCocoaErrorDomain`.
  virtual void removeItem(const NSURL& at) = 0;
  /// The size of a file; nothing when its attributes cannot be read.
  virtual std::optional<std::int64_t> fileSize(const NSURL& of) = 0;
  /// The longest name of a file that `directory` takes, in bytes.
  virtual std::size_t maximumNameLength(const NSURL& directory) = 0;
};

}  // namespace kestrowan
