#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace kestrowan {

inline constexpr std::string_view NSCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr std::string_view NSPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr std::string_view NSURLErrorDomain = "NSURLErrorDomain";

/// Codes of `NSCocoaErrorDomain`.
enum NSCocoaErrorCode : std::int64_t {
  NSFileNoSuchFileError = 4,
  NSFileReadUnknownError = 256,
  NSFileReadNoPermissionError = 257,
  NSFileReadNoSuchFileError = 260,
  NSFileReadTooLargeError = 263,
  NSFileWriteUnknownError = 512,
  NSFileWriteNoPermissionError = 513,
  NSFileWriteInvalidFileNameError = 514,
  NSFileWriteFileExistsError = 516,
  NSFileWriteOutOfSpaceError = 640,
  NSCoderReadCorruptError = 4864,
  NSCoderValueNotFoundError = 4865,
};

/// Codes of `NSURLErrorDomain`.
enum NSURLErrorCode : std::int64_t {
  NSURLErrorUnknown = -1,
  NSURLErrorCancelled = -999,
  NSURLErrorBadURL = -1000,
  NSURLErrorTimedOut = -1001,
  NSURLErrorUnsupportedURL = -1002,
  NSURLErrorCannotFindHost = -1003,
  NSURLErrorCannotConnectToHost = -1004,
  NSURLErrorNetworkConnectionLost = -1005,
  NSURLErrorBadServerResponse = -1011,
  NSURLErrorCannotParseResponse = -1017,
  NSURLErrorRequestBodyStreamExhausted = -1021,
  NSURLErrorFileDoesNotExist = -1100,
  NSURLErrorFileIsDirectory = -1101,
  NSURLErrorNoPermissionsToReadFile = -1102,
  NSURLErrorDataLengthExceedsMaximum = -1103,
  NSURLErrorSecureConnectionFailed = -1200,
  NSURLErrorCannotCreateFile = -3000,
  NSURLErrorCannotWriteToFile = -3003,
};

inline constexpr std::string_view NSLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr std::string_view NSFilePathErrorKey = "NSFilePath";

/// The one error type: thrown by whatever can fail, handed to completion handlers, never both.
/// Immutable; a copy shares the object of its original, and so its identity. Usable from every
/// thread.
class NSError {
 public:
  using UserInfo = std::map<std::string, std::string>;

  NSError(std::string_view domain, std::int64_t code, UserInfo userInfo = {});

  const std::string& domain() const;
  std::int64_t code() const;
  const UserInfo& userInfo() const;

  /// The text for a person: the user info's own, else that of a known domain and code, else a
  /// sentence that names both.
  std::string localizedDescription() const;

  bool is(std::string_view domain, std::int64_t code) const;

  /// Whether both are the same object, not merely alike.
  bool isIdenticalTo(const NSError& other) const { return values_ == other.values_; }

 private:
  struct Values;
  std::shared_ptr<const Values> values_;
};

/// An error of `NSPOSIXErrorDomain` for the value of `errno`.
NSError posixError(int number);

/// The error of `NSCocoaErrorDomain` that a failed write to `path` gives for the value of `errno`.
NSError cocoaWriteError(int number, std::string_view path);

/// The error of `NSCocoaErrorDomain` that a failed read of `path` gives for the value of `errno`.
NSError cocoaReadError(int number, std::string_view path);

}  // namespace kestrowan
