#pragma once

#include <optional>
#include <vector>

#include "replica/model/Edit.h"
#include "replica/plan/Step.h"

namespace kestrowan::replica::plan {

/// A push by the paths of now, as it is sent.
struct Request {
  model::Verb verb = model::Verb::put;
  model::ItemNumber item = model::ItemNumber::none;
  std::optional<model::Path> source;
  std::optional<model::Path> target;
  model::Content content = model::Content::none;
};

/// A push of this state as a request.
Request requestOf(const model::State& state, const Push& push);

/// The folders to be listed before a push is sent.
std::vector<model::ItemNumber> foldersOf(const model::State& state, const Push& push);

/// Notes a request that is about to be sent.
model::IntentNumber noteSent(model::Edit& edit, const Request& request, model::Time now);

/// Writes that the provider has done what was asked. `version`: what it says of a file that was
/// put. False for an answer that cannot be placed: it counts as lost, and says nothing.
bool noteAnswer(model::Edit& edit, model::IntentNumber number, const model::Version& version,
                model::Time now);

/// Notes that there will be no answer: the request may have been done, or may still be.
void noteLostAnswer(model::Edit& edit, model::IntentNumber number, model::Time now);
/// The same of a request of which nothing can land any more: one look tells what was done.
void noteNotOnItsWay(model::Edit& edit, model::IntentNumber intent);

/// Notes that the request was not done and will not be.
void noteRefusal(model::Edit& edit, model::IntentNumber number);

/// Writes the contents that a file was fetched with; the number of contents here, or of an intent,
/// when they are the same bytes. Does nothing when the provider has another version now: the folder
/// is to be listed then.
void noteFetched(model::Edit& edit, model::ItemNumber item, const model::Version& version,
                 model::Content content);

}  // namespace kestrowan::replica::plan
