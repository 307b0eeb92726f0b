#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/foundation/Logger.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using Tree = std::map<std::string, std::optional<std::string>>;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// One step of a history. What its numbers choose depends on the tree as it is then, so that steps
/// can be left out of a history that fails.
struct Step {
  enum class Kind {
    write,
    append,
    rename,
    remove,
    makeFolder,
    removeFolder,
    read,
    list,
    evict,
    wait,
    crash,
    fault,
    goDown,
    comeUp,
    serverWrite,
    serverRemove,
    serverRename,
    serverMakeFolder,
  };
  Kind kind = Kind::wait;
  std::uint32_t a = 0;
  std::uint32_t b = 0;
};

std::string text(const Step& step) {
  static const char* const names[] = {
      "write",  "append", "rename",      "remove",       "makeFolder",   "removeFolder",
      "read",   "list",   "evict",       "wait",         "crash",        "fault",
      "goDown", "comeUp", "serverWrite", "serverRemove", "serverRename", "serverMakeFolder"};
  return std::string(names[static_cast<int>(step.kind)]) + " " + std::to_string(step.a) + " " +
         std::to_string(step.b);
}

class QuietSink : public LogSink {
 public:
  void error(std::string_view, std::string_view, std::string_view format,
             std::span<const std::string_view> arguments) override {
    if (std::getenv("KFP_TRACE")) std::cerr << renderedMessage(format, arguments) << "\n";
  }
};

