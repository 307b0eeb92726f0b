#include "platform/base/Threads.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <stdexcept>
#include <system_error>

#include "platform/foundation/CaughtError.h"
#include "support/RecordingLog.h"

namespace kestrowan {
namespace {

template <typename Exception>
NSError errorFor(const Exception& exception) {
  return asError(std::make_exception_ptr(exception));
}

TEST(CaughtError, EveryExceptionIsAnError) {
  const NSError known("d", 1);
  EXPECT_TRUE(errorFor(known).isIdenticalTo(known));
  EXPECT_TRUE(errorFor(std::bad_alloc()).is(NSPOSIXErrorDomain, ENOMEM));
  EXPECT_TRUE(errorFor(std::length_error("x")).is(NSPOSIXErrorDomain, ENOMEM));
  EXPECT_TRUE(
      errorFor(std::system_error(EMFILE, std::system_category())).is(NSPOSIXErrorDomain, EMFILE));
  EXPECT_TRUE(errorFor(std::runtime_error("broken")).is(NSPOSIXErrorDomain, EIO));
  EXPECT_EQ(errorFor(std::runtime_error("broken")).localizedDescription(), "broken");
  EXPECT_TRUE(errorFor(7).is(NSPOSIXErrorDomain, EIO));
}

TEST(Guarded, WhatAnActionThrowsIsALineInTheLog) {
  const test::RecordingLog log;
  EXPECT_TRUE(guarded("a place", [] {}));
  EXPECT_FALSE(guarded("a place", [] { throw std::runtime_error("broken"); }));
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_NE(log.lines()[0].find("a place: broken"), std::string::npos) << log.lines()[0];
}

TEST(StartThread, WhatAThreadThrowsEndsTheThreadAlone) {
  const test::RecordingLog log;
  auto thread = startThread("a thread", [] { throw std::bad_alloc(); });
  thread.join();
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_NE(log.lines()[0].find("a thread"), std::string::npos) << log.lines()[0];
}

TEST(StartThread, AThreadThatCannotBeMadeIsAnError) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can act as somebody else";
  const pid_t child = ::fork();
  if (child == 0) {
    const rlimit none{0, 0};
    if (::setuid(65534) != 0 || ::setrlimit(RLIMIT_NPROC, &none) != 0) ::_exit(2);
    try {
      startThread("a thread", [] {}).join();
    } catch (const NSError& error) {
      ::_exit(error.is(NSPOSIXErrorDomain, EAGAIN) ? 0 : 3);
    }
    ::_exit(4);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(UntilThereIsMemory, WorkIsDoneAsSoonAsThereIs) {
  int tries = 0;
  untilThereIsMemory([&] {
    if (++tries < 3) throw std::bad_alloc();
  });
  EXPECT_EQ(tries, 3);
}

}  // namespace
}  // namespace kestrowan
