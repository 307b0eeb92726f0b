#include "platform/foundation/NSError.h"

#include <cerrno>
#include <system_error>

namespace kestrowan {

struct NSError::Values {
  std::string domain;
  std::int64_t code;
  UserInfo userInfo;
};

namespace {

struct KnownText {
  std::string_view domain;
  std::int64_t code;
  std::string_view text;
};

constexpr KnownText kKnownTexts[] = {
    {NSURLErrorDomain, NSURLErrorUnknown, "unknown error"},
    {NSURLErrorDomain, NSURLErrorCancelled, "cancelled"},
    {NSURLErrorDomain, NSURLErrorBadURL, "bad URL"},
    {NSURLErrorDomain, NSURLErrorTimedOut, "The request timed out."},
    {NSURLErrorDomain, NSURLErrorUnsupportedURL, "unsupported URL"},
    {NSURLErrorDomain, NSURLErrorCannotFindHost,
     "A server with the specified hostname could not be found."},
    {NSURLErrorDomain, NSURLErrorCannotConnectToHost, "Could not connect to the server."},
    {NSURLErrorDomain, NSURLErrorNetworkConnectionLost, "The network connection was lost."},
    {NSURLErrorDomain, NSURLErrorBadServerResponse, "There was a bad response from the server."},
    {NSURLErrorDomain, NSURLErrorCannotParseResponse, "cannot parse response"},
    {NSURLErrorDomain, NSURLErrorRequestBodyStreamExhausted, "request body stream exhausted"},
    {NSURLErrorDomain, NSURLErrorFileDoesNotExist,
     "The requested URL was not found on this server."},
    {NSURLErrorDomain, NSURLErrorFileIsDirectory, "file is directory"},
    {NSURLErrorDomain, NSURLErrorNoPermissionsToReadFile,
     "You do not have permission to access the requested resource."},
    {NSURLErrorDomain, NSURLErrorDataLengthExceedsMaximum, "resource exceeds maximum size"},
    {NSURLErrorDomain, NSURLErrorSecureConnectionFailed,
     "An SSL error has occurred and a secure connection to the server cannot be made."},
    {NSURLErrorDomain, NSURLErrorCannotCreateFile, "cannot create file"},
    {NSURLErrorDomain, NSURLErrorCannotWriteToFile, "cannot write file"},
    {NSCocoaErrorDomain, NSFileWriteFileExistsError,
     "The file couldn’t be saved because a file with the same name already exists."},
    {NSCocoaErrorDomain, NSFileReadNoSuchFileError,
     "The file couldn’t be opened because there is no such file."},
    {NSCocoaErrorDomain, NSFileReadNoPermissionError,
     "The file couldn’t be opened because you don’t have permission to view it."},
    {NSCocoaErrorDomain, NSFileWriteNoPermissionError,
     "You don’t have permission to save the file."},
    {NSCocoaErrorDomain, NSFileWriteInvalidFileNameError,
     "The file couldn’t be saved because the file name is invalid."},
    {NSCocoaErrorDomain, NSFileWriteOutOfSpaceError,
     "The file couldn’t be saved because there isn’t enough space."},
    {"NSFileProviderErrorDomain", -1000, "You must authenticate before accessing this object."},
    {"NSFileProviderErrorDomain", -1005, "The file doesn’t exist."},
};

constexpr std::string_view kNotCompleted = "The operation couldn’t be completed. ";

NSError cocoaError(NSCocoaErrorCode code, int number, std::string_view path) {
  return NSError(NSCocoaErrorDomain, code,
                 {{std::string(NSFilePathErrorKey), std::string(path)},
                  {"NSUnderlyingError", posixError(number).localizedDescription()}});
}

}  // namespace

NSError::NSError(std::string_view domain, std::int64_t code, UserInfo userInfo)
    : values_(
          std::make_shared<const Values>(Values{std::string(domain), code, std::move(userInfo)})) {}

const std::string& NSError::domain() const {
  return values_->domain;
}

std::int64_t NSError::code() const {
  return values_->code;
}

const NSError::UserInfo& NSError::userInfo() const {
  return values_->userInfo;
}

bool NSError::is(std::string_view domain, std::int64_t code) const {
  return values_->domain == domain && values_->code == code;
}

std::string NSError::localizedDescription() const {
  if (auto own = values_->userInfo.find(std::string(NSLocalizedDescriptionKey));
      own != values_->userInfo.end()) {
    return own->second;
  }
  for (const auto& known : kKnownTexts) {
    if (is(known.domain, known.code)) return std::string(known.text);
  }
  std::string text(kNotCompleted);
  if (values_->domain == NSPOSIXErrorDomain) {
    return text + std::generic_category().message(static_cast<int>(values_->code));
  }
  return text + "(" + values_->domain + " error " + std::to_string(values_->code) + ".)";
}

NSError posixError(int number) {
  return NSError(NSPOSIXErrorDomain, number);
}

NSError cocoaWriteError(int number, std::string_view path) {
  switch (number) {
    case ENOENT:
      return cocoaError(NSFileNoSuchFileError, number, path);
    case EACCES:
    case EPERM:
    case EROFS:
      return cocoaError(NSFileWriteNoPermissionError, number, path);
    case ENAMETOOLONG:
    case EINVAL:
      return cocoaError(NSFileWriteInvalidFileNameError, number, path);
    case EEXIST:
      return cocoaError(NSFileWriteFileExistsError, number, path);
    case ENOSPC:
    case EDQUOT:
      return cocoaError(NSFileWriteOutOfSpaceError, number, path);
    default:
      return cocoaError(NSFileWriteUnknownError, number, path);
  }
}

NSError cocoaReadError(int number, std::string_view path) {
  switch (number) {
    case ENOENT:
      return cocoaError(NSFileReadNoSuchFileError, number, path);
    case EACCES:
    case EPERM:
      return cocoaError(NSFileReadNoPermissionError, number, path);
    case EFBIG:
      return cocoaError(NSFileReadTooLargeError, number, path);
    default:
      return cocoaError(NSFileReadUnknownError, number, path);
  }
}

}  // namespace kestrowan
