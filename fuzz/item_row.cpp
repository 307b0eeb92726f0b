// Rows of the versions before the tree: whatever values they have, they are records that make
// sense, or none; and what such a record is in three states comes back from its row, or is left
// out.

#include <filesystem>
#include <string>

#include "fuzz/FuzzTarget.h"
#include "platform/foundation/NSUUID.h"
#include "replica/store/ItemRow.h"
#include "replica/store/Takeover.h"
#include "replica/store/TreeRow.h"

using namespace kestrowan;
using namespace kestrowan::replica;

namespace {

constexpr int kColumns = 38;
constexpr int kTreeColumns = 44;

/// Takes values from the beginning of the input.
class Values {
 public:
  Values(const std::uint8_t* data, std::size_t size) : rest_(fuzz::text(data, size)) {}

  std::uint8_t byte() {
    if (rest_.empty()) return 0;
    const auto first = static_cast<std::uint8_t>(rest_.front());
    rest_.remove_prefix(1);
    return first;
  }
  std::int64_t number() {
    std::uint64_t value = 0;
    for (int i = 0; i < 8; ++i) value = value << 8 | byte();
    return static_cast<std::int64_t>(value);
  }
  std::string_view bytes() {
    const auto found = rest_.substr(0, byte());
    rest_.remove_prefix(found.size());
    return found;
  }

 private:
  std::string_view rest_;
};

/// A statement whose only row has what is bound to it.
struct Table {
  explicit Table(int columns) : database(newPath()), row(database, text(columns).c_str()) {
    std::filesystem::remove(database.path());
  }

  static std::string newPath() {
    return (std::filesystem::temp_directory_path() / ("row-" + newUUIDString())).string();
  }
  static std::string text(int columns) {
    std::string text = "SELECT ?1";
    for (int i = 2; i <= columns; ++i) text += ",?" + std::to_string(i);
    return text;
  }

  Database database;
  Statement row;
};

void bindValue(Statement& row, int parameter, Values& values) {
  switch (values.byte() % 4) {
    case 0:
      return row.bindNothing(parameter);
    case 1:
      return row.bind(parameter, std::int64_t{values.byte()});
    case 2:
      return row.bind(parameter, values.number());
    default:
      return row.bind(parameter, values.bytes());
  }
}

std::optional<model::KeptItem> itemIn(Statement& row) {
  fuzz::require(row.step(), "there is a row");
  auto item = store::treeItemFromRow(row);
  row.reset();
  return item;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Table table(kColumns);
  static Table tree(kTreeColumns);
  Values values(data, size);
  for (int parameter = 1; parameter <= kColumns; ++parameter) {
    bindValue(table.row, parameter, values);
  }
  fuzz::require(table.row.step(), "there is a row");
  const auto record = itemFromRow(table.row);
  table.row.reset();
  if (!record) return 0;
  fuzz::require(record->rid != 0 && record->size >= 0, "what was loaded makes sense");
  const auto taken = store::takenOver(*record, {});
  store::TreeRowBytes bytes;
  store::bindTreeItem(tree.row, taken.item, bytes);
  const auto item = itemIn(tree.row);
  if (!item) return 0;
  fuzz::require(*item == taken.item, "an item comes back");
  return 0;
}
