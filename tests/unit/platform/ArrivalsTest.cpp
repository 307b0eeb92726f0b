#include "platform/network/Arrivals.h"

#include <gtest/gtest.h>

namespace kestrowan {
namespace {

std::shared_ptr<ArrivingBody> made() {
  return std::make_shared<ArrivingBody>(ArrivingHead{}, UniqueFd(), ArrivingBody::Controls{});
}

class ArrivalsTest : public testing::Test {
 protected:
  std::shared_ptr<void> watch(const std::shared_ptr<Abandonment>& abandonment, int& noticed) {
    return arrivals.watch(
        "GET", [](const std::string& url) { return url == "https://h/a"; }, abandonment,
        [&noticed](const auto&) { ++noticed; });
  }

  Arrivals arrivals;
};

TEST_F(ArrivalsTest, WatchesLearnOfTheDownloadsThatTheyMean) {
  const auto call = std::make_shared<Abandonment>();
  const auto other = std::make_shared<Abandonment>();
  int noticed = 0;
  int otherNoticed = 0;
  const auto first = watch(call, noticed);
  const auto second = watch(other, otherNoticed);
  EXPECT_EQ(arrivals.announce("GET", "https://h/b", call, made), nullptr);
  EXPECT_EQ(arrivals.announce("HEAD", "https://h/a", call, made), nullptr);
  EXPECT_EQ(arrivals.announce("GET", "https://h/a", nullptr, made), nullptr);
  EXPECT_EQ(noticed, 0);
  EXPECT_NE(arrivals.announce("GET", "https://h/a", call, made), nullptr);
  EXPECT_EQ(noticed, 1);
  EXPECT_EQ(otherNoticed, 0);
}

TEST_F(ArrivalsTest, WatchThatHasEndedLearnsNothing) {
  int noticed = 0;
  watch(nullptr, noticed).reset();
  EXPECT_EQ(arrivals.announce("GET", "https://h/a", nullptr, made), nullptr);
  EXPECT_EQ(noticed, 0);
}

TEST_F(ArrivalsTest, NoBodyIsNoNotice) {
  int noticed = 0;
  const auto kept = watch(nullptr, noticed);
  EXPECT_EQ(arrivals.announce("GET", "https://h/a", nullptr, [] { return nullptr; }), nullptr);
  EXPECT_EQ(noticed, 0);
}

}  // namespace
}  // namespace kestrowan
