#include "replica/model/Intents.h"

#include <gtest/gtest.h>

namespace kestrowan::replica::model {
namespace {

constexpr ItemNumber kItem{7};

Path path(const std::string& top, const std::string& name = "") {
  const Path folder = Path().child(top);
  return name.empty() ? folder : folder.child(name);
}

class IntentsTest : public testing::Test {
 protected:
  IntentNumber put(const Path& target, ItemNumber item = kItem) {
    Intent intent;
    intent.number = IntentNumber{++last_};
    intent.item = item;
    intent.target = target;
    intents_.put(intent);
    return intent.number;
  }
  IntentNumber move(const Path& source, const Path& target) {
    const IntentNumber number = put(target);
    Intent intent = *intents_.find(number);
    intent.verb = Verb::move;
    intent.source = source;
    intents_.put(intent);
    return number;
  }
  static std::vector<IntentNumber> numbers(const std::vector<const Intent*>& intents) {
    std::vector<IntentNumber> result;
    for (const Intent* intent : intents) result.push_back(intent->number);
    return result;
  }

  Intents intents_;
  unsigned last_ = 0;
};

TEST_F(IntentsTest, FindsWhatWasMadeForAnItem) {
  const IntentNumber first = put(path("a"));
  put(path("a"), ItemNumber{8});
  const IntentNumber second = put(path("b"));
  EXPECT_EQ(numbers(intents_.of(kItem)), (std::vector{first, second}));
  EXPECT_TRUE(intents_.of(ItemNumber{9}).empty());
}

TEST_F(IntentsTest, FindsWhatIsAtAboveAndBelowAPath) {
  const IntentNumber above = put(path("d"));
  const IntentNumber below = put(path("d", "x").child("y"));
  put(path("d", "z"));
  put(path("d x"));
  put(path("d", "xx"));
  const IntentNumber at = put(path("d", "x"));
  EXPECT_EQ(numbers(intents_.around(path("d", "x"))), (std::vector{above, below, at}));
  EXPECT_EQ(numbers(intents_.atOrAbove(path("d", "x"))), (std::vector{above, at}));
}

TEST_F(IntentsTest, FindsAMoveByBothItsPathsOnce) {
  const IntentNumber moved = move(path("d", "a"), path("d", "b"));
  EXPECT_EQ(numbers(intents_.around(path("d"))), std::vector{moved});
  EXPECT_EQ(numbers(intents_.in(path("d"))), std::vector{moved});
  EXPECT_TRUE(intents_.in(Path()).empty());
}

TEST_F(IntentsTest, FindsNothingByWhatAnIntentWasBefore) {
  const IntentNumber number = put(path("a"));
  Intent other = *intents_.find(number);
  other.target = path("b");
  other.item = ItemNumber{8};
  intents_.put(other);
  EXPECT_TRUE(intents_.around(path("a")).empty());
  EXPECT_TRUE(intents_.of(kItem).empty());
  intents_.take(number);
  EXPECT_TRUE(intents_.all().empty());
  EXPECT_TRUE(intents_.around(path("b")).empty());
  EXPECT_EQ(intents_.find(number), nullptr);
}

}  // namespace
}  // namespace kestrowan::replica::model
