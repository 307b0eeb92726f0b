#include "cli/CommandLineHost.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/ParseProblem.h"
#include "cli/ServerPath.h"
#include "cli/commands/HostCommands.h"

namespace kestrowan::cli {

namespace {

/// What the commands of a mount were told.
struct Values {
  MountCommand mount;
  StatusCommand status;
  HistoryCommand history;
  std::uint64_t entry = 0;
  std::string path;
  std::vector<std::string> paths;
  std::string keep;
  std::optional<std::string> place;
  std::optional<std::uint32_t> seconds;
  bool force = false;
  bool confirmed = false;
};

constexpr auto kTreeInMount =
    "path on this machine of a file in a mount, or of a folder with all below it";

/// Help names the values already, as the option's type.
CLI::Validator oneOf(const std::vector<std::string>& values) {
  return CLI::IsMember(values).description("");
}

class MountCommands {
 public:
  MountCommands(CLI::App& app, const GlobalOptions& options,
                std::function<void(std::function<ExitCode()>)> choose)
      : app_(app), options_(options), choose_(std::move(choose)) {}

  void add() {
    addMount();
    addUnmount();
    addStatus();
    addWait();
    addPathCommands();
    addConflicts();
    addHistory();
    addRestore();
  }

 private:
  CLI::App* addCommand(const std::string& name, const std::string& summary,
                       const std::string& examples, std::function<ExitCode()> action) {
    auto* command = app_.add_subcommand(name, summary);
    command->footer("Examples:\n" + examples);
    command->callback([choose = choose_, action = std::move(action)] { choose(action); });
    return command;
  }

  void addMount() {
    auto* command = addCommand(
        "mount", "make the storage a folder, and serve it",
        "  kestrowan mount ~/Storage\n  kestrowan mount --background --cache-limit 20G ~/Storage",
        [values = values_, &options = options_] { return mount(options, values->mount); });
    auto& mount = values_->mount;
    command->add_flag("--background", mount.background,
                      "return once the mount is there, and go on serving");
    command
        ->add_option("--state", mount.stateDirectory,
                     "directory for what is kept here; otherwise kestrowan/DOMAIN in "
                     "$XDG_STATE_HOME or ~/.local/state")
        ->type_name("DIR");
    command
        ->add_option(
            "--domain", mount.domain,
            "name of the state, for several mounts; otherwise \"default\" for the standard "
            "container, and a name made from its path for every other one")
        ->type_name("NAME");
    command->add_flag("--move-here", mount.moveHere,
                      "the storage that the state was made for has this container now: note that, "
                      "and send there what waits. Say it once, after a look at what waits, and "
                      "never for another storage");
    command
        ->add_option("--cache-limit", mount.cacheLimit,
                     "how much of what could be fetched again stays here, as 500M or 20G; "
                     "otherwise 10G, or a tenth of the disk if that is less")
        ->transform(sizeAboveZero())
        ->type_name("SIZE");
    command
        ->add_option("--streaming", mount.streaming,
                     "files from that size on are read while they are still being fetched, as "
                     "500K or 4M; off: every file is fetched before it is opened")
        ->transform(sizeOrOff())
        ->type_name("SIZE|off")
        ->default_str("1M");
    command
        ->add_option("--history-limit", mount.historyLimit,
                     "how much the history of replaced and removed files may take, as 500M or 20G; "
                     "otherwise 10G, or a twentieth of the disk if that is less")
        ->transform(sizeAboveZero())
        ->type_name("SIZE");
    command
        ->add_option("--history-days", mount.historyDays,
                     "how long replaced and removed files stay in the history")
        ->check(CLI::Range(1, 3650).description(""))
        ->type_name("DAYS")
        ->capture_default_str();
    command
        ->add_option("--fsync", mount.fsync,
                     "what a program's fsync waits for: this disk, or the server as well")
        ->check(oneOf({"local", "server"}))
        ->type_name("local|server")
        ->capture_default_str();
    command
        ->add_option("--close", mount.close,
                     "whether closing a file that was written waits for the server")
        ->check(oneOf({"return", "wait"}))
        ->type_name("return|wait")
        ->capture_default_str();
    command
        ->add_option("--moves", mount.moves,
                     "moves between folders: passed on as one, or refused, so that programs "
                     "copy and delete")
        ->check(oneOf({"pass", "refuse"}))
        ->type_name("pass|refuse")
        ->capture_default_str();
    command
        ->add_option("--background-programs", mount.backgroundPrograms,
                     "whether files that are not here are fetched for indexers, virus scanners and "
                     "other programs that work in the background")
        ->check(oneOf({"deny", "allow"}))
        ->type_name("deny|allow")
        ->capture_default_str();
    command
        ->add_option("--background-program", mount.backgroundProgram,
                     "name of a further program that works in the background, as scan*; may be "
                     "given several times")
        ->type_name("NAME")
        ->allow_extra_args(false);
    command
        ->add_option("--thumbnails", mount.thumbnails,
                     "up to which size files are fetched for thumbnailers all the same, as 500K "
                     "or 2M")
        ->transform(CLI::AsSizeValue(false).description(""))
        ->type_name("SIZE")
        ->default_str("1M");
    command
        ->add_option("--events", mount.events,
                     "whether programs that watch folders of the mount learn of changes at the "
                     "server; folders that are watched are then listed from time to time")
        ->check(oneOf({"on", "off"}))
        ->type_name("on|off")
        ->capture_default_str();
    command->add_flag("--no-local-names", mount.noLocalNames,
                      "send lock, swap and temporary files of programs too");
    command->add_flag("--noexec", mount.noExec, "no program can be run from the mount");
    command->add_flag(
        "--no-index", mount.noIndex,
        "show empty files .trackerignore and .nomedia at the top, which tell indexers "
        "to leave the mount alone");
    command
        ->add_option("--drain", mount.drain,
                     "seconds that an orderly end waits for changes to be sent")
        ->type_name("SECONDS")
        ->capture_default_str();
    command->add_option("MOUNTPOINT", mount.mountPoint, "empty folder; made when it is missing")
        ->required();
  }

