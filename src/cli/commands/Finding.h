#pragma once

#include <string>
#include <vector>

namespace kestrowan::cli {

enum class Verdict { good, warning, bad };

/// One thing that "doctor" looked at, and what to do about it.
struct Finding {
  std::string subject;
  Verdict verdict;
  std::string text;
};

/// What a mount needs, and the mounts that there are. No mount is touched.
std::vector<Finding> mountFindings();

}  // namespace kestrowan::cli
