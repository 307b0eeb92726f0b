#include "mount/SystemProgram.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "platform/foundation/NSError.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::mount {
namespace {

namespace fs = std::filesystem;

class SystemProgramTest : public testing::Test {
 protected:
  SystemProgramTest() {
    fs::create_directories(base_ + "/bin");
    std::ofstream(program_) << "#!/bin/sh\n";
    ::chmod(program_.c_str(), 0755);
  }
  static NSError refusal(const std::vector<std::string>& places) {
    try {
      ADD_FAILURE() << systemProgram(places);
    } catch (const NSError& error) {
      return error;
    }
    return NSError(NSPOSIXErrorDomain, 0);
  }

  test::TemporaryDirectory directory_;
  const std::string base_ = fs::canonical(directory_.path());
  const std::string program_ = base_ + "/bin/program";
};

TEST_F(SystemProgramTest, TheFirstThatRootAloneCanHavePutThereIsIt) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can put a program of root's there";
  EXPECT_EQ(systemProgram({base_ + "/missing", base_ + "/bin", program_, "/bin/sh"}), program_);
  ::chmod(program_.c_str(), 0775);
  EXPECT_EQ(systemProgram({program_, "/bin/sh"}), "/bin/sh");
}

TEST_F(SystemProgramTest, OneThatOthersCouldExchangeIsRefused) {
  if (::geteuid() != 0) {
    EXPECT_TRUE(refusal({program_}).is(NSPOSIXErrorDomain, EACCES));
    return;
  }
  for (const auto& part : {program_, base_ + "/bin"}) {
    ::chmod(part.c_str(), 0777);
    const auto error = refusal({program_});
    EXPECT_TRUE(error.is(NSPOSIXErrorDomain, EACCES));
    EXPECT_TRUE(error.localizedDescription().starts_with(part + ": others may write"))
        << error.localizedDescription();
    ::chmod(part.c_str(), 0755);
    ASSERT_EQ(::chown(part.c_str(), 65534, 65534), 0);
    EXPECT_TRUE(refusal({program_}).localizedDescription().starts_with(part + ": belongs to"));
    ASSERT_EQ(::chown(part.c_str(), 0, 0), 0);
  }
}

TEST_F(SystemProgramTest, WhatIsMissingOrCannotBeRunIsNone) {
  ::chmod(program_.c_str(), 0644);
  const auto error = refusal({"/nonexistent/program", "/etc/passwd"});
  EXPECT_TRUE(error.is(NSPOSIXErrorDomain, ENOENT));
  EXPECT_NE(error.localizedDescription().find("/nonexistent/program, /etc/passwd"),
            std::string::npos);
}

}  // namespace
}  // namespace kestrowan::mount
