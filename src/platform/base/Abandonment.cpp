#include "platform/base/Abandonment.h"

#include <utility>

namespace kestrowan {

namespace {

std::shared_ptr<Abandonment>& place() {
  thread_local std::shared_ptr<Abandonment> abandonment;
  return abandonment;
}

}  // namespace

void Abandonment::declare() {
  std::vector<std::function<void()>> reactions;
  {
    std::lock_guard lock(mutex_);
    declared_ = true;
    reactions.swap(reactions_);
  }
  for (const auto& reaction : reactions) reaction();
}

void Abandonment::whenDeclared(std::function<void()> reaction) {
  {
    std::lock_guard lock(mutex_);
    if (!declared_) {
      reactions_.push_back(std::move(reaction));
      return;
    }
  }
  reaction();
}

std::shared_ptr<Abandonment> Abandonment::current() {
  return place();
}

AbandonmentScope::AbandonmentScope(std::shared_ptr<Abandonment> abandonment)
    : before_(std::exchange(place(), std::move(abandonment))) {}

AbandonmentScope::~AbandonmentScope() {
  place() = std::move(before_);
}

}  // namespace kestrowan
