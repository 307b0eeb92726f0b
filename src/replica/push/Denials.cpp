#include "replica/push/Denials.h"

#include <algorithm>
#include <utility>

#include "replica/model/View.h"
#include "replica/plan/Requests.h"

namespace kestrowan::replica::push {

using model::Edit;
using model::IntentNumber;
using model::Item;
using model::ItemNumber;
using model::State;
using model::View;

Denials::Denials(model::Tree& tree, pull::Refresher& refresher, IsPlanned isPlanned)
    : tree_(tree), refresher_(refresher), isPlanned_(std::move(isPlanned)) {}

/// What the provider is asked to show.
std::vector<ItemNumber> Denials::folders(const plan::Push& push) const {
  const View view(tree_);
  std::vector<ItemNumber> result;
  if (!view->find(push.item)) return result;
  result = plan::foldersOf(*view, push);
  std::erase_if(result, [&](ItemNumber number) {
    const Item* folder = view->find(number);
    return !folder || !folder->there();
  });
  return result;
}

Task<bool> Denials::confirm(plan::Push push, std::vector<IntentNumber> intents) {
  const auto toList = folders(push);
  if (toList.empty()) co_return false;
  try {
    auto asked = toList;
    auto look = refresher_.look(std::move(asked));
    co_await std::move(look);
  } catch (const NSError&) {
    co_return false;
  }
  co_return endIfPlanned(push, intents, toList);
}

/// Whether the look left nothing in doubt that the request is about.
bool Denials::isClear(const State& state, const plan::Push& push,
                      const std::vector<ItemNumber>& folders) const {
  if (refresher_.isMissing(push.item)) return false;
  return std::none_of(folders.begin(), folders.end(), [&](ItemNumber number) {
    const Item* folder = state.find(number);
    return !folder || !folder->there() || refresher_.isPartial(number) ||
           refresher_.isMissing(number);
  });
}

bool Denials::endIfPlanned(const plan::Push& push, const std::vector<IntentNumber>& intents,
                           const std::vector<ItemNumber>& folders) {
  Edit edit(tree_);
  if (!isClear(*edit, push, folders)) return false;
  for (const IntentNumber number : intents) {
    // One that was found to be done is no more.
    if (!edit->intents().find(number)) return false;
    plan::noteRefusal(edit, number);
  }
  if (!isPlanned_(*edit, push)) return false;
  edit.commit();
  return true;
}

}  // namespace kestrowan::replica::push
