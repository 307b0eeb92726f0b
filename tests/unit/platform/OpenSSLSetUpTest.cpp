#include "platform/linux/OpenSSLSetUp.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

#include "platform/foundation/NSData.h"
#include "platform/foundation/NSUUID.h"
#include "platform/foundation/SHA256.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::test {
namespace {

/// Ends the process: with 0 when `use` gives something though the environment names a
/// configuration that leaves the library without a single algorithm.
[[noreturn]] void useWithHostileConfiguration(const std::function<std::string()>& use) {
  std::string used;
  {
    const TemporaryDirectory directory;
    const auto path = directory.path() + "/openssl.cnf";
    std::ofstream(path) << "openssl_conf = all\n[all]\nalg_section = none\n"
                           "[none]\ndefault_properties = there=none\n";
    ::setenv("OPENSSL_CONF", path.c_str(), 1);
    used = use();
  }
  std::_Exit(used.empty() ? 1 : 0);
}

/// The library reads its configuration once, so each use needs a process of its own.
class OpenSSLSetUpTest : public testing::Test {
 protected:
  OpenSSLSetUpTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(OpenSSLSetUpTest, RandomIdentifiersNeedNoConfiguration) {
  EXPECT_EXIT(useWithHostileConfiguration(newUUIDString), testing::ExitedWithCode(0), "");
}

TEST_F(OpenSSLSetUpTest, DigestsNeedNoConfiguration) {
  EXPECT_EXIT(useWithHostileConfiguration([] { return sha256Text("text"); }),
              testing::ExitedWithCode(0), "");
}

TEST_F(OpenSSLSetUpTest, MayBeCalledAgain) {
  EXPECT_TRUE(setUpOpenSSL());
  EXPECT_TRUE(setUpOpenSSL());
}

}  // namespace
}  // namespace kestrowan::test
