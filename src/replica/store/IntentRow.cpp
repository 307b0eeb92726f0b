#include "replica/store/IntentRow.h"

#include <utility>

#include "replica/Records.h"
#include "replica/remote/ValidName.h"
#include "replica/store/RowReader.h"
#include "replica/store/RowWriter.h"

namespace kestrowan::replica::store {

using model::Content;
using model::Intent;
using model::IntentNumber;
using model::ItemNumber;
using model::Path;
using model::Time;
using model::Verb;

const char* const kMakeIntents =
    "CREATE TABLE intents("
    " number INTEGER PRIMARY KEY, verb INTEGER NOT NULL, item INTEGER NOT NULL,"
    " source BLOB, target BLOB, content INTEGER,"
    " ended INTEGER, until INTEGER NOT NULL, looked INTEGER, over INTEGER"
    ") STRICT;";
const char* const kSaveIntent =
    "INSERT OR REPLACE INTO intents VALUES(?1,?2,?3,?4,?5,?6,?7,?8,?9,?10)";
const char* const kLoadIntents = "SELECT * FROM intents ORDER BY number";

namespace {

// Milliseconds.
constexpr std::int64_t kFirstTime = kFirstDate * 1000;
constexpr std::int64_t kLastTime = kLastDate * 1000;

void putPath(RowWriter& writer, const std::optional<Path>& path) {
  if (!path) return writer.putNothing();
  writer.put(std::string_view(path->text()));
}

/// Of an item other than the root.
std::optional<Path> readPath(RowReader& reader) {
  if (reader.isNothing()) {
    reader.skip();
    return std::nullopt;
  }
  auto path = Path::fromText(reader.bytes());
  if (!path || path->isRoot()) {
    reader.refuse();
    return std::nullopt;
  }
  for (Path up = *path; !up.isRoot(); up = up.folder()) {
    if (!remote::isValidName(up.name())) reader.refuse();
  }
  return path;
}

/// It has the paths that its verb needs, and no others.
bool isWhole(const Intent& intent) {
  const bool needsSource = intent.verb == Verb::move || intent.verb == Verb::remove;
  const bool needsTarget = intent.verb != Verb::remove;
  return intent.source.has_value() == needsSource && intent.target.has_value() == needsTarget;
}

}  // namespace

void bindIntent(Statement& save, const Intent& intent) {
  RowWriter writer(save);
  writer.put(intent.number);
  writer.put(intent.verb);
  writer.put(intent.item);
  putPath(writer, intent.source);
  putPath(writer, intent.target);
  writer.putUnless(Content::none, intent.content);
  writer.putTime(model::OptionalTime<Time>(intent.ended));
  writer.put(std::int64_t{intent.until.time_since_epoch().count()});
  writer.putUnless(false, intent.looked);
  writer.putUnless(false, intent.over);
}

std::optional<Intent> intentFromRow(const Statement& row) {
  RowReader reader(row);
  Intent intent;
  intent.number = reader.named<IntentNumber>();
  intent.verb = static_cast<Verb>(reader.number(0, static_cast<std::int64_t>(Verb::remove)));
  intent.item = reader.named<ItemNumber>();
  intent.source = readPath(reader);
  intent.target = readPath(reader);
  intent.content = reader.namedOr(Content::none);
  intent.ended = reader.optionalTime<Time>(kFirstTime, kLastTime);
  intent.until = reader.time<Time>(kFirstTime, kLastTime);
  intent.looked = reader.flagOr(false);
  intent.over = reader.flagOr(false);
  if (!reader.isSensible() || !isWhole(intent)) return std::nullopt;
  return intent;
}

}  // namespace kestrowan::replica::store
