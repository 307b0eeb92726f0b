#include "cli/drive/Driver.h"

#include <array>
#include <cstdio>
#include <iostream>
#include <utility>

#include "cli/Console.h"
#include "cli/drive/DriveReply.h"

namespace kestrowan::cli {

namespace {

constexpr std::string_view kDriverErrorDomain = "kestrowan";
constexpr std::size_t kLongestLine = 16 * 1024 * 1024;  // bytes

/// Reads the next line of standard input; of one that is too long only so much that this shows.
bool readLine(std::string& line) {
  line.clear();
  auto& input = *std::cin.rdbuf();
  for (auto next = input.sbumpc(); next != EOF; next = input.sbumpc()) {
    if (next == '\n') return true;
    if (line.size() <= kLongestLine) line += static_cast<char>(next);
  }
  return !line.empty();
}

}  // namespace

Driver::Driver(std::shared_ptr<NSFileProviderReplicatedExtension> extension)
    : extension_(std::move(extension)) {}

ExitCode Driver::run() {
  const auto lost = [this] {
    std::lock_guard lock(mutex_);
    return outputLost_;
  };
  std::string line;
  while (!lost() && readLine(line)) serve(line);
  std::unique_lock lock(mutex_);
  idle_.wait(lock, [this] { return running_ == 0; });
  return outputLost_ ? ExitCode::outputUnwritable : ExitCode::done;
}

void Driver::serve(std::string_view line) {
  if (line.size() > kLongestLine) return refuse(nullptr, "the line is too long");
  const auto request = JSONValue::parse(line);
  if (!request || request->object() == nullptr) {
    return refuse(nullptr, "the line is not a JSON object");
  }
  begin(*request);
}

void Driver::begin(const JSONValue& request) {
  using Method = void (Driver::*)(const JSONValue&, std::shared_ptr<Reply>);
  static constexpr std::array<std::pair<std::string_view, Method>, 9> kMethods = {{
      {"enumerateItems", &Driver::enumerateItems},
      {"enumerateChanges", &Driver::enumerateChanges},
      {"currentSyncAnchor", &Driver::currentSyncAnchor},
      {"item", &Driver::item},
      {"fetchContents", &Driver::fetchContents},
      {"createItem", &Driver::createItem},
      {"modifyItem", &Driver::modifyItem},
      {"deleteItem", &Driver::deleteItem},
      {"invalidate", &Driver::invalidate},
  }};
  const JSONValue* id = request.member("id");
  const JSONValue requestId = id != nullptr ? *id : JSONValue();
  const JSONValue* name = request.member("request");
  if (name == nullptr || name->string() == nullptr) {
    return refuse(requestId, "\"request\" is missing or no text");
  }
  for (const auto& [known, method] : kMethods) {
    if (known != *name->string()) continue;
    auto reply = std::make_shared<Reply>(*this, requestId);
    try {
      (this->*method)(request, reply);
    } catch (const std::invalid_argument& problem) {
      refuse(requestId, problem.what());
    }
    return;
  }
  refuse(requestId, "unknown request \"" + *name->string() + "\"");
}

void Driver::refuse(JSONValue id, std::string_view why) {
  constexpr std::int64_t kNoRequest = 2;
  write(JSONValue::Object{{"id", std::move(id)},
                          {"error", JSONValue::Object{{"domain", kDriverErrorDomain},
                                                      {"code", kNoRequest},
                                                      {"localizedDescription", why},
                                                      {"userInfo", JSONValue::Object{}}}},
                          {"synchronous", true}});
}

void Driver::write(const JSONValue& line) {
  try {
    Output::standard().write(line.serialized() + "\n");
    Output::standard().flush();
  } catch (const OutputUnwritable& problem) {
    std::lock_guard lock(mutex_);
    if (!std::exchange(outputLost_, true)) complain(problem.what());
  }
}

}  // namespace kestrowan::cli
