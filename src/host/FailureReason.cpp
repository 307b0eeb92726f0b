#include "host/FailureReason.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "platform/fileprovider/NSFileProviderError.h"
#include "replica/remote/AnswerTable.h"

namespace kestrowan::host {

namespace {

struct Row {
  std::string_view domain;
  /// Both ends belong to the row.
  std::int64_t lowest;
  std::int64_t highest;
  std::string_view reason;
};

constexpr std::int64_t code(NSFileProviderErrorCode value) {
  return static_cast<std::int64_t>(value);
}

constexpr Row row(std::string_view domain, std::int64_t code, std::string_view reason) {
  return {domain, code, code, reason};
}

/// The first row that fits counts.
constexpr Row kRows[] = {
    row(NSFileProviderErrorDomain, code(NSFileProviderErrorCode::notAuthenticated), "credentials"),
    row(NSFileProviderErrorDomain, code(NSFileProviderErrorCode::filenameCollision), "exists"),
    row(NSFileProviderErrorDomain, code(NSFileProviderErrorCode::insufficientQuota), "full"),
    row(NSFileProviderErrorDomain, code(NSFileProviderErrorCode::serverUnreachable), "refused"),
    row(NSFileProviderErrorDomain, code(NSFileProviderErrorCode::noSuchItem), "missing"),
    row(NSFileProviderErrorDomain, code(NSFileProviderErrorCode::directoryNotEmpty), "not-empty"),

    row(NSPOSIXErrorDomain, EPERM, "not-permitted"),
    row(NSPOSIXErrorDomain, EACCES, "forbidden"),
    row(NSPOSIXErrorDomain, ENOENT, "missing"),
    row(NSPOSIXErrorDomain, ESTALE, "missing"),
    row(NSPOSIXErrorDomain, EEXIST, "exists"),
    row(NSPOSIXErrorDomain, ENOTEMPTY, "not-empty"),
    row(NSPOSIXErrorDomain, EISDIR, "is-folder"),
    row(NSPOSIXErrorDomain, ENOTDIR, "no-folder"),
    row(NSPOSIXErrorDomain, EINVAL, "invalid"),
    row(NSPOSIXErrorDomain, EBUSY, "busy"),
    row(NSPOSIXErrorDomain, ENOSPC, "disk-full"),
    row(NSPOSIXErrorDomain, ETIMEDOUT, "timed-out"),
    row(NSPOSIXErrorDomain, EHOSTUNREACH, "unreachable"),

    row(NSCocoaErrorDomain, NSFileWriteFileExistsError, "exists"),
    row(NSCocoaErrorDomain, NSFileWriteOutOfSpaceError, "disk-full"),
    {NSCocoaErrorDomain, NSFileNoSuchFileError, NSFileWriteOutOfSpaceError, "local-file"},

    row(NSURLErrorDomain, NSURLErrorCancelled, "certificate"),
    {NSURLErrorDomain, -1206, NSURLErrorSecureConnectionFailed, "insecure"},
    row(NSURLErrorDomain, NSURLErrorBadURL, "bad-port"),
    row(NSURLErrorDomain, NSURLErrorTimedOut, "timed-out"),
    {NSURLErrorDomain, NSURLErrorCannotConnectToHost, NSURLErrorCannotFindHost, "unreachable"},
    row(NSURLErrorDomain, -1009, "unreachable"),
    row(NSURLErrorDomain, NSURLErrorNetworkConnectionLost, "connection-lost"),
    row(NSURLErrorDomain, NSURLErrorBadServerResponse, "bad-answer"),
    row(NSURLErrorDomain, NSURLErrorCannotParseResponse, "bad-answer"),
    row(NSURLErrorDomain, NSURLErrorDataLengthExceedsMaximum, "too-large"),
    {NSURLErrorDomain, NSURLErrorNoPermissionsToReadFile, NSURLErrorFileDoesNotExist, "local-file"},
    row(NSURLErrorDomain, NSURLErrorRequestBodyStreamExhausted, "local-file"),
    {NSURLErrorDomain, NSURLErrorCannotWriteToFile, NSURLErrorCannotCreateFile, "local-file"},

    // The exit codes.
    row(kCommandDomain, 2, "usage"),
    row(kCommandDomain, 3, "not-configured"),
    row(kCommandDomain, 4, "partly-failed"),
    row(kCommandDomain, 5, "unwritable"),
    row(kCommandDomain, 6, "mount-failed"),
    row(kCommandDomain, 7, "not-mounted"),
    row(kCommandDomain, 8, "timed-out"),
    row(kCommandDomain, 9, "busy"),
    row(kCommandDomain, 10, "other-storage"),
};

}  // namespace

const std::vector<ReasonWord>& reasonWords() {
  static const std::vector<ReasonWord> words = {
      {"missing", "it is not there"},
      {"exists", "something of that name is already there"},
      {"is-folder", "it is a folder, and a file was meant"},
      {"no-folder", "the folder that it is to be in is not there, or is a file"},
      {"not-empty", "the folder is not empty"},
      {"forbidden", "the server, or this system, forbids it"},
      {"not-permitted", "the storage lets no user do that here"},
      {"not-allowed", "the server does not allow that with what is there"},
      {"conflict", "something else is in the way at the server"},
      {"locked", "it, or something in it, is locked at the server"},
      {"full", "no room at the server"},
      {"too-large", "the server takes no file of that size; or a folder is too large to be listed"},
      {"name-too-long", "the path is too long for the server"},
      {"invalid", "the server, or the program, takes it for invalid"},
      {"kind", "the server takes no file of that kind"},
      {"not-supported", "the server cannot do such a thing"},
      {"too-many", "the server has too many requests to do"},
      {"unavailable", "the server cannot do it at present"},
      {"server-failed", "the server failed at it"},
      {"redirected", "the server sends the request elsewhere, where it is not sent"},
      {"refused", "the server refused it, and does not say why"},
      {"bad-answer", "the answer is no proper HTTP"},
      {"credentials", "the server does not know the user and password"},
      {"certificate", "another program answers: its certificate is not that of the bridge file"},
      {"insecure", "no secure connection could be made"},
      {"bad-port", "the bridge file names an impossible port"},
      {"unreachable", "nothing answers on the port"},
      {"connection-lost", "the connection broke before the answer was whole"},
      {"timed-out", "the time ran out"},
      {"disk-full", "the disk of this machine is full"},
      {"local-file", "the file on this machine cannot be read or written"},
      {"not-configured", "there is no usable bridge file"},
      {"usage", "the command line is wrong"},
      {"partly-failed", "some of several failed"},
      {"unwritable", "standard output, or a file, cannot be written"},
      {"mount-failed", "the mount could not be made, or broke"},
      {"not-mounted", "no mount is running there"},
      {"busy", "it is in use"},
      {"other-storage", "the state was made for another container"},
      {"other", "none of these"},
  };
  return words;
}

std::string_view reasonOf(std::string_view domain, std::int64_t code) {
  if (domain == replica::remote::kAnswerDomain) {
    return replica::remote::AnswerTable::meaning(code).reason;
  }
  const auto found = std::find_if(std::begin(kRows), std::end(kRows), [&](const Row& one) {
    return one.domain == domain && one.lowest <= code && code <= one.highest;
  });
  return found != std::end(kRows) ? found->reason : "other";
}

}  // namespace kestrowan::host
