#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace kestrowan {

/// Receives the events of one parse, in document order, on the thread that feeds the parser. The
/// views are valid only during the call. CDATA sections, comments and processing instructions give
/// no events.
class NSXMLParserDelegate {
 public:
  virtual ~NSXMLParserDelegate() = default;

  /// What the delegate keeps of an element beyond its end; limits what is kept of a body.
  enum class Keeps : std::uint8_t {
    nothing,
    text,    // the characters since the last start tag
    record,  // what was kept of the elements in it, as one of many
  };

  virtual void didStartElement(std::string_view elementName) = 0;
  /// A piece of character data; pieces may be split anywhere between two characters.
  virtual void foundCharacters(std::string_view characters) = 0;
  virtual void didEndElement(std::string_view elementName) = 0;
  /// Only asks. The answer for a name is always the same.
  virtual Keeps keeps(std::string_view elementName) const {
    static_cast<void>(elementName);
    return Keeps::nothing;
  }
};

/// An event-driven XML parser with namespace processing: names arrive as local names, and an
/// undeclared prefix does not end the parse. It stops at the first well-formedness error: the
/// events before it have been delivered, none comes after. Nothing outside the body is ever
/// loaded; references to entities that the body declares yield no characters.
///
/// What a body can make the program keep is bounded, and the body is not. At most `kLongestText`
/// bytes of characters are delivered between two start tags. A record that needs more is left out:
/// the rest of it gives no events, its end included. A body with more records or more text in them
/// than the limits allow makes `append` throw. Tags, comments and declarations have limits as well,
/// and so has the depth; what exceeds them ends the parse like an error.
///
/// Used by one thread at a time. `delegate` must outlive the parser. When it is fed as the receiver
/// of a transfer, the parser notes beside that transfer whether the body was whole.
class NSXMLParser {
 public:
  /// Bytes.
  static constexpr std::size_t kLongestText = std::size_t{64} << 10;
  static constexpr std::size_t kMostRecords = 2'000'000;
  /// Bytes of all texts that are kept of a body.
  static constexpr std::size_t kMostText = std::size_t{1} << 30;

  explicit NSXMLParser(NSXMLParserDelegate& delegate);
  NSXMLParser(const NSXMLParser&) = delete;
  NSXMLParser& operator=(const NSXMLParser&) = delete;
  ~NSXMLParser();

  /// Parses the next piece of the body; false when the body is not well-formed up to here, after
  /// which further pieces are ignored. Throws `NSURLErrorDataLengthExceedsMaximum` when more would
  /// have to be kept than the limits allow, and what the delegate throws.
  bool append(std::string_view bytes);
  /// Ends the body; whether the whole of it was well-formed and nothing was left out.
  bool finish();

 private:
  struct Engine;
  std::unique_ptr<Engine> engine_;
};

}  // namespace kestrowan
