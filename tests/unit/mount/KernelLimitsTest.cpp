#include "mount/KernelLimits.h"

#include <gtest/gtest.h>

#include <fstream>

#include "platform/foundation/NSError.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::mount {
namespace {

class KernelLimitsTest : public testing::Test {
 protected:
  void set(const std::string& name, const std::string& value) const {
    std::ofstream(directory_.path() + "/" + name) << value << "\n";
  }

  test::TemporaryDirectory directory_;
};

TEST_F(KernelLimitsTest, AKernelWithoutLimitsIsTaken) {
  EXPECT_NO_THROW(checkKernelLimits(directory_.path()));
  set("default_request_timeout", "0");
  set("max_request_timeout", "0");
  EXPECT_NO_THROW(checkKernelLimits(directory_.path()));
}

TEST_F(KernelLimitsTest, ALimitIsRefusedAndNamed) {
  for (const std::string name : {"default_request_timeout", "max_request_timeout"}) {
    set("default_request_timeout", "0");
    set("max_request_timeout", "0");
    set(name, "30");
    try {
      checkKernelLimits(directory_.path());
      ADD_FAILURE() << name;
    } catch (const NSError& error) {
      const auto text = error.localizedDescription();
      EXPECT_NE(text.find("30 seconds"), std::string::npos) << text;
      EXPECT_NE(text.find("fs.fuse." + name + "=0"), std::string::npos) << text;
    }
  }
}

}  // namespace
}  // namespace kestrowan::mount
