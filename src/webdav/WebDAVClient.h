#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bridge/FPBridge.h"
#include "platform/base/Task.h"
#include "platform/foundation/NSData.h"
#include "platform/foundation/NSURL.h"
#include "platform/network/NSURLSession.h"
#include "webdav/WebDAVEntry.h"

namespace kestrowan {

/// Speaks WebDAV with the host application on 127.0.0.1, trusting only its pinned certificate.
///
/// Shared by the extension object and its enumerators, and kept alive by every operation in
/// flight. Usable from every thread; operations run concurrently, keep no state and are never
/// repeated. Each fails with one `NSError`: the session's own, unchanged, or that of `check`.
class WebDAVClient : public NSURLSessionDelegate,
                     public std::enable_shared_from_this<WebDAVClient> {
 public:
  using Entry = WebDAVEntry;

  WebDAVClient() = delete;
  WebDAVClient(const WebDAVClient&) = delete;
  WebDAVClient& operator=(const WebDAVClient&) = delete;

  /// `pinnedDER` is the server's certificate; when absent, every connection is refused. Makes no
  /// request and no session.
  static std::shared_ptr<WebDAVClient> make(FPBridge::Config config,
                                            std::optional<NSData> pinnedDER);

  /// The client's only session, made by the first call.
  std::shared_ptr<NSURLSession> session();

  /// The request URL of a server path, which is raw text: "%" is encoded too. A path that is not
  /// empty and does not begin with "/" gives the server's root.
  NSURL url(std::string_view forPath) const;

  /// The one form in which server paths are stored and compared: without trailing slashes, "/" for
  /// the empty path, otherwise unchanged.
  static std::string normalize(std::string_view path);

  /// Throws `NSError` of `NSFileProviderErrorDomain` for an HTTP status outside 200…299:
  /// `notAuthenticated` for 401, `serverUnreachable` for any other.
  static void check(const NSURLResponse& response);

  /// The children of a folder, in the server's order, the folder itself left out. A body that is
  /// malformed or cut short gives the entries that could be read.
  Task<std::vector<Entry>> list(std::string path);
  /// The resource itself; nothing when the reply held no usable response. A missing resource is
  /// the failure of its status.
  Task<std::optional<Entry>> stat(std::string path);
  /// A copy of the resource's contents in the temporary directory, owned by the caller. Also fails
  /// with the file-system error of the final move.
  Task<NSURL> download(std::string path);
  /// Uploads the local file `from`, which is neither changed nor removed.
  Task<void> put(std::string path, NSURL from);
  Task<void> mkcol(std::string path);
  Task<void> delete_(std::string path);
  /// Never replaces: fails with `NSCocoaErrorDomain`, `NSFileWriteFileExistsError` when the
  /// destination exists.
  Task<void> move(std::string from, std::string to);

  /// Accepts a server whose leaf certificate equals the pin byte for byte, and nothing else.
  void urlSession(NSURLSession& session, const NSURLAuthenticationChallenge& challenge,
                  const NSURLSessionChallengeHandler& completionHandler) override;

 private:
  WebDAVClient(FPBridge::Config config, std::optional<NSData> pinnedDER);

  NSURLRequest request(std::string_view method, std::string_view path, HTTPHeaders headers) const;

  const FPBridge::Config config_;
  std::shared_ptr<NSURLSession> session_;  // guarded by sessionOnce_
  std::once_flag sessionOnce_;
  const std::optional<NSData> pinnedDER_;
};

}  // namespace kestrowan
