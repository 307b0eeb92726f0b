#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "ShellTest.h"
#include "platform/foundation/JSONValue.h"

namespace {

using namespace kestrowan::test;

/// Runs the control script of the server, and gives what it prints.
std::string control(const std::string& arguments) {
  const std::string command = "'" KFP_SOURCE_DIR "/tests/servers/apache' " + arguments;
  FILE* const pipe = ::popen(command.c_str(), "r");
  if (!pipe) throw std::runtime_error(command);
  std::string output;
  std::array<char, 4096> buffer;
  while (const auto count = std::fread(buffer.data(), 1, buffer.size(), pipe)) {
    output.append(buffer.data(), count);
  }
  if (::pclose(pipe) != 0) throw std::runtime_error(command + " failed: " + output);
  return output;
}

/// A WebDAV server that others have written, with its container and its tree.
class ApacheTest : public ShellTest {
 protected:
  ApacheTest() {
    const auto started = kestrowan::JSONValue::parse(
        control("start " + directory_.path() + " --parent " + std::to_string(::getpid())));
    setGroupContainer(*started->member("container")->string());
    root_ = *started->member("root")->string();
    std::filesystem::create_directory(root_ + "/Home");
  }
  ~ApacheTest() override { control("stop " + directory_.path()); }

  std::vector<std::string> names(FileProviderExtension* made, std::string_view identifier) {
    const auto listings = std::make_shared<Calls<Listing>>();
    list(made, identifier, listings);
    const auto listing = listings->only();
    EXPECT_EQ(described(listing.error), "none");
    EXPECT_EQ(listing.batches.size(), 1u);
    std::vector<std::string> found;
    for (const auto& item : listing.batches.at(0)) found.push_back(utf8([item.get() filename]));
    std::sort(found.begin(), found.end());
    return found;
  }

  TemporaryDirectory directory_;
  std::string root_;
};

TEST_F(ApacheTest, EveryOperationReachesTheTree) {
  FileProviderExtension* const made = extension();
  EXPECT_EQ(takeLogMessages().size(), 0u);
  EXPECT_EQ(names(made, "NSFileProviderRootContainerItemIdentifier"),
            std::vector<std::string>{"Home"});

  auto writes = std::make_shared<Calls<WriteCall>>();
  create(made, full("/t", "/Home", "Docs ü", UTTypeFolder), nil, writes);
  ASSERT_EQ(described(writes->only().error), "none");
  EXPECT_EQ(utf8([writes->only().item.get() itemIdentifier]), "/Home/Docs ü");
  EXPECT_TRUE(std::filesystem::is_directory(root_ + "/Home/Docs ü"));

  writes = std::make_shared<Calls<WriteCall>>();
  create(made, full("/t", "/Home/Docs ü", "a #%.txt", UTTypeData),
         fileURL(fileWith("body", "first")), writes);
  ASSERT_EQ(described(writes->only().error), "none");
  EXPECT_EQ([[writes->only().item.get() documentSize] longLongValue], 5);
  EXPECT_EQ(contentsOf(root_ + "/Home/Docs ü/a #%.txt"), "first");
  EXPECT_EQ(names(made, "/Home/Docs ü"), std::vector<std::string>{"a #%.txt"});

  const auto fetches = std::make_shared<Calls<FetchCall>>();
  NSProgress* const progress = fetch(made, "/Home/Docs ü/a #%.txt", fetches);
  ASSERT_EQ(described(fetches->only().error), "none");
  EXPECT_EQ(contentsOf(utf8([fetches->only().url.get() path])), "first");
  EXPECT_EQ(utf8([[fetches->only().item.get() contentType] identifier]), "public.plain-text");
  EXPECT_TRUE([fetches->only().item.get() contentModificationDate]);
  EXPECT_EQ([progress completedUnitCount], 100);

  writes = std::make_shared<Calls<WriteCall>>();
  modify(made, plain("/Home/Docs ü/a #%.txt", "/Home", "b"), 7,
         fileURL(fileWith("body", "second!")), writes);
  ASSERT_EQ(described(writes->only().error), "none");
  EXPECT_EQ(utf8([writes->only().item.get() itemIdentifier]), "/Home/b");
  EXPECT_EQ(contentsOf(root_ + "/Home/b"), "second!");
  EXPECT_FALSE(std::filesystem::exists(root_ + "/Home/Docs ü/a #%.txt"));

  const auto items = std::make_shared<Calls<ItemCall>>();
  look(made, "/Home/b", items);
  ASSERT_EQ(described(items->only().error), "none");
  EXPECT_EQ([[items->only().item.get() documentSize] longLongValue], 7);
  EXPECT_EQ(bytesOf([[items->only().item.get() itemVersion] contentVersion]),
            bytesOf([[writes->only().item.get() itemVersion] contentVersion]));

  const auto taken = std::make_shared<Calls<WriteCall>>();
  modify(made, plain("/Home/b", "/Home", "Docs ü"), 2, nil, taken);
  EXPECT_EQ(described(taken->only().error), "NSCocoaErrorDomain 516");

  const auto deletes = std::make_shared<Calls<DeleteCall>>();
  remove(made, "/Home", deletes);
  ASSERT_EQ(described(deletes->only().error), "none");
  EXPECT_EQ(names(made, "NSFileProviderRootContainerItemIdentifier"), std::vector<std::string>{});

  const auto gone = std::make_shared<Calls<ItemCall>>();
  look(made, "/Home/b", gone);
  EXPECT_EQ(described(gone->only().error), "NSFileProviderErrorDomain -1004");
}

}  // namespace