  void addUnmount() {
    auto* command =
        addCommand("unmount", "send what is left, and end a mount",
                   "  kestrowan unmount ~/Storage\n  kestrowan unmount --force ~/Storage",
                   [values = values_, &options = options_] {
                     return unmount(options, values->path, values->force);
                   });
    command->add_flag("--force", values_->force,
                      "at once, also while programs use it or its host hangs; nothing is lost");
    command->add_option("MOUNTPOINT", values_->path, "where it is mounted")->required();
  }

  void addStatus() {
    auto* command = addCommand(
        "status", "show what is waiting, failing and downloaded",
        "  kestrowan status\n  kestrowan status --watch ~/Storage\n  kestrowan --json status",
        [values = values_, &options = options_] { return status(options, values->status); });
    command->add_flag("--watch", values_->status.watch, "again and again, until Ctrl-C");
    command->add_option("MOUNTPOINT", values_->status.mountPoint, "every mount when left out");
  }

  void addWait() {
    auto* command = addCommand("wait", "wait until the server has every change",
                               "  kestrowan wait\n  kestrowan wait --timeout 60 ~/Storage",
                               [values = values_, &options = options_] {
                                 std::optional<std::chrono::seconds> limit;
                                 if (values->seconds)
                                   limit = std::chrono::seconds(*values->seconds);
                                 return wait(options, values->place, limit);
                               });
    command->add_option("--timeout", values_->seconds, "give up after so long")
        ->type_name("SECONDS");
    command->add_option("MOUNTPOINT", values_->place, "the only mount when left out");
  }

