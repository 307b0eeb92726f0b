#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kestrowan::replica {

/// Rules about names. Pure functions; names are bytes, not necessarily UTF-8.

/// How items of a name are treated.
enum class NameClass : std::uint8_t {
  ordinary,
  localOnly,  // lock, swap and temporary files of programs: never sent
  refused,    // trash folders, so that file managers offer to delete for good
};

/// By the documented patterns: ".~lock.*#", ".*.sw?", "4913", ".goutputstream-*", ".nfs*",
/// ".fuse_hidden*", "._*", ".DS_Store", "~$*", "*.part", "*.crdownload" stay here; ".Trash" and
/// ".Trash-*" are refused.
NameClass nameClass(std::string_view name);

/// Whether programs look for this name in each folder that they come to, by the documented list:
/// ".git", ".gitignore", ".gitattributes", ".gitmodules", ".hg", ".svn", ".bzr", ".ignore",
/// ".rgignore", ".editorconfig", ".hidden", ".directory", ".nomedia", ".trackerignore", ".Trash*",
/// ".xdg-volume-info", ".autorun", "autorun.inf".
bool isProbed(std::string_view name);

/// "name (conflict 2026-01-31 1200 host).ext" for the local time of `at` (seconds since 1970-01-01
/// UTC); of its middle, as much is dropped as the limit of 255 bytes asks for, never half a
/// character. `attempt` above 1 adds a number, for a name that is taken. Characters of `host` that
/// are no letter, digit, "-", "_" or "." are left out.
std::string conflictName(std::string_view name, std::int64_t at, std::string_view host,
                         unsigned attempt = 1);

/// "name (2).ext", under the same limit; `number` is at least 2.
std::string bouncedName(std::string_view name, unsigned number);

}  // namespace kestrowan::replica
