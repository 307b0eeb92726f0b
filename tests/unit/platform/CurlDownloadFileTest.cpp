#include "platform/linux/CurlDownloadFile.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/foundation/NSError.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan {
namespace {

constexpr std::int64_t kMoreThanAnyDisk = std::int64_t{1} << 60;
const std::string kMebibyte(std::size_t{1} << 20, 'x');

TEST(CurlDownloadFileTest, EndlessDownloadEndsBeforeTheDiskIsFull) {
  const test::TemporaryDirectory directory;
  CurlDownloadFile file(directory.path(), kMoreThanAnyDisk);
  try {
    for (int mebibytes = 0; mebibytes < 8; ++mebibytes) file.write(kMebibyte);
    FAIL() << "it goes on";
  } catch (const NSError& error) {
    EXPECT_TRUE(error.is(NSURLErrorDomain, NSURLErrorCannotWriteToFile));
  }
}

TEST(CurlDownloadFileTest, SmallDownloadIsNotHeldUp) {
  const test::TemporaryDirectory directory;
  CurlDownloadFile file(directory.path(), kMoreThanAnyDisk);
  file.write(kMebibyte);
  EXPECT_EQ(std::filesystem::file_size(file.publish()), kMebibyte.size());
}

TEST(CurlDownloadFileTest, NothingIsReservedUnlessToldSo) {
  const test::TemporaryDirectory directory;
  CurlDownloadFile file(directory.path());
  for (int mebibytes = 0; mebibytes < 8; ++mebibytes) file.write(kMebibyte);
  EXPECT_EQ(std::filesystem::file_size(file.publish()), 8 * kMebibyte.size());
}

}  // namespace
}  // namespace kestrowan
