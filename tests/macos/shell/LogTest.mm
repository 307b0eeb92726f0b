#include <filesystem>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "ShellTest.h"
#include "extension/fpLog.h"
#include "macos/OsLogSink.h"
#include "macos/PlatformSetup.h"

namespace {

using namespace kestrowan::test;

/// The formats of all messages in the module's sources.
std::set<std::string> formatsInTheSources() {
  static const std::regex call(R"re(fpLog\(\)\.error\(\s*"([^"]*)")re");
  std::set<std::string> formats;
  for (const char* layer : {"bridge", "webdav", "items", "extension"}) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(
             std::string(KFP_SOURCE_DIR "/src/") + layer)) {
      const std::string text = contentsOf(entry.path());
      for (std::sregex_iterator match(text.begin(), text.end(), call), end; match != end; ++match) {
        formats.insert((*match)[1]);
      }
    }
  }
  return formats;
}

std::size_t placeholders(const std::string& format) {
  std::size_t count = 0;
  for (auto at = format.find('%'); at != std::string::npos; at = format.find('%', at + 1)) ++count;
  return count;
}

class LogTest : public ShellTest {
 protected:
  void log(std::string_view format, std::vector<std::string_view> arguments) {
    kestrowan::macos::OsLogSink().error("subsystem", "category", format, arguments);
  }
};

TEST_F(LogTest, EveryMessageOfTheModuleIsLoggedWithItsOwnFormat) {
  const auto formats = formatsInTheSources();
  EXPECT_EQ(formats.size(), 7u);
  for (const auto& format : formats) {
    std::vector<std::string_view> arguments;
    if (placeholders(format) == 2) arguments = {"/Home/100% ü", "reason\nmore"};
    log(format, arguments);
    EXPECT_EQ(takeLogMessages(),
              (std::vector<LogMessage>{
                  {"subsystem", "category", format, {arguments.begin(), arguments.end()}}}));
  }
}

TEST_F(LogTest, AnyOtherMessageIsOneRenderedArgument) {
  log("something %{public}s else", {"quite\n%s"});
  log("fetch %{public}s failed: %{public}s", {"only one"});
  EXPECT_EQ(takeLogMessages(),
            (std::vector<LogMessage>{
                {"subsystem", "category", "%{public}s", {"something quite\\n%s else"}},
                {"subsystem", "category", "%{public}s", {"fetch only one failed: %{public}s"}}}));
}

TEST_F(LogTest, TheModulesLoggerEndsInTheUnifiedLog) {
  kestrowan::macos::setUpPlatform();
  kestrowan::fpLog().error("cert pin mismatch — refusing loopback connection");
  EXPECT_EQ(takeLogMessages(),
            (std::vector<LogMessage>{{"com.kestrowan.app.FileProvider",
                                      "ext",
                                      "cert pin mismatch — refusing loopback connection",
                                      {}}}));
}

}  // namespace
