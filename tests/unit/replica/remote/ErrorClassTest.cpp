#include "replica/remote/ErrorClass.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <ostream>

#include "platform/fileprovider/NSFileProviderError.h"

namespace kestrowan::replica::remote {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

void expectClass(std::string_view domain, std::initializer_list<std::int64_t> codes,
                 ErrorClass expected) {
  for (const auto code : codes) {
    EXPECT_EQ(errorClass(NSError(domain, code)), expected) << domain << " " << code;
  }
}

TEST(ErrorClass, OfTheProvidersOwnErrors) {
  const auto domain = NSFileProviderErrorDomain;
  expectClass(domain, {-1000}, ErrorClass::held);
  expectClass(domain, {-1001}, ErrorClass::collision);
  expectClass(domain, {-1002}, ErrorClass::listAgain);
  expectClass(domain, {-1003}, ErrorClass::quota);
  expectClass(domain, {-1004}, ErrorClass::ambiguous);
  expectClass(domain, {-1005, -2009}, ErrorClass::gone);
  expectClass(domain, {-1006}, ErrorClass::deletionRefused);
  expectClass(domain, {-1007}, ErrorClass::folderNotEmpty);
  expectClass(domain, {-2005}, ErrorClass::parked);
  expectClass(domain, {-2010}, ErrorClass::excluded);
  expectClass(domain, {-1008, -2001, 0, 516}, ErrorClass::transient);
}

TEST(ErrorClass, ErrorsOfTheSystemAreDefinitiveButForWhatIsLackingForTheMoment) {
  expectClass(NSPOSIXErrorDomain, {EPERM, EIO, ENOSPC, 0}, ErrorClass::refused);
  // What this machine lacks says nothing of the change.
  expectClass(NSPOSIXErrorDomain, {EAGAIN, EINTR, EMFILE, ENFILE, ENOMEM}, ErrorClass::transient);
}

TEST(ErrorClass, OfErrorsWithFiles) {
  expectClass(NSCocoaErrorDomain, {516}, ErrorClass::collision);
  expectClass(NSCocoaErrorDomain, {4, 260, 257, 513, 258, 514, 642}, ErrorClass::refused);
  expectClass(NSCocoaErrorDomain, {640, 3072, 256, 512, 4864}, ErrorClass::transient);
}

TEST(ErrorClass, OfTheTransport) {
  expectClass(NSURLErrorDomain, {-1003, -1004, -1009}, ErrorClass::down);
  expectClass(NSURLErrorDomain, {-999, -1200, -1201, -1202, -1203, -1204, -1205, -1206},
              ErrorClass::held);
  expectClass(NSURLErrorDomain, {-1001, -1005, -1011, -1017, -1, -1000, -1002, -1199, -1207, -3003},
              ErrorClass::transient);
}

TEST(ErrorClass, WhatPassesSoonIsWhatTheServerOrTheConnectionDid) {
  for (const std::int64_t code : {-1003, -1004, -1005, -1009}) {
    EXPECT_TRUE(isPassing(NSError(NSURLErrorDomain, code))) << code;
  }
  EXPECT_TRUE(isPassing(NSError(NSFileProviderErrorDomain, -1004)));
  for (const std::int64_t code : {-999, -1001, -1017, -1202, -3003}) {
    EXPECT_FALSE(isPassing(NSError(NSURLErrorDomain, code))) << code;
  }
  for (const std::int64_t code : {-1000, -1003, -1005}) {
    EXPECT_FALSE(isPassing(NSError(NSFileProviderErrorDomain, code))) << code;
  }
  EXPECT_FALSE(isPassing(NSError(NSPOSIXErrorDomain, ENOMEM)));
  EXPECT_FALSE(isPassing(NSError(NSCocoaErrorDomain, 640)));
}

TEST(ErrorClass, WhatNobodyKnowsPasses) {
  expectClass("somebody's own", {-1000, 1, 516}, ErrorClass::transient);
  expectClass("", {0}, ErrorClass::transient);
}

/// The least and the greatest wait after a number of tries.
std::pair<milliseconds, milliseconds> bounds(std::uint32_t tries) {
  auto least = milliseconds::max();
  auto greatest = milliseconds::min();
  for (std::uint64_t random = 0; random < 200'000; ++random) {
    const auto wait = backOff(tries, random);
    least = std::min(least, wait);
    greatest = std::max(greatest, wait);
  }
  return {least, greatest};
}

TEST(BackOff, DoublesUpToFiveMinutesEachUpToAFifthMoreOrLess) {
  std::int64_t middle = 1000;
  for (std::uint32_t tries = 1; tries <= 12; ++tries) {
    const auto [least, greatest] = bounds(tries);
    EXPECT_EQ(least, milliseconds(middle * 4 / 5)) << tries;
    EXPECT_EQ(greatest, milliseconds(middle * 6 / 5)) << tries;
    middle = std::min<std::int64_t>(middle * 2, 300'000);
  }
}

TEST(BackOff, HoldsForAnyNumbers) {
  for (const std::uint32_t tries :
       {0u, 33u, 64u, 1000u, std::numeric_limits<std::uint32_t>::max()}) {
    const auto wait = backOff(tries, std::numeric_limits<std::uint64_t>::max());
    EXPECT_GE(wait, milliseconds(800));
    EXPECT_LE(wait, seconds(360));
  }
}

TEST(ProbeInterval, DoublesUpToHalfAMinute) {
  const std::int64_t expected[] = {1, 2, 4, 8, 16, 30, 30};
  for (std::uint32_t i = 0; i < std::size(expected); ++i) {
    EXPECT_EQ(probeInterval(i + 1), seconds(expected[i])) << i;
  }
  EXPECT_EQ(probeInterval(0), seconds(1));
  EXPECT_EQ(probeInterval(std::numeric_limits<std::uint32_t>::max()), seconds(30));
}

}  // namespace
}  // namespace kestrowan::replica::remote
