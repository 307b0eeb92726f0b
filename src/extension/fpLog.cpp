#include "extension/fpLog.h"

namespace kestrowan {

const Logger& fpLog() {
  static const auto* logger = new Logger("com.kestrowan.app.FileProvider", "ext");
  return *logger;
}

}  // namespace kestrowan
