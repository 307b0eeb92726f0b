#pragma once

#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kestrowan::cli {

/// Standard output or a local file cannot be written: its reader is gone, its disk is full, or the
/// user may not.
class OutputUnwritable : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The program that read standard output has ended, of which no message is shown.
class ReaderGone : public OutputUnwritable {
 public:
  using OutputUnwritable::OutputUnwritable;
};

/// Throws `OutputUnwritable` for the local `file`, which the system refused with that `errno`;
/// `ReaderGone` of a pipe.
[[noreturn]] void throwUnwritable(const std::string& file, int number);

/// Standard output: gathered and written in large pieces. Usable from every thread.
class Output {
 public:
  static Output& standard();

  /// Throws `OutputUnwritable`.
  void write(std::string_view text);
  /// Writes what has been gathered. Throws `OutputUnwritable`.
  void flush();

  bool isTerminal() const;
  /// `name` as it is for a pipe or a file; escaped for a terminal.
  std::string forDisplay(std::string_view name) const;

 private:
  void flushLocked();

  std::mutex mutex_;
  std::string gathered_;
};

/// One line on standard error: "kestrowan: " and `message`.
void complain(std::string_view message);

/// Whether standard error is a terminal, so that progress can be shown there.
bool standardErrorIsTerminal();

}  // namespace kestrowan::cli
