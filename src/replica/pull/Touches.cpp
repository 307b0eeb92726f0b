#include "replica/pull/Touches.h"

namespace kestrowan::replica::pull {

using model::Path;

Touches::Watch::Watch(Touches& touches) : touches_(touches) {
  std::lock_guard lock(touches_.mutex_);
  begin_ = touches_.begins_.insert(touches_.last_);
}

Touches::Watch::~Watch() {
  std::lock_guard lock(touches_.mutex_);
  touches_.begins_.erase(begin_);
  const auto& begins = touches_.begins_;
  auto& noted = touches_.noted_;
  while (!noted.empty() && (begins.empty() || noted.front().first <= *begins.begin())) {
    noted.pop_front();
  }
}

std::vector<Path> Touches::Watch::touched() const {
  std::lock_guard lock(touches_.mutex_);
  std::vector<Path> paths;
  for (const auto& [number, path] : touches_.noted_) {
    if (number > *begin_) paths.push_back(path);
  }
  return paths;
}

void Touches::note(std::vector<Path> paths) {
  std::lock_guard lock(mutex_);
  if (begins_.empty()) return;
  for (Path& path : paths) noted_.emplace_back(++last_, std::move(path));
}

}  // namespace kestrowan::replica::pull
