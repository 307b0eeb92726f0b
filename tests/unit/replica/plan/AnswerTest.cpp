#include "replica/plan/Requests.h"

#include "unit/replica/plan/ObservingFixture.h"

namespace kestrowan::test {
namespace {

/// Answers to requests.
class AnswerTest : public ObservingFixture {
 protected:
  IntentNumber send(Verb verb, ItemNumber item, const char* source, const char* target,
                    Content content = kNone) {
    Request request{verb, item, std::nullopt, std::nullopt, content};
    if (*source) request.source = Path().child(source);
    if (*target) request.target = Path().child(target);
    Edit edit(state_.tree());
    const IntentNumber number = noteSent(edit, request, kStart);
    edit.commit();
    return number;
  }
  void answer(IntentNumber number, const Version& version = {}) {
    Edit edit(state_.tree());
    noteAnswer(edit, number, version, kStart);
    edit.commit();
  }
};

TEST_F(AnswerTest, OfAPutAgreesAndLeavesWhatWasWrittenMeanwhileToBeSent) {
  const ItemNumber a = state_.fileHere(top("a"));
  const IntentNumber number = send(Verb::put, a, "", "a", kOurs);
  state_.write(a, kFromBefore);
  answer(number, kVersion1);
  EXPECT_EQ(state_.item(a).agreed(), (There{top("a"), kVersion1, kOurs}));
  EXPECT_EQ(state_.plan(a), Step(Push{Change::contents, a, top("a"), kFromBefore}));
  EXPECT_TRUE(state_.journal().intents().empty());
}

TEST_F(AnswerTest, OfAPutOverWhatIsKnownThereAgreesToo) {
  const ItemNumber a = state_.file(top("a"));
  state_.write(a);
  answer(send(Verb::put, a, "", "a", kOurs), kVersion2);
  EXPECT_EQ(state_.item(a).agreed(), (There{top("a"), kVersion2, kOurs}));
  EXPECT_TRUE(state_.item(a).isInStep());
}

TEST_F(AnswerTest, OfACreationForAnItemThatIsNoMoreIsRemovedThere) {
  const ItemNumber a = state_.fileHere(top("a"));
  const IntentNumber number = send(Verb::put, a, "", "a", kOurs);
  state_.remove(a);
  {
    Edit edit(state_.tree());
    edit.drop(a);
    edit.commit();
  }
  answer(number, kVersion1);
  const Item* made = thereAt(top("a"));
  ASSERT_TRUE(made);
  EXPECT_EQ(state_.plan(made->number()),
            Step(Push{Change::remove, made->number(), top("a"), kNone}));
}

TEST_F(AnswerTest, OfAMoveMovesBothStates) {
  const ItemNumber a = state_.file(top("a"));
  state_.move(a, top("b"));
  answer(send(Verb::move, a, "a", "b"));
  EXPECT_TRUE(state_.item(a).isInStep());
  EXPECT_EQ(state_.item(a).agreed()->place, top("b"));
}

TEST_F(AnswerTest, OfAMoveOfAFolderIsOneForTheRequestsBelowIt) {
  const ItemNumber d = state_.folder(top("d"));
  const ItemNumber f = state_.fileHere({d, "f"});
  state_.sent(Verb::put, f, "", "d/f", kOurs);
  const auto targets = [&] {
    std::vector<std::string> result;
    for (const auto& [number, intent] : state_.journal().intents()) {
      result.push_back(intent.target->text());
    }
    return result;
  };
  answer(send(Verb::move, d, "d", "e"));
  EXPECT_EQ(targets(), (std::vector<std::string>{"d/f", "e/f"}));
  answer(send(Verb::move, d, "e", "d"));
  EXPECT_EQ(targets(), (std::vector<std::string>{"d/f", "e/f"})) << "once each";
}

TEST_F(AnswerTest, OfARemovalLeavesNothingThere) {
  const ItemNumber a = state_.file(top("a"));
  state_.remove(a);
  answer(send(Verb::remove, a, "a", ""));
  EXPECT_FALSE(state_.item(a).there());
  EXPECT_FALSE(state_.item(a).agreed());
}

TEST_F(AnswerTest, OfARemovalCountsAsLostWhenAnEarlierMoveMayHaveLandedBefore) {
  const ItemNumber a = state_.file(top("a"));
  state_.remove(a);
  state_.sent(Verb::move, a, "a", "b");
  const IntentNumber number = send(Verb::remove, a, "a", "");
  answer(number);
  EXPECT_FALSE(state_.journal().intents().at(number).isUnderWay());
  EXPECT_TRUE(state_.item(a).there());
}

TEST_F(AnswerTest, ThatCanNoLongerBePlacedCountsAsLost) {
  const ItemNumber a = state_.fileHere(top("b"));
  const IntentNumber number = send(Verb::put, a, "", "a", kOurs);
  state_.fileThere(top("a"));
  answer(number, kVersion2);
  EXPECT_FALSE(state_.journal().intents().at(number).isUnderWay());
  EXPECT_FALSE(state_.item(a).there());
}

TEST_F(AnswerTest, OfARefusalLeavesEverythingAsItWas) {
  const ItemNumber a = state_.fileHere(top("a"));
  const IntentNumber number = send(Verb::put, a, "", "a", kOurs);
  {
    Edit edit(state_.tree());
    noteRefusal(edit, number);
    edit.commit();
  }
  EXPECT_EQ(state_.plan(a), Step(Push{Change::create, a, top("a"), kOurs}));
}

TEST_F(AnswerTest, ThatNeverComesOfARequestThatMetNoServerNeedsOneLook) {
  const ItemNumber a = state_.fileHere(top("a"));
  const IntentNumber number = send(Verb::put, a, "", "a", kOurs);
  {
    Edit edit(state_.tree());
    noteLostAnswer(edit, number, kStart);
    replica::plan::noteNotOnItsWay(edit, number);
    edit.commit();
  }
  lookAtRoot({}, kStart);
  EXPECT_TRUE(state_.journal().intents().at(number).over);
}

TEST_F(AnswerTest, OfAFetchIsNoChangeOfAFileThatWasDownloaded) {
  const ItemNumber a = state_.file(top("a"));
  Edit edit(state_.tree());
  noteFetched(edit, a, kVersion1, kTheirs);
  edit.commit();
  EXPECT_EQ(edit->item(a).here()->content, kOld);
  EXPECT_TRUE(edit->item(a).isInStep());
}

TEST_F(AnswerTest, OfAFetchLeavesWhatWasWrittenHere) {
  const ItemNumber a = state_.file(top("a"), kNone);
  state_.write(a);
  Edit edit(state_.tree());
  noteFetched(edit, a, kVersion1, kTheirs);
  edit.commit();
  EXPECT_EQ(edit->item(a).here()->content, kOurs);
  EXPECT_EQ(edit->item(a).agreed()->content, kTheirs);
}

TEST_F(AnswerTest, OfAFetchIsTheContentsOfAFileThatWasNotDownloaded) {
  const ItemNumber a = state_.file(top("a"), kNone);
  Edit edit(state_.tree());
  noteFetched(edit, a, kVersion2, kTheirs);
  EXPECT_EQ(edit->item(a).here()->content, kNone) << "another version";
  noteFetched(edit, a, kVersion1, kTheirs);
  edit.commit();
  EXPECT_EQ(edit->item(a).here()->content, kTheirs);
  EXPECT_TRUE(edit->item(a).isInStep());
}

}  // namespace
}  // namespace kestrowan::test
