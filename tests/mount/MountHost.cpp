#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

#include "mount/Host.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::test {
namespace {

JSONValue::Object failure(const std::string& domain, std::int64_t code, const std::string& text) {
  return {{"error", JSONValue::Object{{"domain", domain}, {"code", code}, {"text", text}}}};
}

JSONValue::Object answer(Host& host, const std::string& line) {
  try {
    const auto command = JSONValue::parse(line);
    if (!command) throw std::invalid_argument("the line is no JSON");
    return host.perform(*command);
  } catch (const NSError& error) {
    return failure(error.domain(), error.code(), error.localizedDescription());
  } catch (const std::exception& problem) {
    return failure("mount_host", 0, problem.what());
  }
}

HostOptions optionsFrom(const char* argument) {
  const auto json = JSONValue::parse(argument);
  if (!json) throw std::invalid_argument("the argument is no JSON");
  return HostOptions(*json);
}

/// Mounts a provider in memory as the one argument says, a JSON object, and does what the lines of
/// standard input say, a JSON object each, until their end. Answers each with a line on standard
/// output.
int run(int count, char** arguments) {
  constexpr int kWrongUsage = 2;
  if (count != 2) {
    std::cerr << "usage: mount_host OPTIONS\n";
    return kWrongUsage;
  }
  try {
    Host host(optionsFrom(arguments[1]));
    for (std::string line; std::getline(std::cin, line);) {
      std::cout << JSONValue(answer(host, line)).serialized() << "\n" << std::flush;
    }
  } catch (const std::invalid_argument& problem) {
    std::cerr << "mount_host: " << problem.what() << "\n";
    return kWrongUsage;
  }
  return 0;
}

}  // namespace
}  // namespace kestrowan::test

int main(int count, char** arguments) {
  return kestrowan::test::run(count, arguments);
}
