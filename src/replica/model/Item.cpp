#include "replica/model/Item.h"

namespace kestrowan::replica::model {

const Attributes& Item::attributes() const {
  static const Attributes kNone;
  return attributes_ ? *attributes_ : kNone;
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
