#include "mount/EventRequests.h"

#include <cerrno>
#include <memory>
#include <optional>
#include <string>

#include "mount/Errno.h"
#include "mount/ExpectedCall.h"
#include "mount/FileStatus.h"
#include "mount/Session.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::mount {

using replica::Attributes;
using replica::ItemKind;
using replica::Rid;

namespace {

constexpr std::uint16_t kPrivateFolder = 0700;

/// Runs `answer` with the call that is expected; when none is, or it throws, the answer is EPERM.
template <typename Answer>
void answerExpected(fuse_req_t request, Answer&& answer) noexcept {
  try {
    auto& session = Session::of(request);
    const auto expected = session.events()->caller.expectedOf(fuse_req_ctx(request)->pid);
    if (expected) return answer(session, *expected);
  } catch (...) {
    // Not answered yet: answering is the last thing that is done, and does not throw.
  }
  refuseEventRequest(request);
}

std::optional<Attributes> attributesOf(Session& session, Rid item) {
  try {
    return session.replica().files().attributes(item);
  } catch (const NSError&) {
    return std::nullopt;
  }
}

Attributes stagingAttributes() {
  Attributes attributes;
  attributes.rid = kStagingFolder;
  attributes.kind = ItemKind::folder;
  attributes.mode = kPrivateFolder;
  attributes.links = 2;
  return attributes;
}

/// The kernel asks again before anything else is done with the name.
void replyEntry(fuse_req_t request, Session& session, const Attributes& attributes) {
  auto& files = session.replica().files();
  const bool isItem = attributes.rid < kNoItems;
  const auto allocated = isItem ? files.allocated(attributes) : 0;
  auto entry = kernelEntry(attributes, allocated, session.appearance());
  entry.entry_timeout = 0;
  if (isItem) files.remember(attributes.rid);
  if (fuse_reply_entry(request, &entry) != 0 && isItem) files.forget(attributes.rid, 1);
}

void replyAttributes(fuse_req_t request, Session& session, const Attributes& attributes) {
  const bool isItem = attributes.rid < kNoItems;
  const auto allocated = isItem ? session.replica().files().allocated(attributes) : 0;
  const auto status = fileStatus(attributes, allocated, session.appearance());
  fuse_reply_attr(request, &status, session.appearance().cacheTime);
}

/// What the name stands for now; 0 for nothing.
Rid itemAt(Session& session, Rid folder, const std::string& name) {
  const auto known = session.replica().files().known(folder, name);
  return known ? known->rid : 0;
}

/// An item that has gone from its name. The kernel may know it still, and must then be told what it
/// was; of one that it does not know nothing is left but the kind.
std::optional<Attributes> departed(Session& session, const EventCall& call, Rid item) {
  const auto known = attributesOf(session, item);
  if (known && known->links == 0) return known;
  if (call.kind == EventKind::placeFile) return std::nullopt;
  const bool isFolder = call.kind == EventKind::removeFolder;
  Attributes attributes;
  attributes.rid = !known ? item : isFolder ? kFormerFolder : kFormerFile;
  attributes.kind = isFolder ? ItemKind::folder : ItemKind::file;
  attributes.mode = kPrivateFolder;
  attributes.links = 0;
  return attributes;
}

}  // namespace

bool isEventRequest(fuse_req_t request) noexcept {
  const auto* events = Session::of(request).events();
  return events != nullptr && events->caller.isCaller(fuse_req_ctx(request)->pid);
}

void refuseEventRequest(fuse_req_t request) noexcept {
  fuse_reply_err(request, EPERM);
}

void answerEventLookup(fuse_req_t request, fuse_ino_t folder, const char* name) noexcept {
  answerExpected(request, [&](Session& session, const ExpectedCall& expected) {
    using Kind = ExpectedLookup::Kind;
    const auto found = expected.lookUp(folder, name);
    std::optional<Attributes> attributes;
    switch (found.kind) {
      case Kind::refused:
        return refuseEventRequest(request);
      case Kind::absent:
        break;
      case Kind::staging:
        attributes = stagingAttributes();
        break;
      case Kind::item:
        attributes = attributesOf(session, found.item);
        break;
      case Kind::departed:
        attributes = departed(session, expected.call(), found.item);
        break;
    }
    if (attributes) return replyEntry(request, session, *attributes);
    fuse_reply_err(request, ENOENT);
  });
}

void answerEventAttributes(fuse_req_t request, fuse_ino_t item) noexcept {
  answerExpected(request, [&](Session& session, const ExpectedCall&) {
    replyAttributes(
        request, session,
        item == kStagingFolder ? stagingAttributes() : session.replica().files().attributes(item));
  });
}

void answerEventTouch(fuse_req_t request, fuse_ino_t item, int which) noexcept {
  answerExpected(request, [&](Session& session, const ExpectedCall& expected) {
    if (which != FUSE_SET_ATTR_MODE || !expected.isTouching(item)) {
      return refuseEventRequest(request);
    }
    replyAttributes(request, session, session.replica().files().attributes(item));
  });
}

void answerEventFolder(fuse_req_t request, fuse_ino_t folder, const char* name) noexcept {
  answerExpected(request, [&](Session& session, const ExpectedCall& expected) {
    const auto known = session.replica().files().known(folder, name);
    if (!expected.isMakingFolder(folder, name) || !known || known->rid != expected.call().item) {
      return refuseEventRequest(request);
    }
    replyEntry(request, session, *known);
  });
}

void answerEventRemoval(fuse_req_t request, fuse_ino_t folder, const char* name,
                        EventRemoval removal) noexcept {
  answerExpected(request, [&](Session& session, const ExpectedCall& expected) {
    const auto kind = removal == EventRemoval::folder ? ItemKind::folder : ItemKind::file;
    const Rid now = itemAt(session, folder, name);
    const bool isGone = now == 0 || now == expected.call().other;
    if (!expected.isRemoving(folder, name, kind) || !isGone) return refuseEventRequest(request);
    fuse_reply_err(request, 0);
  });
}

void answerEventRename(fuse_req_t request, fuse_ino_t folder, const char* name,
                       fuse_ino_t newFolder, const char* newName) noexcept {
  answerExpected(request, [&](Session& session, const ExpectedCall& expected) {
    if (!expected.isPlacing(folder, name, newFolder, newName) ||
        itemAt(session, newFolder, newName) != expected.call().item) {
      return refuseEventRequest(request);
    }
    fuse_reply_err(request, 0);
  });
}

}  // namespace kestrowan::mount
