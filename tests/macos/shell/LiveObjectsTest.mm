#include "LiveObjects.h"

#include <array>
#include <latch>
#include <string>
#include <thread>

#include "ShellTest.h"

#import <objc/runtime.h>

namespace {

using namespace kestrowan::test;

using LiveObjectsTest = ShellTest;

/// A class that has had no objects yet.
Class freshClass(int number) {
  const std::string name = "LiveObjectsTest" + std::to_string(number);
  const Class made = objc_allocateClassPair([NSObject class], name.c_str(), 0);
  objc_registerClassPair(made);
  return made;
}

TEST_F(LiveObjectsTest, ObjectsComeAndGo) {
  const Class type = freshClass(0);
  EXPECT_EQ(LiveObjects::shared().of(type), 0);
  const id first = [[type alloc] init];
  const id second = [[type alloc] init];
  EXPECT_EQ(LiveObjects::shared().of(type), 2);
  [first release];
  EXPECT_EQ(LiveObjects::shared().of(type), 1);
  [second release];
  EXPECT_EQ(LiveObjects::shared().of(type), 0);
}

TEST_F(LiveObjectsTest, FirstObjectsMadeByManyThreadsAtOnceAreEachCountedOnce) {
  constexpr int kClasses = 200;
  constexpr int kThreads = 4;
  for (int number = 1; number <= kClasses; ++number) {
    const Class type = freshClass(number);
    [type hash];  // So that the threads find the class initialised.
    std::latch start(kThreads);
    std::array<id, kThreads> objects;
    std::array<std::thread, kThreads> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads[i] = std::thread([&, i] {
        start.arrive_and_wait();
        objects[i] = [[type alloc] init];
      });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(LiveObjects::shared().of(type), kThreads);
    for (const id object : objects) [object release];
    EXPECT_EQ(LiveObjects::shared().of(type), 0);
  }
}

}  // namespace
