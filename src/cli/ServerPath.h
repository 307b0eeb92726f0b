#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/fileprovider/NSFileProviderItem.h"

namespace kestrowan::cli {

/// The command line cannot be carried out as it stands.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A server path as a person writes it: absolute, a missing leading "/" added, trailing and
/// doubled slashes dropped. Throws `UsageError` for "." and ".." as a component and for NUL.
std::string serverPath(std::string_view argument);

/// The identifier of the item at a server path.
NSFileProviderItemIdentifier identifier(const std::string& path);

/// The identifier of the folder that holds `path`.
NSFileProviderItemIdentifier parentIdentifier(const std::string& path);

}  // namespace kestrowan::cli
