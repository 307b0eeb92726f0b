#include "replica/store/RowReader.h"

namespace kestrowan::replica::store {

std::int64_t RowReader::number(std::int64_t least, std::int64_t greatest) {
  const auto value = row_.number(next_++);
  if (value && *value >= least && *value <= greatest) return *value;
  refuse();
  return least;
}

std::int64_t RowReader::numberOr(std::int64_t usual, std::int64_t least, std::int64_t greatest) {
  if (!isNothing()) return number(least, greatest);
  skip();
  return usual;
}

std::string_view RowReader::bytes() {
  const auto value = row_.bytes(next_++);
  if (!value) refuse();
  return value.value_or(std::string_view());
}

std::string_view RowReader::bytesOr(std::string_view usual) {
  if (!isNothing()) return bytes();
  skip();
  return usual;
}

}  // namespace kestrowan::replica::store
