#include "platform/foundation/NSError.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "platform/fileprovider/NSFileProviderError.h"
#include "support/Cases.h"

namespace kestrowan {
namespace {

TEST(NSErrorTest, DescriptionsAreAsExpected) {
  test::checkCases("platform-constants", "localized_description", [](const test::Case& one) {
    return NSError(*one.input.member("domain")->string(), *one.input.member("code")->integer())
        .localizedDescription();
  });
}

TEST(NSErrorTest, SessionErrorsHaveTheirOwnTexts) {
  test::checkCases("platform-constants", "session_error_text", [](const test::Case& one) {
    return NSError(NSURLErrorDomain, *one.input.integer()).localizedDescription();
  });
}

TEST(NSErrorTest, UnknownErrorIsDescribedByDomainAndCode) {
  EXPECT_EQ(NSError("some.domain", 42).localizedDescription(),
            "The operation couldn’t be completed. (some.domain error 42.)");
}

TEST(NSErrorTest, UserInfoDescribesFirst) {
  const NSError error(NSURLErrorDomain, NSURLErrorTimedOut,
                      {{std::string(NSLocalizedDescriptionKey), "own text"}});
  EXPECT_EQ(error.localizedDescription(), "own text");
}

TEST(NSErrorTest, ExistingFileIsDescribedWithoutItsPath) {
  const auto error = cocoaWriteError(EEXIST, "/a/b");
  EXPECT_TRUE(error.is(NSCocoaErrorDomain, 516));
  EXPECT_EQ(error.localizedDescription(),
            "The file couldn’t be saved because a file with the same name already exists.");
  EXPECT_EQ(error.userInfo().at(std::string(NSFilePathErrorKey)), "/a/b");
}

TEST(NSErrorTest, SystemErrorsAreDescribedByTheSystem) {
  const auto error = posixError(EPERM);
  EXPECT_TRUE(error.is(NSPOSIXErrorDomain, EPERM));
  EXPECT_EQ(error.localizedDescription(),
            "The operation couldn’t be completed. Operation not permitted");
}

TEST(NSErrorTest, WriteErrorsFollowTheSystems) {
  const auto codeOf = [](int number) { return cocoaWriteError(number, "/f").code(); };
  EXPECT_EQ(codeOf(ENOENT), NSFileNoSuchFileError);
  EXPECT_EQ(codeOf(EACCES), NSFileWriteNoPermissionError);
  EXPECT_EQ(codeOf(EPERM), NSFileWriteNoPermissionError);
  EXPECT_EQ(codeOf(EROFS), NSFileWriteNoPermissionError);
  EXPECT_EQ(codeOf(ENAMETOOLONG), NSFileWriteInvalidFileNameError);
  EXPECT_EQ(codeOf(EINVAL), NSFileWriteInvalidFileNameError);
  EXPECT_EQ(codeOf(ENOSPC), NSFileWriteOutOfSpaceError);
  EXPECT_EQ(codeOf(EDQUOT), NSFileWriteOutOfSpaceError);
  EXPECT_EQ(codeOf(EIO), NSFileWriteUnknownError);
}

TEST(NSErrorTest, ReadErrorsFollowTheSystems) {
  const auto codeOf = [](int number) { return cocoaReadError(number, "/f").code(); };
  EXPECT_EQ(codeOf(ENOENT), NSFileReadNoSuchFileError);
  EXPECT_EQ(codeOf(EACCES), NSFileReadNoPermissionError);
  EXPECT_EQ(codeOf(EPERM), NSFileReadNoPermissionError);
  EXPECT_EQ(codeOf(EFBIG), NSFileReadTooLargeError);
  EXPECT_EQ(codeOf(EIO), NSFileReadUnknownError);
}

TEST(NSErrorTest, CopiesAreIdenticalAndLikesAreNot) {
  const NSError error("d", 1);
  const NSError copy = error;
  EXPECT_TRUE(copy.isIdenticalTo(error));
  EXPECT_FALSE(NSError("d", 1).isIdenticalTo(error));
}

TEST(NSErrorTest, IdentitySurvivesBeingThrown) {
  const NSError error("d", 1);
  try {
    throw error;
  } catch (const NSError& caught) {
    EXPECT_TRUE(caught.isIdenticalTo(error));
  }
}

TEST(NSErrorTest, IsComparesDomainAndCode) {
  const NSError error("d", 1);
  EXPECT_TRUE(error.is("d", 1));
  EXPECT_FALSE(error.is("d", 2));
  EXPECT_FALSE(error.is("e", 1));
}

TEST(NSErrorTest, FileProviderErrorsHaveAnEmptyUserInfo) {
  const auto error = NSFileProviderError(NSFileProviderErrorCode::noSuchItem);
  EXPECT_TRUE(error.is("NSFileProviderErrorDomain", -1005));
  EXPECT_TRUE(error.userInfo().empty());
  EXPECT_EQ(error.localizedDescription(), "The file doesn’t exist.");
}

}  // namespace
}  // namespace kestrowan
