#pragma once

#include <string>

namespace kestrowan::test {

/// A fresh empty directory of mode 0700, removed with all that is in it by its owner.
class TemporaryDirectory {
 public:
  /// Makes it in `parent`, or where temporary files go when that is empty. Throws
  /// `std::system_error`.
  explicit TemporaryDirectory(const std::string& parent = {});
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory();

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace kestrowan::test
