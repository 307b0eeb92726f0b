#include "platform/foundation/NSURL.h"

#include <gtest/gtest.h>

#include "platform/foundation/NSString.h"
#include "platform/foundation/NSURLComponents.h"
#include "support/Cases.h"

namespace kestrowan {
namespace {

NSURLComponents localServer(std::int64_t port, std::string path) {
  return {"https", "127.0.0.1", port, std::move(path)};
}

TEST(NSURLTest, URLsOfRequestsAreAsExpected) {
  test::checkCases("url-path", "url_for_path", [](const test::Case& one) {
    const auto port = *one.input.member("port")->integer();
    const auto& path = *one.input.member("path")->string();
    // A path that gives no URL stands for the root, and so does an empty one.
    const auto url = localServer(port, path.empty() ? "/" : path).url();
    return url ? url->absoluteString() : "https://127.0.0.1:" + std::to_string(port) + "/";
  });
}

TEST(NSURLTest, EveryByteOfAPathIsLiteralOrEscaped) {
  constexpr std::string_view kLiteral =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789!$&'()*+,-./:=@_~";
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text(1, static_cast<char>(byte));
    const auto encoded = stringByAddingPathPercentEncoding(text);
    if (kLiteral.find(text) != std::string_view::npos) {
      EXPECT_EQ(encoded, text);
    } else {
      char escape[8];
      std::snprintf(escape, sizeof escape, "%%%02X", static_cast<unsigned>(byte));
      EXPECT_EQ(encoded, escape);
    }
  }
}

TEST(NSURLTest, EscapesInAPathAreEncodedAgain) {
  EXPECT_EQ(stringByAddingPathPercentEncoding("/a%20b"), "/a%2520b");
}

TEST(NSURLTest, EncodedPathsDecodeToThemselves) {
  for (const auto* path :
       {"", "/", "/a b", "/%41", "/\xC3\xA9/\xF0\x9F\x98\x80", "/?#[]{}|\\^`\""}) {
    EXPECT_EQ(stringByRemovingPercentEncoding(stringByAddingPathPercentEncoding(path)), path);
  }
}

TEST(NSURLTest, RelativePathWithAHostGivesNoURL) {
  EXPECT_EQ(localServer(8443, "a").url(), std::nullopt);
  EXPECT_EQ(localServer(8443, " /a").url(), std::nullopt);
  EXPECT_EQ((NSURLComponents{"https", "", 1, "a"}).url(), std::nullopt);
  EXPECT_EQ((NSURLComponents{"https", "h", std::nullopt, "a"}).url(), std::nullopt);
}

TEST(NSURLTest, EmptyPathIsLeftEmpty) {
  EXPECT_EQ(localServer(8443, "").url()->absoluteString(), "https://127.0.0.1:8443");
}

TEST(NSURLTest, PortsAreWrittenAsTheyAre) {
  EXPECT_EQ(localServer(443, "/").url()->absoluteString(), "https://127.0.0.1:443/");
  EXPECT_EQ(localServer(0, "/").url()->absoluteString(), "https://127.0.0.1:0/");
  EXPECT_EQ(localServer(9223372036854775807, "/").url()->absoluteString(),
            "https://127.0.0.1:9223372036854775807/");
  EXPECT_EQ((NSURLComponents{"https", "h", std::nullopt, "/a"}).url()->absoluteString(),
            "https://h/a");
}

TEST(NSURLTest, FileURLKeepsItsPath) {
  const auto url = NSURL::fileURLWithPath("/tmp/a b%20");
  EXPECT_TRUE(url.isFileURL());
  EXPECT_EQ(url.path(), "/tmp/a b%20");
  EXPECT_EQ(url.absoluteString(), "file:///tmp/a%20b%2520");
}

TEST(NSURLTest, ComponentsAreAppendedWithOneSlash) {
  EXPECT_EQ(NSURL::fileURLWithPath("/tmp").appendingPathComponent("a").path(), "/tmp/a");
  EXPECT_EQ(NSURL::fileURLWithPath("/tmp/").appendingPathComponent("a").path(), "/tmp/a");
  EXPECT_EQ(NSURL::fileURLWithPath("/").appendingPathComponent("a").path(), "/a");
}

TEST(NSURLTest, RemoteURLKeepsItsText) {
  const auto url = NSURL::URLWithString("https://h/a%20b");
  EXPECT_FALSE(url.isFileURL());
  EXPECT_EQ(url.absoluteString(), "https://h/a%20b");
}

TEST(NSURLTest, FileAndRemoteURLsDiffer) {
  EXPECT_EQ(NSURL::fileURLWithPath("/a"), NSURL::fileURLWithPath("/a"));
  EXPECT_NE(NSURL::fileURLWithPath("/a"), NSURL::URLWithString("/a"));
}

}  // namespace
}  // namespace kestrowan
