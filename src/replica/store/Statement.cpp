#include "replica/store/Statement.h"

#include <sqlite3.h>

namespace kestrowan::replica {

Statement::Statement(Database& database, const char* text) : database_(database) {
  check(::sqlite3_prepare_v3(database.connection(), text, -1, SQLITE_PREPARE_PERSISTENT,
                             &statement_, nullptr));
}

Statement::~Statement() {
  ::sqlite3_finalize(statement_);
}

void Statement::check(int code) const {
  if (code != SQLITE_OK) database_.fail(code);
}

void Statement::bind(int parameter, std::int64_t number) {
  check(::sqlite3_bind_int64(statement_, parameter, number));
}

void Statement::bind(int parameter, std::string_view bytes) {
  // A null pointer would stand for no value at all.
  const char* data = bytes.empty() ? "" : bytes.data();
  check(::sqlite3_bind_blob64(statement_, parameter, data, bytes.size(), SQLITE_STATIC));
}

void Statement::bindNothing(int parameter) {
  check(::sqlite3_bind_null(statement_, parameter));
}

bool Statement::step() {
  const int code = ::sqlite3_step(statement_);
  if (code == SQLITE_ROW) return true;
  if (code == SQLITE_DONE) return false;
  database_.fail(code);
}

void Statement::reset() noexcept {
  ::sqlite3_reset(statement_);
}

void Statement::run() {
  const int code = ::sqlite3_step(statement_);
  // Tells again what went wrong, if anything did.
  const int failure = ::sqlite3_reset(statement_);
  if (code != SQLITE_DONE) database_.fail(failure != SQLITE_OK ? failure : code);
}

bool Statement::isNothing(int column) const {
  return ::sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

std::optional<std::int64_t> Statement::number(int column) const {
  if (::sqlite3_column_type(statement_, column) != SQLITE_INTEGER) return std::nullopt;
  return ::sqlite3_column_int64(statement_, column);
}

std::optional<std::string_view> Statement::bytes(int column) const {
  const int type = ::sqlite3_column_type(statement_, column);
  if (type != SQLITE_BLOB && type != SQLITE_TEXT) return std::nullopt;
  const auto* data = static_cast<const char*>(::sqlite3_column_blob(statement_, column));
  const auto size = static_cast<std::size_t>(::sqlite3_column_bytes(statement_, column));
  return data ? std::string_view(data, size) : std::string_view();
}

}  // namespace kestrowan::replica
