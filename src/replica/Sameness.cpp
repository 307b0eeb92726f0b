#include "replica/Sameness.h"

#include <cstddef>
#include <utility>

#include "platform/foundation/SHA256.h"

namespace kestrowan::replica {

namespace {

constexpr std::size_t kLongestVersion = 128;

NSData lastingPart(const Options& options, const NSData& version) {
  return options.lastingPart ? options.lastingPart(version) : version;
}

}  // namespace

NSData keptVersion(const Options& options, NSData version) {
  if (version.size() <= kLongestVersion) return version;
  version = lastingPart(options, version);
  return version.size() <= kLongestVersion ? version : "sha256:" + sha256Text(version);
}

bool isVersionKnown(const Options& options, const NSData& version, Source source) {
  if (version.empty()) return false;
  return source == Source::look || !options.saysNothing || !options.saysNothing(version);
}

Sameness sameness(const Options& options, const Base& known, const Base& now) {
  if (known.size != now.size) return Sameness::different;
  if (known.versionKnown && now.versionKnown) {
    if (known.version == now.version) return Sameness::same;
    const bool onlyInPassing = known.date == now.date && lastingPart(options, known.version) ==
                                                             lastingPart(options, now.version);
    return onlyInPassing ? Sameness::same : Sameness::different;
  }
  const bool contradicts = known.date && now.date && *known.date != *now.date;
  return contradicts ? Sameness::different : Sameness::likely;
}

bool canBeMoved(const Options& options, const Base& before, const Base& after) {
  if (before.size != after.size) return false;
  return canBeSame(options, before, after) || !before.date || before.date == after.date;
}

}  // namespace kestrowan::replica
