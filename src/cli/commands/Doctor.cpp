#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "bridge/CertificatePEM.h"
#include "bridge/FPBridge.h"
#include "cli/Console.h"
#include "cli/Explain.h"
#include "cli/JSONForms.h"
#include "cli/Requests.h"
#include "cli/commands/Commands.h"
#include "cli/commands/Finding.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/NSFileManager.h"

namespace kestrowan::cli {

namespace {

std::string_view word(Verdict verdict) {
  switch (verdict) {
    case Verdict::good:
      return "ok";
    case Verdict::warning:
      return "warning";
    case Verdict::bad:
      return "problem";
  }
  return "";
}

Finding checkContainer(const NSURL& container) {
  const std::string shown = escapedForDisplay(container.path());
  struct stat status {};
  if (::stat(container.path().c_str(), &status) != 0) {
    return {"container", Verdict::bad, shown + ": " + std::generic_category().message(errno)};
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 || status.st_uid != ::getuid()) {
    return {"container", Verdict::warning,
            shown +
                ": others may write here, and could replace the bridge file; run chmod go-w, "
                "and check who owns it"};
  }
  return {"container", Verdict::good, shown};
}

Finding checkBridgeFile(const NSURL& file) {
  const std::string shown = escapedForDisplay(file.path());
  struct stat status {};
  if (::stat(file.path().c_str(), &status) == 0 && (status.st_mode & (S_IRGRP | S_IROTH)) != 0) {
    return {"bridge file", Verdict::warning,
            shown + ": others may read the password in it; run chmod 600"};
  }
  return {"bridge file", Verdict::good, shown};
}

Finding checkPort(const FPBridge::Config& config) {
  const std::string port = std::to_string(config.port);
  if (config.port < 1 || config.port > 65535) {
    return {"port", Verdict::bad, port + " is not a port; restart the host application"};
  }
  return {"port", Verdict::good, port};
}

Finding checkCertificate(const FPBridge::Config& config) {
  const auto der = FPBridge::derFromPEM(config.certPEM);
  if (!der || der->empty()) {
    return {"certificate", Verdict::bad,
            "the PEM text is no single certificate in plain base64 (blanks are not allowed), so "
            "every connection is refused; restart the host application"};
  }
  return {"certificate", Verdict::good, std::to_string(der->size()) + " bytes to compare with"};
}

Finding checkTemporaryDirectory() {
  const std::string path = NSFileManager::defaultManager()->temporaryDirectory().path();
  if (::access(path.c_str(), W_OK | X_OK) != 0) {
    return {"temporary directory", Verdict::bad,
            escapedForDisplay(path) + ": " + std::generic_category().message(errno) +
                "; set TMPDIR to a directory that can be written"};
  }
  return {"temporary directory", Verdict::good, escapedForDisplay(path)};
}

Finding checkServer(const GlobalOptions& options) {
  CommandContext context(options);
  const NSFileProviderItemIdentifier root(NSFileProviderRootContainerItemIdentifier);
  try {
    const auto items = listFolder(context.extension(), root).get();
    return {"server", Verdict::good,
            "answers, with " + std::to_string(items.size()) + " items in the root"};
  } catch (const NSError& error) {
    return {"server", Verdict::bad, explain("/", error).text};
  }
}

/// The configuration, or nothing when it cannot be loaded just now.
std::optional<FPBridge::Config> loadedConfig() {
  try {
    return FPBridge::loadConfig();
  } catch (const NSError&) {
    return std::nullopt;
  }
}

std::vector<Finding> findings(const GlobalOptions& options, bool& configured) {
  std::vector<Finding> found;
  const auto container = FPBridge::groupURL();
  const auto config = loadedConfig();
  configured = config.has_value();
  if (container) found.push_back(checkContainer(*container));
  if (container && config) {
    found.push_back(checkBridgeFile(container->appendingPathComponent(FPBridge::kConfigFileName)));
    found.push_back(checkPort(*config));
    found.push_back(checkCertificate(*config));
    found.push_back(checkServer(options));
  } else {
    found.push_back({"bridge file", Verdict::bad,
                     bridgeProblem().value_or("it has just changed; run this again")});
  }
  found.push_back(checkTemporaryDirectory());
  for (auto& finding : mountFindings()) found.push_back(std::move(finding));
  return found;
}

}  // namespace

ExitCode doctor(const GlobalOptions& options) {
  bool configured = false;
  const auto found = findings(options, configured);
  auto& out = Output::standard();
  bool healthy = true;
  JSONValue::Array forms;
  for (const auto& finding : found) {
    healthy = healthy && finding.verdict != Verdict::bad;
    if (options.json) {
      forms.push_back(JSONValue::Object{{"subject", finding.subject},
                                        {"verdict", word(finding.verdict)},
                                        {"text", finding.text}});
    } else {
      out.write(std::string(word(finding.verdict)) + ": " + finding.subject + ": " + finding.text +
                "\n");
    }
  }
  if (options.json) {
    out.write(JSONValue(JSONValue::Object{{"healthy", healthy}, {"findings", std::move(forms)}})
                  .serialized() +
              "\n");
  }
  if (!configured) return ExitCode::notConfigured;
  return healthy ? ExitCode::done : ExitCode::requestFailed;
}

}  // namespace kestrowan::cli
