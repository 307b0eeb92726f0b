#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bridge/FPBridge.h"
#include "support/FakeSession.h"
#include "support/RecordingLog.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::test {

/// A fake network, a recorded log, and a container and temporary directory of the test's own.
class ExtensionFixture : public ::testing::Test {
 protected:
  ExtensionFixture() {
    std::filesystem::create_directory(container());
    std::filesystem::create_directory(temporary());
    ::setenv("KESTROWAN_CONTAINER", container().c_str(), 1);
    ::setenv("TMPDIR", temporary().c_str(), 1);
  }
  ~ExtensionFixture() override {
    ::unsetenv("KESTROWAN_CONTAINER");
    ::unsetenv("TMPDIR");
  }

  std::string container() const { return directory_.path() + "/container"; }
  std::string temporary() const { return directory_.path() + "/tmp"; }

  void writeBridgeFile(std::string_view text) const {
    std::ofstream(container() + "/fp-webdav.json", std::ios::binary) << text;
  }
  void configure() const {
    writeBridgeFile(FPBridge::Config{8443, "user", "pass", "QUJD"}.encode());
  }

  /// The names in the temporary directory.
  std::vector<std::string> temporaryFiles() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(temporary())) {
      names.push_back(entry.path().filename());
    }
    return names;
  }

  TemporaryDirectory directory_;
  RecordingLog log_;
  FakeNetwork network_;
};

}  // namespace kestrowan::test
