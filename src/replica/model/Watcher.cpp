#include "replica/model/Watcher.h"

#include "replica/model/Seen.h"

namespace kestrowan::replica::model {

namespace {

bool isHere(const Item* item) {
  return item && item->here();
}

}  // namespace

bool ItemChange::isElsewhereHere() const {
  if (!isHere(before) || !isHere(now)) return isHere(before) != isHere(now);
  return before->here()->place != now->here()->place;
}

bool ItemChange::hasOtherContents() const {
  if (!isHere(before) || !isHere(now) || now->isFolder()) return false;
  const Content was = before->here()->content;
  const Content is = now->here()->content;
  if (was != Content::none && is != Content::none) return was != is;
  // Bytes that came to this disk, or left it, are those of the agreed state.
  const auto& from = before->agreed();
  const auto& to = now->agreed();
  return !from || !to || (from->version != to->version && !hasSameAgreed);
}

bool ItemChange::hasOtherAttributes() const {
  if (!isHere(before) || !isHere(now)) return false;
  return hasOtherContents() || before->attributes().changed != now->attributes().changed ||
         seen(*before) != seen(*now);
}

}  // namespace kestrowan::replica::model
