#pragma once

#include <memory>
#include <optional>

#include "platform/base/Abandonment.h"
#include "replica/remote/CallAnswers.h"

namespace kestrowan::host {

/// Finds what the server answered to the requests that our extension makes for a call: see
/// `replica::remote::AnswerWatch`. Usable from every thread.
std::shared_ptr<const replica::remote::CallAnswers> watchAnswers();

/// The same for a call that had that abandonment, and may have ended.
std::optional<replica::remote::Answer> answerTo(const std::shared_ptr<const Abandonment>& call);

}  // namespace kestrowan::host
