#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "unit/replica/plan/WorldEvents.h"

namespace kestrowan::test {

/// Contents by numbers below 64.
using ContentSet = std::uint64_t;

ContentSet bit(Content content);

/// A rule that was broken, in words.
class Broken : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

/// A tree and a provider, the contents that there are, and what must hold between both sides when
/// nothing is to be done any more. Small worlds only: numbers of items, contents, versions and
/// names stay below 255.
class ModelWorld {
 public:
  ModelWorld() = default;
  ModelWorld(const ModelWorld&) = delete;
  ModelWorld& operator=(const ModelWorld&) = delete;

  /// An item in step on both sides; a file is downloaded or not.
  ItemNumber add(Kind kind, ItemNumber folder, const std::string& name, bool isDownloaded);
  /// Gives the contents that others put somewhere at the provider.
  ContentSet apply(const Event& event);
  /// A request at the provider. False when it cannot be done.
  bool request(Verb verb, const std::optional<Path>& source, const std::optional<Path>& target,
               Content content);
  /// These are no longer to be kept.
  void forget(Content content) { wanted &= ~bit(content); }

  /// The bytes that programs see of an item.
  Content shown(const Item& item) const;
  ContentSet contentsThere() const;
  /// What programs see, as a text.
  std::string shownTree() const;
  std::string describe() const;
  /// For a world in which nothing is to be done any more. Throws `Broken`.
  void judge() const;

 private:
  class NoJournal : public Journal {
   public:
    void write(const Changes&) override {}
  };

  void change(const Event& event, Content made);
  ContentSet changeThere(const Event& event, Content made);
  Content newContent();

  NoJournal journal_;

 public:
  Tree tree{journal_};
  ModelProvider provider;
  /// The bytes of each version there ever was.
  std::vector<Content> contentOf{Content::none};
  unsigned lastContent = 0;
  /// Contents that were not destroyed knowingly.
  ContentSet wanted = 0;
  /// Contents that landed late: that copy may go.
  ContentSet strays = 0;
  bool hasChangedThere = false;
  /// Another client changed something that no whole look has shown yet.
  bool isUnseen = false;
};

}  // namespace kestrowan::test
