#include "platform/foundation/NSFileManager.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "platform/base/UniqueFd.h"
#include "platform/foundation/NSError.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan {
namespace {

namespace fs = std::filesystem;

constexpr auto kGroup = "GROUP.example";

/// Sets or removes an environment variable, and puts the old value back.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const std::optional<std::string>& value) : name_(name) {
    if (const char* old = ::getenv(name)) old_ = old;
    set(value);
  }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;
  ~ScopedVariable() { set(old_); }

 private:
  void set(const std::optional<std::string>& value) const {
    value ? ::setenv(name_, value->c_str(), 1) : ::unsetenv(name_);
  }
  const char* name_;
  std::optional<std::string> old_;
};

class NSFileManagerTest : public testing::Test {
 protected:
  NSURL url(const std::string& name) const {
    return NSURL::fileURLWithPath(directory.path() + "/" + name);
  }
  NSURL write(const std::string& name, const std::string& text) const {
    std::ofstream(url(name).path(), std::ios::binary) << text;
    return url(name);
  }
  static std::string read(const NSURL& file) {
    std::ostringstream text;
    text << std::ifstream(file.path(), std::ios::binary).rdbuf();
    return text.str();
  }
  static bool exists(const NSURL& file) { return fs::exists(fs::symlink_status(file.path())); }

  /// The code of the error that `body` throws, 0 when it throws none.
  static std::int64_t codeThrownBy(const std::function<void()>& body) {
    try {
      body();
    } catch (const NSError& error) {
      EXPECT_EQ(error.domain(), NSCocoaErrorDomain);
      return error.code();
    }
    return 0;
  }
  std::int64_t codeOfReading(const NSURL& file) const {
    return codeThrownBy([&] { manager->contents(file); });
  }

  const test::TemporaryDirectory directory;
  const std::shared_ptr<NSFileManager> manager = NSFileManager::defaultManager();
};

TEST_F(NSFileManagerTest, ContainerIsTheOneOfTheEnvironment) {
  const ScopedVariable variable("KESTROWAN_CONTAINER", directory.path());
  EXPECT_EQ(manager->containerURL(kGroup), NSURL::fileURLWithPath(directory.path()));
}

TEST_F(NSFileManagerTest, ContainerMustBeAnExistingDirectory) {
  const auto file = write("file", "");
  {
    const ScopedVariable variable("KESTROWAN_CONTAINER", file.path());
    EXPECT_EQ(manager->containerURL(kGroup), std::nullopt);
  }
  const ScopedVariable variable("KESTROWAN_CONTAINER", url("absent").path());
  EXPECT_EQ(manager->containerURL(kGroup), std::nullopt);
  EXPECT_FALSE(exists(url("absent")));
}

TEST_F(NSFileManagerTest, ContainerIsElseInTheDataDirectory) {
  const ScopedVariable own("KESTROWAN_CONTAINER", std::nullopt);
  const ScopedVariable data("XDG_DATA_HOME", directory.path());
  EXPECT_EQ(manager->containerURL(kGroup), std::nullopt);
  fs::create_directory(url(kGroup).path());
  EXPECT_EQ(manager->containerURL(kGroup), url(kGroup));
}

TEST_F(NSFileManagerTest, DataDirectoryIsElseInTheHomeDirectory) {
  const ScopedVariable own("KESTROWAN_CONTAINER", "");
  const ScopedVariable data("XDG_DATA_HOME", "relative");
  const ScopedVariable home("HOME", directory.path());
  EXPECT_EQ(manager->containerURL(kGroup), std::nullopt);
  const auto container = url(std::string(".local/share/") + kGroup);
  fs::create_directories(container.path());
  EXPECT_EQ(manager->containerURL(kGroup), container);
}

TEST_F(NSFileManagerTest, WithoutAHomeThereIsNoContainer) {
  const ScopedVariable own("KESTROWAN_CONTAINER", std::nullopt);
  const ScopedVariable data("XDG_DATA_HOME", std::nullopt);
  const ScopedVariable home("HOME", std::nullopt);
  EXPECT_EQ(manager->containerURL(kGroup), std::nullopt);
}

TEST_F(NSFileManagerTest, TemporaryDirectoryIsTheOneOfTheEnvironment) {
  {
    const ScopedVariable variable("TMPDIR", directory.path());
    EXPECT_EQ(manager->temporaryDirectory().path(), directory.path());
  }
  {
    const ScopedVariable variable("TMPDIR", "");
    EXPECT_EQ(manager->temporaryDirectory().path(), "/tmp");
  }
  const ScopedVariable variable("TMPDIR", std::nullopt);
  EXPECT_EQ(manager->temporaryDirectory().path(), "/tmp");
}

