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

}  // namespace

NSURLRequest WebDAVClient::request(std::string_view method, std::string_view path) const {
  return NSURLRequest{.url = url(path),
                      .cachePolicy = NSURLRequestCachePolicy::useProtocolCachePolicy,
                      .timeoutInterval = kTimeout,
                      .httpMethod = std::string(method)};
}

Task<std::vector<WebDAVClient::Entry>> WebDAVClient::list(std::string path) {
  const auto self = shared_from_this();
  std::string folder = path;
  if (folder.empty() || folder.back() != '/') folder += '/';
  auto propfind = request("PROPFIND", folder);
  propfind.headers = {{"Depth", "1"}, {"Content-Type", "application/xml"}};
  auto receiver = std::make_shared<MultiStatusReceiver>();
  const auto response = co_await session()->dataTask(std::move(propfind), receiver);
  check(*response);
  auto entries = receiver->takeEntries();
  const std::string own = normalize(path);
  std::erase_if(entries,
                [&](const Entry& entry) { return isEqualToString(normalize(entry.path), own); });
  co_return entries;
}

Task<std::optional<WebDAVClient::Entry>> WebDAVClient::stat(std::string path) {
  const auto self = shared_from_this();
  auto propfind = request("PROPFIND", path);
  propfind.headers = {{"Depth", "0"}};
  auto receiver = std::make_shared<MultiStatusReceiver>();
  const auto response = co_await session()->dataTask(std::move(propfind), receiver);
  check(*response);
  auto entries = receiver->takeEntries();
  if (entries.empty()) co_return std::nullopt;
  co_return std::move(entries.front());
}

Task<NSURL> WebDAVClient::download(std::string path) {
  const auto self = shared_from_this();
  auto get = request("GET", path);
  const auto download = co_await session()->downloadTask(std::move(get));
  try {
    check(*download.response);
    const NSURL destination = downloadDestination(path);
    removeIfPresent(destination);
    NSFileManager::defaultManager()->moveItem(download.location, destination);
    co_return destination;
  } catch (const NSError&) {
    removeIfPresent(download.location);
    throw;
  }
}

Task<void> WebDAVClient::put(std::string path, NSURL from) {
  const auto self = shared_from_this();
  auto put = request("PUT", path);
  const auto response = co_await session()->uploadTask(std::move(put), std::move(from));
  check(*response);
}

Task<void> WebDAVClient::mkcol(std::string path) {
  return sendWithoutBody("MKCOL", std::move(path));
}

Task<void> WebDAVClient::delete_(std::string path) {
  return sendWithoutBody("DELETE", std::move(path));
}

Task<void> WebDAVClient::sendWithoutBody(std::string method, std::string path) {
  const auto self = shared_from_this();
  auto plain = request(method, path);
  const auto response = co_await session()->dataTask(std::move(plain), nullptr);
  check(*response);
}

Task<void> WebDAVClient::move(std::string from, std::string to) {
  const auto self = shared_from_this();
  auto move = request("MOVE", from);
  move.headers = {{"Destination", url(to).absoluteString()}, {"Overwrite", "F"}};
  const auto response = co_await session()->dataTask(std::move(move), nullptr);
  if (const auto* http = dynamic_cast<const NSHTTPURLResponse*>(response.get());
      http != nullptr && http->statusCode() == kPreconditionFailed) {
    throw NSError(NSCocoaErrorDomain, NSFileWriteFileExistsError);
  }
  check(*response);
}

}  // namespace kestrowan
