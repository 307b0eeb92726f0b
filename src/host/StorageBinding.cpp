#include "host/StorageBinding.h"

#include <cstdint>
#include <optional>
#include <string_view>

#include "host/CommandAdvice.h"
#include "host/Directories.h"
#include "host/DomainChoice.h"
#include "host/HostLog.h"
#include "host/StateDirectory.h"
#include "host/StorageNote.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/NSError.h"
#include "replica/store/AtRest.h"

namespace kestrowan::host {

namespace {

using Kind = StorageNote::Kind;

constexpr std::size_t kMostPaths = 5;
constexpr std::string_view kMoveHere = "--move-here";

/// What is to become of a state.
enum class Verdict { fits, bind, move, refuse, nothingToMove };

/// An earlier version used the standard domain for every container, most of all for the standard
/// one.
bool isAdopted(const HostSettings& settings) {
  return settings.domain == kStandardDomain && isStandardContainer(settings.container);
}

Verdict verdictOn(const StorageNote& note, const HostSettings& settings) {
  switch (note.kind) {
    case Kind::unused:
      return settings.moveHere ? Verdict::nothingToMove : Verdict::bind;
    case Kind::unknown:
      if (settings.moveHere) return Verdict::move;
      return isAdopted(settings) ? Verdict::bind : Verdict::refuse;
    case Kind::known:
      if (note.container == settings.container) return Verdict::fits;
      return settings.moveHere ? Verdict::move : Verdict::refuse;
  }
  return Verdict::refuse;
}

std::string counted(std::int64_t number, const std::string& one, const std::string& several) {
  return std::to_string(number) + " " + (number == 1 ? one : several);
}

std::string inWords(const replica::Unsent& unsent) {
  std::string text = unsent.changes == 0
                         ? "nothing to send"
                         : counted(unsent.changes, "change", "changes") + " not sent yet";
  std::string parts;
  if (unsent.refused > 0) parts += ", refused: " + std::to_string(unsent.refused);
  if (unsent.conflicts > 0) parts += ", from conflicts: " + std::to_string(unsent.conflicts);
  if (!parts.empty()) text += " (" + parts.substr(2) + ")";
  if (unsent.localOnly > 0) {
    text += "; " + counted(unsent.localOnly, "file that stays", "files that stay") + " here";
  }
  if (unsent.inHistory > 0) {
    text += "; " + counted(unsent.inHistory, "file", "files") + " in the history";
  }
  for (const auto& path : unsent.paths) text += "\n    " + escapedForDisplay(path);
  const auto more = unsent.changes - static_cast<std::int64_t>(unsent.paths.size());
  if (more > 0 && !unsent.paths.empty()) text += "\n    … and " + std::to_string(more) + " more";
  return text;
}

/// What the state at `directory`, whose lock is free, keeps that is nowhere else; absent when that
/// is nothing for certain. Changes nothing.
std::optional<std::string> waitingAt(const std::string& directory) {
  try {
    const StateDirectory held(directory);
    const auto unsent = replica::unsentIn(directory, kMostPaths);
    if (unsent.isNothing()) return std::nullopt;
    return inWords(unsent);
  } catch (const NSError& error) {
    return "cannot be told: " + escapedForDisplay(error.localizedDescription());
  }
}

/// The same mount with a state of its own, in the usual place.
std::string beginAnew(const HostSettings& settings) {
  auto entry = entryOf(settings);
  try {
    entry.domain = freeDomain(settings.container);
    entry.stateDirectory = standardStateDirectory(entry.domain);
  } catch (const NSError&) {
    return "name another directory with --state";
  }
  return mountCommand(entry);
}

/// The same mount with the state at `stateDirectory`, moved to it.
std::string moveHere(const HostSettings& settings, const std::string& domain,
                     const std::string& stateDirectory) {
  auto entry = entryOf(settings);
  entry.domain = domain;
  entry.stateDirectory = stateDirectory;
  entry.options.emplace_back(kMoveHere);
  return mountCommand(entry);
}

std::string waysOn(const HostSettings& settings, const std::string& domain,
                   const std::string& stateDirectory, std::string_view ifItIs) {
  return "\n  to give this container a state of its own:\n    " + beginAnew(settings) + "\n  if " +
         std::string(ifItIs) + ": to go on with the state, and send what waits:\n    " +
         moveHere(settings, domain, stateDirectory);
}

StorageRefusal otherStorage(const StorageNote& note, const HostSettings& settings) {
  auto former = entryOf(settings);
  former.container = note.container;
  return StorageRefusal(
      "not mounted: the state of the domain " + settings.domain +
      " was made for another container\n  made for:  " + escapedForDisplay(note.container) +
      "\n  asked for: " + escapedForDisplay(settings.container) +
      "\n  waiting:   " + waitingAt(settings.stateDirectory).value_or("nothing") +
      "\n  to mount what it was made for:\n    " + mountCommand(former) +
      waysOn(settings, settings.domain, settings.stateDirectory,
             "it is the same storage, whose container has moved"));
}

StorageRefusal unknownStorage(const HostSettings& settings, const std::string& domain,
                              const std::string& stateDirectory, const std::string& waiting) {
  return StorageRefusal("not mounted: the state of the domain " + domain +
                        " does not say which container it was made for, as with earlier versions"
                        "\n  state:     " +
                        escapedForDisplay(stateDirectory) + "\n  asked for: " +
                        escapedForDisplay(settings.container) + "\n  waiting:   " + waiting +
                        waysOn(settings, domain, stateDirectory, "it was made for this container"));
}

StorageRefusal nothingToMove(const HostSettings& settings) {
  std::string known;
  for (const auto& [name, note] : domainsWithState()) {
    known += "\n    " + name;
    if (note.kind == Kind::known) known += ", made for " + escapedForDisplay(note.container);
  }
  return StorageRefusal("not mounted: the domain " + settings.domain +
                        " has no state that could move to " +
                        escapedForDisplay(settings.container) +
                        "; name the one that has with --domain, or leave --move-here out" +
                        (known.empty() ? "" : "\n  domains with a state:" + known));
}

/// Until this version every container had the standard domain.
void requireNothingForgotten(const HostSettings& settings) {
  if (!settings.isOwnDomain || settings.domain == kStandardDomain) return;
  const std::string domain(kStandardDomain);
  const auto directory = standardStateDirectory(domain);
  if (storageNote(directory).kind != Kind::unknown) return;
  const auto waiting = waitingAt(directory);
  if (waiting) throw unknownStorage(settings, domain, directory, *waiting);
}

void sayThatItMoves(const StorageNote& note, const HostSettings& settings) {
  std::string waiting;
  try {
    waiting = inWords(replica::unsentIn(settings.stateDirectory, 0));
  } catch (const NSError& error) {
    waiting = "cannot be told: " + error.localizedDescription();
  }
  hostLog("the state of the domain " + settings.domain + " moves from " +
          (note.container.empty() ? "an unknown container" : note.container) + " to " +
          settings.container + "; waiting in it: " + waiting);
}

/// What is to become of the state. Throws `StorageRefusal` when it is refused.
Verdict judged(const HostSettings& settings) {
  const auto note = storageNote(settings.stateDirectory);
  const auto verdict = verdictOn(note, settings);
  if (verdict == Verdict::nothingToMove) throw nothingToMove(settings);
  if (verdict != Verdict::refuse) return verdict;
  if (note.kind == Kind::known) throw otherStorage(note, settings);
  throw unknownStorage(settings, settings.domain, settings.stateDirectory,
                       waitingAt(settings.stateDirectory).value_or("nothing"));
}

}  // namespace

HostEntry entryOf(const HostSettings& settings) {
  return {.domain = settings.domain,
          .mountPoint = settings.mountPoint,
          .stateDirectory = settings.stateDirectory,
          .container = settings.container,
          .options = settings.options};
}

void requireOwnStorage(const HostSettings& settings) {
  const auto verdict = judged(settings);
  if (verdict == Verdict::bind && storageNote(settings.stateDirectory).kind == Kind::unused) {
    requireNothingForgotten(settings);
  }
}

void bindStorage(const HostSettings& settings) {
  const auto note = storageNote(settings.stateDirectory);
  const auto verdict = verdictOn(note, settings);
  switch (verdict) {
    case Verdict::fits:
      return;
    case Verdict::refuse:
    case Verdict::nothingToMove:
      throw StorageRefusal("not mounted: another host has just used the state; try again");
    case Verdict::move:
      sayThatItMoves(note, settings);
      // What was listed elsewhere must not pass for fresh.
      replica::ageListings(settings.stateDirectory);
      break;
    case Verdict::bind:
      break;
  }
  writeStorageNote(settings.stateDirectory, settings.container, verdict == Verdict::move);
}

}  // namespace kestrowan::host
