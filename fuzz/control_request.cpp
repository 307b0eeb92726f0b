// Requests of the control socket: each has an answer of one line, or an error with a text.

#include <filesystem>
#include <memory>
#include <string>

#include "async/LoopThread.h"
#include "fuzz/FuzzTarget.h"
#include "host/ControlSocket.h"
#include "host/HostCommands.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSUUID.h"

using namespace kestrowan;
using namespace kestrowan::host;

namespace {

/// An empty replica that has no provider, and the commands on it. Lives as long as the process.
class Host {
 public:
  JSONValue answer(const JSONValue& request) const { return commands_.answer(request); }

 private:
  static std::string newDirectory() {
    const auto path = std::filesystem::temp_directory_path() / ("control-" + newUUIDString());
    std::filesystem::create_directory(path);
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path.string();
  }

  struct Directory {
    const std::string path = newDirectory();
    ~Directory() { std::filesystem::remove_all(path); }
  };

  const Directory directory_ = {};
  async::LoopThread loop_;
  replica::Replica replica_{directory_.path, loop_, {}};
  const HostCommands commands_{replica_,
                               {.host = {},
                                .started = 0,
                                .status = [this] { return replica_.commands().status(); },
                                .warnings = [] { return std::vector<std::string>{}; },
                                .events = [] { return std::string("off"); },
                                .isStopping = [] { return false; },
                                .unmount = [](bool) { return std::int64_t{0}; }}};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const auto host = std::make_unique<Host>();
  const auto request = JSONValue::parse(fuzz::text(data, size));
  if (!request || request->object() == nullptr) return 0;
  JSONValue reply;
  try {
    reply = host->answer(*request);
  } catch (const NSError& error) {
    fuzz::require(!error.localizedDescription().empty(), "an error has a text");
    reply = errorReply(error);
  }
  const auto line = reply.serialized();
  fuzz::require(line.find('\n') == std::string::npos, "an answer is one line");
  fuzz::require(JSONValue::parse(line) == reply, "an answer can be read");
  return 0;
}
