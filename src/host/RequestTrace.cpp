#include "host/RequestTrace.h"

#include "host/HostLog.h"
#include "host/StatusForm.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::host {

namespace {

std::string answerText(const FinishedTransfer& transfer) {
  std::string text = transfer.httpStatus == 0 ? "no answer" : std::to_string(transfer.httpStatus);
  if (transfer.errorCode != 0)
    text += " (NSURLErrorDomain " + std::to_string(transfer.errorCode) + ")";
  return text;
}

}  // namespace

std::string traceLine(const FinishedTransfer& transfer) {
  return "http: " + transfer.httpMethod + " " + escapedForDisplay(urlPath(transfer.url)) + ": " +
         answerText(transfer) + ", " + std::to_string(transfer.bytesSent) + " bytes sent, " +
         std::to_string(transfer.bytesReceived) + " received, " +
         std::to_string(transfer.duration.count()) + " ms";
}

void traceRequests() {
  FinishedTransfers::shared().setObserver(
      [](const FinishedTransfer& transfer) { hostLog(traceLine(transfer)); });
}

}  // namespace kestrowan::host
