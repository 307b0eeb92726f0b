#include "cli/Explain.h"

#include <algorithm>
#include <iterator>

#include "cli/AnsweredError.h"
#include "cli/Bridge.h"
#include "host/BridgeProblem.h"
#include "host/CommandAdvice.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/Logger.h"
#include "replica/remote/AnswerTable.h"

namespace kestrowan::cli {

namespace {

struct Advice {
  std::string_view domain;
  std::int64_t code;
  std::string_view whatHappened;
  std::string_view whatToDo;
};

constexpr auto code(NSFileProviderErrorCode value) {
  return static_cast<std::int64_t>(value);
}

constexpr Advice kAdvice[] = {
    {NSFileProviderErrorDomain, code(NSFileProviderErrorCode::notAuthenticated),
     "the server refused the user name and password",
     "restart the host application, so that it writes a fresh bridge file"},
    {NSFileProviderErrorDomain, code(NSFileProviderErrorCode::serverUnreachable),
     "the server refused the request", "the server's own log may tell more"},
    {NSFileProviderErrorDomain, code(NSFileProviderErrorCode::noSuchItem), "not there",
     "list the folder to see what is"},
    {NSPOSIXErrorDomain, 1, "not permitted: the folder is protected or the name is not allowed",
     "choose another folder or name"},
    {NSCocoaErrorDomain, NSFileWriteFileExistsError, "already there", "choose another name"},
    {NSCocoaErrorDomain, NSFileWriteOutOfSpaceError, "the local disk is full",
     "make room, then try again"},
    {NSURLErrorDomain, NSURLErrorBadURL, "the bridge file names an impossible port",
     "restart the host application, so that it writes a fresh bridge file"},
    {NSURLErrorDomain, NSURLErrorTimedOut, "the server did not answer in time",
     "check whether the host application is stuck, then try again"},
    {NSURLErrorDomain, NSURLErrorCannotConnectToHost, "nothing answers on the server's port",
     "check that the host application is running"},
    {NSURLErrorDomain, NSURLErrorNetworkConnectionLost,
     "the connection broke before the answer was whole",
     "check that the host application is running, then try again"},
    {NSURLErrorDomain, NSURLErrorCannotParseResponse, "the answer is no proper HTTP",
     "another program may hold the port: check that the host application is running"},
    {NSURLErrorDomain, NSURLErrorDataLengthExceedsMaximum,
     "the folder has more than 2,000,000 entries, or more than 1 GiB of names",
     "divide the folder at the server; nothing of it is shown as long as it is so large"},
    {NSURLErrorDomain, NSURLErrorSecureConnectionFailed, "no secure connection could be made",
     "another program may hold the port: check that the host application is running"},
    {NSURLErrorDomain, NSURLErrorFileDoesNotExist, "the local file is not there",
     "check the path of the local file"},
    {NSURLErrorDomain, NSURLErrorFileIsDirectory, "the local file is a directory",
     "make folders with mkdir, and put their files one by one"},
    {NSURLErrorDomain, NSURLErrorNoPermissionsToReadFile, "the local file cannot be read",
     "check the permissions of the local file"},
    {NSURLErrorDomain, NSURLErrorRequestBodyStreamExhausted,
     "the local file shrank while it was sent", "try again when nothing writes to the file"},
    {NSURLErrorDomain, NSURLErrorCannotCreateFile, "no local file could be made",
     "check the target folder's permissions and free space"},
    {NSURLErrorDomain, NSURLErrorCannotWriteToFile, "the local file could not be written",
     "check the free space on the disk, then try again"},
};

/// "NSURLErrorDomain -1004", behind the answer that it comes from: "404 to GET, …".
std::string sourceOf(const NSError& error) {
  const auto own = error.domain() + " " + std::to_string(error.code());
  const auto status = answerStatus(error);
  if (!status) return own;
  return std::to_string(*status) + " to " + answeredRequest(error) + ", " + own;
}

/// What the server answered, in words, where that says more than the error.
std::optional<std::string> answerText(const NSError& error) {
  const auto status = answerStatus(error);
  const bool isPlain =
      error.is(NSFileProviderErrorDomain, code(NSFileProviderErrorCode::serverUnreachable));
  if (!status || !isPlain) return std::nullopt;
  return std::string(replica::remote::AnswerTable::meaning(*status).words);
}

std::string inWords(std::string_view path, const NSError& error,
                    const std::optional<std::string>& known) {
  std::string text = escapedForDisplay(path) + ": ";
  if (error.is(NSURLErrorDomain, NSURLErrorCancelled)) {
    return text + host::distrustText(error) + " (" + sourceOf(error) + ")\n  " +
           "restart the host application, so that it writes a fresh bridge file";
  }
  const auto told = known ? known : answerText(error);
  if (told) return text + *told + " (" + sourceOf(error) + ")";
  for (const auto& advice : kAdvice) {
    if (!error.is(advice.domain, advice.code)) continue;
    return text.append(advice.whatHappened)
        .append(" (" + error.domain() + " " + std::to_string(error.code()) + ": " +
                error.localizedDescription() + ")\n  ")
        .append(advice.whatToDo);
  }
  return text + error.localizedDescription() + " (" + error.domain() + " " +
         std::to_string(error.code()) + ")\n  this shows what is wrong: " + host::doctorCommand();
}

}  // namespace

bool isAboutLocalFile(const NSError& error) {
  constexpr NSURLErrorCode kLocal[] = {
      NSURLErrorFileDoesNotExist,        NSURLErrorFileIsDirectory,
      NSURLErrorNoPermissionsToReadFile, NSURLErrorRequestBodyStreamExhausted,
      NSURLErrorCannotCreateFile,        NSURLErrorCannotWriteToFile,
  };
  return error.domain() == NSURLErrorDomain &&
         std::find(std::begin(kLocal), std::end(kLocal), error.code()) != std::end(kLocal);
}

Explanation explain(std::string_view path, const NSError& error,
                    const std::optional<std::string>& known) {
  if (error.is(NSFileProviderErrorDomain, code(NSFileProviderErrorCode::notAuthenticated))) {
    if (auto problem = bridgeProblem()) return {ExitCode::notConfigured, *std::move(problem)};
  }
  return {ExitCode::requestFailed, inWords(path, error, known)};
}

}  // namespace kestrowan::cli
