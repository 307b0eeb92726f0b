#pragma once

#include "platform/foundation/Logger.h"

namespace kestrowan::macos {

/// The unified log. Usable from every thread.
///
/// That log keeps a message's format apart from its arguments and takes only literal formats, so
/// there is one literal for each of the module's messages; a message with any other format is
/// logged as one rendered argument. All arguments are public.
class OsLogSink : public LogSink {
 public:
  void error(std::string_view subsystem, std::string_view category, std::string_view format,
             std::span<const std::string_view> arguments) override;
};

}  // namespace kestrowan::macos
