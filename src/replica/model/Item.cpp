#include "replica/model/Item.h"

#include <utility>

namespace kestrowan::replica::model {

const std::vector<ItemNumber>& Item::after() const {
  static const std::vector<ItemNumber> kNone;
  return rest_ ? rest_->after : kNone;
}

const Attributes& Item::attributes() const {
  static const Attributes kNone;
  return rest_ ? rest_->attributes : kNone;
}

Item::Rest Item::rest() const {
  return rest_ ? *rest_ : Rest();
}

void Item::setRest(Rest rest) {
  rest_ = rest == Rest() ? Shared<Rest>() : Shared<Rest>(std::move(rest));
}

bool Item::isNewThere() const {
  return there_ && (!agreed_ || (isFile() && there_->version != agreed_->version));
}

bool Item::isMerged() const {
  if (isNewThere()) return false;
  return there_ || (here_ && !agreed_);
}

bool Item::isInStep() const {
  if (here_ && !there_ && !agreed_ && attributes().localOnly) return true;
  return isMerged() && here_ && there_ && here_->place == there_->place &&
         here_->content == agreed_->content;
}

}  // namespace kestrowan::replica::model
