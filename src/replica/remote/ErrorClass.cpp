#include "replica/remote/ErrorClass.h"

#include <algorithm>
#include <cerrno>

#include "platform/fileprovider/NSFileProviderError.h"
#include "replica/remote/AnswerTable.h"

namespace kestrowan::replica::remote {

namespace {

using Code = NSFileProviderErrorCode;
using std::chrono::milliseconds;

// Codes that the provider's own sources do not name.
constexpr std::int64_t kCannotSynchronize = -2005;
constexpr std::int64_t kVersionNoLongerAvailable = -2009;
constexpr std::int64_t kExcludedFromSync = -2010;
constexpr std::int64_t kFileReadInvalidFileName = 258;
constexpr std::int64_t kFileWriteVolumeReadOnly = 642;
constexpr std::int64_t kNotConnectedToInternet = -1009;
constexpr std::int64_t kClientCertificateRequired = -1206;

constexpr std::int64_t kLongestBackOff = 300;       // seconds
constexpr std::int64_t kLongestProbeInterval = 30;  // seconds

ErrorClass fileProviderClass(std::int64_t code) {
  switch (code) {
    case static_cast<std::int64_t>(Code::notAuthenticated):
      return ErrorClass::held;
    case static_cast<std::int64_t>(Code::filenameCollision):
      return ErrorClass::collision;
    case static_cast<std::int64_t>(Code::syncAnchorExpired):
      return ErrorClass::listAgain;
    case static_cast<std::int64_t>(Code::insufficientQuota):
      return ErrorClass::quota;
    case static_cast<std::int64_t>(Code::serverUnreachable):
      return ErrorClass::ambiguous;
    case static_cast<std::int64_t>(Code::noSuchItem):
    case kVersionNoLongerAvailable:
      return ErrorClass::gone;
    case static_cast<std::int64_t>(Code::versionOutOfDate):
      return ErrorClass::deletionRefused;
    case static_cast<std::int64_t>(Code::directoryNotEmpty):
      return ErrorClass::folderNotEmpty;
    case kCannotSynchronize:
      return ErrorClass::parked;
    case kExcludedFromSync:
      return ErrorClass::excluded;
    default:
      return ErrorClass::transient;
  }
}

ErrorClass posixClass(std::int64_t code) {
  switch (code) {
    // What this machine lacks for the moment says nothing of the change.
    case EAGAIN:
    case EINTR:
    case EMFILE:
    case ENFILE:
    case ENOMEM:
      return ErrorClass::transient;
    default:
      return ErrorClass::refused;
  }
}

ErrorClass cocoaClass(std::int64_t code) {
  switch (code) {
    case NSFileWriteFileExistsError:
      return ErrorClass::collision;
    case NSFileNoSuchFileError:
    case NSFileReadNoSuchFileError:
    case NSFileReadNoPermissionError:
    case NSFileWriteNoPermissionError:
    case kFileReadInvalidFileName:
    case NSFileWriteInvalidFileNameError:
    case kFileWriteVolumeReadOnly:
      return ErrorClass::refused;
    default:
      // A full disk and a user's cancelling among them: neither lasts.
      return ErrorClass::transient;
  }
}

ErrorClass urlClass(std::int64_t code) {
  switch (code) {
    case NSURLErrorCannotFindHost:
    case NSURLErrorCannotConnectToHost:
    case kNotConnectedToInternet:
      return ErrorClass::down;
    case NSURLErrorCancelled:
      return ErrorClass::held;
    default:
      return code >= kClientCertificateRequired && code <= NSURLErrorSecureConnectionFailed
                 ? ErrorClass::held
                 : ErrorClass::transient;
  }
}

/// For 1, 2, 3 and so on 1, 2, 4 seconds and so on, at most `longest`.
milliseconds doubled(std::uint32_t number, std::int64_t longest) {
  constexpr std::uint32_t kEnough = 32;
  const auto times = std::clamp(number, 1u, kEnough) - 1;
  return std::chrono::seconds(std::min(longest, std::int64_t{1} << times));
}

}  // namespace

ErrorClass errorClass(const NSError& error) {
  if (error.domain() == NSFileProviderErrorDomain) return fileProviderClass(error.code());
  if (error.domain() == NSPOSIXErrorDomain) return posixClass(error.code());
  if (error.domain() == NSCocoaErrorDomain) return cocoaClass(error.code());
  if (error.domain() == NSURLErrorDomain) return urlClass(error.code());
  if (error.domain() == kAnswerDomain) {
    return AnswerTable::isDenial(error) ? ErrorClass::denied : ErrorClass::ambiguous;
  }
  return ErrorClass::transient;
}

bool isPassing(const NSError& error) {
  const ErrorClass kind = errorClass(error);
  return kind == ErrorClass::ambiguous || kind == ErrorClass::down ||
         error.is(NSURLErrorDomain, NSURLErrorNetworkConnectionLost);
}

milliseconds backOff(std::uint32_t tries, std::uint64_t random) {
  const auto middle = doubled(tries, kLongestBackOff);
  const auto fifth = middle / 5;
  const auto width = static_cast<std::uint64_t>(2 * fifth.count() + 1);
  return middle - fifth + milliseconds(random % width);
}

milliseconds probeInterval(std::uint32_t probe) {
  return doubled(probe, kLongestProbeInterval);
}

}  // namespace kestrowan::replica::remote
