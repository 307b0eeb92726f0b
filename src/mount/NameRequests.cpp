#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "mount/FileStatus.h"
#include "mount/Names.h"
#include "mount/Reply.h"
#include "mount/Requests.h"

namespace kestrowan::mount {

namespace {

replica::Completion<replica::Done> removal(const std::shared_ptr<Reply>& reply,
                                           replica::Rid folder) {
  return [reply, folder, answer = reply->completion()](replica::Outcome<replica::Done> outcome) {
    reply->session().nameChanges().count(folder);
    answer(std::move(outcome));
  };
}

}  // namespace

void makeNode(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode,
              dev_t) noexcept {
  serve(request, Addressing::byName, [&](const std::shared_ptr<Reply>& reply) {
    if (!S_ISREG(mode)) return reply->fail(EPERM);
    reply->session().replica().createFile(
        folder, checkedNewName(name), permissionBits(mode),
        reply->completion<replica::CreatedFile>(
            [folder](const std::shared_ptr<Reply>& made, replica::CreatedFile created) {
              made->session().nameChanges().count(folder);
              made->sendEntry(created.attributes);
            }));
    reply->allowSignal(OnSignal::endsTheDying);
  });
}

void makeFolder(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode) noexcept {
  serve(request, Addressing::byName, [&](const std::shared_ptr<Reply>& reply) {
    reply->session().replica().makeFolder(
        folder, checkedNewName(name), permissionBits(S_IFDIR | mode),
        reply->completion<replica::Attributes>(
            [folder](const std::shared_ptr<Reply>& made, replica::Attributes attributes) {
              made->session().nameChanges().count(folder);
              made->sendEntry(attributes);
            }));
    reply->allowSignal(OnSignal::endsTheDying);
  });
}

void removeFile(fuse_req_t request, fuse_ino_t folder, const char* name) noexcept {
  serve(request, Addressing::byName, [&](const std::shared_ptr<Reply>& reply) {
    reply->session().replica().removeFile(folder, checkedName(name), removal(reply, folder));
    reply->allowSignal(OnSignal::endsTheDying);
  });
}

void removeFolder(fuse_req_t request, fuse_ino_t folder, const char* name) noexcept {
  serve(request, Addressing::byName, [&](const std::shared_ptr<Reply>& reply) {
    reply->session().replica().removeFolder(folder, checkedName(name), removal(reply, folder));
    reply->allowSignal(OnSignal::endsTheDying);
  });
}

void rename(fuse_req_t request, fuse_ino_t folder, const char* name, fuse_ino_t newFolder,
            const char* newName, unsigned flags) noexcept {
  serve(request, Addressing::byName, [&](const std::shared_ptr<Reply>& reply) {
    if ((flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) != 0) return reply->fail(EINVAL);
    reply->session().replica().rename(folder, checkedName(name), newFolder, checkedNewName(newName),
                                      (flags & RENAME_NOREPLACE) == 0,
                                      [reply, folder, newFolder, answer = reply->completion()](
                                          replica::Outcome<replica::Done> outcome) {
                                        reply->session().nameChanges().count(folder);
                                        reply->session().nameChanges().count(newFolder);
                                        answer(std::move(outcome));
                                      });
    reply->allowSignal(OnSignal::endsTheDying);
  });
}

void makeSymbolicLink(fuse_req_t request, const char*, fuse_ino_t, const char*) noexcept {
  fuse_reply_err(request, EPERM);
}

void makeLink(fuse_req_t request, fuse_ino_t, fuse_ino_t, const char*) noexcept {
  fuse_reply_err(request, EPERM);
}

}  // namespace kestrowan::mount
