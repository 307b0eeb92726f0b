#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "replica/model/Path.h"

namespace kestrowan::replica::pull {

/// Which paths requests of ours have changed while a listing was on its way: what it shows of them
/// may be from before or from after. Usable from every thread.
class Touches {
 public:
  /// A listing from its beginning on, and what was touched since.
  class Watch {
   public:
    explicit Watch(Touches& touches);
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch();

    std::vector<model::Path> touched() const;

   private:
    Touches& touches_;
    std::multiset<std::uint64_t>::iterator begin_;
  };

  /// A request about these paths has ended.
  void note(std::vector<model::Path> paths);

 private:
  mutable std::mutex mutex_;  // guards what follows
  std::uint64_t last_ = 0;
  std::deque<std::pair<std::uint64_t, model::Path>> noted_;
  /// Where the listings that are on their way began.
  std::multiset<std::uint64_t> begins_;
};

}  // namespace kestrowan::replica::pull
