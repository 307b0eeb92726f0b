#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "replica/model/State.h"
#include "replica/remote/IdentifierForm.h"
#include "replica/store/Database.h"

namespace kestrowan::replica::store {

/// Reads the rows of a tree, and trusts none of them. What makes no sense by itself, is in no
/// folder, or has an identifier that the provider may not be asked for, is left out. Used once, by
/// one thread. Throws as the database does.
class TreeLoader {
 public:
  /// Both must outlive it.
  TreeLoader(Database& database, const remote::IdentifierForm& form)
      : database_(database), form_(form) {}

  model::State load();

  /// The numbers of the rows that were left out, of items and of intents.
  const std::vector<std::int64_t>& leftOutItems() const { return leftOutItems_; }
  const std::vector<std::int64_t>& leftOutIntents() const { return leftOutIntents_; }

 private:
  bool isProper(const model::State& state, const model::Item& item) const;
  bool isFormOfName(const model::There& there) const;

  Database& database_;
  const remote::IdentifierForm& form_;
  std::vector<std::int64_t> leftOutItems_;
  std::vector<std::int64_t> leftOutIntents_;
};

}  // namespace kestrowan::replica::store
