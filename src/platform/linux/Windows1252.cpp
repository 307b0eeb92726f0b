#include "platform/linux/Windows1252.h"

#include <strings.h>

#include <string>

namespace kestrowan {

namespace {

constexpr std::array<int, 32> kFrom0x80 = {
    0x20AC, -1,     0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, -1,     0x017D, -1,     -1,     0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, -1,     0x017E, 0x0178};

constexpr std::array<int, 256> makeTable() {
  std::array<int, 256> table = {};
  for (std::size_t byte = 0; byte < table.size(); ++byte) table[byte] = static_cast<int>(byte);
  for (std::size_t i = 0; i < kFrom0x80.size(); ++i) table[0x80 + i] = kFrom0x80[i];
  return table;
}

}  // namespace

bool isWindows1252(std::string_view name) {
  return ::strcasecmp(std::string(name).c_str(), "windows-1252") == 0;
}

const std::array<int, 256>& windows1252CodePoints() {
  static constexpr auto kTable = makeTable();
  return kTable;
}

}  // namespace kestrowan
