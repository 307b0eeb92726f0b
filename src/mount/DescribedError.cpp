#include "mount/DescribedError.h"

#include <system_error>
#include <utility>

namespace kestrowan {

NSError describedError(int number, std::string text) {
  return NSError(NSPOSIXErrorDomain, number,
                 {{std::string(NSLocalizedDescriptionKey), std::move(text)}});
}

NSError systemError(int number, const std::string& subject) {
  return describedError(number, subject + ": " + std::generic_category().message(number));
}

}  // namespace kestrowan
