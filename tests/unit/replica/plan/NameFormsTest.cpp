#include "replica/plan/NameForms.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/replica/plan/StateBuilder.h"

namespace kestrowan::test {
namespace {

using replica::plan::isOtherForm;
using replica::plan::knownForms;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

const std::string kComposed = "caf\u00e9";
const std::string kDecomposed = "cafe\u0301";

bool any(std::string_view) {
  return true;
}
bool none(std::string_view) {
  return false;
}

class NameFormsTest : public testing::Test {
 protected:
  static Place top(const std::string& name) { return StateBuilder::top(name); }
  auto formsIn(const std::set<std::string_view>& listed, bool (*isGiven)(std::string_view) = any) {
    const View view(state_.tree());
    return knownForms(*view, Path(), listed, isGiven);
  }

  StateBuilder state_;
};

TEST_F(NameFormsTest, OtherFormsDifferInHowLettersAreComposedAlone) {
  EXPECT_TRUE(isOtherForm(kComposed, kDecomposed));
  EXPECT_FALSE(isOtherForm(kComposed, kComposed));
  EXPECT_FALSE(isOtherForm(kComposed, "cafe"));
  EXPECT_FALSE(isOtherForm(kComposed, "CAF\u00c9"));
  EXPECT_FALSE(isOtherForm("caf\xe9", "cafe\xcc"));
}

TEST_F(NameFormsTest, WhatIsKnownAndLackingIsTheOtherForm) {
  state_.file(top(kComposed));
  EXPECT_THAT(formsIn({kDecomposed}), ElementsAre(Pair(kDecomposed, kComposed)));
}

TEST_F(NameFormsTest, WhatIsNewHereIsTheOtherForm) {
  state_.fileHere(top(kComposed));
  EXPECT_THAT(formsIn({kDecomposed}), ElementsAre(Pair(kDecomposed, kComposed)));
}

TEST_F(NameFormsTest, BothListedAreTwo) {
  state_.file(top(kComposed));
  EXPECT_THAT(formsIn({kComposed, kDecomposed}), IsEmpty());
}

TEST_F(NameFormsTest, BothKnownAreTwo) {
  state_.file(top(kComposed));
  state_.file(top(kDecomposed));
  EXPECT_THAT(formsIn({kDecomposed}), IsEmpty());
}

TEST_F(NameFormsTest, OneKnownNameStandsForOneShownNameAlone) {
  state_.file(top("\u1e9b\u0323"));
  EXPECT_EQ(formsIn({"\u017f\u0323\u0307", "\u017f\u0307\u0323"}).size(), 1U);
}

TEST_F(NameFormsTest, WithoutAChangeOfNamesTheyAreBytes) {
  state_.file(top(kComposed));
  EXPECT_THAT(formsIn({kDecomposed}, none), IsEmpty());
}

TEST_F(NameFormsTest, ARequestWithoutAnAnswerMayHaveBeenDoneUnderTheOtherForm) {
  const ItemNumber file = state_.fileHere(top(kComposed));
  state_.sent(Verb::put, file, "", kComposed, kOurs);
  EXPECT_THAT(formsIn({kDecomposed}, none), ElementsAre(Pair(kDecomposed, kComposed)));
}

}  // namespace
}  // namespace kestrowan::test
