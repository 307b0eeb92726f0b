#include "ShellTest.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "LiveObjects.h"
#include "bridge/FPBridge.h"
#include "extension/FileProviderExtension.h"
#include "macos/Convert.h"
#include "macos/DAVEnumerator.h"
#include "macos/FPItem.h"

namespace kestrowan::test {

namespace {

/// The classes whose objects must be gone when a test ends.
std::vector<Class> watchedClasses() {
  return {[::FileProviderExtension class],
          [::DAVEnumerator class],
          [::FPItem class],
          [PlainTemplate class],
          [FullTemplate class],
          [TestObserver class],
          [::NSFileProviderDomain class],
          [::NSFileProviderItemVersion class],
          [::NSFileProviderRequest class],
          [::UTType class],
          [::NSProgress class],
          [::NSError class]};
}

}  // namespace

ShellTest::ShellTest() {
  LiveObjects::shared();  // Counts from here on.
  pool_ = [[::NSAutoreleasePool alloc] init];
  std::filesystem::create_directory(container());
  std::filesystem::create_directory(temporary());
  setGroupContainer(container());
  setTemporaryDirectory(temporary());
  setTypesUnknown(false);
  takeAskedExtensions();
  takeLogMessages();
  // Made once and kept.
  macos::platformError(kestrowan::FileProviderExtension::permDenied());
  for (const Class type : watchedClasses()) before_[class_getName(type)] = live(type);
}

ShellTest::~ShellTest() {
  setGroupContainer({});
  setTemporaryDirectory("/tmp");
}

void ShellTest::TearDown() {
  [pool_ drain];
  for (const Class type : watchedClasses()) {
    const std::string name = class_getName(type);
    EXPECT_TRUE(eventually([&] { return live(type) == before_[name]; }))
        << "left over of " << name << ": " << live(type) - before_[name];
  }
}

long ShellTest::live(Class type) {
  return LiveObjects::shared().of(type);
}

long ShellTest::liveObjects() {
  // GNUstep's progress objects never give up this part of theirs.
  return LiveObjects::shared().all() - live(NSClassFromString(@"NSProgressInternal"));
}

bool ShellTest::eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

std::vector<std::string> ShellTest::temporaryFiles() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(temporary())) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string ShellTest::fileWith(std::string_view name, std::string_view bytes) const {
  const std::string path = directory_.path() + "/" + std::string(name);
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

void ShellTest::writeBridge(int port, std::string_view certificate) const {
  const FPBridge::Config config{port, "kes", "se:cret ü%",
                                "-----BEGIN CERTIFICATE-----\n" + base64EncodedString(certificate) +
                                    "\n-----END CERTIFICATE-----\n"};
  std::ofstream(container() + "/fp-webdav.json", std::ios::binary) << config.encode();
}

::FileProviderExtension* ShellTest::extension() const {
  ::NSFileProviderDomain* domain =
      [[[::NSFileProviderDomain alloc] initWithIdentifier:@"domain"
                                              displayName:@"Domain"] autorelease];
  return [[[::FileProviderExtension alloc] initWithDomain:domain] autorelease];
}

::FileProviderExtension* ShellTest::extension(
    std::shared_ptr<kestrowan::NSFileProviderReplicatedExtension> core) const {
  ::NSFileProviderDomain* domain =
      [[[::NSFileProviderDomain alloc] initWithIdentifier:@"domain"
                                              displayName:@"Domain"] autorelease];
  return [[[::FileProviderExtension alloc] initWithDomain:domain core:std::move(core)] autorelease];
}

::NSFileProviderRequest* ShellTest::request() {
  return [[[::NSFileProviderRequest alloc] init] autorelease];
}

::NSFileProviderItemVersion* ShellTest::version(std::string_view content,
                                                std::string_view metadata) {
  return [[[::NSFileProviderItemVersion alloc]
      initWithContentVersion:[::NSData dataWithBytes:content.data() length:content.size()]
             metadataVersion:[::NSData dataWithBytes:metadata.data()
                                              length:metadata.size()]] autorelease];
}

::NSURL* ShellTest::fileURL(std::string_view path) {
  return [::NSURL fileURLWithPath:text(path) isDirectory:NO];
}

::NSString* ShellTest::text(std::string_view utf8) {
  return [[[::NSString alloc] initWithBytes:utf8.data()
                                     length:utf8.size()
                                   encoding:NSUTF8StringEncoding] autorelease];
}

PlainTemplate* ShellTest::plain(std::string_view identifier, std::string_view parent,
                                std::string_view filename) {
  return [[[PlainTemplate alloc] initWithIdentifier:text(identifier)
                                             parent:text(parent)
                                           filename:text(filename)] autorelease];
}

FullTemplate* ShellTest::full(std::string_view identifier, std::string_view parent,
                              std::string_view filename, ::UTType* type) {
  return [[[FullTemplate alloc] initWithIdentifier:text(identifier)
                                            parent:text(parent)
                                          filename:text(filename)
                                              type:type] autorelease];
}

::NSProgress* ShellTest::look(::FileProviderExtension* extension, std::string_view identifier,
                              ItemCalls calls) {
  return [extension
      itemForIdentifier:text(identifier)
                request:request()
      completionHandler:^(id<NSFileProviderItem> item, ::NSError* error) {
        calls->add({Retained<id<NSFileProviderItem>>(item), Retained<::NSError*>(error)});
      }];
}

::NSProgress* ShellTest::fetch(::FileProviderExtension* extension, std::string_view identifier,
                               FetchCalls calls) {
  return [extension fetchContentsForItemWithIdentifier:text(identifier)
                                               version:nil
                                               request:request()
                                     completionHandler:^(::NSURL* url, id<NSFileProviderItem> item,
                                                         ::NSError* error) {
                                       calls->add({Retained<::NSURL*>(url),
                                                   Retained<id<NSFileProviderItem>>(item),
                                                   Retained<::NSError*>(error)});
                                     }];
}

::NSProgress* ShellTest::create(::FileProviderExtension* extension, id<NSFileProviderItem> item,
                                ::NSURL* contents, WriteCalls calls) {
  return [extension
      createItemBasedOnTemplate:item
                         fields:3
                       contents:contents
                        options:0
                        request:request()
              completionHandler:^(id<NSFileProviderItem> created, ::NSFileProviderItemFields fields,
                                  BOOL shouldFetch, ::NSError* error) {
                calls->add({Retained<id<NSFileProviderItem>>(created), fields, bool(shouldFetch),
                            Retained<::NSError*>(error)});
              }];
}

::NSProgress* ShellTest::modify(::FileProviderExtension* extension, id<NSFileProviderItem> item,
                                ::NSFileProviderItemFields fields, ::NSURL* contents,
                                WriteCalls calls) {
  return
      [extension modifyItem:item
                baseVersion:version("v", "v")
              changedFields:fields
                   contents:contents
                    options:0
                    request:request()
          completionHandler:^(id<NSFileProviderItem> modified, ::NSFileProviderItemFields remaining,
                              BOOL shouldFetch, ::NSError* error) {
            calls->add({Retained<id<NSFileProviderItem>>(modified), remaining, bool(shouldFetch),
                        Retained<::NSError*>(error)});
          }];
}

::NSProgress* ShellTest::remove(::FileProviderExtension* extension, std::string_view identifier,
                                DeleteCalls calls) {
  return [extension deleteItemWithIdentifier:text(identifier)
                                 baseVersion:version("v", "v")
                                     options:1
                                     request:request()
                           completionHandler:^(::NSError* error) {
                             calls->add({Retained<::NSError*>(error)});
                           }];
}

void ShellTest::list(::FileProviderExtension* extension, std::string_view identifier,
                     ListingCalls calls) {
  ::NSError* error = nil;
  id<NSFileProviderEnumerator> enumerator =
      [extension enumeratorForContainerItemIdentifier:text(identifier)
                                              request:request()
                                                error:&error];
  ASSERT_TRUE(enumerator);
  EXPECT_FALSE(error);
  TestObserver* observer = [[[TestObserver alloc] initWithListings:calls] autorelease];
  [enumerator enumerateItemsForObserver:observer startingAtPage:[::NSData data]];
}

std::string utf8(::NSString* string) {
  if (!string) return "(nil)";
  return bytesOf([string dataUsingEncoding:NSUTF8StringEncoding]);
}

std::string bytesOf(::NSData* data) {
  return std::string(static_cast<const char*>([data bytes]), [data length]);
}

std::string described(::NSError* error) {
  if (!error) return "none";
  return utf8([error domain]) + " " + std::to_string([error code]);
}

std::string described(const Retained<::NSError*>& error) {
  return described(error.get());
}

std::string contentsOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

}  // namespace kestrowan::test
