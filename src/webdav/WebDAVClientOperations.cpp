#include <utility>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/NSString.h"
#include "platform/foundation/NSUUID.h"
#include "webdav/MultiStatusParser.h"
#include "webdav/WebDAVClient.h"

namespace kestrowan {

namespace {

constexpr double kTimeout = 60;  // seconds
constexpr std::int64_t kPreconditionFailed = 412;

/// Parses a multistatus body while it arrives.
class MultiStatusReceiver : public NSURLSessionDataReceiver {
 public:
  void didReceiveData(std::string_view data) override { xml_.append(data); }

  std::vector<WebDAVEntry> takeEntries() {
    xml_.finish();
    return parser_.takeEntries();
  }

 private:
  MultiStatusParser parser_;
  NSXMLParser xml_{parser_};
};

/// Removes `file`, whether or not it is there.
void removeIfPresent(const NSURL& file) {
  try {
    NSFileManager::defaultManager()->removeItem(file);
  } catch (const NSError&) {
    // Nothing was there, or it stays and the move that follows reports why.
  }
}

/// Where a download of `path` goes: a name of its own that ends like the path, so that whoever
/// opens the file sees the extension, cut in front where the file system takes no longer name.
NSURL downloadDestination(const std::string& path) {
  const NSURL directory = NSFileManager::defaultManager()->temporaryDirectory();
  const std::string prefix = newUUIDString() + "-";
  std::string name = lastPathComponent(path);
  const std::size_t longest = NSFileManager::defaultManager()->maximumNameLength(directory);
  if (prefix.size() + name.size() > longest) {
    std::size_t cut = prefix.size() + name.size() - longest;
    const auto continuesCharacter = [&] { return (name[cut] & 0xC0) == 0x80; };
    while (cut < name.size() && continuesCharacter()) ++cut;
    name.erase(0, cut);
  }
  return directory.appendingPathComponent(prefix + name);
}

// Each operation is a coroutine that keeps its client alive by an argument: the client is the
// delegate of its session, and must be there when the server has to be trusted.
using Client = std::shared_ptr<WebDAVClient>;

Task<std::vector<WebDAVEntry>> propfind(Client client, NSURLRequest request) {
  auto receiver = std::make_shared<MultiStatusReceiver>();
  const auto response = co_await client->session()->dataTask(std::move(request), receiver);
  WebDAVClient::check(*response);
  co_return receiver->takeEntries();
}

Task<std::vector<WebDAVEntry>> children(Client client, NSURLRequest request, std::string own) {
  auto entries = co_await propfind(std::move(client), std::move(request));
  std::erase_if(entries, [&](const WebDAVEntry& entry) {
    return isEqualToString(WebDAVClient::normalize(entry.path), own);
  });
  co_return entries;
}

Task<std::optional<WebDAVEntry>> firstEntry(Client client, NSURLRequest request) {
  auto entries = co_await propfind(std::move(client), std::move(request));
  if (entries.empty()) co_return std::nullopt;
  co_return std::move(entries.front());
}

Task<NSURL> fetch(Client client, NSURLRequest request, std::string path) {
  const auto download = co_await client->session()->downloadTask(std::move(request));
  try {
    WebDAVClient::check(*download.response);
    const NSURL destination = downloadDestination(path);
    removeIfPresent(destination);
    NSFileManager::defaultManager()->moveItem(download.location, destination);
    co_return destination;
  } catch (const NSError&) {
    removeIfPresent(download.location);
    throw;
  }
}

Task<void> upload(Client client, NSURLRequest request, NSURL from) {
  const auto response = co_await client->session()->uploadTask(std::move(request), std::move(from));
  WebDAVClient::check(*response);
}

Task<void> send(Client client, NSURLRequest request) {
  const auto response = co_await client->session()->dataTask(std::move(request), nullptr);
  WebDAVClient::check(*response);
}

Task<void> sendMove(Client client, NSURLRequest request) {
  const auto response = co_await client->session()->dataTask(std::move(request), nullptr);
  if (const auto* http = dynamic_cast<const NSHTTPURLResponse*>(response.get());
      http != nullptr && http->statusCode() == kPreconditionFailed) {
    throw NSError(NSCocoaErrorDomain, NSFileWriteFileExistsError);
  }
  WebDAVClient::check(*response);
}

}  // namespace

NSURLRequest WebDAVClient::request(std::string_view method, std::string_view path,
                                   HTTPHeaders headers) const {
  return NSURLRequest{.url = url(path),
                      .cachePolicy = NSURLRequestCachePolicy::useProtocolCachePolicy,
                      .timeoutInterval = kTimeout,
                      .httpMethod = std::string(method),
                      .headers = std::move(headers)};
}

Task<std::vector<WebDAVClient::Entry>> WebDAVClient::list(std::string path) {
  const bool endsInSlash = !path.empty() && path.back() == '/';
  return children(shared_from_this(),
                  request("PROPFIND", endsInSlash ? path : path + "/",
                          {{"Depth", "1"}, {"Content-Type", "application/xml"}}),
                  normalize(path));
}

Task<std::optional<WebDAVClient::Entry>> WebDAVClient::stat(std::string path) {
  return firstEntry(shared_from_this(), request("PROPFIND", path, {{"Depth", "0"}}));
}

Task<NSURL> WebDAVClient::download(std::string path) {
  auto get = request("GET", path, {});
  return fetch(shared_from_this(), std::move(get), std::move(path));
}

Task<void> WebDAVClient::put(std::string path, NSURL from) {
  return upload(shared_from_this(), request("PUT", path, {}), std::move(from));
}

Task<void> WebDAVClient::mkcol(std::string path) {
  return send(shared_from_this(), request("MKCOL", path, {}));
}

Task<void> WebDAVClient::delete_(std::string path) {
  return send(shared_from_this(), request("DELETE", path, {}));
}

Task<void> WebDAVClient::move(std::string from, std::string to) {
  return sendMove(
      shared_from_this(),
      request("MOVE", from, {{"Destination", url(to).absoluteString()}, {"Overwrite", "F"}}));
}

}  // namespace kestrowan
