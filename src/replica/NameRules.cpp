#include "replica/NameRules.h"

#include <time.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "replica/NameParts.h"

namespace kestrowan::replica {

namespace {

constexpr std::size_t kLongestHost = 64;
constexpr std::string_view kConflictMark = " (conflict ";

struct ClassPattern {
  std::string_view pattern;
  NameClass nameClass;
};

constexpr ClassPattern kPatterns[] = {
    {".~lock.*#", NameClass::localOnly},    {".*.sw?", NameClass::localOnly},
    {"4913", NameClass::localOnly},         {".goutputstream-*", NameClass::localOnly},
    {".nfs*", NameClass::localOnly},        {".fuse_hidden*", NameClass::localOnly},
    {"._*", NameClass::localOnly},          {".DS_Store", NameClass::localOnly},
    {"~$*", NameClass::localOnly},          {"*.part", NameClass::localOnly},
    {"*.crdownload", NameClass::localOnly}, {".Trash", NameClass::refused},
    {".Trash-*", NameClass::refused},
};

constexpr std::string_view kProbed[] = {
    ".git",     ".gitignore",     ".gitattributes", ".gitmodules",      ".hg",      ".svn",
    ".bzr",     ".ignore",        ".rgignore",      ".editorconfig",    ".hidden",  ".directory",
    ".nomedia", ".trackerignore", ".Trash*",        ".xdg-volume-info", ".autorun", "autorun.inf",
};

/// Whether `name` fits `pattern`, in which "*" stands for any bytes and "?" for one.
bool matches(std::string_view pattern, std::string_view name) {
  std::size_t at = 0;
  std::size_t in = 0;
  // Where to go on when the last "*" has to take one byte more.
  auto star = std::string_view::npos;
  std::size_t taken = 0;
  while (in < name.size()) {
    if (at < pattern.size() && pattern[at] == '*') {
      star = at++;
      taken = in;
    } else if (at < pattern.size() && (pattern[at] == '?' || pattern[at] == name[in])) {
      ++at;
      ++in;
    } else if (star != std::string_view::npos) {
      at = star + 1;
      in = ++taken;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', at) == std::string_view::npos;
}

bool isPlain(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= '0' && byte <= '9') || byte == '-' || byte == '_' || byte == '.';
}

std::string localMinute(std::int64_t at) {
  const time_t seconds = at;
  struct tm parts;
  std::array<char, 64> text;
  if (!::localtime_r(&seconds, &parts) ||
      ::strftime(text.data(), text.size(), "%Y-%m-%d %H%M", &parts) == 0) {
    return std::to_string(at);
  }
  return text.data();
}

}  // namespace

NameClass nameClass(std::string_view name) {
  for (const auto& one : kPatterns) {
    if (matches(one.pattern, name)) return one.nameClass;
  }
  return NameClass::ordinary;
}

bool isProbed(std::string_view name) {
  return std::any_of(std::begin(kProbed), std::end(kProbed),
                     [&](std::string_view pattern) { return matches(pattern, name); });
}

std::string conflictName(std::string_view name, std::int64_t at, std::string_view host,
                         unsigned attempt) {
  std::string suffix = std::string(kConflictMark) + localMinute(at);
  std::string plainHost;
  std::copy_if(host.begin(), host.end(), std::back_inserter(plainHost), isPlain);
  plainHost.resize(std::min(plainHost.size(), kLongestHost));
  if (!plainHost.empty()) suffix += " " + plainHost;
  if (attempt > 1) suffix += " " + std::to_string(attempt);
  suffix += ")";
  return assembledName({}, nameParts(name), suffix);
}

std::string bouncedName(std::string_view name, unsigned number) {
  return assembledName({}, nameParts(name), " (" + std::to_string(number) + ")");
}

}  // namespace kestrowan::replica
