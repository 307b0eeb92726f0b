#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "replica/store/Database.h"

struct sqlite3_stmt;

namespace kestrowan::replica {

/// One prepared statement, used again and again. Its database must outlive it. Parameters count
/// from 1, columns from 0. Throws as the database does.
class Statement {
 public:
  Statement(Database& database, const char* text);
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement();

  void bind(int parameter, std::int64_t number);
  /// The bytes must stay until the statement has run.
  void bind(int parameter, std::string_view bytes);
  void bindNothing(int parameter);

  /// Goes to the next row; false when there is none.
  bool step();
  /// Makes it ready to run anew; parameters keep their values.
  void reset() noexcept;
  /// Runs a statement that has no rows, and makes it ready to run anew.
  void run();

  // Of the row that `step` went to. Each gives nothing for a value of another kind.

  bool isNothing(int column) const;
  std::optional<std::int64_t> number(int column) const;
  /// Bytes or text; they stay until the next `step` or `reset`.
  std::optional<std::string_view> bytes(int column) const;

 private:
  void check(int code) const;

  Database& database_;
  sqlite3_stmt* statement_ = nullptr;
};

}  // namespace kestrowan::replica
