#include "StoreSupport.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <sstream>

#include "platform/base/UniqueFd.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::replica::store {

std::int64_t errorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const NSError& error) {
    EXPECT_EQ(error.domain(), NSPOSIXErrorDomain);
    EXPECT_NE(error.localizedDescription().find("/replica.db"), std::string::npos)
        << error.localizedDescription();
    return error.code();
  }
  return 0;
}

std::string inChild(const std::function<void(const Report&)>& body) {
  int ends[2];
  if (::pipe(ends) != 0) return "pipe";
  const pid_t child = ::fork();
  if (child < 0) return "fork";
  if (child == 0) {
    const auto report = [&](const std::string& text) {
      if (::write(ends[1], text.data(), text.size()) < 0) ::_exit(2);
    };
    try {
      body(report);
    } catch (const NSError& error) {
      report("thrown: " + error.localizedDescription());
    }
    ::_exit(0);
  }
  ::close(ends[1]);
  std::string reported;
  std::array<char, 256> buffer;
  for (ssize_t count; (count = ::read(ends[0], buffer.data(), buffer.size())) > 0;) {
    reported.append(buffer.data(), static_cast<std::size_t>(count));
  }
  ::close(ends[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  if (status != 0) reported += " ended with status " + std::to_string(status);
  return reported;
}

bool mountSmallFileSystem(const std::string& directory, const char* size) {
  return (::unshare(CLONE_NEWNS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) &&
         ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("none", directory.c_str(), "tmpfs", 0, ("size=" + std::string(size)).c_str()) == 0;
}

bool enlargeSmallFileSystem(const std::string& directory) {
  return ::mount("none", directory.c_str(), "tmpfs", MS_REMOUNT, "size=64m") == 0;
}

bool canMount() {
  const test::TemporaryDirectory directory;
  return inChild([&](const Report& report) {
           if (!mountSmallFileSystem(directory.path())) report("no");
         })
      .empty();
}

void fillUp(const std::string& directory) {
  constexpr mode_t kMode = 0600;
  const UniqueFd file(
      ::open((directory + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kMode));
  const std::array<char, 512> bytes{};
  while (::write(file.get(), bytes.data(), bytes.size()) > 0) {
  }
}

std::string bytesOf(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

}  // namespace kestrowan::replica::store
