#include "mount/Errno.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>

#include "platform/fileprovider/NSFileProviderError.h"
#include "replica/remote/AnswerTable.h"

namespace kestrowan::mount {
namespace {

struct Row {
  std::string_view domain;
  std::int64_t code;
  int byName;
  int byNumber;
};

class ErrnoTableTest : public testing::TestWithParam<Row> {};

TEST_P(ErrnoTableTest, EveryRowHasItsErrno) {
  const auto& row = GetParam();
  const NSError error(row.domain, row.code);
  EXPECT_EQ(errnoFor(error, Addressing::byName), row.byName);
  EXPECT_EQ(errnoFor(error, Addressing::byNumber), row.byNumber);
}

Row same(std::string_view domain, std::int64_t code, int number) {
  return {domain, code, number, number};
}

INSTANTIATE_TEST_SUITE_P(FileProvider, ErrnoTableTest,
                         testing::Values(same(NSFileProviderErrorDomain, -1000, EACCES),
                                         same(NSFileProviderErrorDomain, -1001, EEXIST),
                                         same(NSFileProviderErrorDomain, -1002, EIO),
                                         same(NSFileProviderErrorDomain, -1003, EDQUOT),
                                         same(NSFileProviderErrorDomain, -1004, EIO),
                                         Row{NSFileProviderErrorDomain, -1005, ENOENT, ESTALE},
                                         same(NSFileProviderErrorDomain, -1006, EPERM),
                                         same(NSFileProviderErrorDomain, -1007, ENOTEMPTY),
                                         same(NSFileProviderErrorDomain, -2005, EIO),
                                         same(NSFileProviderErrorDomain, -2009, ESTALE),
                                         same(NSFileProviderErrorDomain, -2010, 0),
                                         same(NSFileProviderErrorDomain, -9999, EIO)));

INSTANTIATE_TEST_SUITE_P(
    Cocoa, ErrnoTableTest,
    testing::Values(same(NSCocoaErrorDomain, 4, ENOENT), same(NSCocoaErrorDomain, 260, ENOENT),
                    same(NSCocoaErrorDomain, 257, EACCES), same(NSCocoaErrorDomain, 513, EACCES),
                    same(NSCocoaErrorDomain, 258, EINVAL), same(NSCocoaErrorDomain, 514, EINVAL),
                    same(NSCocoaErrorDomain, 516, EEXIST), same(NSCocoaErrorDomain, 640, ENOSPC),
                    same(NSCocoaErrorDomain, 642, EROFS), same(NSCocoaErrorDomain, 3072, EINTR),
                    same(NSCocoaErrorDomain, 512, EIO)));

int numberOf(std::int64_t httpStatus, bool isChange) {
  const auto error = replica::remote::AnswerTable::error({"PUT", isChange, httpStatus});
  return errnoFor(error, Addressing::byName);
}

TEST(ErrnoTest, WhatTheServerAnswersToAChangeIsTheErrorOfTheCall) {
  EXPECT_EQ(numberOf(403, true), EACCES);
  EXPECT_EQ(numberOf(423, true), EBUSY);
  EXPECT_EQ(numberOf(507, true), EDQUOT);
  EXPECT_EQ(numberOf(500, true), EIO);
  EXPECT_EQ(numberOf(404, true), EIO);
}

TEST(ErrnoTest, WhatTheServerAnswersToAReaderIsAnErrorOfReading) {
  EXPECT_EQ(numberOf(403, false), EACCES);
  EXPECT_EQ(numberOf(423, false), EBUSY);
  EXPECT_EQ(numberOf(507, false), EIO);
  EXPECT_EQ(numberOf(405, false), EIO);
}

INSTANTIATE_TEST_SUITE_P(
    URL, ErrnoTableTest,
    testing::Values(same(NSURLErrorDomain, -999, EACCES), same(NSURLErrorDomain, -1001, ETIMEDOUT),
                    same(NSURLErrorDomain, -1003, EHOSTUNREACH),
                    same(NSURLErrorDomain, -1004, EHOSTUNREACH),
                    same(NSURLErrorDomain, -1009, EHOSTUNREACH), same(NSURLErrorDomain, -1005, EIO),
                    same(NSURLErrorDomain, -1011, EIO), same(NSURLErrorDomain, -1017, EIO),
                    same(NSURLErrorDomain, -1199, EIO), same(NSURLErrorDomain, -1200, EACCES),
                    same(NSURLErrorDomain, -1203, EACCES), same(NSURLErrorDomain, -1206, EACCES),
                    same(NSURLErrorDomain, -1207, EIO), same(NSURLErrorDomain, -1, EIO)));

INSTANTIATE_TEST_SUITE_P(Other, ErrnoTableTest, testing::Values(same("elsewhere", -1000, EIO)));

TEST(ErrnoTest, PosixCodesAreThemselves) {
  for (const int number : {EPERM, ENOENT, EEXIST, ENOTEMPTY, ESTALE, EXDEV, ENOSPC, EDQUOT}) {
    EXPECT_EQ(errnoFor(posixError(number), Addressing::byName), number);
    EXPECT_EQ(errnoFor(posixError(number), Addressing::byNumber), number);
    EXPECT_EQ(errnoFor(number), number);
  }
}

TEST(ErrnoTest, NothingSaysThatTheMountIsDeadOrThatTryingAtOnceHelps) {
  for (const int number : {ENOTCONN, EAGAIN, EWOULDBLOCK}) {
    EXPECT_EQ(errnoFor(posixError(number), Addressing::byNumber), EIO);
    EXPECT_EQ(errnoFor(number), EIO);
  }
}

TEST(ErrnoTest, TheKernelIsNeverToldThatACallDoesNotExist) {
  EXPECT_EQ(errnoFor(posixError(ENOSYS), Addressing::byName), ENOTSUP);
}

TEST(ErrnoTest, CodesThatAreNoErrnoAreInputOutputErrors) {
  constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
  constexpr auto kLeast = std::numeric_limits<std::int64_t>::min();
  for (const std::int64_t code : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{512},
                                  (std::int64_t{1} << 32) + ENOENT, kMost, kLeast}) {
    EXPECT_EQ(errnoFor(NSError(NSPOSIXErrorDomain, code), Addressing::byName), EIO) << code;
  }
}

TEST(ErrnoTest, WhateverWasThrownHasAnErrno) {
  const auto thrown = [](const auto& exception) {
    return errnoFor(std::make_exception_ptr(exception), Addressing::byName);
  };
  EXPECT_EQ(thrown(posixError(EEXIST)), EEXIST);
  EXPECT_EQ(thrown(std::bad_alloc()), ENOMEM);
  EXPECT_EQ(thrown(std::runtime_error("broken")), EIO);
  EXPECT_EQ(thrown(17), EIO);
}

}  // namespace
}  // namespace kestrowan::mount
