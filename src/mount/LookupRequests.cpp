#include "mount/Names.h"
#include "mount/Reply.h"
#include "mount/Requests.h"

namespace kestrowan::mount {

namespace {

void forgetOne(Session& session, fuse_ino_t item, std::uint64_t count) noexcept {
  try {
    session.seenContents().forget(item);
    session.replica().forget(item, count);
  } catch (...) {
    // Nobody waits for an answer; the item stays known a little longer.
  }
}

}  // namespace

void lookup(fuse_req_t request, fuse_ino_t folder, const char* name) noexcept {
  serve(request, Addressing::byName, [&](const std::shared_ptr<Reply>& reply) {
    reply->session().replica().lookUp(
        folder, checkedName(name),
        reply->completion<replica::Attributes>(
            [](const std::shared_ptr<Reply>& found, replica::Attributes attributes) {
              found->sendEntry(attributes);
            }));
    reply->allowSignal(OnSignal::ends);
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
