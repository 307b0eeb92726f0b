#include "replica/pull/Sameness.h"

#include <cstddef>
#include <utility>

#include "platform/foundation/SHA256.h"

namespace kestrowan::replica::pull {

using model::There;

namespace {

constexpr std::size_t kLongestVersion = 128;
/// No version of a provider's that is text has it.
constexpr char kMark = '\x01';

NSData lastingPart(const Options& options, const NSData& version) {
  return options.lastingPart ? options.lastingPart(version) : version;
}

}  // namespace

There asOtherState(const There& known, There now) {
  if (now.version == known.version) now.version.text = distinctVersion(now);
  return now;
}

std::string_view plainVersion(std::string_view version) {
  return version.substr(0, version.find(kMark));
}

NSData distinctVersion(const There& there) {
  NSData text(plainVersion(there.version.text));
  text += kMark + std::to_string(there.size);
  if (there.date) text += '/' + std::to_string(there.date->time_since_epoch().count());
  return text;
}

NSData keptVersion(const Options& options, NSData version) {
  if (version.size() <= kLongestVersion) return version;
  version = lastingPart(options, version);
  return version.size() <= kLongestVersion ? version : "sha256:" + sha256Text(version);
}

bool isVersionKnown(const Options& options, const NSData& version, Source source) {
  if (version.empty()) return false;
  return source == Source::look || !options.saysNothing || !options.saysNothing(version);
}

Sameness sameness(const Options& options, const There& known, const There& now) {
  if (known.size != now.size) return Sameness::different;
  if (known.isVersionKnown && now.isVersionKnown) {
    const NSData before(plainVersion(known.version.text));
    const NSData after(plainVersion(now.version.text));
    if (before == after) return Sameness::same;
    const bool onlyInPassing =
        known.date == now.date && lastingPart(options, before) == lastingPart(options, after);
    return onlyInPassing ? Sameness::same : Sameness::different;
  }
  const bool contradicts = known.date && now.date && *known.date != *now.date;
  return contradicts ? Sameness::different : Sameness::likely;
}

}  // namespace kestrowan::replica::pull
