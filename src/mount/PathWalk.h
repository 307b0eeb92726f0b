#pragma once

#include <sys/stat.h>

#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "platform/base/UniqueFd.h"

namespace kestrowan {

/// One way along a path, part by part and by descriptors, so that no part can be exchanged between
/// the look at it and its use. Symbolic links are followed by hand. Not thread-safe; different
/// objects may be used from different threads.
class PathWalk {
 public:
  /// A part of the way, as it is judged before the way goes on from it.
  struct Part {
    /// Its path, without symbolic links but for itself.
    std::string path;
    /// The folder in which it lies.
    struct stat folder;
    struct stat status;
  };
  /// Why the way ends at a part, in words that name the part; absent when it may go on. Asked for
  /// the first folder, for every folder and link on the way, and for what lies at the end.
  using Judge = std::function<std::optional<std::string>(const Part&)>;

  /// What becomes of a symbolic link as the last part. One that is kept is the end, unjudged.
  enum class LastLink { followed, kept };
  /// What becomes of folders that are not there: made with mode 0700, but never through a link.
  enum class Missing { reported, made };

  /// Goes along `path`, from the root or from the working directory. Throws nothing of its own.
  PathWalk(const std::string& path, Judge judge, LastLink lastLink = LastLink::followed,
           Missing missing = Missing::reported);

  /// What the judge said; the way ended there.
  const std::optional<std::string>& refusal() const { return refusal_; }
  /// The value of `errno` with which the way ended, 0 when it did not.
  int error() const { return error_; }
  /// The path of the part at which it ended, or of the end.
  const std::string& path() const { return path_; }

  /// What lies at the end, opened with O_PATH; none when the way ended before.
  const UniqueFd& end() const { return end_; }
  /// Of the end.
  const struct stat& status() const { return endStatus_; }
  /// Whether the last part was one of the system's links to what a process has open.
  bool ledThroughOpenFile() const { return ledThroughOpenFile_; }

  /// The folder of the last part, opened with O_PATH, and the name of that part. Known also when
  /// only that part is missing (`error` is ENOENT).
  const UniqueFd& folder() const { return folder_; }
  const struct stat& folderStatus() const { return folderStatus_; }
  const std::string& folderPath() const { return folderPath_; }
  const std::string& name() const { return name_; }

 private:
  /// A part that was opened.
  struct Place {
    UniqueFd descriptor;
    struct stat status = {};
    std::string path;
  };

  void addParts(const std::string& path);
  bool begin(const std::string& path);
  bool goOn();
  bool enter(const std::string& name, bool isOwn);
  bool follow(Place link);
  bool reach(Place place);
  void noteFolder(const std::string& name);
  std::optional<Place> open(const std::string& name, int flags);
  std::optional<Place> openOrMake(const std::string& name, bool mayMake);
  bool isRefused(const Place& place, const struct stat& folder);
  bool fail(int error, std::string path);

  const Judge judge_;
  const LastLink lastLink_;
  const Missing missing_;

  /// The folder from which the way goes on, and the parts that are left.
  Place at_;
  std::deque<std::string> parts_;
  /// How many of those, counted from the last, stood in the path itself and not in a link.
  std::size_t ownParts_ = 0;
  int links_ = 0;

  std::optional<std::string> refusal_;
  int error_ = 0;
  std::string path_;
  UniqueFd end_;
  struct stat endStatus_ = {};
  bool ledThroughOpenFile_ = false;
  UniqueFd folder_;
  struct stat folderStatus_ = {};
  std::string folderPath_;
  std::string name_;
};

}  // namespace kestrowan
