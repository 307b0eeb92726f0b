#include "replica/Replica.h"

#include <utility>

#include "replica/Life.h"

namespace kestrowan::replica {

Replica::Replica(const std::string& directory, async::Loop& loop, Options options)
    : life_(std::make_unique<Life>(directory, loop, std::move(options))),
      files_(*life_),
      commands_(*life_) {}

Replica::~Replica() = default;

void Replica::setProvider(std::shared_ptr<NSFileProviderReplicatedExtension> provider) {
  life_->setProvider(std::move(provider));
}

Task<void> Replica::askForRoot() {
  return life_->refresher.prepare(model::ItemNumber::root, pull::Refresher::Need::forced);
}

void Replica::setObserver(Observer* observer) {
  life_->observer = observer;
}

void Replica::refuseNewWork() {
  life_->newWork.refuse();
}

void Replica::stop() {
  life_->stop();
}

void Replica::waitUntilEnded(std::chrono::milliseconds limit) {
  life_->scope.waitUntilEmpty(limit);
}

void Replica::start(Task<void> task) {
  life_->scope.start(std::move(task));
}

}  // namespace kestrowan::replica
