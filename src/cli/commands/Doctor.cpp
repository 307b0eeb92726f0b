#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "bridge/CertificatePEM.h"
#include "bridge/FPBridge.h"
#include "cli/Bridge.h"
#include "cli/Console.h"
#include "cli/Explain.h"
#include "cli/JSONForms.h"
#include "cli/Requests.h"
#include "cli/commands/Commands.h"
#include "cli/commands/Finding.h"
#include "host/BridgeAccess.h"
#include "host/ListingRules.h"
#include "mount/PathTrust.h"
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

/// The container, and the bridge file in one that is not refused.
void checkBridge(std::vector<Finding>& found, bool configured) {
  const auto container = bridgeContainer();
  if (container) {
    const auto refusal = folderFault(*container);
    found.push_back({"container", refusal ? Verdict::bad : Verdict::good,
                     refusal.value_or(escapedForDisplay(*container))});
    if (refusal) return;
  }
  if (!container || !configured) {
    found.push_back({"bridge file", Verdict::bad,
                     bridgeProblem().value_or("it has just changed; run this again")});
    return;
  }
  const auto warning = host::bridgeWarning(container);
  const auto file = *container + "/" + std::string(FPBridge::kConfigFileName);
  found.push_back({"bridge file", warning ? Verdict::warning : Verdict::good,
                   warning.value_or(escapedForDisplay(file))});
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
  using Clock = std::chrono::steady_clock;
  CommandContext context(options);
  const NSFileProviderItemIdentifier root(NSFileProviderRootContainerItemIdentifier);
  const auto begun = Clock::now();
  try {
    const auto items = context.patience().await(listFolder(context.extension(), root));
    const auto age = std::chrono::ceil<std::chrono::milliseconds>(Clock::now() - begun);
    if (!host::cameWhole(root, age)) {
      return {"server", Verdict::warning,
              "answers, but its list of the root is cut short or is no proper XML: " +
                  std::to_string(items.size()) +
                  " items could be read; the server's own log may tell more"};
    }
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
  const auto config = loadedConfig();
  configured = config.has_value();
  checkBridge(found, configured);
  if (config) {
    found.push_back(checkPort(*config));
    found.push_back(checkCertificate(*config));
    found.push_back(checkServer(options));
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
