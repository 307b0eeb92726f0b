#include "replica/model/Intent.h"

namespace kestrowan::replica::model {

std::vector<Path> Intent::paths() const {
  std::vector<Path> result;
  if (source) result.push_back(*source);
  if (target) result.push_back(*target);
  return result;
}

}  // namespace kestrowan::replica::model
