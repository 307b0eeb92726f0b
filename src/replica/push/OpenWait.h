#pragma once

#include <chrono>

#include "replica/model/Numbers.h"

namespace kestrowan::replica::push {

/// Knows which files programs have open to be written.
class OpenWait {
 public:
  virtual ~OpenWait() = default;

  /// How long the contents of a file are not to be sent yet, because a program has it open and may
  /// write more. Not within an edit.
  virtual std::chrono::milliseconds openWait(model::ItemNumber file) const = 0;
  /// The contents of a file are being sent while a program has it open.
  virtual void noteSending(model::ItemNumber file) = 0;
};

}  // namespace kestrowan::replica::push
