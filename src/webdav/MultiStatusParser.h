#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSDate.h"
#include "platform/foundation/NSDateFormatter.h"
#include "platform/foundation/NSXMLParser.h"
#include "webdav/WebDAVEntry.h"

namespace kestrowan {

/// Turns the events of one multistatus body into entries, one for each response with an href.
///
/// Tolerant: it never fails, ignores what it does not know (namespaces, statuses) and keeps what it
/// could read. Made for one body, used by one thread at a time.
class MultiStatusParser : public NSXMLParserDelegate {
 public:
  /// The entries read so far, in document order.
  const std::vector<WebDAVEntry>& entries() const { return entries_; }
  std::vector<WebDAVEntry> takeEntries() { return std::move(entries_); }

  void didStartElement(std::string_view elementName) override;
  void foundCharacters(std::string_view characters) override;
  void didEndElement(std::string_view elementName) override;
  Keeps keeps(std::string_view elementName) const override;

  /// Reads dates as HTTP writes them; one for the process, made on first use.
  static const NSDateFormatter& httpDate();

 private:
  void beginResponse();
  void endResponse();

  std::vector<WebDAVEntry> entries_;
  std::string curHref_;
  bool curIsDir_ = false;
  std::int64_t curLen_ = 0;
  std::string curEtag_;
  std::optional<NSDate> curModified_;
  std::string text_;  // since the most recent start tag
  bool inResponse_ = false;
};

}  // namespace kestrowan
