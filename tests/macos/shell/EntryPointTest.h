#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "FakeExtension.h"
#include "ShellTest.h"
#include "items/FPItem.h"

namespace kestrowan::test {

/// The shell in front of a provider that completes when the test says so.
class EntryPointTest : public ShellTest {
 protected:
  void TearDown() override {
    core.reset();
    ShellTest::TearDown();
  }

  static NSFileProviderItemPtr coreFile(std::string path) {
    return std::make_shared<const kestrowan::FPItem>(std::move(path), false, 1, "e", std::nullopt);
  }

  static constexpr auto kNoError = std::nullopt;

  std::shared_ptr<FakeExtension> core = std::make_shared<FakeExtension>();
};

}  // namespace kestrowan::test
