#pragma once

#include <string>
#include <string_view>

namespace kestrowan {

/// A URL: an absolute text for a remote resource, or a file URL, which keeps its path as it is.
/// Immutable value.
class NSURL {
 public:
  /// The URL that `text` spells; the text is taken as it stands and checked where it is used.
  static NSURL URLWithString(std::string_view text) { return NSURL(std::string(text), false); }
  /// The file URL of an absolute local path.
  static NSURL fileURLWithPath(std::string_view path) { return NSURL(std::string(path), true); }

  bool isFileURL() const { return isFile_; }
  /// The local path; only for a file URL.
  const std::string& path() const { return text_; }
  /// The whole URL as text; "file://" and the percent-encoded path for a file URL.
  std::string absoluteString() const;
  /// This URL with "/" and one more path component behind it; only for a file URL.
  NSURL appendingPathComponent(std::string_view component) const;

  friend bool operator==(const NSURL&, const NSURL&) = default;

 private:
  NSURL(std::string text, bool isFile) : text_(std::move(text)), isFile_(isFile) {}

  std::string text_;  // a file URL's path, another URL's whole text
  bool isFile_;
};

}  // namespace kestrowan
