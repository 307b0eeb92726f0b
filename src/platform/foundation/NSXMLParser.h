#pragma once

#include <memory>
#include <string_view>

namespace kestrowan {

/// Receives the events of one parse, in document order, on the thread that feeds the parser. The
/// views are valid only during the call. CDATA sections, comments and processing instructions give
/// no events.
class NSXMLParserDelegate {
 public:
  virtual ~NSXMLParserDelegate() = default;

  virtual void didStartElement(std::string_view elementName) = 0;
  /// A piece of character data; pieces may be split anywhere between two characters.
  virtual void foundCharacters(std::string_view characters) = 0;
  virtual void didEndElement(std::string_view elementName) = 0;
};

/// An event-driven XML parser with namespace processing: names arrive as local names, and an
/// undeclared prefix does not end the parse. It stops at the first well-formedness error: the
/// events before it have been delivered, none comes after. Nothing outside the body is ever
/// loaded; references to entities that the body declares yield no characters.
///
/// Used by one thread at a time. `delegate` must outlive the parser. Never throws on bad input.
class NSXMLParser {
 public:
  explicit NSXMLParser(NSXMLParserDelegate& delegate);
  NSXMLParser(const NSXMLParser&) = delete;
  NSXMLParser& operator=(const NSXMLParser&) = delete;
  ~NSXMLParser();

  /// Parses the next piece of the body; false when the body is not well-formed up to here, after
  /// which further pieces are ignored.
  bool append(std::string_view bytes);
  /// Ends the body; whether the whole of it was well-formed.
  bool finish();

 private:
  struct Engine;
  std::unique_ptr<Engine> engine_;
};

}  // namespace kestrowan
