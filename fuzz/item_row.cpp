// Rows of the database: whatever values they have, they are records that make sense, or none; and
// a record comes back from its row.

#include <filesystem>
#include <string>

#include "fuzz/FuzzTarget.h"
#include "platform/foundation/NSUUID.h"
#include "replica/store/ItemRow.h"

using namespace kestrowan;
using namespace kestrowan::replica;

namespace {

constexpr int kColumns = 38;

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
  Table() : database(newPath()), row(database, text().c_str()) {
    std::filesystem::remove(database.path());
  }

  static std::string newPath() {
    return (std::filesystem::temp_directory_path() / ("row-" + newUUIDString())).string();
  }
  static std::string text() {
    std::string columns = "SELECT ?1";
    for (int i = 2; i <= kColumns; ++i) columns += ",?" + std::to_string(i);
    return columns;
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

std::optional<ItemRecord> recordIn(Statement& row) {
  fuzz::require(row.step(), "there is a row");
  auto record = itemFromRow(row);
  row.reset();
  return record;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Table table;
  Values values(data, size);
  for (int parameter = 1; parameter <= kColumns; ++parameter) {
    bindValue(table.row, parameter, values);
  }
  const auto record = recordIn(table.row);
  if (!record) return 0;
  fuzz::require(isSensible(*record), "what was loaded makes sense");
  std::string attributes;
  bindItem(table.row, *record, attributes);
  fuzz::require(recordIn(table.row) == record, "a record comes back");
  return 0;
}
