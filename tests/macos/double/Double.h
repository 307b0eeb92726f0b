#pragma once

#include <cstddef>
#include <string>
#include <vector>

#import <FileProvider/FileProvider.h>
#import <UniformTypeIdentifiers/UniformTypeIdentifiers.h>

namespace kestrowan::test {

/// What the platform would give as the container of every application group; empty for nothing.
void setGroupContainer(const std::string& path);
/// The groups that have been asked for since the container was set.
std::vector<std::string> askedGroups();

/// What the platform gives as the directory for temporary files; without a trailing slash here,
/// with one there.
void setTemporaryDirectory(const std::string& path);

/// The filename extensions that types have been asked for, and forgets them.
std::vector<std::string> takeAskedExtensions();
/// Makes the lookup of types find none, or ends that.
void setTypesUnknown(bool unknown);

/// One message of the unified log.
struct LogMessage {
  std::string subsystem;
  std::string category;
  std::string format;
  std::vector<std::string> arguments;

  friend bool operator==(const LogMessage&, const LogMessage&) = default;
};

/// The messages logged so far, and forgets them.
std::vector<LogMessage> takeLogMessages();

}  // namespace kestrowan::test
