#pragma once

#include <cstdint>
#include <variant>
#include <vector>

#include "replica/model/Numbers.h"
#include "replica/model/Place.h"

namespace kestrowan::replica::plan {

/// There is nothing to do.
struct Nothing {
  friend bool operator==(const Nothing&, const Nothing&) = default;
};

/// Another item goes first.
struct WaitFor {
  model::ItemNumber item;

  friend bool operator==(const WaitFor&, const WaitFor&) = default;
};

/// A request is under way: its answer comes first.
struct WaitForAnswer {
  model::IntentNumber intent;

  friend bool operator==(const WaitForAnswer&, const WaitForAnswer&) = default;
};

/// Nothing is to be done before that time.
struct WaitUntil {
  model::Time time;

  friend bool operator==(const WaitUntil&, const WaitUntil&) = default;
};

/// Nothing that is pending can go: a defect of the planner, for the log and the status.
struct Stuck {
  model::ItemNumber item;

  friend bool operator==(const Stuck&, const Stuck&) = default;
};

/// These folders are to be listed, and `observe` is to write what they show. It may ask for more.
struct Look {
  std::vector<model::ItemNumber> folders;

  friend bool operator==(const Look&, const Look&) = default;
};

/// The contents that the provider has of this file are to be fetched, and compared with those here
/// and those of the intents; `fetched` writes what was found.
struct Fetch {
  model::ItemNumber item;

  friend bool operator==(const Fetch&, const Fetch&) = default;
};

/// What is to be made true at the provider.
enum class Change : std::uint8_t {
  create,    // the item at `place`, with `content`
  contents,  // `content` for the file at `place`
  move,      // the item to `place`
  remove,    // the item at `place` is no more
};

/// A request. Before it is sent, the folders that it concerns are listed, and it must still be
/// what is planned then.
struct Push {
  Change change = Change::create;
  model::ItemNumber item = model::ItemNumber::none;
  model::Place place;
  model::Content content = model::Content::none;

  friend bool operator==(const Push&, const Push&) = default;
};

/// How a difference is settled by changing the three states alone. `item` is the one it is about,
/// `intent` the request that is ended.
enum class Resolution : std::uint8_t {
  drop,    // it is neither here nor there: no more
  own,     // it is what a request of ours for `other` made
  back,    // it is no longer to be removed: theirs, as if it were new
  show,    // theirs is shown at its place
  join,    // it is what the provider has as `other`, which is no more
  aside,   // it goes to `place`, because its own is theirs
  anew,    // it is made anew at the provider, with all in it that is gone too
  forget,  // it is no more here either
  agree,   // both sides have the same contents
  pull,    // theirs is shown, in its place
  beside,  // theirs is shown; ours becomes a new file at `place`
  part,    // it stays here alone; what the provider has of it is another item, which is to go
  take,    // it becomes the new contents of `other`, whose place it takes
  end,     // the intent is no more
};

struct Settle {
  Resolution resolution = Resolution::drop;
  model::ItemNumber item = model::ItemNumber::none;
  model::ItemNumber other = model::ItemNumber::none;
  model::Place place;
  model::IntentNumber intent = model::IntentNumber::none;

  friend bool operator==(const Settle&, const Settle&) = default;
};

/// What is to be done next. Plain data.
using Step =
    std::variant<Nothing, WaitFor, WaitForAnswer, WaitUntil, Stuck, Look, Fetch, Push, Settle>;

}  // namespace kestrowan::replica::plan
