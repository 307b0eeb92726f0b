#include "replica/store/ItemRow.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "replica/remote/ValidName.h"
#include "replica/store/AttributeList.h"

namespace kestrowan::replica {

const char* const kLoadItems =
    "SELECT rid,parent,name,kind,content,content_changed,size,modified,mode,attributes,removed,"
    "local_only,pinned,last_use,listed_at,base_identifier,base_parent,base_name,base_version,"
    "base_version_known,base_size,base_date,base_capabilities,failure_class,failure_domain,"
    "failure_code,failure_text,failure_since,failure_next,failure_tries,sent_content,sent_size,"
    "sent_at,sent_parent,sent_name,send_after,changed,accessed FROM items";

namespace {

// Where each group of columns begins, counted from 0.
constexpr int kBaseColumns = 15;
constexpr int kFailureColumns = 23;
constexpr int kSentColumns = 30;
constexpr int kOrderColumn = 35;
constexpr int kTimeColumns = 36;

/// Reads values out of a row, one column after the other. A value of the wrong kind or out of its
/// range makes the row one without sense.
class Reader {
 public:
  Reader(const Statement& row, int column) : row_(row), next_(column) {}

  std::int64_t number(std::int64_t least = std::numeric_limits<std::int64_t>::min(),
                      std::int64_t greatest = std::numeric_limits<std::int64_t>::max()) {
    const auto value = row_.number(next_++);
    if (value && *value >= least && *value <= greatest) return *value;
    isSensible_ = false;
    return 0;
  }
  std::uint64_t natural() { return static_cast<std::uint64_t>(number(0)); }
  bool flag() { return number(0, 1) == 1; }
  /// Bytes: one that is too large is as large as can be.
  std::int64_t size() { return std::min(number(0), kLargestSize); }
  /// Seconds since 1970-01-01 UTC.
  std::int64_t date() { return number(kFirstDate, kLastDate); }
  std::string bytes() {
    const auto value = row_.bytes(next_++);
    if (value) return std::string(*value);
    isSensible_ = false;
    return {};
  }
  bool isNothing() const { return row_.isNothing(next_); }
  void skip() { ++next_; }
  std::optional<std::int64_t> optionalNumber(std::int64_t least, std::int64_t greatest) {
    if (!isNothing()) return number(least, greatest);
    skip();
    return std::nullopt;
  }

  bool isSensible() const { return isSensible_; }

 private:
  const Statement& row_;
  int next_;
  bool isSensible_ = true;
};

/// False when the row makes no sense; so with the next two.
bool readBase(const Statement& row, std::optional<Base>& result) {
  Reader reader(row, kBaseColumns);
  if (reader.isNothing()) return true;
  auto& base = result.emplace();
  base.identifier = reader.bytes();
  base.parent = reader.natural();
  base.name = reader.bytes();
  base.version = reader.bytes();
  base.versionKnown = reader.flag();
  base.size = reader.size();
  base.date = reader.optionalNumber(kFirstDate, kLastDate);
  // All 64 bits may be used.
  base.capabilities = static_cast<NSFileProviderItemCapabilities>(reader.number());
  return reader.isSensible();
}

bool readFailure(const Statement& row, Boxed<SyncFailure>& result) {
  Reader reader(row, kFailureColumns);
  if (reader.isNothing()) return true;
  SyncFailure failure;
  failure.failureClass =
      static_cast<FailureClass>(reader.number(0, static_cast<std::int64_t>(FailureClass::held)));
  failure.domain = reader.bytes();
  failure.code = reader.number();
  failure.text = reader.bytes();
  failure.since = reader.date();
  failure.next = reader.date();
  failure.tries =
      static_cast<std::uint32_t>(reader.number(0, std::numeric_limits<std::uint32_t>::max()));
  result = std::move(failure);
  return reader.isSensible();
}

bool readSent(const Statement& row, Boxed<SentRecord>& result) {
  Reader reader(row, kSentColumns);
  if (reader.isNothing()) return true;
  SentRecord sent;
  sent.content = reader.natural();
  sent.size = reader.size();
  sent.at = reader.date();
  sent.parent = reader.natural();
  sent.name = reader.bytes();
  result = std::move(sent);
  return reader.isSensible();
}

/// Rows of earlier versions have no such times.
bool readTimes(const Statement& row, ItemRecord& record) {
  using Limits = std::numeric_limits<std::int64_t>;
  Reader reader(row, kTimeColumns);
  record.changed = reader.optionalNumber(Limits::min(), Limits::max()).value_or(record.modified);
  if (const auto accessed = reader.optionalNumber(Limits::min(), Limits::max())) {
    record.accessed = *accessed;
  }
  return reader.isSensible();
}

}  // namespace

std::optional<ItemRecord> itemFromRow(const Statement& row) {
  std::optional<ItemRecord> result(std::in_place);
  auto& record = *result;
  Reader reader(row, 0);
  record.rid = reader.natural();
  record.parent = reader.natural();
  record.name = reader.bytes();
  record.kind =
      static_cast<ItemKind>(reader.number(0, static_cast<std::int64_t>(ItemKind::folder)));
  record.content = reader.natural();
  record.contentsChanged = reader.flag();
  record.size = reader.number(0);
  record.modified = reader.number();
  if (const auto mode = reader.optionalNumber(0, kModeBits)) {
    record.mode = static_cast<std::uint16_t>(*mode);
  }
  bool attributesAreSensible = true;
  if (reader.isNothing()) {
    reader.skip();
  } else if (auto attributes = decodedAttributes(reader.bytes())) {
    record.attributes = *std::move(attributes);
  } else {
    attributesAreSensible = false;
  }
  record.removed = reader.flag();
  record.localOnly = reader.flag();
  record.pinned = reader.flag();
  record.lastUse = reader.date();
  record.listedAt = reader.number(0, kLastDate * 1000);
  record.after = Reader(row, kOrderColumn).natural();
  const bool hasName = record.rid == kRootRid || remote::isValidName(record.name);
  if (record.rid == 0 || !hasName || !reader.isSensible() || !attributesAreSensible ||
      !readBase(row, record.base) || !readFailure(row, record.failure) ||
      !readSent(row, record.sent) || !readTimes(row, record)) {
    return std::nullopt;
  }
  return result;
}

}  // namespace kestrowan::replica
