#include "mount/MountTable.h"

#include <cerrno>
#include <cstddef>
#include <fstream>
#include <sstream>

#include "platform/foundation/NSError.h"

namespace kestrowan::mount {

namespace {

bool isOctal(char digit) {
  return digit >= '0' && digit <= '7';
}

/// The table writes blanks, line ends and backslashes as "\ooo".
std::string unescaped(std::string_view text) {
  constexpr std::size_t kEscapeLength = 4;
  std::string plain;
  while (!text.empty()) {
    if (text.size() >= kEscapeLength && text[0] == '\\' && isOctal(text[1]) && isOctal(text[2]) &&
        isOctal(text[3])) {
      plain += static_cast<char>((text[1] - '0') * 64 + (text[2] - '0') * 8 + (text[3] - '0'));
      text.remove_prefix(kEscapeLength);
    } else {
      plain += text.front();
      text.remove_prefix(1);
    }
  }
  return plain;
}

/// A line is: number, parent's number, device, root, path, options, any number of fields, "-",
/// type, source, options of the file system.
std::optional<MountEntry> parsedLine(const std::string& line) {
  std::istringstream fields(line);
  std::string skipped;
  MountEntry entry;
  fields >> skipped >> skipped >> entry.device >> skipped >> entry.path;
  while (fields >> skipped && skipped != "-") {
  }
  if (!(fields >> entry.type)) return std::nullopt;
  entry.path = unescaped(entry.path);
  return entry;
}

}  // namespace

std::optional<MountEntry> mountAt(std::string_view path) {
  std::ifstream file("/proc/self/mountinfo");
  std::ostringstream table;
  if (!(table << file.rdbuf())) throw posixError(EIO);
  return mountAt(path, table.str());
}

std::optional<MountEntry> mountAt(std::string_view path, std::string_view table) {
  std::optional<MountEntry> found;
  std::istringstream lines{std::string(table)};
  for (std::string line; std::getline(lines, line);) {
    auto entry = parsedLine(line);
    if (entry && entry->path == path) found = std::move(entry);
  }
  return found;
}

}  // namespace kestrowan::mount
