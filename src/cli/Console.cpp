#include "cli/Console.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "platform/foundation/Logger.h"

namespace kestrowan::cli {

namespace {

constexpr std::size_t kGatherLimit = 64 * 1024;  // bytes

}  // namespace

void throwUnwritable(const std::string& file, int number) {
  const auto text = file + ": " + std::generic_category().message(number);
  if (number == EPIPE) throw ReaderGone(text);
  throw OutputUnwritable(text);
}

Output& Output::standard() {
  static auto* output = new Output;
  return *output;
}

void Output::write(std::string_view text) {
  std::lock_guard lock(mutex_);
  gathered_ += text;
  if (gathered_.size() >= kGatherLimit) flushLocked();
}

void Output::flush() {
  std::lock_guard lock(mutex_);
  flushLocked();
}

void Output::flushLocked() {
  std::string_view rest = gathered_;
  while (!rest.empty()) {
    const ssize_t written = ::write(STDOUT_FILENO, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) {
      const int reason = errno;
      gathered_.clear();
      throwUnwritable("standard output", reason);
    }
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
  gathered_.clear();
}

bool Output::isTerminal() const {
  static const bool terminal = ::isatty(STDOUT_FILENO) == 1;
  return terminal;
}

std::string Output::forDisplay(std::string_view name) const {
  return isTerminal() ? escapedForDisplay(name) : std::string(name);
}

void complain(std::string_view message) {
  std::fprintf(stderr, "kestrowan: %.*s\n", static_cast<int>(message.size()), message.data());
}

bool standardErrorIsTerminal() {
  return ::isatty(STDERR_FILENO) == 1;
}

}  // namespace kestrowan::cli
