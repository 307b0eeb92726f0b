#include "replica/model/Shared.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "replica/model/Numbers.h"
#include "replica/model/OptionalTime.h"

namespace kestrowan::replica::model {
namespace {

struct Value {
  std::string text;

  friend bool operator==(const Value&, const Value&) = default;
};

const Value* addressOf(const Shared<Value>& value) {
  return value.operator->();
}

TEST(SharedTest, IsOneValueForAllCopies) {
  const Shared<Value> first = Value{"a"};
  const Shared<Value> copy = first;
  EXPECT_EQ(addressOf(first), addressOf(copy));
  EXPECT_TRUE(first.isSameAs(copy));
}

TEST(SharedTest, IsAnotherValueOnceItIsChanged) {
  const Shared<Value> first = Value{"a"};
  Shared<Value> copy = first;
  copy->text = "b";
  EXPECT_EQ(first->text, "a");
  EXPECT_EQ(std::as_const(copy)->text, "b");
  const Value* own = addressOf(copy);
  copy->text = "c";
  EXPECT_EQ(addressOf(copy), own);
}

TEST(SharedTest, IsEqualByItsValue) {
  EXPECT_EQ(Shared<Value>(Value{"a"}), Shared<Value>(Value{"a"}));
  EXPECT_NE(Shared<Value>(Value{"a"}), Shared<Value>(Value{"b"}));
  EXPECT_NE(Shared<Value>(Value{"a"}), Shared<Value>());
  EXPECT_EQ(Shared<Value>(), Shared<Value>(std::nullopt));
}

TEST(SharedTest, IsKeptOnceWhenItIsTheSame) {
  const Shared<Value> first = Value{"a"};
  Shared<Value> same = Value{"a"};
  same.share(first);
  EXPECT_TRUE(same.isSameAs(first));
  Shared<Value> other = Value{"b"};
  other.share(first);
  EXPECT_FALSE(other.isSameAs(first));
}

TEST(OptionalTimeTest, IsATimeOrNone) {
  EXPECT_FALSE(OptionalTime<Date>());
  EXPECT_FALSE(OptionalTime<Date>(std::nullopt));
  const OptionalTime<Date> zero = Date();
  ASSERT_TRUE(zero);
  EXPECT_EQ(*zero, Date());
  EXPECT_NE(zero, OptionalTime<Date>());
  EXPECT_EQ(std::optional<Date>(zero), Date());
  EXPECT_EQ(OptionalTime<Date>().value_or(Date(std::chrono::seconds(7))),
            Date(std::chrono::seconds(7)));
}

}  // namespace
}  // namespace kestrowan::replica::model
