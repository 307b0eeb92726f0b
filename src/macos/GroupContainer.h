#pragma once

#include <memory>

#include "platform/foundation/NSFileManager.h"

namespace kestrowan::macos {

/// A file manager that asks the platform where directories are, and another one for the rest.
/// Usable from every thread.
class GroupContainer : public NSFileManager {
 public:
  /// `files` must not be null.
  explicit GroupContainer(std::shared_ptr<NSFileManager> files);

  /// What the platform gives to a program that is entitled to the group. It may name a directory
  /// that does not exist.
  std::optional<NSURL> containerURL(
      std::string_view forSecurityApplicationGroupIdentifier) override;
  NSURL temporaryDirectory() override;

  NSData contents(const NSURL& at) override;
  bool createFile(const NSURL& at, std::string_view contents) override;
  void moveItem(const NSURL& at, const NSURL& to) override;
  void removeItem(const NSURL& at) override;
  std::optional<std::int64_t> fileSize(const NSURL& of) override;
  std::size_t maximumNameLength(const NSURL& directory) override;

 private:
  const std::shared_ptr<NSFileManager> files_;
};

}  // namespace kestrowan::macos
