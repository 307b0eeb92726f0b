#include "webdav/WebDAVClient.h"

#include <utility>

#include "extension/fpLog.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/NSURLComponents.h"

namespace kestrowan {

namespace {

constexpr double kRequestTimeout = 60.0;  // seconds
constexpr std::string_view kHost = "127.0.0.1";

}  // namespace

WebDAVClient::WebDAVClient(FPBridge::Config config, std::optional<NSData> pinnedDER)
    : config_(std::move(config)), pinnedDER_(std::move(pinnedDER)) {}

std::shared_ptr<WebDAVClient> WebDAVClient::make(FPBridge::Config config,
                                                 std::optional<NSData> pinnedDER) {
  return std::shared_ptr<WebDAVClient>(new WebDAVClient(std::move(config), std::move(pinnedDER)));
}

std::shared_ptr<NSURLSession> WebDAVClient::session() {
  std::call_once(sessionOnce_, [this] {
    auto configuration = NSURLSessionConfiguration::ephemeralSessionConfiguration();
    configuration.timeoutIntervalForRequest = kRequestTimeout;
    const std::string credentials = config_.user + ":" + config_.pass;
    configuration.HTTPAdditionalHeaders = {
        {"Authorization", "Basic " + base64EncodedString(credentials)}};
    session_ = NSURLSession::session(configuration, weak_from_this());
  });
  return session_;
}

NSURL WebDAVClient::url(std::string_view forPath) const {
  NSURLComponents components;
  components.scheme = "https";
  components.host = kHost;
  components.port = config_.port;
  components.path = forPath.empty() ? "/" : forPath;
  if (auto url = components.url()) return *std::move(url);
  return NSURL::URLWithString("https://127.0.0.1:" + std::to_string(config_.port) + "/");
}

std::string WebDAVClient::normalize(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path.empty() ? "/" : std::string(path);
}

void WebDAVClient::check(const NSURLResponse& response) {
  const auto* http = dynamic_cast<const NSHTTPURLResponse*>(&response);
  if (http == nullptr) return;
  const auto status = http->statusCode();
  if (status == 401) throw NSFileProviderError(NSFileProviderErrorCode::notAuthenticated);
  if (status < 200 || status > 299) {
    throw NSFileProviderError(NSFileProviderErrorCode::serverUnreachable);
  }
}

void WebDAVClient::urlSession(NSURLSession&, const NSURLAuthenticationChallenge& challenge,
                              const NSURLSessionChallengeHandler& completionHandler) {
  const auto cancel = [&] {
    completionHandler(NSURLSessionAuthChallengeDisposition::cancelAuthenticationChallenge,
                      std::nullopt);
  };
  const auto& space = challenge.protectionSpace;
  if (space.authenticationMethod != NSURLAuthenticationMethodServerTrust) return cancel();
  if (!space.serverTrust) return cancel();
  const auto chain = SecTrustCopyCertificateChain(*space.serverTrust);
  if (!chain || chain->empty()) return cancel();
  if (!pinnedDER_) return cancel();
  if (SecCertificateCopyData(chain->front()) != *pinnedDER_) {
    fpLog().error("cert pin mismatch — refusing loopback connection");
    return cancel();
  }
  completionHandler(NSURLSessionAuthChallengeDisposition::useCredential,
                    NSURLCredential{space.serverTrust});
}

}  // namespace kestrowan
