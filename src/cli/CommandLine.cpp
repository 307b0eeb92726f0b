#include "cli/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "cli/Bridge.h"
#include "cli/CommandLineHost.h"
#include "cli/Console.h"
#include "cli/Describe.h"
#include "cli/ExitCode.h"
#include "cli/Failure.h"
#include "cli/ParseProblem.h"
#include "cli/ServerPath.h"
#include "cli/commands/Commands.h"
#include "cli/drive/Driver.h"
#include "extension/FileProviderExtension.h"
#include "host/RequestTrace.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::cli {

namespace {

using Action = std::function<ExitCode()>;

/// Drops what the extension logs: a direct command reports failures itself.
class SilentSink : public LogSink {
 public:
  void error(std::string_view, std::string_view, std::string_view,
             std::span<const std::string_view>) override {}
};

std::string exitCodesText() {
  std::string text = "Exit codes:";
  for (const auto& [code, meaning] : kExitCodes) {
    text += "\n  " + std::to_string(static_cast<int>(code)) + "  " + meaning;
  }
  return text;
}

constexpr auto kRequestEnd = "give up after so long; otherwise each request ends after 90 seconds";
constexpr auto kTransferEnd =
    "give up after so long; otherwise a transfer goes on while it moves 60 KiB in each minute";

/// The command line's form and, once parsed, its values. One command's action is chosen by parsing.
class CommandLine {
 public:
  CommandLine() : app_("Works with the storage that the host application serves on this machine.") {
    app_.name("kestrowan");
    app_.set_version_flag("--version", KFP_VERSION);
    app_.require_subcommand(1);
    app_.fallthrough();
    app_.add_option("--container", global_.container,
                    "directory with the bridge file \"fp-webdav.json\"; otherwise "
                    "$KESTROWAN_CONTAINER, else " +
                        std::string(FPBridge::kGroupIdentifier) +
                        " in $XDG_DATA_HOME or ~/.local/share")
        ->type_name("DIR")
        ->check([](const std::string& directory) {
          return std::string(directory.empty() ? "is empty" : "");
        });
    app_.add_flag("--json", global_.json, "report in JSON, one object a line; failures too");
    app_.add_flag("--verbose", global_.verbose,
                  "show the extension's log on standard error, as drive always does");
    app_.add_option("--trace", global_.trace,
                    "write into the log, which is standard error but for a mount in the "
                    "background: http, each request with its path, status, bytes and time")
        ->type_name("WHAT")
        ->check([](const std::string& what) {
          return std::string(what == "http" ? "" : "\"" + what + "\" cannot be traced; http can");
        });
    app_.footer(exitCodesText());
    addReadingCommands();
    addWritingCommands();
    addMountCommands(app_, global_, [this](Action action) { action_ = std::move(action); });
    addOtherCommands();
  }

  int run(int argc, char** argv) {
    // Also for what is wrong with the command line itself.
    const bool json = asksForJSON({argv + 1, argv + argc});
    try {
      const ExitCode code = carryOut(argc, argv, json);
      Output::standard().flush();
      return static_cast<int>(code);
    } catch (const ReaderGone&) {
      return static_cast<int>(ExitCode::outputUnwritable);
    } catch (const OutputUnwritable& problem) {
      complain(escapedForDisplay(problem.what()));
      if (json) tryToReport(problem.what());
      return static_cast<int>(ExitCode::outputUnwritable);
    }
  }

 private:
  static bool asksForJSON(const std::vector<std::string>& arguments) {
    const auto end = std::find(arguments.begin(), arguments.end(), "--");
    return std::find(arguments.begin(), end, "--json") != end;
  }

  ExitCode carryOut(int argc, char** argv, bool json) {
    std::string wrong;
    try {
      app_.parse(argc, argv);
      if (!global_.trace.empty()) host::traceRequests();
      if (global_.container) ::setenv("KESTROWAN_CONTAINER", global_.container->c_str(), 1);
      return action_();
    } catch (const CLI::ParseError& problem) {
      std::ostringstream help;
      if (app_.exit(problem, help, help) == 0) {
        Output::standard().write(help.str());
        return ExitCode::done;
      }
      wrong = problemText(app_, problem);
    } catch (const UsageError& problem) {
      wrong = problem.what();
    }
    reportFailure(json, wrong, commandError(ExitCode::usage, wrong));
    return ExitCode::usage;
  }

