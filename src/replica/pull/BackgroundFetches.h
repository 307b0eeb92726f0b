#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "async/Scope.h"
#include "platform/base/Task.h"
#include "replica/Caller.h"
#include "replica/Options.h"
#include "replica/pull/Downloader.h"

namespace kestrowan::replica::pull {

/// Says what is fetched for programs that work in the background. Usable from every thread.
class BackgroundFetches {
 public:
  /// All must outlive it.
  BackgroundFetches(async::Scope& scope, const Options& options, const Downloader& downloader)
      : scope_(scope), options_(options), downloader_(downloader) {}
  BackgroundFetches(const BackgroundFetches&) = delete;
  BackgroundFetches& operator=(const BackgroundFetches&) = delete;

  /// While it lives nothing else is fetched for a thumbnailer. Null for an ordinary program. It
  /// must not outlive the object.
  using Turn = std::shared_ptr<void>;

  /// Ends when a file of `size` bytes may be fetched for the caller, which is an ordinary program
  /// when it is null: of a thumbnailer, when nothing else is being fetched. Throws EACCES when it
  /// may not.
  Task<Turn> turn(std::shared_ptr<const Caller> caller, std::int64_t size);

  /// Whether what comes next may be fetched or listed ahead for the caller.
  bool mayLookAhead(const Caller* caller) const;

  struct Refused {
    std::int64_t count = 0;
    /// The program that was refused last.
    std::string last;
  };
  /// Since the start.
  Refused refused() const;

 private:
  void refuse(const Caller& caller);
  bool beginThumbnail();
  void endThumbnail();

  async::Scope& scope_;
  const Options& options_;
  const Downloader& downloader_;

  mutable std::mutex mutex_;  // guards what follows; a leaf
  Refused refused_;
  bool isFetchingThumbnail_ = false;
};

}  // namespace kestrowan::replica::pull
