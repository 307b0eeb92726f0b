#include "platform/network/Arrivals.h"

#include <algorithm>
#include <utility>

namespace kestrowan {

Arrivals& Arrivals::shared() {
  // Never destroyed: a transfer may end after the static objects of the program.
  static auto* arrivals = new Arrivals;
  return *arrivals;
}

std::shared_ptr<void> Arrivals::watch(std::string httpMethod, IsMeant isMeant,
                                      std::shared_ptr<Abandonment> abandonment, Notice notice) {
  std::list<Watch> made;
  made.push_back(
      {std::move(httpMethod), std::move(isMeant), std::move(abandonment), std::move(notice)});
  const auto place = made.begin();
  // Made before the watch, so that want of memory leaves none behind.
  std::shared_ptr<std::list<Watch>> handle(new std::list<Watch>(std::move(made)),
                                           [this, place](std::list<Watch>* own) {
                                             {
                                               std::lock_guard lock(mutex_);
                                               own->splice(own->begin(), watches_, place);
                                             }
                                             delete own;
                                           });
  std::lock_guard lock(mutex_);
  watches_.splice(watches_.end(), *handle);
  return handle;
}

std::shared_ptr<ArrivingBody> Arrivals::announce(
    std::string_view httpMethod, const std::string& url,
    const std::shared_ptr<Abandonment>& abandonment,
    const std::function<std::shared_ptr<ArrivingBody>()>& make) {
  std::lock_guard lock(mutex_);
  const auto found = std::find_if(watches_.begin(), watches_.end(), [&](const Watch& watch) {
    return watch.abandonment == abandonment && watch.httpMethod == httpMethod && watch.isMeant(url);
  });
  if (found == watches_.end()) return nullptr;
  auto body = make();
  if (body) found->notice(body);
  return body;
}

}  // namespace kestrowan