  /// Of a local file that cannot be written the report can be, of standard output itself not.
  static void tryToReport(const std::string& text) {
    try {
      reportFailure(true, text, commandError(ExitCode::outputUnwritable, text));
      Output::standard().flush();
    } catch (const OutputUnwritable&) {
    }
  }

  /// A command whose action works on an extension of its own.
  CLI::App* addDirect(const std::string& name, const std::string& summary,
                      const std::string& examples, const std::string& end,
                      std::function<ExitCode(CommandContext&)> action) {
    auto* command = app_.add_subcommand(name, summary);
    command->footer("Examples:\n" + examples);
    command->add_option("--timeout", seconds_, end)
        ->check(CLI::PositiveNumber.description(""))
        ->type_name("SECONDS");
    command->callback([this, action = std::move(action)] {
      action_ = [this, action] { return direct(action); };
    });
    return command;
  }

  ExitCode direct(const std::function<ExitCode(CommandContext&)>& action) {
    if (!global_.verbose) LogSink::setShared(std::make_shared<SilentSink>());
    useBridge();
    std::optional<std::chrono::seconds> limit;
    if (seconds_) limit = std::chrono::seconds(*seconds_);
    CommandContext context(global_, limit);
    try {
      return action(context);
    } catch (const RequestFailure& failure) {
      const ExitCode code = context.fail(failure);
      Output::standard().flush();
      return code;
    }
  }

  static void addZone(CLI::App& command, Zone& zone) {
    command.add_flag_callback(
        "--utc", [&zone] { zone = Zone::utc; }, "dates in UTC, instead of this machine's time");
  }

  void addReadingCommands() {
    auto* ls =
        addDirect("ls", "list a folder", "  kestrowan ls -l /Home\n  kestrowan ls -R", kRequestEnd,
                  [this](CommandContext& context) { return list(context, listOptions_); });
    ls->set_help_flag("--help", "Print this help message and exit");
    ls->add_flag("-l", listOptions_.isLong, "with kind, capabilities, size and date");
    ls->add_flag("-R", listOptions_.recursive, "with all folders below");
    const auto sort = [&](const char* flag, ListOptions::Order order, const char* text) {
      ls->add_flag_callback(
          flag, [this, order] { listOptions_.order = order; }, text);
    };
    sort("-t", ListOptions::Order::byDate, "the latest change first, instead of by name");
    sort("-S", ListOptions::Order::bySize, "the largest file first, instead of by name");
    ls->add_flag("-r", listOptions_.isReversed, "in the reverse order");
    ls->add_flag("-h", listOptions_.form.areSizesShort, "with -l: sizes as 12.3 MiB");
    ls->add_flag_callback(
        "-1", [] {}, "one name a line, as always");
    addZone(*ls, listOptions_.form.zone);
    ls->add_option("PATH", listOptions_.path, "folder on the server; the root when left out");

    auto* stat =
        addDirect("stat", "show one item", "  kestrowan stat /Home/a.txt", kRequestEnd,
                  [this](CommandContext& context) { return cli::stat(context, path_, zone_); });
    addZone(*stat, zone_);
    stat->add_option("PATH", path_, "item on the server")->required();

    auto* get = addDirect(
        "get", "download a file",
        "  kestrowan get /Home/a.txt\n  kestrowan get /Home/a.txt - | less", kTransferEnd,
        [this](CommandContext& context) { return cli::get(context, path_, file_, follow_); });
    get->add_option("PATH", path_, "file on the server")->required();
    get->add_option("FILE", file_,
                    "local file or folder, \"-\" for standard output; the current folder when "
                    "left out. A file that is there is replaced once the download is whole, a "
                    "symbolic link too.");
    get->add_flag("--follow", follow_,
                  "replace what a symbolic link leads to; never followed in a folder that others "
                  "may write in");
  }

