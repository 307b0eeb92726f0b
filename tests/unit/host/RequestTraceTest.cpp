#include "host/RequestTrace.h"

#include <gtest/gtest.h>

#include "platform/foundation/NSError.h"

namespace kestrowan::host {
namespace {

TEST(RequestTrace, ARequestIsOneLine) {
  FinishedTransfer transfer{.httpMethod = "PUT",
                            .url = "https://127.0.0.1:8443/Home/a%20b.txt",
                            .httpStatus = 403,
                            .finishedAt = {},
                            .body = nullptr,
                            .duration = std::chrono::milliseconds(34),
                            .bytesSent = 12,
                            .bytesReceived = 5};
  EXPECT_EQ(traceLine(transfer), "http: PUT /Home/a b.txt: 403, 12 bytes sent, 5 received, 34 ms");
  transfer.httpStatus = 0;
  transfer.errorCode = NSURLErrorNetworkConnectionLost;
  transfer.url = "https://127.0.0.1:8443/Home/%1B%0A";
  EXPECT_EQ(traceLine(transfer),
            "http: PUT /Home/\\u001B\\n: no answer (NSURLErrorDomain -1005), 12 bytes sent, 5 "
            "received, 34 ms");
}

}  // namespace
}  // namespace kestrowan::host
