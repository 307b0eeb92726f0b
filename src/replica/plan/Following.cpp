#include "replica/plan/Following.h"

#include <algorithm>

namespace kestrowan::replica::plan {

using model::Edit;
using model::ItemNumber;

void followAlso(Edit& edit, ItemNumber first, ItemNumber other) {
  const auto following = edit->following();
  for (const ItemNumber number : following) {
    const auto& after = edit->item(number).after();
    if (std::binary_search(after.begin(), after.end(), first)) edit.addAfter(number, other);
  }
}

void followReplacement(Edit& edit, ItemNumber replaced, ItemNumber other) {
  followAlso(edit, replaced, other);
  edit.addAfter(replaced, other);
}

}  // namespace kestrowan::replica::plan
