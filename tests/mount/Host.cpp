#include "mount/Host.h"

#include <sys/stat.h>

#include <future>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "platform/base/Fulfil.h"
#include "platform/foundation/NSData.h"
#include "replica/Status.h"

namespace kestrowan::test {

namespace {

const std::string& text(const JSONValue& command, std::string_view name) {
  const auto* const member = command.member(name);
  if (member == nullptr || member->string() == nullptr) {
    throw std::invalid_argument("\"" + std::string(name) + "\" is missing or no text");
  }
  return *member->string();
}

std::int64_t number(const JSONValue& command, std::string_view name) {
  const auto* const member = command.member(name);
  if (member == nullptr || member->integer() == nullptr) {
    throw std::invalid_argument("\"" + std::string(name) + "\" is missing or no number");
  }
  return *member->integer();
}

bool flag(const JSONValue& command, std::string_view name) {
  const auto* const member = command.member(name);
  return member != nullptr && member->boolean() != nullptr && *member->boolean();
}

std::string bytes(const JSONValue& command) {
  auto decoded = dataFromBase64(text(command, "bytes"));
  if (!decoded) throw std::invalid_argument("\"bytes\" is no base64 text");
  return *std::move(decoded);
}

JSONValue encoded(const std::optional<std::string>& contents) {
  return contents ? JSONValue(base64EncodedString(*contents)) : JSONValue();
}

JSONValue texts(const std::vector<std::string>& list) {
  return JSONValue::Array(list.begin(), list.end());
}

/// What a call of the replica comes to, waited for. Throws `NSError`.
template <typename T>
T awaited(replica::Replica& replica, Task<T> task) {
  auto promise = std::make_shared<std::promise<T>>();
  auto future = promise->get_future();
  replica.start(fulfil(std::move(promise), std::move(task)));
  return future.get();
}

JSONValue statusForm(const replica::ItemStatus& status) {
  return JSONValue::Object{
      {"path", status.path},
      {"state", replica::name(status.state)},
      {"changes", status.changes},
      {"failure", status.failure ? JSONValue(status.failure->text) : JSONValue()}};
}

}  // namespace

Host::Host(HostOptions options)
    : options_(std::move(options)), loop_(std::make_unique<async::LoopThread>()) {}

Host::~Host() {
  mount_.reset();
  if (replica_) replica_->stop();
  provider_.reset();
  // The loop's last functions may still belong to the replica.
  loop_.reset();
  replica_.reset();
}

void Host::begin() {
  if (mount_) throw std::invalid_argument("it has begun already");
  ::mkdir(options_.state.c_str(), S_IRWXU);
  replica_ = std::make_unique<replica::Replica>(options_.state, *loop_, options_.replica);
  const std::string fetched = options_.state + "/fetched";
  ::mkdir(fetched.c_str(), S_IRWXU);
  provider_ = std::make_shared<InMemoryExtension>(*loop_, fetched, server_, options_.provider);
  provider_->setFaults([this](const Call& call) { return faults_.of(call); });
  auto mount = std::make_unique<mount::Mount>(*replica_, options_.mount);
  mount->start();
  mount_ = std::move(mount);
}

replica::Rid Host::find(const std::string& path) {
  return awaited(*replica_, replica_->commands().find(path));
}

JSONValue::Object Host::perform(const JSONValue& command) {
  using Group = JSONValue::Object (Host::*)(std::string_view, const JSONValue&);
  struct Entry {
    std::string_view what;
    Group group;
  };
  static constexpr Entry kCommands[] = {
      {"writeFile", &Host::onServer},
      {"makeFolder", &Host::onServer},
      {"remove", &Host::onServer},
      {"rename", &Host::onServer},
      {"read", &Host::onServer},
      {"tree", &Host::onServer},
      {"connect", &Host::onProvider},
      {"down", &Host::onProvider},
      {"latency", &Host::onProvider},
      {"fault", &Host::onProvider},
      {"clearFaults", &Host::onProvider},
      {"release", &Host::onProvider},
      {"calls", &Host::onProvider},
      {"clearCalls", &Host::onProvider},
      {"running", &Host::onProvider},
      {"wait", &Host::onReplica},
      {"status", &Host::onReplica},
      {"evict", &Host::onReplica},
      {"mount", &Host::onMount},
      {"unmount", &Host::onMount},
      {"waitUntilUnmounted", &Host::onMount},
  };
  const auto& what = text(command, "do");
  for (const auto& [name, group] : kCommands) {
    if (name == what) return (this->*group)(what, command);
  }
  throw std::invalid_argument("unknown command \"" + what + "\"");
}

JSONValue::Object Host::onServer(std::string_view what, const JSONValue& command) {
  if (what == "writeFile") {
    server_->writeFile(text(command, "path"), bytes(command));
  } else if (what == "makeFolder") {
    server_->makeFolder(text(command, "path"));
  } else if (what == "remove") {
    server_->remove(text(command, "path"));
  } else if (what == "rename") {
    server_->rename(text(command, "from"), text(command, "to"));
  } else if (what == "read") {
    return {{"bytes", encoded(server_->read(text(command, "path")))}};
  } else {
    JSONValue::Object entries;
    for (const auto& [path, contents] : server_->tree()) {
      entries.emplace_back(path, encoded(contents));
    }
    return {{"tree", std::move(entries)}};
  }
  return {};
}

JSONValue::Object Host::onProvider(std::string_view what, const JSONValue& command) {
  if (!provider_) throw std::invalid_argument("nothing is mounted yet");
  if (what == "connect") {
    replica_->setProvider(provider_);
  } else if (what == "down") {
    provider_->setDown(flag(command, "value"));
  } else if (what == "latency") {
    provider_->setLatency(std::chrono::milliseconds(number(command, "milliseconds")));
  } else if (what == "fault") {
    faults_.add(command);
  } else if (what == "clearFaults") {
    faults_.clear();
  } else if (what == "release") {
    return {{"released", static_cast<std::int64_t>(provider_->releaseHung())}};
  } else if (what == "calls") {
    return {{"calls", texts(provider_->calls())}, {"violations", texts(provider_->violations())}};
  } else if (what == "clearCalls") {
    provider_->clearCalls();
  } else {
    return {{"running", static_cast<std::int64_t>(provider_->running())}};
  }
  return {};
}

JSONValue::Object Host::onReplica(std::string_view what, const JSONValue& command) {
  if (!replica_) throw std::invalid_argument("nothing is mounted yet");
  if (what == "wait") {
    const std::chrono::milliseconds limit(number(command, "milliseconds"));
    awaited(*replica_, replica_->commands().waitUntilSynced(limit));
    return {};
  }
  if (what == "evict") {
    return {{"evicted", replica_->commands().evict(find(text(command, "path"))).evicted}};
  }
  JSONValue::Array pending;
  const auto status = replica_->commands().status();
  for (const auto& item : status.pending) pending.push_back(statusForm(item));
  JSONValue::Array conflicts;
  for (const auto& conflict : status.conflicts) conflicts.emplace_back(conflict.path);
  return {{"offline", status.offline},
          {"pending", std::move(pending)},
          {"conflicts", std::move(conflicts)}};
}

JSONValue::Object Host::onMount(std::string_view what, const JSONValue& command) {
  if (what == "mount") {
    begin();
    return {{"mountPoint", mount_->mountPoint()}};
  }
  if (!mount_) throw std::invalid_argument("nothing is mounted yet");
  if (what == "unmount") {
    mount_->unmount(flag(command, "lazily") ? mount::Mount::Unmounting::lazily
                                            : mount::Mount::Unmounting::whenFree);
    return {};
  }
  const bool hasEnded =
      mount_->waitUntilUnmounted(std::chrono::milliseconds(number(command, "milliseconds")));
  return {{"ended", hasEnded}};
}

}  // namespace kestrowan::test
