#pragma once

#include <cstdint>
#include <string>

namespace kestrowan::replica {

/// What a program is, as far as fetching for it goes.
enum class ProgramKind : std::uint8_t {
  ordinary,
  background,   // it walks through all that there is, and nothing is fetched for it
  thumbnailer,  // the same, but for small files: it remembers for ever what it could not read
};

/// The program that makes a call. Asked only where something would be fetched for it alone. Usable
/// from every thread while the call lasts.
class Caller {
 public:
  Caller() = default;
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;
  virtual ~Caller() = default;

  virtual ProgramKind kind() const = 0;
  /// For a person.
  virtual std::string name() const = 0;
};

}  // namespace kestrowan::replica
