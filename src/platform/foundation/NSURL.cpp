#include "platform/foundation/NSURL.h"

#include "platform/foundation/NSURLComponents.h"

namespace kestrowan {

std::string NSURL::absoluteString() const {
  return isFile_ ? "file://" + stringByAddingPathPercentEncoding(text_) : text_;
}

NSURL NSURL::appendingPathComponent(std::string_view component) const {
  std::string longer = text_;
  if (longer.empty() || longer.back() != '/') longer += '/';
  return fileURLWithPath(longer.append(component));
}

}  // namespace kestrowan
