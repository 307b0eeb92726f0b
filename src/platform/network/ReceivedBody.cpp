#include "platform/network/ReceivedBody.h"

#include <utility>

namespace kestrowan {

namespace {

thread_local std::shared_ptr<ReceivedBody> currentBody;

}  // namespace

ReceivedBody::Delivery::Delivery(std::shared_ptr<ReceivedBody> body) {
  currentBody = std::move(body);
}

ReceivedBody::Delivery::~Delivery() {
  currentBody.reset();
}

std::shared_ptr<ReceivedBody> ReceivedBody::beingDelivered() {
  return currentBody;
}

}  // namespace kestrowan
