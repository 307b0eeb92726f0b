#pragma once

#include <string>
#include <string_view>

#include "async/Loop.h"
#include "replica/Options.h"
#include "replica/plan/Names.h"

namespace kestrowan::replica::pull {

/// The names that users see for what cannot stay under its own. Usable from every thread.
class GivenNames : public plan::Names {
 public:
  /// Both must outlive it.
  GivenNames(const Options& options, const async::Loop& loop) : options_(options), loop_(loop) {}

  bool staysHere(std::string_view name) const override;
  /// "name (conflict 2026-01-31 1200 host).ext"
  std::string conflict(std::string_view name, unsigned number) const override;
  /// "name (2).ext"
  std::string aside(std::string_view name, unsigned number) const override;
  std::string third(std::string_view name, unsigned number) const override;

 private:
  const Options& options_;
  const async::Loop& loop_;
};

}  // namespace kestrowan::replica::pull