  void addPathCommands() {
    addPathCommand("evict", "give back the space of files that can be fetched again",
                   "  kestrowan evict ~/Storage/Home/Videos", kTreeInMount,
                   [](const auto& options, const auto& paths) { return evict(options, paths); });
    addPathCommand(
        "pin", "keep files here, and fetch them whenever they change",
        "  kestrowan pin ~/Storage/Home/Documents", kTreeInMount,
        [](const auto& options, const auto& paths) { return pin(options, paths, true); });
    addPathCommand("unpin", "end what \"pin\" began", "  kestrowan unpin ~/Storage/Home/Documents",
                   kTreeInMount, [](const auto& options, const auto& paths) {
                     return pin(options, paths, false);
                   });
    auto* again = addCommand(
        "retry", "try at once what failed", "  kestrowan retry\n  kestrowan retry report.odt",
        [values = values_, &options = options_] { return retry(options, values->place); });
    again->add_option(
        "PATH", values_->place,
        "path on this machine of an item in a mount, with all below it; everything in "
        "every mount when left out");
    auto* give =
        addCommand("discard", "give up local changes; what was written goes to the history",
                   "  kestrowan discard report.odt", [values = values_, &options = options_] {
                     return discard(options, values->path, values->confirmed);
                   });
    give->add_flag("--yes", values_->confirmed, "do not ask");
    give->add_option("PATH", values_->path,
                     "path on this machine of an item in a mount, with all below it")
        ->required();
  }

  void addConflicts() {
    auto* command = addCommand(
        "conflicts", "show files of which both sides had changed, and say which version stays",
        "  kestrowan conflicts\n  kestrowan conflicts keep-mine ~/Storage/Home/report.odt",
        [values = values_, &options = options_] {
          if (values->keep.empty()) return conflicts(options);
          if (values->paths.empty()) throw UsageError("conflicts: PATH is required");
          return resolve(options, values->keep, values->paths);
        });
    command
        ->add_option_function<std::string>(
            "ACTION",
            [values = values_](const std::string& action) {
              values->keep = action.substr(std::string_view("keep-").size());
            },
            "keep-mine: the version from here takes the place of the server's; keep-theirs: the "
            "server's stays alone; keep-both: both stay, as two files. What goes is in the "
            "history. "
            "Without an action the conflicts of every mount are listed")
        ->check(oneOf({"keep-mine", "keep-theirs", "keep-both"}));
    command->add_option("PATH", values_->paths,
                        "path on this machine of either version; several may be given");
  }

  void addHistory() {
    auto* command = addCommand(
        "history", "show the files that were replaced or removed, and are still here",
        "  kestrowan history\n  kestrowan history ~/Storage/Home/Documents\n"
        "  kestrowan history --clear --older-than 3 ~/Storage",
        [values = values_, &options = options_] { return history(options, values->history); });
    command->add_flag("--clear", values_->history.clear, "remove them for good");
    command
        ->add_option("--older-than", values_->history.olderThan,
                     "with --clear: only those that left their place more than so long ago")
        ->check(CLI::Range(1, 3650).description(""))
        ->type_name("DAYS");
    command->add_flag("--yes", values_->history.confirmed, "do not ask");
    command->add_option("PATH", values_->history.path,
                        "path on this machine of a file in a mount, or of a folder with all that "
                        "was below it, whether it is still there or not; every mount when left "
                        "out");
  }

  void addRestore() {
    auto* command = addCommand(
        "restore", "make a file of the history again; it stays in the history, too",
        "  kestrowan restore 4711\n  kestrowan restore 4711 --to ~/Storage/Home/Documents",
        [values = values_, &options = options_] {
          return restore(options, values->entry, values->place);
        });
    command
        ->add_option("--to", values_->place,
                     "path on this machine of a folder in a mount, or of the file to make there; "
                     "where it was when left out, beside what now has its name")
        ->type_name("PATH");
    command->add_option("ID", values_->entry, "number of the file, as \"history\" shows it")
        ->required();
  }

  template <typename Action>
  void addPathCommand(const std::string& name, const std::string& summary,
                      const std::string& example, const std::string& what, const Action& action) {
    auto* command = addCommand(
        name, summary, example,
        [values = values_, &options = options_, action] { return action(options, values->paths); });
    command->add_option("PATH", values_->paths, what)->required();
  }

  CLI::App& app_;
  const GlobalOptions& options_;
  const std::function<void(std::function<ExitCode()>)> choose_;
  const std::shared_ptr<Values> values_ = std::make_shared<Values>();
};

}  // namespace

void addMountCommands(CLI::App& app, const GlobalOptions& options,
                      std::function<void(std::function<ExitCode()>)> choose) {
  MountCommands(app, options, std::move(choose)).add();
}

}  // namespace kestrowan::cli
