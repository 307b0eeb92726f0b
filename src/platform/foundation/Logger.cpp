#include "platform/foundation/Logger.h"

#include <cstdio>
#include <mutex>
#include <utility>

#include "platform/foundation/UTF8.h"

namespace kestrowan {

namespace {

constexpr std::string_view kPlaceholder = "%{public}s";

struct SharedSink {
  std::mutex mutex;
  std::shared_ptr<LogSink> sink;
};

SharedSink& sharedSink() {
  // Never destroyed: threads may still log while the program's static objects go.
  static auto* shared = new SharedSink;
  return *shared;
}

bool isBidirectionalControl(char32_t codePoint) {
  return codePoint == 0x061C || codePoint == 0x200E || codePoint == 0x200F ||
         (codePoint >= 0x202A && codePoint <= 0x202E) ||
         (codePoint >= 0x2066 && codePoint <= 0x2069);
}

bool isControl(char32_t codePoint) {
  return codePoint < 0x20 || (codePoint >= 0x7F && codePoint <= 0x9F);
}

void appendEscape(std::string& text, const char* format, unsigned value) {
  char escape[12];
  std::snprintf(escape, sizeof escape, format, value);
  text += escape;
}

void appendEscapedCharacter(std::string& text, char32_t codePoint) {
  switch (codePoint) {
    case '\n':
      text += "\\n";
      return;
    case '\r':
      text += "\\r";
      return;
    case '\t':
      text += "\\t";
      return;
    default:
      appendEscape(text, "\\u%04X", static_cast<unsigned>(codePoint));
  }
}

}  // namespace

void LogSink::setShared(std::shared_ptr<LogSink> sink) {
  auto& shared = sharedSink();
  std::lock_guard lock(shared.mutex);
  shared.sink.swap(sink);
}

std::shared_ptr<LogSink> LogSink::shared() {
  auto& shared = sharedSink();
  std::lock_guard lock(shared.mutex);
  if (!shared.sink) shared.sink = makePlatformSink();
  return shared.sink;
}

void Logger::error(std::string_view format,
                   std::initializer_list<std::string_view> arguments) const {
  LogSink::shared()->error(subsystem_, category_, format, {arguments.begin(), arguments.size()});
}

std::string renderedMessage(std::string_view format, std::span<const std::string_view> arguments) {
  std::string message;
  for (const auto argument : arguments) {
    const auto position = format.find(kPlaceholder);
    if (position == std::string_view::npos) break;
    message += format.substr(0, position);
    message += escapedForDisplay(argument);
    format.remove_prefix(position + kPlaceholder.size());
  }
  return message.append(format);
}

std::string escapedForDisplay(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size());
  while (!text.empty()) {
    const auto length = utf8SequenceLength(text);
    if (length == 0) {
      appendEscape(escaped, "\\x%02X", static_cast<unsigned char>(text.front()));
      text.remove_prefix(1);
      continue;
    }
    const auto sequence = text.substr(0, length);
    const auto codePoint = utf8CodePoint(sequence);
    if (isControl(codePoint) || isBidirectionalControl(codePoint)) {
      appendEscapedCharacter(escaped, codePoint);
    } else {
      escaped += sequence;
    }
    text.remove_prefix(length);
  }
  return escaped;
}

}  // namespace kestrowan
