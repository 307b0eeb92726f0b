#include "host/StatusForm.h"

#include <algorithm>
#include <cstdint>

#include "host/FailureReason.h"
#include "host/PathForm.h"
#include "platform/foundation/NSString.h"
#include "replica/remote/AnswerTable.h"

namespace kestrowan::host {

namespace {

using replica::FailureClass;
using replica::ItemStatus;
using replica::SyncState;

const char* name(FailureClass failureClass) {
  switch (failureClass) {
    case FailureClass::transient:
      return "transient";
    case FailureClass::refused:
      return "refused";
    case FailureClass::slow:
      return "slow";
    case FailureClass::held:
      return "held";
  }
  return "";
}

/// What the server answered.
std::optional<std::int64_t> statusOf(const replica::SyncFailure& failure) {
  return failure.domain == replica::remote::kAnswerDomain ? std::optional(failure.code)
                                                          : std::nullopt;
}

JSONValue failureForm(const replica::SyncFailure& failure) {
  return JSONValue::Object{{"class", name(failure.failureClass)},
                           {"domain", failure.domain},
                           {"code", failure.code},
                           {"text", failure.text},
                           {"since", failure.since},
                           {"next", failure.next},
                           {"tries", static_cast<std::int64_t>(failure.tries)},
                           {"status", statusOf(failure)},
                           {"reason", reasonOf(failure.domain, failure.code)}};
}

/// The order in which a person wants to see pending items.
int rank(const ItemStatus& item) {
  switch (item.state) {
    case SyncState::refused:
      return 0;
    case SyncState::retrying:
      return 1;
    case SyncState::sending:
      return 2;
    default:
      return 3;
  }
}

JSONValue::Object pendingForm(const replica::Status& status, std::size_t limit) {
  std::vector<const ItemStatus*> items;
  items.reserve(status.pending.size());
  for (const auto& item : status.pending) {
    if (item.state != SyncState::localOnly) items.push_back(&item);
  }
  std::stable_sort(items.begin(), items.end(),
                   [](const ItemStatus* a, const ItemStatus* b) { return rank(*a) < rank(*b); });
  items.resize(std::min(items.size(), limit));
  JSONValue::Array forms;
  forms.reserve(items.size());
  for (const auto* item : items) forms.emplace_back(itemForm(*item));
  return {
      {"count", status.pendingCount}, {"bytes", status.pendingBytes}, {"items", std::move(forms)}};
}

JSONValue::Object countForm(std::int64_t files, std::int64_t bytes) {
  return {{"files", files}, {"bytes", bytes}};
}

}  // namespace

JSONValue::Object statusForm(const replica::Status& status, std::size_t limit) {
  JSONValue::Array conflicts;
  for (const auto& [path, theirs] : status.conflicts) {
    JSONValue::Object form;
    addPath(form, "path", path);
    if (!theirs.empty()) addPath(form, "theirs", theirs);
    conflicts.emplace_back(std::move(form));
  }
  JSONValue::Array partialFolders;
  for (const auto& path : status.partialFolders) {
    JSONValue::Object form;
    addPath(form, "path", path);
    partialFolders.emplace_back(std::move(form));
  }
  JSONValue::Object form;
  form.emplace_back("offline", status.offline);
  form.emplace_back("unanswered", status.unanswered);
  form.emplace_back(
      "silent", status.silence ? JSONValue(std::int64_t{status.silence->count()}) : JSONValue());
  form.emplace_back("held", status.held);
  form.emplace_back("heldReason",
                    status.heldBy ? JSONValue(reasonOf(*status.heldBy)) : JSONValue());
  form.emplace_back("items", status.itemCount);
  form.emplace_back("fetching", status.fetching);
  form.emplace_back("refusedPrograms", JSONValue::Object{{"count", status.refusedPrograms},
                                                         {"last", status.lastRefusedProgram}});
  form.emplace_back("watchedFolders", status.watchedFolders);
  form.emplace_back("refusedEntries", status.refusedEntries);
  form.emplace_back("partialListings", status.partialListings);
  form.emplace_back("partialFolders", std::move(partialFolders));
  form.emplace_back("pending", pendingForm(status, limit));
  form.emplace_back("conflicts", std::move(conflicts));
  form.emplace_back("cache", countForm(status.cachedFiles, status.cachedBytes));
  auto history = countForm(status.history.files, status.history.bytes);
  history.emplace_back("unconfirmed",
                       countForm(status.history.unconfirmedFiles, status.history.unconfirmedBytes));
  history.emplace_back("limit", status.historyLimit);
  history.emplace_back("full", status.isHistoryFull());
  form.emplace_back("history", std::move(history));
  return form;
}

JSONValue::Object itemForm(const ItemStatus& item) {
  JSONValue::Object form;
  addPath(form, "path", item.path);
  form.emplace_back("kind", item.kind == replica::ItemKind::folder ? "folder" : "file");
  form.emplace_back("state", replica::name(item.state));
  form.emplace_back("changes", item.changes);
  form.emplace_back("size", item.size);
  form.emplace_back("downloaded", item.downloaded);
  form.emplace_back("pinned", item.pinned);
  form.emplace_back("failure", item.failure ? failureForm(*item.failure) : JSONValue());
  return form;
}

JSONValue::Array transferForms(const std::vector<TransferStatus>& transfers) {
  JSONValue::Array forms;
  for (const auto& transfer : transfers) {
    if (transfer.httpMethod != "GET" && transfer.httpMethod != "PUT") continue;
    JSONValue::Object form;
    form.emplace_back("method", transfer.httpMethod);
    addPath(form, "path", urlPath(transfer.url));
    form.emplace_back("sent", transfer.bytesSent);
    form.emplace_back("expectedToSend", transfer.bytesExpectedToSend);
    form.emplace_back("received", transfer.bytesReceived);
    form.emplace_back("expectedToReceive", transfer.bytesExpectedToReceive);
    forms.emplace_back(std::move(form));
  }
  return forms;
}

std::string urlPath(std::string_view url) {
  if (const auto scheme = url.find("://"); scheme != std::string_view::npos) {
    url.remove_prefix(scheme + 3);
    const auto slash = url.find('/');
    if (slash == std::string_view::npos) return "/";
    url.remove_prefix(slash);
  }
  url = url.substr(0, url.find_first_of("?#"));
  return stringByRemovingPercentEncoding(url).value_or(std::string(url));
}

}  // namespace kestrowan::host
