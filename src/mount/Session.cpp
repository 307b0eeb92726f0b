#include "mount/Session.h"

#include <chrono>
#include <utility>

#include "mount/Operations.h"

namespace kestrowan::mount {

Session::Session(replica::Replica& replica, Appearance appearance,
                 std::shared_ptr<const ProgramKinds> programs, MarkerFiles markers,
                 std::shared_ptr<WatchEvents> events)
    : replica_(replica),
      appearance_(appearance),
      programs_(std::move(programs)),
      markers_(markers),
      events_(std::move(events)),
      channel_(operations(), this),
      invalidation_(channel_) {}

void Session::entryChanged(replica::Rid folder, const std::string& name) {
  nameChanges_.count(folder);
  invalidation_.entryChanged(folder, name);
}

void Session::itemChanged(replica::Rid item, bool contents) {
  invalidation_.itemChanged(item, contents);
}

void Session::watchedNamesChanged(const std::vector<replica::NameChange>& changes) {
  if (events_) events_->untold.note(changes, std::chrono::steady_clock::now());
}

bool Session::isUntold(replica::Rid folder, const std::string& name) const {
  return events_ && events_->untold.isUntold(folder, name);
}

bool Session::waitUntilReady() const {
  state_.wait(State::starting);
  return state_ == State::ready;
}

void Session::setState(State state) {
  state_ = state;
  state_.notify_all();
}

void Session::closeHandles() {
  files_.takeAll();
  for (const auto& handle : folders_.takeAll()) replica_.files().closeFolder(handle->folder);
}

}  // namespace kestrowan::mount
