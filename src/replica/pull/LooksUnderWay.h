#pragma once

#include <list>
#include <memory>
#include <vector>

#include "platform/base/OneShot.h"
#include "platform/base/Resumer.h"
#include "platform/base/Task.h"
#include "replica/model/Numbers.h"

namespace kestrowan::replica::pull {

/// The looks that are on their way, by the folders that they are at. Owned by the looks; used on
/// the loop.
class LooksUnderWay {
 private:
  struct One {
    std::vector<model::ItemNumber> folders;
    std::vector<std::shared_ptr<OneShot<void>>> waiters;
  };

 public:
  /// Those that wait continue on `loop`, which must outlive it.
  explicit LooksUnderWay(Resumer& loop) : loop_(loop) {}
  LooksUnderWay(const LooksUnderWay&) = delete;
  LooksUnderWay& operator=(const LooksUnderWay&) = delete;

  /// A look is on its way while this lives.
  class Mark {
   public:
    Mark(LooksUnderWay& looks, std::vector<model::ItemNumber> folders);
    Mark(const Mark&) = delete;
    Mark& operator=(const Mark&) = delete;
    ~Mark();

   private:
    LooksUnderWay& looks_;
    std::list<One>::iterator one_;
  };

  bool isAtAny(const std::vector<model::ItemNumber>& folders) const;
  /// Ends when each look has ended that is at one of the folders now, however it ends.
  Task<void> end(std::vector<model::ItemNumber> folders);

 private:
  static bool isAtAny(const One& one, const std::vector<model::ItemNumber>& folders);

  Resumer& loop_;
  std::list<One> looks_;
};

}  // namespace kestrowan::replica::pull
