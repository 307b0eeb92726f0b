#include "EarlierStore.h"

#include <utility>

#include "replica/store/AttributeList.h"
#include "replica/store/ItemRow.h"
#include "replica/store/RowWriter.h"
#include "replica/store/Schema.h"

namespace kestrowan::replica::store {

namespace {

constexpr const char* kSave =
    "INSERT OR REPLACE INTO items VALUES(?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11,?12,?13,?14,?15,?16,"
    "?17,?18,?19,?20,?21,?22,?23,?24,?25,?26,?27,?28,?29,?30,?31,?32,?33,?34,?35,?36,?37,?38)";
constexpr const char* kKeep = "INSERT OR REPLACE INTO history VALUES(?1,?2,?3,?4,?5,?6,?7,?8,?9)";
constexpr int kBaseColumns = 8;
constexpr int kFailureColumns = 7;
constexpr int kSentColumns = 5;

void put(RowWriter& writer, Number number) {
  writer.put(static_cast<std::int64_t>(number));
}

void put(RowWriter& writer, bool flag) {
  writer.put(std::int64_t{flag});
}

/// Of an optional of any kind.
template <class Optional>
void putIfAny(RowWriter& writer, const Optional& value) {
  if (!value) return writer.putNothing();
  writer.put(std::int64_t{*value});
}

void put(RowWriter& writer, const std::optional<Base>& base) {
  if (!base) return writer.putNothing(kBaseColumns);
  writer.put(base->identifier);
  put(writer, base->parent);
  writer.put(base->name);
  writer.put(base->version);
  put(writer, base->versionKnown);
  writer.put(base->size);
  putIfAny(writer, base->date);
  put(writer, Number{base->capabilities});
}

void put(RowWriter& writer, const Boxed<SyncFailure>& failure) {
  if (!failure) return writer.putNothing(kFailureColumns);
  writer.put(failure->failureClass);
  writer.put(failure->domain);
  writer.put(failure->code);
  writer.put(failure->text);
  writer.put(failure->since);
  writer.put(failure->next);
  writer.put(std::int64_t{failure->tries});
}

void put(RowWriter& writer, const Boxed<SentRecord>& sent) {
  if (!sent) return writer.putNothing(kSentColumns);
  put(writer, sent->content);
  writer.put(sent->size);
  writer.put(sent->at);
  put(writer, sent->parent);
  writer.put(sent->name);
}

}  // namespace

EarlierStore::EarlierStore(const std::string& directory)
    : database_(openReplicaDatabase(directory + "/replica.db")), save_(*database_, kSave) {}

void EarlierStore::save(const ItemRecord& record) {
  RowWriter writer(save_);
  put(writer, record.rid);
  put(writer, record.parent);
  writer.put(record.name);
  writer.put(record.kind);
  put(writer, record.content);
  put(writer, record.contentsChanged);
  writer.put(record.size);
  writer.put(record.modified);
  putIfAny(writer, record.mode);
  std::string attributes;
  if (record.attributes) {
    attributes = encodedAttributes(*record.attributes);
    writer.put(attributes);
  } else {
    writer.putNothing();
  }
  put(writer, record.removed);
  put(writer, record.localOnly);
  put(writer, record.pinned);
  writer.put(record.lastUse);
  writer.put(record.listedAt);
  put(writer, record.base);
  put(writer, record.failure);
  put(writer, record.sent);
  put(writer, record.after);
  writer.put(record.changed);
  putIfAny(writer, record.accessed);
  save_.run();
}

void EarlierStore::keep(const HistoryEntry& entry) {
  Statement keep(*database_, kKeep);
  RowWriter writer(keep);
  put(writer, Number{entry.content});
  put(writer, Number{entry.item});
  writer.put(entry.path);
  writer.put(entry.version);
  writer.put(entry.size);
  writer.put(entry.modified);
  writer.put(std::int64_t{static_cast<std::uint8_t>(entry.reason)});
  writer.put(entry.at);
  writer.put(std::int64_t{static_cast<std::uint8_t>(entry.confirmed)});
  keep.run();
}

void EarlierStore::setNext(Number next) {
  Statement update(*database_, "UPDATE numbers SET next=?1");
  update.bind(1, static_cast<std::int64_t>(next));
  update.run();
}

std::map<Rid, ItemRecord> EarlierStore::rows() {
  std::map<Rid, ItemRecord> rows;
  Statement query(*database_, kLoadItems);
  while (query.step()) {
    if (auto record = itemFromRow(query)) rows[record->rid] = *std::move(record);
  }
  return rows;
}

}  // namespace kestrowan::replica::store
