#include "support/ReplicaWorld.h"

#include <unistd.h>
#include <fstream>

#include <cerrno>
#include <stdexcept>
#include <utility>

#include "support/MemoryAnswers.h"

namespace kestrowan::test {

using namespace replica;

ReplicaWorld::ReplicaWorld(InMemoryOptions extensionOptions, Options options)
    : extensionOptions_(std::move(extensionOptions)), options_(std::move(options)) {
  if (extensionOptions_.opaqueIdentifiers) {
    options_.identifiers = remote::IdentifierForm::opaque("node:");
  }
  if (options_.freeSpaceFloor == 0) options_.freeSpaceFloor = 1;
  options_.saysNothing = [](const NSData& version) {
    return version.starts_with("new|") || version.starts_with("modified|") ||
           version.starts_with("downloaded|");
  };
  server_ = std::make_shared<MemoryServer>([this] { return loop_.wallClock() / 1000; });
  if (extensionOptions_.tellsOfArrivals) {
    options_.watchArrival = [this](const NSFileProviderItemIdentifier&, auto begun) {
      return extension_->arrivals().watch(std::move(begun));
    };
  }
  if (extensionOptions_.tellsAnswers) {
    options_.watchAnswers = [this] { return extension_->answers().watch(); };
  }
  begin();
  connect();
}

ReplicaWorld::~ReplicaWorld() {
  end();
}

void ReplicaWorld::begin() {
  replica_ = std::make_unique<Replica>(directory_.path(), loop_, options_);
}

void ReplicaWorld::end() {
  replica_->stop();
  loop_.runUntilIdle();
  replica_.reset();
}

void ReplicaWorld::crashUnconnected(const std::function<void()>& between) {
  end();
  if (between) between();
  begin();
}

void ReplicaWorld::crash() {
  crashUnconnected();
  connect();
}

void ReplicaWorld::connect(FaultHook faults) {
  extension_ = std::make_shared<InMemoryExtension>(loop_, directory_.path() + "/temporary", server_,
                                                   extensionOptions_);
  extension_->setFaults(std::move(faults));
  replica_->setProvider(extension_);
  loop_.runUntilIdle();
}

void ReplicaWorld::awaitUntil(const std::function<bool()>& condition) {
  if (!loop_.runUntil(condition, std::chrono::minutes(10))) {
    throw std::runtime_error("a call was not answered");
  }
}

bool ReplicaWorld::settle() {
  try {
    await(replica_->commands().waitUntilSynced(std::chrono::minutes(9)));
  } catch (const NSError&) {
    return false;
  }
  return true;
}

Rid ReplicaWorld::find(std::string_view path) {
  return await(replica_->commands().find(std::string(path)));
}

ReplicaWorld::Place ReplicaWorld::place(std::string_view path) {
  const auto slash = path.rfind('/');
  return {find(path.substr(0, slash)), std::string(path.substr(slash + 1))};
}

Attributes ReplicaWorld::attributes(std::string_view path) {
  return replica_->files().attributes(find(path));
}

bool ReplicaWorld::exists(std::string_view path) {
  return errorOf([&] { find(path); }).empty();
}

std::vector<std::string> ReplicaWorld::list(std::string_view path) {
  const Rid folder = find(path);
  const auto snapshot = await(replica_->files().openFolder(folder));
  replica_->files().closeFolder(folder);
  std::vector<std::string> names;
  for (const auto& entry : snapshot->entries) names.push_back(entry.name);
  return names;
}

std::shared_ptr<OpenFile> ReplicaWorld::open(std::string_view path, OpenMode mode) {
  // As the kernel does it: looks the name up again when the item has been replaced meanwhile.
  for (int tries = 0;; ++tries) {
    const Rid item = find(path);
    try {
      return await(replica_->files().openFile(item, mode));
    } catch (const NSError& error) {
      if (!error.is(NSPOSIXErrorDomain, ESTALE) || tries == 3) throw;
    }
  }
}

std::shared_ptr<OpenFile> ReplicaWorld::create(std::string_view path) {
  const Place at = place(path);
  return await(replica_->files().createFile(at.folder, at.name, 0644)).file;
}

void ReplicaWorld::writeTo(const OpenFile& file, std::string_view bytes, std::int64_t at) {
  const ssize_t written =
      file.write([&](int fd) { return ::pwrite(fd, bytes.data(), bytes.size(), at); });
  if (written != static_cast<ssize_t>(bytes.size())) throw posixError(errno);
}

std::vector<std::string> ReplicaWorld::history() {
  std::vector<std::string> contents;
  for (const auto& entry : replica_->commands().history({}, SIZE_MAX / 2).entries) {
    std::ifstream file(directory() + "/contents/" + std::to_string(entry.content),
                       std::ios::binary);
    if (!file) throw std::runtime_error("an entry of the history has no file");
    contents.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return contents;
}

std::string ReplicaWorld::readFrom(const OpenFile& file) {
  std::string bytes;
  char buffer[4096];
  for (;;) {
    const ssize_t read = file.read([&](int fd) {
      return ::pread(fd, buffer, sizeof buffer, static_cast<off_t>(bytes.size()));
    });
    if (read < 0) throw posixError(errno);
    if (read == 0) return bytes;
    bytes.append(buffer, static_cast<std::size_t>(read));
  }
}

std::string ReplicaWorld::readArriving(const std::shared_ptr<OpenFile>& file, std::int64_t offset,
                                       std::size_t size) {
  std::string bytes;
  ssize_t result = 0;
  const auto use = [&](int fd, std::size_t count) {
    bytes.resize(count);
    result = ::pread(fd, bytes.data(), count, offset);
  };
  while (!file->readArrived(offset, size, use)) await(file->arrival(offset, size));
  if (result < 0) throw posixError(errno);
  bytes.resize(static_cast<std::size_t>(result));
  return bytes;
}

std::string ReplicaWorld::read(std::string_view path) {
  constexpr std::size_t kPiece = 32 * 1024;
  const auto file = open(path, {});
  std::string bytes;
  for (;;) {
    const auto piece = readArriving(file, static_cast<std::int64_t>(bytes.size()), kPiece);
    if (piece.empty()) return bytes;
    bytes += piece;
  }
}

void ReplicaWorld::write(std::string_view path, std::string_view bytes) {
  std::shared_ptr<OpenFile> file;
  if (exists(path)) {
    file = open(path, {.read = true, .write = true, .truncate = true});
  } else {
    file = create(path);
  }
  writeTo(*file, bytes);
}

void ReplicaWorld::append(std::string_view path, std::string_view bytes) {
  const auto file = open(path, {.read = true, .write = true});
  const std::int64_t end = replica_->files().attributes(file->rid()).size;
  writeTo(*file, bytes, end);
}

void ReplicaWorld::makeFolder(std::string_view path) {
  const Place at = place(path);
  await(replica_->files().makeFolder(at.folder, at.name, 0755));
}

void ReplicaWorld::remove(std::string_view path) {
  const Place at = place(path);
  await(replica_->files().removeFile(at.folder, at.name));
}

void ReplicaWorld::removeFolder(std::string_view path) {
  const Place at = place(path);
  await(replica_->files().removeFolder(at.folder, at.name));
}

void ReplicaWorld::rename(std::string_view from, std::string_view to, bool replace) {
  const Place source = place(from);
  const Place target = place(to);
  await(replica_->files().rename(source.folder, source.name, target.folder, target.name, replace));
}

void ReplicaWorld::gather(const std::string& path,
                          std::map<std::string, std::optional<std::string>>& into) {
  for (const std::string& name : list(path.empty() ? "/" : path)) {
    const std::string child = path + "/" + name;
    if (attributes(child).kind == ItemKind::folder) {
      into[child] = std::nullopt;
      gather(child, into);
    } else {
      into[child] = read(child);
    }
  }
}

std::map<std::string, std::optional<std::string>> ReplicaWorld::tree() {
  std::map<std::string, std::optional<std::string>> all;
  gather("", all);
  return all;
}

}  // namespace kestrowan::test
