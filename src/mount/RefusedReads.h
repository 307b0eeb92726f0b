#pragma once

#include <sys/types.h>

#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

namespace kestrowan::mount {

/// Reads of one open file that were refused because many others wait for its contents. The kernel
/// makes such reads in advance; what it did not get so it asks for again, for the program that
/// waits, and that must not be refused. Usable from every thread.
class RefusedReads {
 public:
  /// Whether a read may be refused, as nothing of what it reads was refused before; notes it then.
  bool refuse(off_t offset, std::size_t size);

 private:
  std::mutex mutex_;                              // guards what follows
  std::vector<std::pair<off_t, off_t>> refused_;  // from and to
};

}  // namespace kestrowan::mount
