#include "replica/model/Seen.h"

#include <gtest/gtest.h>

#include <optional>

#include "replica/model/Edit.h"
#include "support/MemoryJournal.h"

namespace kestrowan::replica::model {
namespace {

constexpr Content kTheirs{1};
constexpr Content kOurs{2};
constexpr std::int64_t kTheirSize = 100;

/// The size that programs see of a file of `kTheirSize` bytes at the provider, whose contents lie
/// here as `theirs`, while they see the contents `here`; `noted`: what was noted of their own.
std::int64_t seenSize(Content theirs, Content here, std::optional<std::int64_t> noted) {
  test::MemoryJournal journal;
  Tree tree(journal);
  const Place place{ItemNumber::root, "a"};
  Edit edit(tree);
  const ItemNumber number = edit.make(Kind::file);
  There there{place, {"1"}, theirs};
  there.size = kTheirSize;
  edit.setHere(number, Here{place, here});
  edit.setThere(number, there);
  edit.setAgreed(number, there);
  Attributes attributes;
  attributes.size = noted;
  edit.setAttributes(number, attributes);
  edit.commit();
  EXPECT_EQ(seen(edit->item(number)).size, sizeOf(edit->item(number)));
  return sizeOf(edit->item(number));
}

TEST(SeenTest, TheProvidersBytesHaveTheSizeThatItSays) {
  for (const std::optional<std::int64_t>& noted :
       {std::optional<std::int64_t>(), std::optional<std::int64_t>(7)}) {
    EXPECT_EQ(seenSize(Content::none, Content::none, noted), kTheirSize) << "not here";
    EXPECT_EQ(seenSize(kTheirs, kTheirs, noted), kTheirSize) << "here";
  }
}

TEST(SeenTest, BytesThatWereWrittenHereHaveTheSizeThatWasNoted) {
  EXPECT_EQ(seenSize(kTheirs, kOurs, 7), 7);
  EXPECT_EQ(seenSize(Content::none, kOurs, 7), 7);
  EXPECT_EQ(seenSize(Content::none, kOurs, {}), kTheirSize) << "nothing else is known";
}

}  // namespace
}  // namespace kestrowan::replica::model
