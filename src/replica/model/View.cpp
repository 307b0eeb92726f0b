#include "replica/model/View.h"

namespace kestrowan::replica::model {

View::View(const Tree& tree) : tree_(tree) {
  tree.mutex_.lockShared();
  state_ = &tree.state_;
}

View::~View() {
  tree_.mutex_.unlockShared();
}

}  // namespace kestrowan::replica::model
