#include "replica/store/Takeover.h"

#include <utility>

namespace kestrowan::replica::store {

using model::Attributes;
using model::Content;
using model::Date;
using model::FileTime;
using model::Here;
using model::Intent;
using model::ItemNumber;
using model::KeptItem;
using model::Kind;
using model::Shared;
using model::There;
using model::Time;
using model::Verb;

namespace {

constexpr std::int64_t kNanoseconds = 1'000'000'000;

Time secondsToTime(std::int64_t seconds) {
  return Time(std::chrono::seconds(seconds));
}

Content contentOf(const ItemRecord& record) {
  return record.kind == ItemKind::file ? Content{record.content} : Content::none;
}

There thereOf(const ItemRecord& record, bool isIdentifierDerived) {
  const Base& base = *record.base;
  There there;
  there.place = {ItemNumber{base.parent}, base.name};
  there.version = {base.version};
  there.isVersionKnown = base.versionKnown;
  if (!isIdentifierDerived) there.identifier = base.identifier;
  there.size = base.size;
  if (base.date) there.date = Date(std::chrono::seconds(*base.date));
  there.capabilities = model::keptCapabilities(base.capabilities);
  // Bytes that are those of the base are known to be; changed ones are others.
  if (!record.contentsChanged && !record.removed) there.content = contentOf(record);
  return there;
}

model::Boxed<model::Failure> failureOf(const ItemRecord& record) {
  if (!record.failure) return std::nullopt;
  const SyncFailure& known = *record.failure;
  model::Failure failure;
  failure.failureClass = static_cast<model::FailureClass>(known.failureClass);
  failure.domain = known.domain;
  failure.code = known.code;
  failure.text = known.text;
  failure.since = secondsToTime(known.since);
  failure.next = secondsToTime(known.next);
  failure.tries = known.tries;
  return failure;
}

/// What programs see is kept where it does not follow from the base.
void takeShown(const ItemRecord& record, Attributes& attributes) {
  const bool isOfBase = record.base && !record.contentsChanged;
  const bool hasDateOfBase =
      isOfBase && record.base->date && *record.base->date * kNanoseconds == record.modified;
  if (record.kind == ItemKind::file && !(isOfBase && record.base->size == record.size)) {
    attributes.size = record.size;
  }
  const FileTime modified{std::chrono::nanoseconds(record.modified)};
  if (!hasDateOfBase) attributes.modified = modified;
  if (record.changed != record.modified) {
    attributes.changed = FileTime(std::chrono::nanoseconds(record.changed));
  }
  if (record.accessed) {
    attributes.accessed = FileTime(std::chrono::nanoseconds(*record.accessed));
  }
}

Attributes attributesOf(const ItemRecord& record) {
  Attributes attributes;
  attributes.mode = record.mode;
  attributes.localOnly = record.localOnly;
  attributes.pinned = record.pinned;
  if (record.attributes && !record.attributes->empty()) attributes.user = *record.attributes;
  takeShown(record, attributes);
  if (record.lastUse != 0) attributes.lastUse = secondsToTime(record.lastUse);
  if (record.kind == ItemKind::folder && record.listedAt != 0) {
    attributes.listedAt = Time(std::chrono::milliseconds(record.listedAt));
  }
  attributes.failure = failureOf(record);
  return attributes;
}

Intent unanswered(const ItemRecord& record, Verb verb, Time now) {
  Intent intent;
  intent.verb = verb;
  intent.item = ItemNumber{record.rid};
  intent.ended = now;
  intent.until = now + kTakenLandingTime;
  return intent;
}

/// What the request without an answer would make true.
std::vector<Intent> intentsOf(const ItemRecord& record, const Surroundings& surroundings) {
  std::vector<Intent> intents;
  if (!record.sent || !surroundings.sent) return intents;
  const Content content{record.sent->content};
  const bool isMove = surroundings.base && *surroundings.base != *surroundings.sent;
  if (isMove) {
    Intent move = unanswered(record, Verb::move, surroundings.now);
    move.source = surroundings.base;
    move.target = surroundings.sent;
    intents.push_back(std::move(move));
  }
  const bool isFolderMade = !record.base && record.kind == ItemKind::folder;
  if (isFolderMade || (record.kind == ItemKind::file && content != Content::none)) {
    const Verb verb = isFolderMade ? Verb::makeFolder : Verb::put;
    Intent make = unanswered(record, verb, surroundings.now);
    make.target = surroundings.sent;
    if (verb == Verb::put) make.content = content;
    intents.push_back(std::move(make));
  }
  if (record.removed && surroundings.base) {
    Intent removal = unanswered(record, Verb::remove, surroundings.now);
    removal.source = surroundings.base;
    intents.push_back(std::move(removal));
  }
  return intents;
}

}  // namespace

bool isAnywhere(const ItemRecord& record) {
  return !record.removed || record.base || record.sent;
}

TakenOver takenOver(const ItemRecord& record, const Surroundings& surroundings) {
  TakenOver result;
  KeptItem& item = result.item;
  item.number = ItemNumber{record.rid};
  item.kind = record.kind == ItemKind::folder ? Kind::folder : Kind::file;
  const bool isRoot = item.number == ItemNumber::root;
  if (isRoot) {
    There there;
    if (record.base) {
      there.capabilities = model::keptCapabilities(record.base->capabilities);
    }
    item.here = Here{};
    item.there = item.agreed = Shared<There>(there);
    item.attributes = attributesOf(record);
    return result;
  }
  if (!record.removed) {
    item.here = Here{{ItemNumber{record.parent}, record.name}, contentOf(record)};
    item.attributes = attributesOf(record);
  } else {
    result.orphan = contentOf(record);
    item.attributes.failure = failureOf(record);
  }
  if (record.base) {
    item.there = thereOf(record, surroundings.isIdentifierDerived);
    item.agreed = item.there;
  }
  if (record.after != 0) item.after = {ItemNumber{record.after}};
  result.intents = intentsOf(record, surroundings);
  return result;
}

}  // namespace kestrowan::replica::store
