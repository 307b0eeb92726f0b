#include "cli/ParseProblem.h"

#include <cctype>
#include <optional>

#include "platform/foundation/Logger.h"

namespace kestrowan::cli {

std::string problemText(const CLI::App& app, const CLI::ParseError& problem) {
  std::string text = problem.what();
  std::string help = "kestrowan ";
  const auto chosen = app.get_subcommands();
  const auto left = app.remaining();
  if (!chosen.empty()) {
    text = chosen.front()->get_name() + ": " + text;
    help += chosen.front()->get_name() + " ";
  } else if (problem.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError)) {
    text = left.empty()                    ? "a command is missing"
           : left.front().starts_with('-') ? left.front() + ": there is no such option"
                                           : left.front() + ": there is no such command";
  }
  return escapedForDisplay(text) + "\n  see \"" + help + "--help\"";
}

namespace {

/// `text` in bytes; nothing for what is no size, or none above 0.
std::optional<std::string> bytesOf(std::string text) {
  if (text.empty() || std::isdigit(static_cast<unsigned char>(text.front())) == 0) {
    return std::nullopt;
  }
  try {
    if (!CLI::AsSizeValue(false)(text).empty()) return std::nullopt;
  } catch (const CLI::ValidationError&) {
    return std::nullopt;
  }
  return text.find_first_not_of('0') == std::string::npos ? std::nullopt : std::optional(text);
}

}  // namespace

CLI::Validator sizeAboveZero() {
  const auto take = [](std::string& text) {
    if (const auto bytes = bytesOf(text)) {
      text = *bytes;
      return std::string();
    }
    return "\"" + text + "\" is no size above 0, such as 500M or 20G";
  };
  return {take, ""};
}

CLI::Validator sizeOrOff() {
  const auto take = [](std::string& text) {
    if (text == "off") {
      text = "0";
      return std::string();
    }
    if (const auto bytes = bytesOf(text)) {
      text = *bytes;
      return std::string();
    }
    return "\"" + text + "\" is neither off nor a size above 0, such as 500K or 4M";
  };
  return {take, ""};
}

}  // namespace kestrowan::cli
