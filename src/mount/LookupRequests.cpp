#include <cerrno>
#include <optional>
#include <string>

#include "mount/Names.h"
#include "mount/Reply.h"
#include "mount/Requests.h"

namespace kestrowan::mount {

namespace {

void forgetOne(Session& session, fuse_ino_t item, std::uint64_t count) noexcept {
  try {
    session.seenContents().forget(item);
    session.replica().files().forget(item, count);
  } catch (...) {
    // Nobody waits for an answer; the item stays known a little longer.
  }
}

Task<void> lookUp(std::shared_ptr<Reply> reply, replica::Rid folder, std::string name) {
  auto& session = reply->session();
  std::optional<replica::Attributes> attributes;
  try {
    auto found = session.replica().files().lookUp(folder, name);
    attributes = co_await std::move(found);
  } catch (const NSError& error) {
    if (errnoFor(error, Addressing::byName) != ENOENT) throw;
    attributes = session.markers().find(folder, name);
    if (!attributes) throw;
  }
  reply->sendEntry(*attributes, !session.isUntold(folder, name));
}

}  // namespace

void lookup(fuse_req_t request, fuse_ino_t folder, const char* name) noexcept {
  if (isEventRequest(request)) return answerEventLookup(request, folder, name);
  serve(request, Addressing::byName, OnSignal::ends, [&](std::shared_ptr<Reply> reply) {
    return lookUp(std::move(reply), folder, checkedName(name));
  });
}

void forget(fuse_req_t request, fuse_ino_t item, uint64_t count) noexcept {
  forgetOne(Session::of(request), item, count);
  fuse_reply_none(request);
}

void forgetMany(fuse_req_t request, size_t count, fuse_forget_data* forgets) noexcept {
  auto& session = Session::of(request);
  for (size_t index = 0; index < count; ++index) {
    forgetOne(session, forgets[index].ino, forgets[index].nlookup);
  }
  fuse_reply_none(request);
}

}  // namespace kestrowan::mount
