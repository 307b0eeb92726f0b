#pragma once

#include <mutex>
#include <unordered_map>

#include "async/Loop.h"
#include "replica/model/Tree.h"
#include "replica/pull/BackgroundFetches.h"
#include "replica/pull/Downloader.h"
#include "replica/pull/Refresher.h"
#include "replica/pull/Walk.h"
#include "replica/remote/Health.h"

namespace kestrowan::replica::pull {

/// Fetches and lists what a program comes to next when it goes through a folder. Usable from every
/// thread.
class ReadAhead {
 public:
  ReadAhead(const model::Tree& tree, const async::Loop& loop, const remote::Health& health,
            Downloader& downloader, Refresher& refresher, const BackgroundFetches& background);
  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;

  /// A program opens a file to read it, or lists a folder; null for one that a user waits for.
  void noteOpened(model::ItemNumber file, const Caller* program);
  void noteListed(model::ItemNumber folder, const Caller* program);

 private:
  struct Walks {
    Walk files;
    Walk folders;
  };

  const model::Tree& tree_;
  const async::Loop& loop_;
  const remote::Health& health_;
  Downloader& downloader_;
  Refresher& refresher_;
  const BackgroundFetches& background_;
  std::mutex mutex_;  // guards what follows; a leaf
  std::unordered_map<model::ItemNumber, Walks> walks_;
};

}  // namespace kestrowan::replica::pull
