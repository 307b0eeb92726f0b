#include "replica/store/TreeRow.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "replica/Records.h"
#include "replica/remote/ValidName.h"
#include "replica/store/AttributeList.h"
#include "replica/store/RowReader.h"
#include "replica/store/RowWriter.h"

namespace kestrowan::replica::store {

using model::Attributes;
using model::Content;
using model::Date;
using model::Failure;
using model::FileTime;
using model::Here;
using model::ItemNumber;
using model::KeptItem;
using model::Kind;
using model::Place;
using model::Shared;
using model::There;
using model::Time;
using model::Version;

const char* const kMakeTree =
    "CREATE TABLE tree("
    " number INTEGER PRIMARY KEY,"
    " kind INTEGER NOT NULL,"
    " here_folder INTEGER, here_name BLOB, here_content INTEGER,"
    " there_folder INTEGER, there_name BLOB, there_version BLOB, there_content INTEGER,"
    " there_identifier BLOB, there_size INTEGER, there_date INTEGER, there_capabilities INTEGER,"
    " there_version_known INTEGER,"
    " agreed_as_there INTEGER,"
    " agreed_folder INTEGER, agreed_name BLOB, agreed_version BLOB, agreed_content INTEGER,"
    " agreed_identifier BLOB, agreed_size INTEGER, agreed_date INTEGER,"
    " agreed_capabilities INTEGER, agreed_version_known INTEGER,"
    " after BLOB,"
    " mode INTEGER, local_only INTEGER, pinned INTEGER, user BLOB,"
    " size INTEGER, modified INTEGER, changed INTEGER, accessed INTEGER,"
    " last_use INTEGER, listed_at INTEGER, missing_since INTEGER, conflict INTEGER,"
    " failure_class INTEGER, failure_domain BLOB, failure_code INTEGER, failure_text BLOB,"
    " failure_since INTEGER, failure_next INTEGER, failure_tries INTEGER"
    ") STRICT;";
const char* const kSaveTreeItem =
    "INSERT OR REPLACE INTO tree VALUES(?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11,?12,?13,?14,?15,?16,?17,"
    "?18,?19,?20,?21,?22,?23,?24,?25,?26,?27,?28,?29,?30,?31,?32,?33,?34,?35,?36,?37,?38,?39,?40,"
    "?41,?42,?43,?44)";
const char* const kLoadTree = "SELECT * FROM tree";

namespace {

constexpr int kThereColumns = 9;
constexpr int kFailureColumns = 7;
constexpr int kPermissionBits = 07777;
constexpr unsigned kNumberBytes = 8;
constexpr unsigned kByteBits = 8;
constexpr auto kAny = std::numeric_limits<std::int64_t>::min();
constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
// Milliseconds.
constexpr std::int64_t kFirstTime = kFirstDate * 1000;
constexpr std::int64_t kLastTime = kLastDate * 1000;

/// Eight bytes for each, with the least first.
std::string encoded(const std::vector<ItemNumber>& numbers) {
  std::string bytes;
  for (const ItemNumber number : numbers) {
    for (unsigned i = 0; i < kNumberBytes; ++i) {
      bytes += static_cast<char>(static_cast<std::uint64_t>(number) >> (kByteBits * i) & 0xFF);
    }
  }
  return bytes;
}

std::optional<std::vector<ItemNumber>> decoded(std::string_view bytes) {
  if (bytes.size() % kNumberBytes != 0) return std::nullopt;
  std::vector<ItemNumber> numbers;
  for (; !bytes.empty(); bytes.remove_prefix(kNumberBytes)) {
    std::uint64_t number = 0;
    for (unsigned i = 0; i < kNumberBytes; ++i) {
      number |= std::uint64_t{static_cast<unsigned char>(bytes[i])} << (kByteBits * i);
    }
    numbers.push_back(ItemNumber{number});
  }
  return numbers;
}

void putState(RowWriter& writer, const Shared<There>& state, std::string_view usualName) {
  if (!state) return writer.putNothing(kThereColumns);
  writer.put(state->place.folder);
  if (state->place.name == usualName) {
    writer.putNothing();
  } else {
    writer.put(state->place.name.view());
  }
  writer.putUnlessEmpty(state->version.text.view());
  writer.putUnless(Content::none, state->content);
  writer.putUnlessEmpty(state->identifier.view());
  writer.putUnless(std::int64_t{0}, state->size);
  writer.putTime(state->date);
  writer.putUnless(std::uint16_t{0}, state->capabilities);
  writer.putUnless(true, state->isVersionKnown);
}

void putAttributes(RowWriter& writer, const Attributes& attributes, TreeRowBytes& bytes) {
  writer.putUnless(-1, attributes.mode ? int{*attributes.mode} : -1);
  writer.putUnless(false, attributes.localOnly);
  writer.putUnless(false, attributes.pinned);
  if (attributes.user) bytes.user = encodedAttributes(*attributes.user);
  writer.putUnlessEmpty(bytes.user);
  writer.putUnless(std::int64_t{-1}, attributes.size.value_or(-1));
  writer.putTime(attributes.modified);
  writer.putTime(attributes.changed);
  writer.putTime(attributes.accessed);
  writer.putTime(attributes.lastUse);
  writer.putTime(attributes.listedAt);
  writer.putTime(attributes.missingSince);
  writer.putUnless(model::ConflictNumber::none, attributes.conflict);
  const auto& failure = attributes.failure;
  if (!failure) return writer.putNothing(kFailureColumns);
  writer.put(failure->failureClass);
  writer.put(std::string_view(failure->domain));
  writer.put(failure->code);
  writer.put(std::string_view(failure->text));
  writer.put(std::int64_t{failure->since.time_since_epoch().count()});
  writer.put(std::int64_t{failure->next.time_since_epoch().count()});
  writer.put(std::int64_t{failure->tries});
}

Place readPlace(RowReader& reader, std::string_view usualName, bool isRoot) {
  Place place;
  place.folder = reader.named<ItemNumber>();
  const std::string_view name = reader.bytesOr(usualName);
  if (!isRoot && !remote::isValidName(name)) reader.refuse();
  if (!isRoot) place.name = name;
  return place;
}

Shared<There> readState(RowReader& reader, std::string_view usualName, bool isRoot) {
  if (reader.isNothing()) {
    reader.skip(kThereColumns);
    return std::nullopt;
  }
  There there;
  there.place = readPlace(reader, usualName, isRoot);
  there.version = Version{reader.bytesOr({})};
  there.content = reader.namedOr(Content::none);
  there.identifier = reader.bytesOr({});
  there.size = std::min(reader.numberOr(0, 0, kMost), kLargestSize);
  there.date = reader.optionalTime<Date>(kFirstDate, kLastDate);
  // All 64 bits may be used.
  there.capabilities = model::keptCapabilities(
      static_cast<NSFileProviderItemCapabilities>(reader.numberOr(0, kAny, kMost)));
  there.isVersionKnown = reader.flagOr(true);
  return there;
}

model::Boxed<Failure> readFailure(RowReader& reader) {
  if (reader.isNothing()) {
    reader.skip(kFailureColumns);
    return std::nullopt;
  }
  Failure failure;
  failure.failureClass = static_cast<model::FailureClass>(
      reader.number(0, static_cast<std::int64_t>(model::FailureClass::held)));
  failure.domain = reader.bytes();
  failure.code = reader.number(kAny, kMost);
  failure.text = reader.bytes();
  failure.since = reader.time<Time>(kFirstTime, kLastTime);
  failure.next = reader.time<Time>(kFirstTime, kLastTime);
  failure.tries =
      static_cast<std::uint32_t>(reader.number(0, std::numeric_limits<std::uint32_t>::max()));
  return failure;
}

Attributes readAttributes(RowReader& reader) {
  Attributes attributes;
  const auto mode = reader.numberOr(-1, 0, kPermissionBits);
  if (mode >= 0) attributes.mode = static_cast<std::uint16_t>(mode);
  attributes.localOnly = reader.flagOr(false);
  attributes.pinned = reader.flagOr(false);
  if (auto user = decodedAttributes(reader.bytesOr({}))) {
    if (!user->empty()) attributes.user = *std::move(user);
  } else {
    reader.refuse();
  }
  const auto size = reader.numberOr(-1, 0, kMost);
  if (size >= 0) attributes.size = std::min(size, kLargestSize);
  attributes.modified = reader.optionalTime<FileTime>(kAny, kMost);
  attributes.changed = reader.optionalTime<FileTime>(kAny, kMost);
  attributes.accessed = reader.optionalTime<FileTime>(kAny, kMost);
  attributes.lastUse = reader.optionalTime<Time>(kFirstTime, kLastTime);
  attributes.listedAt = reader.optionalTime<Time>(kFirstTime, kLastTime);
  attributes.missingSince = reader.optionalTime<Time>(kFirstTime, kLastTime);
  attributes.conflict = reader.namedOr(model::ConflictNumber::none);
  attributes.failure = readFailure(reader);
  return attributes;
}

/// A folder has no contents.
bool hasContent(const KeptItem& item) {
  const bool isHere = item.here && item.here->content != Content::none;
  const auto isIn = [](const Shared<There>& state) {
    return state && state->content != Content::none;
  };
  return isHere || isIn(item.there) || isIn(item.agreed);
}

}  // namespace

void bindTreeItem(Statement& save, const KeptItem& item, TreeRowBytes& bytes) {
  RowWriter writer(save);
  writer.put(item.number);
  writer.put(item.kind);
  if (item.here) {
    writer.put(item.here->place.folder);
    writer.put(item.here->place.name.view());
    writer.putUnless(Content::none, item.here->content);
  } else {
    writer.putNothing(3);
  }
  const std::string_view name = item.here ? item.here->place.name.view() : std::string_view();
  putState(writer, item.there, name);
  const bool isAsThere = item.agreed && item.agreed == item.there;
  writer.putUnless(false, isAsThere);
  putState(writer, isAsThere ? Shared<There>() : item.agreed, name);
  bytes = {encoded(item.after), {}};
  writer.putUnlessEmpty(bytes.after);
  putAttributes(writer, item.attributes, bytes);
}

std::optional<KeptItem> treeItemFromRow(const Statement& row) {
  RowReader reader(row);
  KeptItem item;
  item.number = reader.named<ItemNumber>();
  const bool isRoot = item.number == ItemNumber::root;
  item.kind = static_cast<Kind>(reader.number(0, static_cast<std::int64_t>(Kind::folder)));
  std::string_view name;
  if (reader.isNothing()) {
    reader.skip(3);
  } else {
    Here here;
    here.place = readPlace(reader, {}, isRoot);
    here.content = reader.namedOr(Content::none);
    item.here = std::move(here);
    name = item.here->place.name.view();
  }
  item.there = readState(reader, name, isRoot);
  const bool isAsThere = reader.flagOr(false);
  item.agreed = readState(reader, name, isRoot);
  if (isAsThere) item.agreed = item.there;
  if (auto after = decoded(reader.bytesOr({}))) {
    item.after = *std::move(after);
  } else {
    reader.refuse();
  }
  item.attributes = readAttributes(reader);
  if (item.number == ItemNumber::none || (item.kind == Kind::folder && hasContent(item))) {
    return std::nullopt;
  }
  return reader.isSensible() ? std::optional(std::move(item)) : std::nullopt;
}

}  // namespace kestrowan::replica::store
