#pragma once

#include <memory>
#include <string>
#include <utility>

#include <sys/types.h>

#include "mount/ProgramKinds.h"
#include "replica/Caller.h"

namespace kestrowan::mount {

/// The thread that makes a request, looked at when it is asked about.
class CallingThread : public replica::Caller {
 public:
  CallingThread(std::shared_ptr<const ProgramKinds> kinds, pid_t number)
      : kinds_(std::move(kinds)), number_(number) {}

  replica::ProgramKind kind() const override {
    return kinds_->kindOf(ProgramKinds::threadOf(number_));
  }
  std::string name() const override { return ProgramKinds::threadOf(number_).program; }

 private:
  const std::shared_ptr<const ProgramKinds> kinds_;
  const pid_t number_;
};

}  // namespace kestrowan::mount
