#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace kestrowan {

/// The deepest nesting of arrays and objects that is read.
inline constexpr int kDeepestJSON = 512;

/// What every reader of JSON events has in common: the limit of the nesting, and that an error
/// ends the reading. A function that returns false ends it too.
struct NlohmannSax : nlohmann::json_sax<nlohmann::json> {
  bool binary(binary_t&) override { return false; }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
    return false;
  }

 protected:
  bool enter() { return ++depth_ <= kDeepestJSON; }
  void leave() { --depth_; }
  int depth() const { return depth_; }

 private:
  int depth_ = 0;
};

/// Reads one JSON value in UTF-8; whether it was well-formed and `reader` wanted all of it.
inline bool readJSON(std::string_view text, NlohmannSax& reader) {
  // A zero byte is nowhere allowed, but the library takes it for the end of the text.
  if (text.find('\0') != std::string_view::npos) return false;
  return nlohmann::json::sax_parse(text.begin(), text.end(), &reader);
}

}  // namespace kestrowan
