#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/base/UniqueFd.h"
#include "replica/model/Numbers.h"
#include "replica/store/ContentFiles.h"

namespace kestrowan::replica::store {

/// Gives contents their numbers and their files. Usable from every thread. Everything throws
/// `NSError` of `NSPOSIXErrorDomain`.
class Contents {
 public:
  /// Contents that were just made and that nothing refers to yet: their file goes with this object
  /// unless they are kept.
  class Made {
   public:
    Made(ContentFiles& files, model::Content number, UniqueFd file);
    Made(Made&& other) noexcept;
    Made& operator=(Made&&) = delete;
    ~Made();

    model::Content number() const { return number_; }
    int file() const { return file_.get(); }
    /// Something refers to them from now on. Gives their file, open to be read and written; none
    /// for contents that were adopted.
    UniqueFd keep();

   private:
    ContentFiles& files_;
    model::Content number_;
    UniqueFd file_;
    bool isKept_ = false;
  };

  /// `files` must outlive it. Numbers above `last` have never been given.
  Contents(ContentFiles& files, model::Content last);

  /// A number that was never given.
  model::Content next();
  Made create();
  /// A copy of the contents behind `source`, sharing blocks where the file system can.
  Made clone(int source);
  /// The same where blocks can be shared, or they take at most `most` bytes of the disk.
  std::optional<Made> cloneCheaply(int source, std::int64_t most);
  /// Takes the regular file at `path`, as contents with a number that `next` gave.
  Made adopt(const std::string& path, model::Content number);
  UniqueFd open(model::Content number) const;
  std::string path(model::Content number) const;
  /// The date of their file.
  void setModified(model::Content number, model::FileTime modified) const;
  /// In bytes.
  std::int64_t sizeOf(model::Content number) const;

  ContentFiles& files() { return files_; }

 private:
  ContentFiles& files_;
  std::atomic<std::uint64_t> last_;
};

}  // namespace kestrowan::replica::store
