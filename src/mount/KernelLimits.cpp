#include "mount/KernelLimits.h"

#include <cerrno>
#include <fstream>

#include "mount/DescribedError.h"

namespace kestrowan::mount {

void checkKernelLimits(const std::string& directory) {
  for (const char* name : {"default_request_timeout", "max_request_timeout"}) {
    std::ifstream file(directory + "/" + name);
    // Older kernels have neither.
    long seconds = 0;
    if (!(file >> seconds) || seconds == 0) continue;
    throw describedError(ETIMEDOUT, "this system ends a mount when one answer takes longer than " +
                                        std::to_string(seconds) +
                                        " seconds, and a download may; allow it: sysctl fs.fuse." +
                                        name + "=0");
  }
}

}  // namespace kestrowan::mount
