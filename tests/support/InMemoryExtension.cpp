#include "support/InMemoryExtension.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <utility>

#include "platform/fileprovider/NSFileProviderError.h"
#include "support/CallRunner.h"
#include "support/MemoryEnumerator.h"
#include "support/MemoryItems.h"

namespace kestrowan::test {

namespace {

using Requests = CallRunner::Requests;
using Items = std::shared_ptr<const MemoryItems>;
using Answer = MemoryServer::Answer;

constexpr std::int64_t kFetchUnits = 100;
constexpr NSFileProviderItemFields kFieldsThatMove =
    NSFileProviderItemField::filename | NSFileProviderItemField::parentItemIdentifier;

[[noreturn]] void throwUnreachable() {
  throw NSFileProviderError(NSFileProviderErrorCode::serverUnreachable);
}

/// What a server that speaks HTTP says instead.
std::int64_t httpStatusOf(Answer answer) {
  switch (answer) {
    case Answer::notFound:
      return 404;
    case Answer::conflict:
      return 409;
    case Answer::notAllowed:
      return 405;
    case Answer::exists:
      return 412;
    default:
      return 204;
  }
}

/// Of a request that changes something.
void check(Reply& reply, Answer answer) {
  reply.answer = {"CHANGE", true, httpStatusOf(answer)};
  if (answer == Answer::exists) throw NSError(NSCocoaErrorDomain, NSFileWriteFileExistsError);
  if (answer != Answer::done) throwUnreachable();
}

/// The bytes of a local file; nothing when it cannot be read.
std::optional<std::string> bytesOf(const NSURL& file) {
  std::ifstream stream(file.path(), std::ios::binary);
  if (!stream) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(stream), {});
}

/// The state of what was written, or no more than a word for it.
NSFileProviderItemPtr stateOf(const MemoryItems& items, const std::string& path, bool isFolder,
                              const Fault& fault, std::string_view word) {
  const auto entry = items.server().stat(path);
  if (!entry) throwUnreachable();
  return fault.withoutEntry ? items.itemWithoutEntry(path, isFolder, word, 0) : items.item(*entry);
}

bool isFolder(const NSFileProviderItem& item) {
  return item.contentType() == UTType::folder();
}

bool isUsable(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

/// Contents that a host sends, and must not change before the call completes.
class Upload {
 public:
  Upload(const std::optional<NSURL>& file, std::string text, std::weak_ptr<CallRunner> runner)
      : file_(file), text_(std::move(text)), runner_(std::move(runner)) {
    if (file_) bytes_ = bytesOf(*file_);
  }

  std::optional<std::int64_t> size() const {
    if (!bytes_) return std::nullopt;
    return static_cast<std::int64_t>(bytes_->size());
  }

  /// What arrives at the server. Throws when the file was never there.
  std::string send() const {
    if (!file_) return {};
    const auto now = bytesOf(*file_);
    if (now != bytes_) {
      if (const auto runner = runner_.lock()) runner->noteViolation(text_ + ": contents changed");
    }
    if (!now) throw NSError(NSURLErrorDomain, NSURLErrorFileDoesNotExist);
    return *now;
  }

 private:
  std::optional<NSURL> file_;
  std::string text_;
  std::weak_ptr<CallRunner> runner_;
  std::optional<std::string> bytes_;
};

std::string newFileIn(const std::string& directory) {
  static std::atomic<std::uint64_t> last = 0;
  return directory + "/fetched-" + std::to_string(++last);
}

/// What a fetch reads, and how it is delivered.
struct Fetch {
  std::string file;
  std::string path;
  std::string bytes;
  std::string version;
  std::optional<Arriving> arriving;
  bool withoutEntry = false;

  /// As the server has it now.
  NSFileProviderItemPtr item(const MemoryItems& items) const {
    const auto entry = items.server().stat(path);
    if (entry && !withoutEntry) return items.item(*entry);
    return items.itemWithoutEntry(path, false, "downloaded",
                                  static_cast<std::int64_t>(bytes.size()));
  }
};

CallRunner::Complete writeAnswer(WriteCompletion completionHandler) {
  return [handler = std::move(completionHandler)](const Reply& reply) {
    handler(reply.error ? nullptr : reply.item, 0, false, reply.error);
  };
}

}  // namespace

InMemoryExtension::InMemoryExtension(async::Loop& loop, std::string directory,
                                     std::shared_ptr<MemoryServer> server, InMemoryOptions options)
    : loop_(loop),
      runner_(std::make_shared<CallRunner>(loop)),
      items_(std::make_shared<const MemoryItems>(std::move(server), options)),
      arriving_(options.arriving),
      arrivals_(std::make_shared<MemoryArrivals>(loop)),
      directory_(std::move(directory)) {}

InMemoryExtension::~InMemoryExtension() = default;

MemoryServer& InMemoryExtension::server() const {
  return items_->server();
}

void InMemoryExtension::setLatency(std::chrono::milliseconds latency) {
  runner_->setLatency(latency);
}

void InMemoryExtension::setDown(bool isDown) {
  runner_->setDown(isDown);
}

void InMemoryExtension::setFaults(FaultHook hook) {
  runner_->setFaults(std::move(hook));
}

MemoryAnswers& InMemoryExtension::answers() const {
  return runner_->answers();
}

std::size_t InMemoryExtension::releaseHung() {
  return runner_->releaseHung();
}

std::vector<std::string> InMemoryExtension::calls() const {
  std::vector<std::string> lines;
  for (const auto& call : runner_->calls()) lines.push_back(call.text());
  return lines;
}

std::size_t InMemoryExtension::count(CallKind kind) const {
  const auto calls = runner_->calls();
  return static_cast<std::size_t>(std::count_if(
      calls.begin(), calls.end(), [&](const Call& call) { return call.kind == kind; }));
}

std::size_t InMemoryExtension::count() const {
  return runner_->calls().size();
}

void InMemoryExtension::clearCalls() {
  runner_->clearCalls();
}

std::size_t InMemoryExtension::running() const {
  return runner_->running();
}

std::size_t InMemoryExtension::mostAtOnce(CallKind kind) const {
  return runner_->mostAtOnce(kind);
}

std::vector<std::string> InMemoryExtension::violations() const {
  return runner_->violations();
}

bool InMemoryExtension::isInvalidated() const {
  return runner_->isInvalidated();
}

void InMemoryExtension::invalidate() {
  runner_->noteInvalidation();
}

std::shared_ptr<NSFileProviderEnumerator> InMemoryExtension::enumerator(
    const NSFileProviderItemIdentifier& forContainer, const NSFileProviderRequest&) {
  return std::make_shared<MemoryEnumerator>(forContainer, loop_, runner_, items_);
}

std::shared_ptr<NSProgress> InMemoryExtension::item(
    const NSFileProviderItemIdentifier& forIdentifier, const NSFileProviderRequest&,
    ItemCompletion completionHandler) {
  const auto path = items_->path(forIdentifier);
  runner_->run(
      {.kind = CallKind::item, .path = path.value_or(forIdentifier)},
      [items = items_, identifier = forIdentifier](Requests& requests, Reply& reply) {
        const auto now = items->path(identifier);
        const auto entry = now ? items->server().stat(*now) : std::nullopt;
        if (!entry) throwUnreachable();
        if (requests.fault().withoutEntry) {
          throw NSFileProviderError(NSFileProviderErrorCode::noSuchItem);
        }
        reply.item = items->item(*entry);
      },
      [handler = std::move(completionHandler)](const Reply& reply) {
        handler(reply.error ? nullptr : reply.item, reply.error);
      });
  return std::make_shared<NSProgress>();
}

std::shared_ptr<NSProgress> InMemoryExtension::fetchContents(
    const NSFileProviderItemIdentifier& forIdentifier,
    const std::optional<NSFileProviderItemVersion>&, const NSFileProviderRequest&,
    FetchCompletion completionHandler) {
  auto progress = std::make_shared<NSProgress>(kFetchUnits);
  const auto path = items_->path(forIdentifier);
  const auto fetch = std::make_shared<Fetch>();
  fetch->file = newFileIn(directory_);
  runner_->run(
      {.kind = CallKind::fetchContents, .path = path.value_or(forIdentifier)},
      [items = items_, fetch, identifier = forIdentifier, usual = arriving_](Requests& requests,
                                                                             Reply& reply) {
        const auto now = items->path(identifier);
        auto bytes = now ? items->server().read(*now) : std::nullopt;
        if (!bytes) throwUnreachable();
        const auto& fault = requests.fault();
        if (fault.fileSize) bytes->resize(static_cast<std::size_t>(*fault.fileSize));
        fetch->path = *now;
        fetch->bytes = std::move(*bytes);
        fetch->arriving = fault.arriving ? fault.arriving : usual;
        if (const auto entry = items->server().stat(*now)) {
          fetch->version = items->item(*entry)->itemVersion().contentVersion;
        }
        if (!fetch->arriving) std::ofstream(fetch->file, std::ios::binary) << fetch->bytes;
        requests.firstIsDone();
        fetch->withoutEntry = fault.withoutEntry;
        reply.file = NSURL::fileURLWithPath(fetch->file);
        reply.item = fetch->item(*items);
      },
      [progress, fetch, call = Abandonment::current(), items = items_, arrivals = arrivals_,
       handler = std::move(completionHandler)](const Reply& reply) {
        if (reply.error) return handler(std::nullopt, nullptr, reply.error);
        progress->setCompletedUnitCount(kFetchUnits);
        if (!fetch->arriving) return handler(reply.file, reply.item, std::nullopt);
        arrivals->deliver(call, fetch->version, fetch->bytes, fetch->file, *fetch->arriving,
                          [=](const std::optional<NSError>& error) {
                            if (error) return handler(std::nullopt, nullptr, error);
                            handler(reply.file, fetch->item(*items), std::nullopt);
                          });
      });
  return progress;
}

std::shared_ptr<NSProgress> InMemoryExtension::createItem(NSFileProviderItemPtr basedOnTemplate,
                                                          NSFileProviderItemFields,
                                                          std::optional<NSURL> contents,
                                                          NSFileProviderCreateItemOptions,
                                                          const NSFileProviderRequest&,
                                                          WriteCompletion completionHandler) {
  const auto name = basedOnTemplate->filename();
  const auto folder = basedOnTemplate->parentItemIdentifier();
  const auto path = MemoryItems::childPath(items_->path(folder).value_or(folder), name);
  Call call{.kind = CallKind::createItem, .path = path, .isFolder = isFolder(*basedOnTemplate)};
  const auto upload = std::make_shared<const Upload>(call.isFolder ? std::nullopt : contents,
                                                     "createItem " + path, runner_);
  if (!call.isFolder) call.size = upload->size().value_or(0);
  std::optional<NSError> refusal;
  if (!isUsable(name) || items_->isProtected(path)) refusal = posixError(EPERM);
  runner_->run(
      call,
      [items = items_, folder, name, upload, makesFolder = call.isFolder](Requests& requests,
                                                                          Reply& reply) {
        const auto in = items->path(folder);
        if (!in) throwUnreachable();
        const auto target = MemoryItems::childPath(*in, name);
        check(reply, makesFolder ? items->server().makeCollection(target)
                                 : items->server().put(target, upload->send()));
        requests.firstIsDone();
        reply.answer.reset();
        reply.item = stateOf(*items, target, makesFolder, requests.fault(), "new");
      },
      writeAnswer(std::move(completionHandler)), refusal);
  return std::make_shared<NSProgress>();
}

std::shared_ptr<NSProgress> InMemoryExtension::modifyItem(NSFileProviderItemPtr item,
                                                          const NSFileProviderItemVersion&,
                                                          NSFileProviderItemFields changedFields,
                                                          std::optional<NSURL> contents,
                                                          NSFileProviderModifyItemOptions,
                                                          const NSFileProviderRequest&,
                                                          WriteCompletion completionHandler) {
  const auto identifier = item->itemIdentifier();
  const auto folder = item->parentItemIdentifier();
  const auto name = item->filename();
  const auto current = items_->path(identifier).value_or(identifier);
  const auto target = MemoryItems::childPath(items_->path(folder).value_or(folder), name);
  const bool moves = (changedFields & kFieldsThatMove) != 0 && target != current;
  const bool sends =
      (changedFields & NSFileProviderItemField::contents) != 0 && contents && !isFolder(*item);
  Call call{.kind = CallKind::modifyItem, .path = current, .isFolder = isFolder(*item)};
  if (moves) call.target = target;
  const auto upload = std::make_shared<const Upload>(sends ? contents : std::nullopt,
                                                     "modifyItem " + current, runner_);
  if (sends) call.size = upload->size().value_or(0);
  std::optional<NSError> refusal;
  if (items_->isProtected(current) || items_->isProtected(target) || !isUsable(name)) {
    refusal = posixError(EPERM);
  }
  runner_->run(
      call,
      [items = items_, item, identifier, folder, name, moves, sends, upload](Requests& requests,
                                                                             Reply& reply) {
        auto path = items->path(identifier);
        const auto in = items->path(folder);
        if (!path || !in) throwUnreachable();
        if (moves) {
          const auto to = MemoryItems::childPath(*in, name);
          if (to != *path) check(reply, items->server().move(*path, to));
          path = to;
          requests.firstIsDone();
        }
        if (sends) {
          check(reply, items->server().put(*path, upload->send()));
          if (!moves) requests.firstIsDone();
        }
        reply.answer.reset();
        reply.item = stateOf(*items, *path, isFolder(*item), requests.fault(), "modified");
      },
      writeAnswer(std::move(completionHandler)), refusal);
  return std::make_shared<NSProgress>();
}

std::shared_ptr<NSProgress> InMemoryExtension::deleteItem(
    const NSFileProviderItemIdentifier& identifier, const NSFileProviderItemVersion&,
    NSFileProviderDeleteItemOptions, const NSFileProviderRequest&,
    DeleteCompletion completionHandler) {
  const auto path = items_->path(identifier);
  std::optional<NSError> refusal;
  if (path && items_->isProtected(*path)) refusal = posixError(EPERM);
  runner_->run(
      {.kind = CallKind::deleteItem, .path = path.value_or(identifier)},
      [items = items_, identifier](Requests&, Reply& reply) {
        const auto now = items->path(identifier);
        if (!now) throwUnreachable();
        check(reply, items->server().delete_(*now));
      },
      [handler = std::move(completionHandler)](const Reply& reply) { handler(reply.error); },
      refusal);
  return std::make_shared<NSProgress>();
}

}  // namespace kestrowan::test
