#pragma once

#include <cstdint>
#include <optional>
#include <unordered_map>

#include "replica/model/Path.h"
#include "replica/remote/IdentifierForm.h"
#include "replica/store/Database.h"
#include "replica/store/Takeover.h"

namespace kestrowan::replica::store {

/// Takes the rows of the table "items" over into "tree" and "intents". Used once, inside of the
/// transaction that its caller opened. Rows that make no sense are left behind. Throws as the
/// database does.
class TakeoverRun {
 public:
  TakeoverRun(Database& database, const remote::IdentifierForm& form, model::Time now)
      : database_(database), form_(form), now_(now) {}

  void run();
  /// Rows that make no sense.
  std::size_t leftOut() const { return leftOut_; }

 private:
  /// A folder that the provider has.
  struct Folder {
    Rid parent = 0;
    std::string name;
    std::string identifier;
  };

  void readFolders();
  void save();
  std::optional<model::Path> pathOf(Rid folder, const std::string& name) const;
  bool isDerived(const Base& base) const;
  Surroundings surroundingsOf(const ItemRecord& record) const;

  Database& database_;
  const remote::IdentifierForm& form_;
  const model::Time now_;
  std::unordered_map<Rid, Folder> folders_;
  std::size_t leftOut_ = 0;
};

}  // namespace kestrowan::replica::store