std::string parentOf(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

/// What histories of one kind have in common.
struct Manner {
  bool opaqueIdentifiers = false;
  /// Another client changes the provider's tree.
  bool bothSides = false;
  /// Every file is read while it arrives, a byte after the other.
  bool streams = false;
};

InMemoryOptions providerOf(const Manner& manner) {
  InMemoryOptions options{.opaqueIdentifiers = manner.opaqueIdentifiers, .pageSize = 3};
  if (manner.streams) options.arriving = Arriving{.piece = 1, .step = milliseconds(300)};
  return options;
}

replica::Options settingsOf(const Manner& manner) {
  replica::Options options;
  if (manner.streams) options.streamFrom = 1;
  return options;
}

/// Runs one history and says what is wrong at its end; nothing when all is well.
class History {
 public:
  explicit History(const Manner& manner)
      : world_(providerOf(manner), settingsOf(manner)), bothSides_(manner.bothSides) {
    world_.list("/");
  }

  std::optional<std::string> run(const std::vector<Step>& steps) {
    for (const Step& step : steps) {
      trace(text(step) + ": " + path(step.a) + " " + path(step.b));
      try {
        take(step);
      } catch (const NSError& error) {
        // The call failed and must have had no effect.
        trace("failed: " + error.localizedDescription());
      }
      traceCalls();
    }
    readToTheEnd();
    auto result = verdict();
    traceCalls();
    return result;
  }

 private:
  std::string path(std::uint32_t choice) const {
    static const char* const names[] = {"a", "b", "c"};
    std::string result;
    for (int depth = 0; depth < 3; ++depth, choice /= 4) {
      if (depth > 0 && choice % 4 == 3) break;
      result += std::string("/") + names[choice % 3];
    }
    return result;
  }
  std::string token() { return "[" + std::to_string(++tokens_) + "]"; }

  static bool isTraced() { return std::getenv("KFP_TRACE") != nullptr; }
  static void trace(const std::string& line) {
    if (isTraced()) std::cerr << line << "\n";
  }
  void traceCalls() {
    if (!isTraced()) return;
    for (const auto& call : world_.extension().calls()) trace("    " + call);
    world_.extension().clearCalls();
  }

  void take(const Step& step) {
    const std::string at = path(step.a);
    const std::string to = path(step.b);
    switch (step.kind) {
      case Step::Kind::write:
        write(at);
        break;
      case Step::Kind::append:
        append(at);
        break;
      case Step::Kind::rename:
        rename(at, to);
        break;
      case Step::Kind::remove:
        world_.remove(at);
        lose(at);
        local_.erase(at);
        break;
      case Step::Kind::makeFolder:
        world_.makeFolder(at);
        local_[at] = std::nullopt;
        break;
      case Step::Kind::removeFolder:
        world_.removeFolder(at);
        local_.erase(at);
        break;
      case Step::Kind::read:
        if (step.b % 2 == 0) {
          checkRead(at);
        } else {
          hold(at);
        }
        break;
      case Step::Kind::list:
        world_.list(parentOf(at).empty() ? "/" : parentOf(at));
        break;
      case Step::Kind::evict:
        world_.replica().commands().evict(world_.find("/"));
        break;
      case Step::Kind::wait:
        world_.advance(milliseconds(step.a % 40000));
        break;
      case Step::Kind::crash:
        held_.clear();
        world_.crash();
        if (down_) world_.extension().setDown(true);
        setFault(0);
        break;
      case Step::Kind::fault:
        setFault(step.a);
        break;
      case Step::Kind::goDown:
        down_ = true;
        world_.extension().setDown(true);
        break;
      case Step::Kind::comeUp:
        down_ = false;
        world_.extension().setDown(false);
        break;
      case Step::Kind::serverWrite:
      case Step::Kind::serverRemove:
      case Step::Kind::serverRename:
      case Step::Kind::serverMakeFolder:
        if (bothSides_) changeServer(step.kind, at, to);
        break;
    }
  }

  void write(const std::string& at) {
    const std::string bytes = token();
    world_.write(at, bytes);
    lose(at);
    local_[at] = bytes;
    written_.insert(bytes);
  }

  void append(const std::string& at) {
    const auto file = world_.open(at, {.read = true, .write = true});
    const std::string before = ReplicaWorld::readFrom(*file);
    const std::string bytes = token();
    ReplicaWorld::writeTo(*file, bytes, static_cast<std::int64_t>(before.size()));
    lose(at);
    local_[at] = before + bytes;
    written_.insert(before + bytes);
  }

  void rename(const std::string& at, const std::string& to) {
    world_.rename(at, to);
    if (at == to) return;
    lose(to);
    Tree moved;
    for (auto entry = local_.begin(); entry != local_.end();) {
      if (entry->first == at || entry->first.starts_with(at + "/")) {
        moved[to + entry->first.substr(at.size())] = entry->second;
        entry = local_.erase(entry);
      } else {
        ++entry;
      }
    }
    local_.erase(to);
    local_.merge(moved);
  }

  void checkRead(const std::string& at) {
    const std::string bytes = world_.read(at);
    if (bothSides_) return;
    const auto known = local_.find(at);
    if (known == local_.end() || known->second != bytes) {
      problem_ = "read of " + at + " gave \"" + bytes + "\"";
    }
  }

  /// Opens a file, and reads its first byte and no more for now.
  void hold(const std::string& at) {
    auto file = world_.open(at, {});
    world_.readArriving(file, 0, 1);
    held_.push_back({at, std::move(file)});
  }

  /// What is read of one opening is the whole of one version, or ends in an error.
  void readToTheEnd() {
    for (const Held& held : held_) {
      std::string bytes;
      try {
        bytes = world_.readArriving(held.file, 0, 4096);
      } catch (const NSError&) {
        continue;
      }
      // A program here may have emptied it, or gone on writing to it.
      if (!bytes.empty() && !written_.contains(bytes)) {
        problem_ = "an opening of " + held.at + " gave \"" + bytes + "\"";
      }
    }
    held_.clear();
  }

  void changeServer(Step::Kind kind, const std::string& at, const std::string& to) {
    try {
      if (kind == Step::Kind::serverWrite) {
        const std::string bytes = token();
        world_.server().writeFile(at, bytes);
        written_.insert(bytes);
      } else if (kind == Step::Kind::serverRemove) {
        world_.server().remove(at);
      } else if (kind == Step::Kind::serverRename) {
        world_.server().rename(at, to);
      } else {
        world_.server().makeFolder(at);
      }
    } catch (const std::invalid_argument&) {
      // Not possible with the tree as it is.
    }
  }

  /// What stood at a path is given up by an application itself.
  void lose(const std::string& at) {
    if (const auto known = local_.find(at); known != local_.end() && known->second) {
      givenUp_.insert(*known->second);
    }
  }

  void setFault(std::uint32_t choice) {
    if (choice % 5 == 0) {
      world_.extension().setFaults({});
      return;
    }
    auto random = std::make_shared<std::mt19937>(choice);
    world_.extension().setFaults([random](const Call& call) {
      Fault fault;
      const std::uint32_t dice = (*random)() % 12;
      const bool changes = call.kind == CallKind::createItem || call.kind == CallKind::modifyItem ||
                           call.kind == CallKind::deleteItem;
      if (dice == 0) {
        fault.effect = Fault::Effect::none;
        fault.error = NSError(NSURLErrorDomain, NSURLErrorTimedOut);
      } else if (dice == 1 && changes) {
        fault.error = NSError(NSURLErrorDomain, NSURLErrorNetworkConnectionLost);
      } else if (dice == 2 && changes) {
        fault.effect = Fault::Effect::firstRequest;
        fault.error = NSError(NSURLErrorDomain, NSURLErrorNetworkConnectionLost);
      } else if (dice == 3) {
        fault.delay = milliseconds((*random)() % 7000);
      } else if (dice == 4 && call.kind == CallKind::fetchContents) {
        fault.fileSize = 1;
      } else if (dice == 5) {
        fault.effect = Fault::Effect::none;
        fault.error = NSError("NSFileProviderErrorDomain", -1004);
      } else if (dice == 6 && changes) {
        fault.withoutEntry = true;
      }
      return fault;
    });
  }

  std::optional<std::string> verdict() {
    world_.extension().setFaults({});
    world_.extension().setDown(false);
    world_.advance(seconds(70));
    // As long as what failed again and again waits.
    world_.advance(seconds(1200));
    if (!world_.settle()) return "does not settle: " + describePending();
    for (int round = 0; round < 3; ++round) {
      world_.tree();
      world_.advance(seconds(70));
      if (!world_.settle()) return "does not settle: " + describePending();
    }
    if (problem_) return problem_;
    const Tree server = world_.server().tree();
    const Tree mounted = world_.tree();
    if (mounted != server) return "the sides differ" + describe(mounted, server);
    if (!bothSides_ && server != local_) return "not what was done" + describe(server, local_);
    for (const auto& entry : local_) {
      if (entry.second && !isKept(*entry.second, server)) return "lost: " + *entry.second;
    }
    for (const std::string& violation : world_.extension().violations()) return violation;
    return std::nullopt;
  }

  bool isKept(const std::string& bytes, const Tree& server) {
    if (givenUp_.contains(bytes)) return true;
    for (const auto& entry : server) {
      if (entry.second && entry.second->find(bytes) != std::string::npos) return true;
    }
    // What was removed or replaced at the server is not kept by anybody but the history.
    return !wasOnlyHere(bytes);
  }
  bool wasOnlyHere(const std::string& bytes) {
    for (const std::string& kept : world_.history()) {
      if (kept.find(bytes) != std::string::npos) return false;
    }
    return !arrived(bytes);
  }
  /// Whether the bytes had been at the server, where somebody else then replaced or removed them.
  bool arrived(const std::string& bytes) const { return world_.server().everHeld(bytes); }

  std::string describePending() {
    std::string result;
    for (const auto& item : world_.replica().commands().status().pending) {
      result += "\n  " + item.path + " " + item.changes + " " + replica::name(item.state) +
                (item.failure ? " " + item.failure->text : "");
    }
    return result;
  }

  static std::string describe(const Tree& first, const Tree& second) {
    std::string result;
    for (const auto* tree : {&first, &second}) {
      result += tree == &first ? "\n  first:" : "\n  second:";
      for (const auto& [path, bytes] : *tree) {
        result += "\n    " + path + (bytes ? " \"" + *bytes + "\"" : " folder");
      }
    }
    return result;
  }

  struct Held {
    std::string at;
    std::shared_ptr<replica::OpenFile> file;
  };

  ReplicaWorld world_;
  const bool bothSides_;
  bool down_ = false;
  unsigned tokens_ = 0;
  Tree local_;
  std::set<std::string> givenUp_;
  /// Everything that a file held as a whole.
  std::set<std::string> written_;
  std::vector<Held> held_;
  std::optional<std::string> problem_;
};

std::vector<Step> randomSteps(std::uint32_t seed, std::size_t count) {
  std::mt19937 random(seed);
  // How often each kind occurs, in the order of the kinds.
  std::discrete_distribution<int> kinds({18, 8, 14, 8, 10, 5, 8, 4, 2, 16, 2, 5, 2, 3, 5, 3, 3, 2});
  std::vector<Step> steps(count);
  for (Step& step : steps) {
    step.kind = static_cast<Step::Kind>(kinds(random));
    step.a = random();
    step.b = random();
  }
  return steps;
}

std::optional<std::string> outcome(const std::vector<Step>& steps, const Manner& manner) {
  try {
    return History(manner).run(steps);
  } catch (const std::exception& problem) {
    return std::string(problem.what());
  } catch (const NSError& error) {
    return "the end failed: " + error.domain() + " " + std::to_string(error.code()) + " " +
           error.localizedDescription();
  }
}

/// The same failure with as few steps as leaving some out can bring about.
std::vector<Step> shrunk(std::vector<Step> steps, const Manner& manner) {
  for (std::size_t chunk = steps.size() / 2; chunk > 0; chunk /= 2) {
    for (std::size_t at = 0; at < steps.size();) {
      std::vector<Step> fewer = steps;
      const auto begin = fewer.begin() + static_cast<std::ptrdiff_t>(at);
      fewer.erase(begin, begin + static_cast<std::ptrdiff_t>(std::min(chunk, fewer.size() - at)));
      if (outcome(fewer, manner)) {
        steps = std::move(fewer);
      } else {
        at += chunk;
      }
    }
  }
  return steps;
}

unsigned numberFrom(const char* variable, unsigned otherwise) {
  const char* value = std::getenv(variable);
  return value ? static_cast<unsigned>(std::strtoul(value, nullptr, 10)) : otherwise;
}

/// KFP_SEED names the first history, KFP_HISTORIES how many there are; with KFP_TRACE each step and
/// the calls that it causes are shown, and nothing is shrunk.
void runHistories(const Manner& manner) {
  LogSink::setShared(std::make_shared<QuietSink>());
  const unsigned first = numberFrom("KFP_SEED", 1);
  const unsigned count = numberFrom("KFP_HISTORIES", 150);
  for (unsigned seed = first; seed < first + count; ++seed) {
    const auto steps = randomSteps(seed, 40);
    const auto problem = outcome(steps, manner);
    if (!problem) continue;
    std::ostringstream report;
    const bool traced = std::getenv("KFP_TRACE") != nullptr;
    const auto fewer = traced ? steps : shrunk(steps, manner);
    report << "history " << seed << ": " << *problem << "\nas few steps as fail:";
    for (const Step& step : fewer) report << "\n  " << text(step);
    report << "\n" << outcome(fewer, manner).value_or("");
    LogSink::setShared(nullptr);
    FAIL() << report.str();
  }
  LogSink::setShared(nullptr);
}

TEST(HistoryTest, WhatIsDoneHereArrivesThroughAllFaults) {
  runHistories({});
}

TEST(HistoryTest, WhatIsDoneHereArrivesAtAProviderOfOpaqueIdentifiers) {
  runHistories({.opaqueIdentifiers = true});
}

TEST(HistoryTest, BothSidesAgreeInTheEndAndNothingIsLost) {
  runHistories({.bothSides = true});
}

TEST(HistoryTest, BothSidesAgreeWithOpaqueIdentifiersToo) {
  runHistories({.opaqueIdentifiers = true, .bothSides = true});
}

TEST(HistoryTest, FilesAreReadWhileTheyArriveAndNothingIsLost) {
  runHistories({.streams = true});
}

TEST(HistoryTest, WhatIsReadWhileItArrivesIsOneVersionWhateverTheOtherSideDoes) {
  runHistories({.bothSides = true, .streams = true});
}

}  // namespace
}  // namespace kestrowan::test