TEST_F(NSFileManagerTest, ContentsAreTheWholeFile) {
  const std::string text("a\0b\n\xFF", 5);
  EXPECT_EQ(manager->contents(write("f", text)), text);
  EXPECT_EQ(manager->contents(write("empty", "")), "");
}

TEST_F(NSFileManagerTest, ContentsOfUpToOneMebibyteAreRead) {
  const std::string text(1 << 20, 'x');
  EXPECT_EQ(manager->contents(write("f", text)), text);
  EXPECT_EQ(codeOfReading(write("g", text + "y")), NSFileReadTooLargeError);
}

TEST_F(NSFileManagerTest, ContentsWhoseSizeIsNotKnownAreReadToo) {
  EXPECT_EQ(manager->contents(NSURL::fileURLWithPath("/proc/self/comm")).substr(0, 8), "platform");
}

TEST_F(NSFileManagerTest, ContentsAreReadThroughASymbolicLink) {
  write("f", "text");
  fs::create_symlink("f", url("link").path());
  EXPECT_EQ(manager->contents(url("link")), "text");
}

TEST_F(NSFileManagerTest, AbsentFileHasNoContents) {
  EXPECT_EQ(codeOfReading(url("absent")), NSFileReadNoSuchFileError);
}

TEST_F(NSFileManagerTest, OnlyRegularFilesHaveContents) {
  ASSERT_EQ(::mkfifo(url("fifo").path().c_str(), 0600), 0);
  EXPECT_EQ(codeOfReading(url("fifo")), NSFileReadUnknownError);
  EXPECT_EQ(codeOfReading(NSURL::fileURLWithPath("/dev/zero")), NSFileReadUnknownError);
  EXPECT_EQ(codeOfReading(NSURL::fileURLWithPath(directory.path())), NSFileReadUnknownError);
}

TEST_F(NSFileManagerTest, SocketHasNoContents) {
  const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  url("socket").path().copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(codeOfReading(url("socket")), NSFileReadUnknownError);
}

TEST_F(NSFileManagerTest, UnreadableFileHasNoContents) {
  if (::geteuid() == 0) GTEST_SKIP() << "root may read every file";
  const auto file = write("f", "text");
  ASSERT_EQ(::chmod(file.path().c_str(), 0), 0);
  EXPECT_EQ(codeOfReading(file), NSFileReadNoPermissionError);
}

TEST_F(NSFileManagerTest, CreatedFileIsPrivate) {
  const mode_t mask = ::umask(0);
  EXPECT_TRUE(manager->createFile(url("f"), "text"));
  ::umask(mask);
  EXPECT_EQ(read(url("f")), "text");
  EXPECT_EQ(fs::status(url("f").path()).permissions(), fs::perms(0600));
}

TEST_F(NSFileManagerTest, CreatedFileReplacesARegularOne) {
  const auto file = write("f", "a longer text");
  ASSERT_EQ(::chmod(file.path().c_str(), 0644), 0);
  EXPECT_TRUE(manager->createFile(file, "new"));
  EXPECT_EQ(read(file), "new");
  EXPECT_EQ(fs::status(file.path()).permissions(), fs::perms(0600));
  EXPECT_TRUE(manager->createFile(file, ""));
  EXPECT_EQ(read(file), "");
}

TEST_F(NSFileManagerTest, CreatingReplacesNothingElse) {
  const auto target = write("target", "kept");
  fs::create_symlink("target", url("link").path());
  fs::create_directory(url("folder").path());
  ASSERT_EQ(::mkfifo(url("fifo").path().c_str(), 0600), 0);
  EXPECT_FALSE(manager->createFile(url("link"), "new"));
  EXPECT_FALSE(manager->createFile(url("folder"), "new"));
  EXPECT_FALSE(manager->createFile(url("fifo"), "new"));
  EXPECT_FALSE(manager->createFile(url("absent/f"), "new"));
  EXPECT_EQ(read(target), "kept");
  EXPECT_TRUE(exists(url("fifo")));
}