  void addWritingCommands() {
    auto* put =
        addDirect("put", "upload a file", "  kestrowan put a.txt /Home/", kTransferEnd,
                  [this](CommandContext& context) { return cli::put(context, source_, path_); });
    put->add_option("FILE", source_, "local file")->required();
    put->add_option("PATH", path_,
                    "file on the server, which is replaced when it is there; the file's own name "
                    "in a folder when it ends in \"/\"")
        ->required();

    auto* mkdir = addDirect(
        "mkdir", "make folders",
        "  kestrowan mkdir /Home/New\n  kestrowan mkdir -p /Home/New/2026/January", kRequestEnd,
        [this](CommandContext& context) { return makeFolders(context, makeOptions_); });
    mkdir->add_flag("-p", makeOptions_.withParents,
                    "make the folders above, too; one that is there is no failure");
    mkdir->add_option("PATH", makeOptions_.paths, "folder on the server")->required();

    auto* mv = addDirect("mv", "rename or move an item; never replaces another",
                         "  kestrowan mv /Home/a.txt /Home/b.txt\n  kestrowan mv /Home/a.txt "
                         "/Home/New/",
                         kRequestEnd, [this](CommandContext& context) {
                           return cli::move(context, source_, path_);
                         });
    mv->add_option("FROM", source_, "item on the server")->required();
    mv->add_option("TO", path_, "its new path; a folder when it ends in \"/\"")->required();

    auto* rm = addDirect(
        "rm", "remove items", "  kestrowan rm /Home/a.txt /Home/b.txt\n  kestrowan rm -r /Home/New",
        kRequestEnd,
        [this](CommandContext& context) { return cli::remove(context, removeOptions_); });
    rm->add_flag("-r", removeOptions_.recursive, "also a folder, with all that is in it");
    rm->add_flag("-f", removeOptions_.isForced, "what is not there is no failure");
    rm->add_option("PATH", removeOptions_.paths, "item on the server")->required();
  }

  void addOtherCommands() {
    auto* drive =
        app_.add_subcommand("drive", "answer requests in JSON, a line each, from standard input");
    drive->footer(
        "Example:\n  echo '{\"id\":1,\"request\":\"item\",\"identifier\":\"/Home\"}' | kestrowan "
        "drive");
    drive->callback([this] {
      action_ = [] {
        useBridge();
        return Driver(std::make_shared<FileProviderExtension>(
                          NSFileProviderDomain{"kestrowan", "Kestrowan"}))
            .run();
      };
    });
    auto* doctor = app_.add_subcommand("doctor", "check what is needed, and say what to do");
    doctor->footer("Example:\n  kestrowan doctor");
    doctor->callback([this] {
      action_ = [this] {
        if (!global_.verbose) LogSink::setShared(std::make_shared<SilentSink>());
        useBridge();
        return cli::doctor(global_);
      };
    });
    auto* help = app_.add_subcommand("help", "show how a command is used");
    help->footer("Example:\n  kestrowan help ls");
    help->add_option("COMMAND", command_, "all commands, in short, when left out");
    help->callback([this] { action_ = [this] { return showHelp(); }; });
    app_.add_subcommand("__describe")->group("")->callback([this] {
      action_ = [this] {
        Output::standard().write(description(app_, KFP_VERSION).serialized() + "\n");
        return ExitCode::done;
      };
    });
  }

  ExitCode showHelp() const {
    const CLI::App* shown = &app_;
    if (!command_.empty()) {
      const auto found = app_.get_subcommands([this](const CLI::App* each) {
        return each->get_name() == command_ && !each->get_group().empty();
      });
      if (found.empty()) {
        throw UsageError(escapedForDisplay(command_) + ": there is no such command");
      }
      shown = found.front();
    }
    const std::string name = app_.get_name() + (command_.empty() ? "" : " " + command_);
    Output::standard().write(
        app_.get_formatter()->make_help(shown, name, CLI::AppFormatMode::Normal));
    return ExitCode::done;
  }

  CLI::App app_;
  GlobalOptions global_;
  Action action_;
  ListOptions listOptions_;
  MakeFolderOptions makeOptions_;
  RemoveOptions removeOptions_;
  std::string command_;
  std::string path_;
  std::string source_;
  std::optional<std::string> file_;
  Zone zone_ = Zone::local;
  bool follow_ = false;
  std::optional<std::uint32_t> seconds_;
};

}  // namespace

int run(int argc, char** argv) {
  return CommandLine().run(argc, argv);
}

}  // namespace kestrowan::cli
