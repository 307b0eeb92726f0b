#include "replica/pull/FolderDate.h"

#include <utility>

#include "replica/model/Seen.h"

namespace kestrowan::replica::pull {

using model::Attributes;
using model::Edit;
using model::Item;
using model::ItemNumber;
using model::There;

void doubtFolderDate(Edit& edit, ItemNumber number) {
  const Item* folder = edit->find(number);
  if (!folder || number == ItemNumber::root || !folder->there() || !folder->there()->date) return;
  if (!folder->attributes().modified) {
    Attributes attributes = folder->attributes();
    attributes.modified = model::modifiedOf(*folder->there());
    edit.setAttributes(number, std::move(attributes));
  }
  There there = *folder->there();
  there.date.reset();
  if (folder->agreed()) {
    There agreed = *folder->agreed();
    agreed.date.reset();
    edit.setAgreed(number, std::move(agreed));
  }
  edit.setThere(number, std::move(there));
}

}  // namespace kestrowan::replica::pull
