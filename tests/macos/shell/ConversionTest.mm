#include <memory>
#include <string>
#include <utility>

#include "FakeExtension.h"
#include "ShellTest.h"
#include "extension/FileProviderExtension.h"
#include "macos/Convert.h"
#include "macos/PlatformItem.h"

/// Text with surrogates that lack a partner, which other strings here refuse to hold.
@interface BrokenString : NSString
@end

@implementation BrokenString

- (NSUInteger)length {
  return 6;
}

- (unichar)characterAtIndex:(NSUInteger)index {
  static const unichar characters[] = {0xDC00, 'a', 0xD83D, 0xDE00, 0xE9, 0xD800};
  return characters[index];
}

- (NSData*)dataUsingEncoding:(NSStringEncoding)__attribute__((unused))encoding {
  return nil;
}

@end

namespace {

using namespace kestrowan::test;
using namespace kestrowan::macos;

class ConversionTest : public ShellTest {};

TEST_F(ConversionTest, TextKeepsEveryCharacterBothWays) {
  using namespace std::string_literals;
  for (const auto& original :
       {""s, "/Home/a b.txt"s, "/Home/ü"s, "/Home/u\xCC\x88"s, "/\xF0\x9F\x98\x80"s, "a\0b"s}) {
    EXPECT_EQ(utf8(platformString(original)), original);
    EXPECT_EQ(coreString(platformString(original)), original);
  }
}

TEST_F(ConversionTest, BytesThatAreNoTextAreEscaped) {
  EXPECT_EQ(utf8(platformString("/a\xFF/b")), "/a\\xFF/b");
}

TEST_F(ConversionTest, LoneSurrogatesAreReplaced) {
  BrokenString* const broken = [[[BrokenString alloc] init] autorelease];
  EXPECT_EQ(coreString(broken), "\xEF\xBF\xBD"
                                "a\xF0\x9F\x98\x80\xC3\xA9\xEF\xBF\xBD");
  EXPECT_EQ(coreString(nil), "");
}

TEST_F(ConversionTest, DataKeepsEveryByteBothWays) {
  const std::string bytes("\0\xFF\n|", 4);
  EXPECT_EQ(bytesOf(platformData(bytes)), bytes);
  EXPECT_EQ(coreData(platformData(bytes)), bytes);
  EXPECT_EQ(coreData([NSData data]), "");
  EXPECT_EQ(coreData(nil), "");
}

TEST_F(ConversionTest, FileURLsKeepTheirPath) {
  const std::string path = "/tmp/a b%20ü#?.txt";
  NSURL* const url = platformURL(kestrowan::NSURL::fileURLWithPath(path));
  EXPECT_TRUE([url isFileURL]);
  EXPECT_EQ(utf8([url path]), path);
  ASSERT_TRUE(coreURL(url));
  EXPECT_TRUE(coreURL(url)->isFileURL());
  EXPECT_EQ(coreURL(url)->path(), path);
  EXPECT_FALSE(coreURL(nil));
}

TEST_F(ConversionTest, RefusalIsOneObject) {
  NSError* const first = platformError(kestrowan::FileProviderExtension::permDenied());
  const kestrowan::NSError copy = kestrowan::FileProviderExtension::permDenied();
  EXPECT_EQ(platformError(copy), first);
  EXPECT_EQ(described(first), "NSPOSIXErrorDomain 1");
  EXPECT_EQ([[first userInfo] count], 0u);
  NSError* const other = platformError(kestrowan::NSError("NSPOSIXErrorDomain", 1));
  EXPECT_NE(other, first);
  EXPECT_EQ(described(other), "NSPOSIXErrorDomain 1");
}

TEST_F(ConversionTest, ErrorsKeepDomainCodeAndUserInfo) {
  NSError* const plain = platformError(kestrowan::NSError("NSFileProviderErrorDomain", -1004));
  EXPECT_EQ(described(plain), "NSFileProviderErrorDomain -1004");
  EXPECT_TRUE([plain userInfo]);
  EXPECT_EQ([[plain userInfo] count], 0u);

  NSError* const full = platformError(kestrowan::cocoaWriteError(28, "/tmp/x"));
  EXPECT_EQ(described(full), "NSCocoaErrorDomain 640");
  EXPECT_EQ(utf8([[full userInfo] objectForKey:@"NSFilePath"]), "/tmp/x");
  EXPECT_FALSE([[full userInfo] objectForKey:@"NSUnderlyingError"]);
  EXPECT_NE(utf8([[full userInfo] objectForKey:@"NSDebugDescription"]), "(nil)");
}

TEST_F(ConversionTest, SessionErrorsDescribeThemselves) {
  NSError* const lost = platformError(kestrowan::NSError("NSURLErrorDomain", -1005));
  EXPECT_EQ(utf8([lost localizedDescription]), "The network connection was lost.");
}

TEST_F(ConversionTest, AbsentValuesAreNil) {
  EXPECT_FALSE(platformError(std::optional<kestrowan::NSError>()));
  EXPECT_FALSE(platformURL(std::optional<kestrowan::NSURL>()));
  EXPECT_FALSE(platformItem(nullptr));
}

TEST_F(ConversionTest, ItemOfThePlatformComesBackItself) {
  PlainTemplate* const item = plain("/a", "/", "a");
  EXPECT_EQ(platformItem(coreItem(item)), item);
}

TEST_F(ConversionTest, TemplateIsReadWhole) {
  const auto item = coreItem(full("/Home/a.txt", "/Home", "a.txt", UTTypeFolder));
  EXPECT_EQ(item->itemIdentifier(), "/Home/a.txt");
  EXPECT_EQ(item->parentItemIdentifier(), "/Home");
  EXPECT_EQ(item->filename(), "a.txt");
  EXPECT_EQ(item->contentType(), kestrowan::UTType::folder());
  EXPECT_EQ(item->capabilities(), 43u);
  EXPECT_EQ(item->documentSize(), 5000000000);
  EXPECT_EQ(item->contentModificationDate(), kestrowan::NSDate{1700000000.5});
  EXPECT_EQ(item->itemVersion(), (kestrowan::NSFileProviderItemVersion{"content", "metadata"}));
}

TEST_F(ConversionTest, TemplateThatSaysNothingMoreIsRead) {
  const auto item = coreItem(plain("/Home/a.txt", "/Home", "a.txt"));
  EXPECT_EQ(item->contentType(), std::nullopt);
  EXPECT_EQ(item->capabilities(), 0u);
  EXPECT_EQ(item->documentSize(), std::nullopt);
  EXPECT_EQ(item->contentModificationDate(), std::nullopt);
  EXPECT_EQ(item->itemVersion(), kestrowan::NSFileProviderItemVersion());
  EXPECT_EQ(coreItem(full("/a", "/", "a", nil))->contentType(), std::nullopt);
}

TEST_F(ConversionTest, TemplateIsKeptAliveByItsView) {
  kestrowan::NSFileProviderItemPtr item;
  @autoreleasepool {
    item = coreItem(plain("/a", "/", "a"));
  }
  EXPECT_EQ(live([PlainTemplate class]), 1);
  EXPECT_EQ(item->filename(), "a");
  item.reset();
  EXPECT_EQ(live([PlainTemplate class]), 0);
}

TEST_F(ConversionTest, HoldersCountAsTheyAreCopiedMovedAndAssigned) {
  @autoreleasepool {
    PlainTemplate* const item = [[PlainTemplate alloc] initWithIdentifier:@"/a"
                                                                   parent:@"/"
                                                                 filename:@"a"];
    const auto start = [item retainCount];
    {
      Retained<PlainTemplate*> first(item);
      EXPECT_EQ([item retainCount], start + 1);
      Retained<PlainTemplate*> second = first;
      EXPECT_EQ([item retainCount], start + 2);
      Retained<PlainTemplate*> third = std::move(first);
      EXPECT_EQ([item retainCount], start + 2);
      second = third;
      EXPECT_EQ([item retainCount], start + 2);
      second = Retained<PlainTemplate*>();
      EXPECT_EQ([item retainCount], start + 1);
      EXPECT_EQ(third.get(), item);
    }
    EXPECT_EQ([item retainCount], start);
    Retained<PlainTemplate*>::adopt(item);
  }
  EXPECT_EQ(live([PlainTemplate class]), 0);
}

TEST_F(ConversionTest, BlocksLiveAsLongAsTheirHandlers) {
  auto value = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = value;
  using Block = void (^)(int);
  std::optional<Handler<Block>> kept;
  {
    const Handler<Block> first(^(int added) {
      *value += added;
    });
    first(1);
    Handler<Block> second = first;
    const Handler<Block> third = std::move(second);
    kept = third;
  }
  value.reset();
  (*kept)(2);
  EXPECT_EQ(*watched.lock(), 3);
  kept.reset();
  EXPECT_TRUE(watched.expired());
}

}  // namespace
