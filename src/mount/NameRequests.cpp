#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "mount/FileStatus.h"
#include "mount/Names.h"
#include "mount/Reply.h"
#include "mount/Requests.h"

namespace kestrowan::mount {

namespace {

Task<void> makeFile(std::shared_ptr<Reply> reply, replica::Rid folder, std::string name,
                    std::uint16_t mode) {
  auto& session = reply->session();
  auto making = session.replica().files().createFile(folder, std::move(name), mode);
  const replica::CreatedFile made = co_await std::move(making);
  session.nameChanges().count(folder);
  reply->sendEntry(made.attributes);
}

Task<void> makeDirectory(std::shared_ptr<Reply> reply, replica::Rid folder, std::string name,
                         std::uint16_t mode) {
  auto& session = reply->session();
  auto making = session.replica().files().makeFolder(folder, std::move(name), mode);
  const replica::Attributes made = co_await std::move(making);
  session.nameChanges().count(folder);
  reply->sendEntry(made);
}

/// Ends as `change` does, of a name; EPERM for one that only the mount has.
Task<void> sparingMarkers(std::shared_ptr<Reply> reply, Task<void> change, replica::Rid folder,
                          std::string name) {
  try {
    co_await std::move(change);
  } catch (const NSError& error) {
    const bool isMissing = errnoFor(error, Addressing::byName) == ENOENT;
    if (!isMissing || !reply->session().markers().find(folder, name)) throw;
    throw posixError(EPERM);
  }
}

/// Names of both folders may have changed, also when `change` fails.
Task<void> changeNames(std::shared_ptr<Reply> reply, Task<void> change, replica::Rid folder,
                       replica::Rid newFolder) {
  std::exception_ptr problem;
  try {
    co_await std::move(change);
  } catch (...) {
    problem = std::current_exception();
  }
  reply->session().nameChanges().count(folder);
  reply->session().nameChanges().count(newFolder);
  reply->end(problem);
}

}  // namespace

void makeNode(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode,
              dev_t) noexcept {
  serve(request, Addressing::byName, OnSignal::endsTheDying, [&](std::shared_ptr<Reply> reply) {
    if (!S_ISREG(mode)) throw posixError(EPERM);
    return makeFile(std::move(reply), folder, checkedNewName(name), permissionBits(mode));
  });
}

void makeFolder(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode) noexcept {
  if (isEventRequest(request)) return answerEventFolder(request, folder, name);
  serve(request, Addressing::byName, OnSignal::endsTheDying, [&](std::shared_ptr<Reply> reply) {
    return makeDirectory(std::move(reply), folder, checkedNewName(name),
                         permissionBits(S_IFDIR | mode));
  });
}

void removeFile(fuse_req_t request, fuse_ino_t folder, const char* name) noexcept {
  if (isEventRequest(request)) {
    return answerEventRemoval(request, folder, name, EventRemoval::file);
  }
  serve(request, Addressing::byName, OnSignal::endsTheDying, [&](std::shared_ptr<Reply> reply) {
    auto removal = reply->session().replica().files().removeFile(folder, checkedName(name));
    auto change = sparingMarkers(reply, std::move(removal), folder, name);
    return changeNames(std::move(reply), std::move(change), folder, folder);
  });
}

void removeFolder(fuse_req_t request, fuse_ino_t folder, const char* name) noexcept {
  if (isEventRequest(request)) {
    return answerEventRemoval(request, folder, name, EventRemoval::folder);
  }
  serve(request, Addressing::byName, OnSignal::endsTheDying, [&](std::shared_ptr<Reply> reply) {
    auto change = reply->session().replica().files().removeFolder(folder, checkedName(name));
    return changeNames(std::move(reply), std::move(change), folder, folder);
  });
}

void rename(fuse_req_t request, fuse_ino_t folder, const char* name, fuse_ino_t newFolder,
            const char* newName, unsigned flags) noexcept {
  if (isEventRequest(request)) {
    return answerEventRename(request, folder, name, newFolder, newName);
  }
  serve(request, Addressing::byName, OnSignal::endsTheDying, [&](std::shared_ptr<Reply> reply) {
    if ((flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) != 0) throw posixError(EINVAL);
    auto renaming = reply->session().replica().files().rename(folder, checkedName(name), newFolder,
                                                              checkedNewName(newName),
                                                              (flags & RENAME_NOREPLACE) == 0);
    auto change = sparingMarkers(reply, std::move(renaming), folder, name);
    return changeNames(std::move(reply), std::move(change), folder, newFolder);
  });
}

void makeSymbolicLink(fuse_req_t request, const char*, fuse_ino_t, const char*) noexcept {
  fuse_reply_err(request, EPERM);
}

void makeLink(fuse_req_t request, fuse_ino_t, fuse_ino_t, const char*) noexcept {
  fuse_reply_err(request, EPERM);
}

}  // namespace kestrowan::mount
