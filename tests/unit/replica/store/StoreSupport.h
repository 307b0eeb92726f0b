#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "platform/foundation/NSError.h"

namespace kestrowan::replica::store {

/// The POSIX code that `action` throws; 0 when it throws nothing. The text must name the database.
std::int64_t errorOf(const std::function<void()>& action);

/// Says what went wrong.
using Report = std::function<void(const std::string&)>;
/// Runs `body` in a child process, which then ends without any orderliness. Gives what the body
/// reported: "" when all was well.
std::string inChild(const std::function<void(const Report&)>& body);

/// Mounts a file system of 1 MiB that only this process and its children see; and makes it larger.
bool mountSmallFileSystem(const std::string& directory, const char* size = "1m");
bool enlargeSmallFileSystem(const std::string& directory);
bool canMount();
/// Writes to a file in `directory` until the file system has no room.
void fillUp(const std::string& directory);

/// The whole file, as bytes.
std::string bytesOf(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);

}  // namespace kestrowan::replica::store