TEST_F(NSFileManagerTest, FileThatDoesNotFitIsNotCreated) {
  rlimit old;
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
  const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit small = {1000, old.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  const bool created = manager->createFile(url("f"), std::string(5000, 'x'));
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
  std::signal(SIGXFSZ, oldHandler);
  EXPECT_FALSE(created);
  EXPECT_FALSE(exists(url("f")));
}

TEST_F(NSFileManagerTest, MovedFileIsAtItsNewPlace) {
  const auto file = write("a", "text");
  manager->moveItem(file, url("b"));
  EXPECT_EQ(read(url("b")), "text");
  EXPECT_FALSE(exists(file));
}

TEST_F(NSFileManagerTest, MovingNeverReplaces) {
  const auto from = write("a", "new");
  const auto to = write("b", "old");
  try {
    manager->moveItem(from, to);
    FAIL() << "no error";
  } catch (const NSError& error) {
    EXPECT_TRUE(error.is(NSCocoaErrorDomain, NSFileWriteFileExistsError));
    EXPECT_EQ(error.userInfo().at(std::string(NSFilePathErrorKey)), to.path());
  }
  EXPECT_EQ(read(from), "new");
  EXPECT_EQ(read(to), "old");
}

TEST_F(NSFileManagerTest, MovesThatFailSayWhy) {
  const auto file = write("a", "text");
  EXPECT_EQ(codeThrownBy([&] { manager->moveItem(url("absent"), url("b")); }),
            NSFileNoSuchFileError);
  EXPECT_EQ(codeThrownBy([&] { manager->moveItem(file, url("absent/b")); }), NSFileNoSuchFileError);
  EXPECT_EQ(codeThrownBy([&] { manager->moveItem(file, url(std::string(256, 'n'))); }),
            NSFileWriteInvalidFileNameError);
  EXPECT_EQ(read(file), "text");
}

TEST_F(NSFileManagerTest, FoldersAreMovedWhole) {
  fs::create_directories(url("a/b").path());
  manager->moveItem(url("a"), url("c"));
  EXPECT_TRUE(exists(url("c/b")));
}

TEST_F(NSFileManagerTest, RemovedFileIsGone) {
  const auto file = write("f", "text");
  manager->removeItem(file);
  EXPECT_FALSE(exists(file));
}

TEST_F(NSFileManagerTest, FoldersAreRemovedWithAllThatIsInThem) {
  fs::create_directories(url("a/b/c").path());
  write("a/b/f", "text");
  manager->removeItem(url("a"));
  EXPECT_FALSE(exists(url("a")));
}

TEST_F(NSFileManagerTest, RemovingNeverFollowsSymbolicLinks) {
  fs::create_directories(url("kept").path());
  write("kept/f", "text");
  fs::create_directories(url("gone").path());
  fs::create_directory_symlink(url("kept").path(), url("gone/link").path());
  fs::create_directory_symlink(url("kept").path(), url("link").path());
  manager->removeItem(url("gone"));
  manager->removeItem(url("link"));
  EXPECT_FALSE(exists(url("gone")));
  EXPECT_FALSE(exists(url("link")));
  EXPECT_EQ(read(url("kept/f")), "text");
}

TEST_F(NSFileManagerTest, RemovingWhatIsAbsentIsAnError) {
  EXPECT_EQ(codeThrownBy([&] { manager->removeItem(url("absent")); }), NSFileNoSuchFileError);
}

TEST_F(NSFileManagerTest, SizesAreBytes) {
  EXPECT_EQ(manager->fileSize(write("f", "12345")), 5);
  EXPECT_EQ(manager->fileSize(write("empty", "")), 0);
  EXPECT_EQ(manager->fileSize(url("absent")), std::nullopt);
}

TEST_F(NSFileManagerTest, LongestNameIsThatOfTheFileSystem) {
  const auto length = manager->maximumNameLength(NSURL::fileURLWithPath(directory.path()));
  EXPECT_TRUE(manager->createFile(url(std::string(length, 'n')), ""));
  EXPECT_FALSE(manager->createFile(url(std::string(length + 1, 'n')), ""));
  EXPECT_EQ(manager->maximumNameLength(url("absent")), 255U);
}

/// Serves another temporary directory.
class OtherFileManager : public NSFileManager {
 public:
  std::optional<NSURL> containerURL(std::string_view) override { return std::nullopt; }
  NSURL temporaryDirectory() override { return NSURL::fileURLWithPath("/other"); }
  NSData contents(const NSURL&) override { return {}; }
  bool createFile(const NSURL&, std::string_view) override { return false; }
  void moveItem(const NSURL&, const NSURL&) override {}
  void removeItem(const NSURL&) override {}
  std::optional<std::int64_t> fileSize(const NSURL&) override { return std::nullopt; }
  std::size_t maximumNameLength(const NSURL&) override { return 0; }
};

TEST_F(NSFileManagerTest, DefaultManagerCanBeReplacedAndBroughtBack) {
  NSFileManager::setDefaultManager(std::make_shared<OtherFileManager>());
  EXPECT_EQ(NSFileManager::defaultManager()->temporaryDirectory().path(), "/other");
  NSFileManager::setDefaultManager(nullptr);
  EXPECT_NE(NSFileManager::defaultManager()->temporaryDirectory().path(), "/other");
}

}  // namespace
}  // namespace kestrowan
