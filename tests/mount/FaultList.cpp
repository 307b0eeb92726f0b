#include "mount/FaultList.h"

#include <stdexcept>
#include <string_view>

namespace kestrowan::test {

namespace {

std::string text(const JSONValue& json, std::string_view name) {
  const auto* const member = json.member(name);
  return member != nullptr && member->string() != nullptr ? *member->string() : std::string();
}

std::optional<std::int64_t> number(const JSONValue& json, std::string_view name) {
  const auto* const member = json.member(name);
  if (member == nullptr || member->integer() == nullptr) return std::nullopt;
  return *member->integer();
}

std::optional<NSError> error(const JSONValue& json) {
  const auto* const member = json.member("error");
  if (member == nullptr) return std::nullopt;
  const auto* const pair = member->array();
  if (pair == nullptr || pair->size() != 2 || pair->at(0).string() == nullptr ||
      pair->at(1).integer() == nullptr) {
    throw std::invalid_argument("\"error\" is not [domain, code]");
  }
  return NSError(*pair->at(0).string(), *pair->at(1).integer());
}

Fault::Effect effect(const JSONValue& json) {
  const auto name = text(json, "effect");
  if (name == "none") return Fault::Effect::none;
  if (name == "firstRequest") return Fault::Effect::firstRequest;
  if (name.empty() || name == "all") return Fault::Effect::all;
  throw std::invalid_argument("unknown effect \"" + name + "\"");
}

}  // namespace

void FaultList::add(const JSONValue& json) {
  Entry entry;
  entry.kind = text(json, "kind");
  entry.path = text(json, "path");
  entry.times = number(json, "times").value_or(-1);
  entry.fault.error = error(json);
  entry.fault.effect = effect(json);
  const auto* const hangs = json.member("hangs");
  entry.fault.hangs = hangs != nullptr && hangs->boolean() != nullptr && *hangs->boolean();
  entry.fault.delay = std::chrono::milliseconds(number(json, "delay").value_or(0));
  entry.fault.entries = number(json, "entries");
  entry.fault.fileSize = number(json, "fileSize");
  std::lock_guard lock(mutex_);
  entries_.push_back(std::move(entry));
}

void FaultList::clear() {
  std::lock_guard lock(mutex_);
  entries_.clear();
}

Fault FaultList::of(const Call& call) {
  const auto text = call.text();
  const auto kind = text.substr(0, text.find(' '));
  std::lock_guard lock(mutex_);
  for (auto& entry : entries_) {
    if (entry.times == 0 || (!entry.kind.empty() && entry.kind != kind) ||
        (!entry.path.empty() && entry.path != call.path)) {
      continue;
    }
    if (entry.times > 0) --entry.times;
    return entry.fault;
  }
  return {};
}

}  // namespace kestrowan::test
