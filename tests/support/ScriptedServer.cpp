#include "support/ScriptedServer.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <system_error>
#include <utility>

extern char** environ;

namespace kestrowan::test {

namespace {

constexpr auto kLongestWait = std::chrono::minutes(1);

struct Pipe {
  UniqueFd readEnd;
  UniqueFd writeEnd;

  Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category());
    readEnd.reset(ends[0]);
    writeEnd.reset(ends[1]);
  }
};

std::string text(const JSONValue& object, std::string_view name) {
  const auto* member = object.member(name);
  return member && member->string() ? *member->string() : std::string();
}

std::int64_t number(const JSONValue& object, std::string_view name) {
  const auto* member = object.member(name);
  return member && member->integer() ? *member->integer() : 0;
}

JSONValue parsed(std::string_view json) {
  auto value = JSONValue::parse(json);
  if (!value) throw std::runtime_error("this is no JSON: " + std::string(json));
  return *value;
}

NSData derFromPEM(const std::string& pem) {
  std::string base64;
  for (std::size_t start = 0; start < pem.size();) {
    const auto end = std::min(pem.find('\n', start), pem.size());
    if (pem[start] != '-') base64.append(pem, start, end - start);
    start = end + 1;
  }
  auto der = dataFromBase64(base64);
  if (!der) throw std::runtime_error("the server's certificate cannot be read");
  return *der;
}

ScriptedServer::Request requestOf(const JSONValue& event) {
  ScriptedServer::Request request;
  request.connection = number(event, "connection");
  request.method = text(event, "method");
  request.target = text(event, "target");
  request.raw = dataFromBase64(text(event, "raw")).value_or("");
  request.bodyLength = number(event, "bodyLength");
  request.bodySHA256 = text(event, "bodySHA256");
  request.complete = *event.member("complete")->boolean();
  return request;
}

pid_t spawnServer(int input, int output) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  std::string python = "/usr/bin/python3";
  std::string program = KFP_SOURCE_DIR "/tests/support/scripted_server.py";
  std::string script = "-";
  char* arguments[] = {python.data(), program.data(), script.data(), nullptr};
  pid_t child = -1;
  const int error = ::posix_spawn(&child, python.c_str(), &actions, nullptr, arguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::system_error(error, std::generic_category(), python);
  return child;
}

}  // namespace

ScriptedServer::ScriptedServer(std::string_view script) {
  const auto value = parsed(script);
  Pipe toChild;
  Pipe fromChild;
  child_ = spawnServer(toChild.readEnd.get(), fromChild.writeEnd.get());
  input_ = std::move(toChild.writeEnd);
  output_ = std::move(fromChild.readEnd);
  toChild.readEnd.reset();
  fromChild.writeEnd.reset();
  send(value);
  const auto greeting = parsed(readLine());
  port_ = static_cast<int>(number(greeting, "port"));
  pinnedDER_ = derFromPEM(text(greeting, "certPEM"));
  otherDER_ = derFromPEM(text(greeting, "otherPEM"));
  reader_ = std::thread([this] { readEvents(); });
}

ScriptedServer::~ScriptedServer() {
  // The end of its input ends the server.
  input_.reset();
  if (reader_.joinable()) reader_.join();
  int status = 0;
  while (::waitpid(child_, &status, 0) < 0 && errno == EINTR) {
  }
}

NSURL ScriptedServer::url(std::string_view path) const {
  return NSURL::URLWithString("https://127.0.0.1:" + std::to_string(port_) + std::string(path));
}

void ScriptedServer::release(std::string_view name) {
  send(JSONValue::Object{{"release", JSONValue(name)}});
}

void ScriptedServer::replaceScript(std::string_view script) {
  const auto count = eventCount("scriptReplaced");
  send(JSONValue::Object{{"script", parsed(script)}});
  waitForEvents("scriptReplaced", count + 1);
}

void ScriptedServer::disconnect() {
  send(JSONValue::Object{{"disconnect", JSONValue(true)}});
  waitUntil([this] { return countOf("disconnected") == countOf("connected"); }, "disconnection");
}

std::vector<ScriptedServer::Request> ScriptedServer::requests() {
  synchronize();
  std::lock_guard lock(mutex_);
  std::vector<Request> requests;
  for (const auto& event : events_) {
    if (text(event, "event") == "request") requests.push_back(requestOf(event));
  }
  return requests;
}

std::vector<ScriptedServer::Request> ScriptedServer::waitForRequests(std::size_t count) {
  waitForEvents("request", count);
  return requests();
}

std::size_t ScriptedServer::eventCount(std::string_view kind) {
  synchronize();
  std::lock_guard lock(mutex_);
  return countOf(kind);
}

void ScriptedServer::waitForEvents(std::string_view kind, std::size_t count) const {
  waitUntil([&] { return countOf(kind) >= count; }, kind);
}

std::size_t ScriptedServer::countOf(std::string_view kind) const {
  return static_cast<std::size_t>(
      std::count_if(events_.begin(), events_.end(),
                    [kind](const JSONValue& event) { return text(event, "event") == kind; }));
}

void ScriptedServer::waitUntil(const std::function<bool()>& condition,
                               std::string_view what) const {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, kLongestWait, [&] { return ended_ || condition(); });
  if (!condition()) throw std::runtime_error("waited in vain for: " + std::string(what));
}

void ScriptedServer::synchronize() {
  std::size_t before = 0;
  {
    std::lock_guard lock(mutex_);
    before = countOf("synced");
  }
  send(JSONValue::Object{{"sync", JSONValue(true)}});
  waitForEvents("synced", before + 1);
}

void ScriptedServer::readEvents() {
  while (true) {
    const auto line = readLine();
    std::lock_guard lock(mutex_);
    if (line.empty()) {
      ended_ = true;
    } else {
      events_.push_back(parsed(line));
    }
    changed_.notify_all();
    if (ended_) return;
  }
}

void ScriptedServer::send(const JSONValue& command) {
  auto line = command.serialized() + "\n";
  for (std::string_view rest = line; !rest.empty();) {
    const auto count = ::write(input_.get(), rest.data(), rest.size());
    if (count < 0) throw std::system_error(errno, std::generic_category(), "the scripted server");
    rest.remove_prefix(static_cast<std::size_t>(count));
  }
}

std::string ScriptedServer::readLine() {
  while (true) {
    if (const auto end = unread_.find('\n'); end != std::string::npos) {
      auto line = unread_.substr(0, end);
      unread_.erase(0, end + 1);
      return line;
    }
    char buffer[64 * 1024];
    const auto count = ::read(output_.get(), buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return {};
    unread_.append(buffer, static_cast<std::size_t>(count));
  }
}

}  // namespace kestrowan::test
