#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Calls.h"
#include "TestObjects.h"
#include "double/Double.h"
#include "macos/FileProviderExtension.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::test {

/// Runs each test inside an autorelease pool of its own, with an empty container of the group and a
/// temporary directory, and fails it when an object of the shell or the platform is left over.
class ShellTest : public ::testing::Test {
 protected:
  ShellTest();
  ~ShellTest() override;
  void TearDown() override;

  /// Of `Class`, alive now.
  static long live(Class type);
  /// Of every class, alive now.
  static long liveObjects();
  /// Waits until `condition` holds, and says whether it does.
  static bool eventually(const std::function<bool()>& condition);

  std::string container() const { return directory_.path() + "/container"; }
  std::string temporary() const { return directory_.path() + "/temporary"; }
  std::vector<std::string> temporaryFiles() const;
  /// Writes a file into the test's own directory and gives its path.
  std::string fileWith(std::string_view name, std::string_view bytes) const;
  /// Writes the bridge file. `certificate` is the DER form.
  void writeBridge(int port, std::string_view certificate) const;

  /// A new principal object, as the platform makes it; autoreleased.
  ::FileProviderExtension* extension() const;
  /// The same in front of `core`.
  ::FileProviderExtension* extension(
      std::shared_ptr<kestrowan::NSFileProviderReplicatedExtension> core) const;
  static ::NSFileProviderRequest* request();
  static ::NSFileProviderItemVersion* version(std::string_view content, std::string_view metadata);
  static ::NSURL* fileURL(std::string_view path);
  static ::NSString* text(std::string_view utf8);
  static PlainTemplate* plain(std::string_view identifier, std::string_view parent,
                              std::string_view filename);
  static FullTemplate* full(std::string_view identifier, std::string_view parent,
                            std::string_view filename, ::UTType* type);

  // One request each, with a handler that records.
  static ::NSProgress* look(::FileProviderExtension* extension, std::string_view identifier,
                            ItemCalls calls);
  static ::NSProgress* fetch(::FileProviderExtension* extension, std::string_view identifier,
                             FetchCalls calls);
  static ::NSProgress* create(::FileProviderExtension* extension, id<NSFileProviderItem> item,
                              ::NSURL* contents, WriteCalls calls);
  static ::NSProgress* modify(::FileProviderExtension* extension, id<NSFileProviderItem> item,
                              ::NSFileProviderItemFields fields, ::NSURL* contents,
                              WriteCalls calls);
  static ::NSProgress* remove(::FileProviderExtension* extension, std::string_view identifier,
                              DeleteCalls calls);
  static void list(::FileProviderExtension* extension, std::string_view identifier,
                   ListingCalls calls);

 private:
  TemporaryDirectory directory_;
  ::NSAutoreleasePool* pool_;
  std::map<std::string, long> before_;
};

/// The text of a string, its NULs included; "(nil)" for none.
std::string utf8(::NSString* string);
std::string bytesOf(::NSData* data);
/// "DOMAIN CODE", or "none".
std::string described(::NSError* error);
std::string described(const Retained<::NSError*>& error);
std::string contentsOf(const std::string& path);

}  // namespace kestrowan::test
