#include "support/TemporaryDirectory.h"

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace kestrowan::test {

TemporaryDirectory::TemporaryDirectory(const std::string& parent)
    : path_((parent.empty() ? std::filesystem::temp_directory_path().string() : parent) +
            "/kestrowan-test-XXXXXX") {
  if (!::mkdtemp(path_.data())) {
    throw std::system_error(errno, std::generic_category(), path_);
  }
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace kestrowan::test
